# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
section "Status items: a keyed archive of two items, as the daemon would send them"
items="$root/status-items.archive"
run status-items archive "$items" --item computer,Computer,-,298 \
  --item application,Chess,curfew,-5
run status-items --archive "$items"

test_daemon="$(dirname "$stage")/bin/gatewise-test-daemon"
if [ -x "$test_daemon" ]; then
  section "The same items fetched from a daemon (_GWMIGGetStatusItems)"
  "$test_daemon" --data "_GWMIGGetStatusItems=@$items" >/dev/null &
  daemon_pid=$!
  for _ in $(seq 50); do
    [ -S "$root/run/gatewise/bootstrap/com.morvane.gatewise" ] && break
    sleep 0.1
  done
  run status-items || true
  kill "$daemon_pid"
  wait "$daemon_pid" 2>/dev/null || true
  section "Without a daemon there is nothing to ask (exit 1)"
  run status-items || true
else
  printf '(gatewise-test-daemon not built: skipping the daemon half)\n'
fi
