# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
section "The login gate: without a daemon, login is never blocked (reason 4)"
run daemon-status || true
run can-login 501 || true

# The test daemon is built beside the CLI (build/bin); the stage lives in build/stage.
test_daemon="$(dirname "$stage")/bin/gatewise-test-daemon"
if [ -x "$test_daemon" ]; then
  section "Against a daemon that refuses uid 501 for the next 15 minutes (reason 2)"
  "$test_daemon" --answer _GWMIGUserCanLogin=900,2 >/dev/null &
  daemon_pid=$!
  for _ in $(seq 50); do
    [ -S "$root/run/gatewise/bootstrap/com.morvane.gatewise" ] && break
    sleep 0.1
  done
  run daemon-status || true
  run can-login 501 || true
  run ipc call _GWMIGUserCanLogin 501 || true
  run fcd read-overrides 501 || true
  kill "$daemon_pid"
  wait "$daemon_pid" 2>/dev/null || true
else
  printf '(gatewise-test-daemon not built: skipping the daemon half)\n'
fi
