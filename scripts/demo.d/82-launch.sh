# Sourced by scripts/demo.sh after 70-daemon.sh, whose household (mia 4301, leo 4302, nss_wrapper,
# the frozen clock) it reuses. Mia gets a white list of one program; tutelad answers the launch
# questions that root asks on her behalf (the first integer of the question names her uid).
if [ -z "${household_env+x}" ] || [ ! -x "${tutelad:-}" ] || [ "$(id -u)" != 0 ]; then
  section "launch checks (skipped: needs the household of 70-daemon.sh, run as root)"
  return 0
fi

section "launch checks: Mia may start the text editor and nothing else"
cat >"$root/Library/Managed Preferences/mia/com.morvane.applicationaccess.new.plist" <<'PLIST'
<plist version="1.0"><dict><key>gatewiseEnabled</key><true/><key>whiteList</key><array>
<dict><key>path</key><string>/usr/bin/gedit</string><key>displayName</key><string>Text Editor</string></dict>
</array></dict></plist>
PLIST
grun launch-restrictions mia
grun launch-restrictions leo

env "${household_env[@]}" "$tutelad" --root "$root" --foreground --log-level 1 \
  >"$root/tutelad-launch.log" 2>&1 &
launch_tutelad_pid=$!
for _ in $(seq 50); do
  [ -S "$root/run/gatewise/bootstrap/com.morvane.gatewise" ] && break
  sleep 0.1
done
printf '(reasons: 1 white-listed, 3 not on the white list, 10 a system tool that is always allowed)\n'
grun launch-check /usr/bin/gedit --first 4301
grun launch-check /usr/games/tetris --first 4301
grun launch-check /usr/bin/systemctl --first 4301
grun launch-check /usr/games/tetris --first 4302
kill "$launch_tutelad_pid"
wait "$launch_tutelad_pid" 2>/dev/null || true
printf '(with the daemon gone, the launch is allowed: reason 8)\n'
grun launch-check /usr/games/tetris --first 4301
