# Sourced by scripts/demo.sh after 70-daemon.sh: the administrator lists what the household did.
# tutelad starts again on the same system root and database; Mia logs in and out, and then root
# reads the events the daemon recorded (refused logins, the end of Leo's time, the override, the
# sessions) with `gatewise events`, which asks the running daemon.
if [ -z "${tutelad_pid:-}" ]; then
  section "recorded events (skipped: needs the daemon piece)"
  return 0
fi

section "tutelad: the household's recorded events"
env "${household_env[@]}" "$tutelad" --root "$root" --foreground --log-level 1 \
  >>"$root/tutelad.log" 2>&1 &
tutelad_pid=$!
for _ in $(seq 50); do
  [ -S "$root/run/gatewise/bootstrap/com.morvane.gatewise" ] && break
  sleep 0.1
done
clock "2026-01-05 21:45:00"
logged_in leo mia
sleep 0.3
clock "2026-01-05 21:52:00"
logged_in leo
sleep 0.3
grun events leo
grun events mia
grun events mia --entity Login --since 2026-01-05T21:00 --limit 5
printf '(Bad input: exit 2 with one line)\n'
grun events mia --entity Bedtime
grun events mia --limit 100000

kill "$tutelad_pid"
wait "$tutelad_pid" 2>/dev/null || true
