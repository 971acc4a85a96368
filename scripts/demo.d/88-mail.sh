# Sourced by scripts/demo.sh: forced preferences edited key by key, and a contact added to a
# child's mail white list through tutelad (with the household of 70-daemon.sh when it ran).
section "Forced preferences, key by key"
# The change notification goes to no bus at all: the demo never talks to the real machine.
frun() { printf '$ gatewise %s\n' "$*"; DBUS_SYSTEM_BUS_ADDRESS="unix:path=$root/no-bus" "$gatewise" "$@"; }
frun forced set mia com.morvane.gatewise.contentfilter restrictWeb true
frun forced set mia com.morvane.gatewise.contentfilter siteWhiteListName "School sites"
frun forced show mia com.morvane.gatewise.contentfilter
frun forced remove mia com.morvane.gatewise.contentfilter siteWhiteListName
frun forced get mia com.morvane.gatewise.contentfilter restrictWeb

if [ -z "${household_env+x}" ] || [ "$(id -u)" != 0 ]; then
  section "Mail white list (skipped: needs the household of 70-daemon.sh and root)"
  return 0
fi
section "Mail white list: kept by tutelad, published to the mail program"
env "${household_env[@]}" "$tutelad" --root "$root" --foreground --log-level 1 \
  >"$root/tutelad-mail.log" 2>&1 &
mail_pid=$!
for _ in $(seq 50); do
  [ -S "$root/run/gatewise/bootstrap/com.morvane.gatewise" ] && break
  sleep 0.1
done
grun mail add mia grandma@example.org teacher@school.example
published="$root/Library/Managed Preferences/mia/com.morvane.gatewise.mail.plist"
for _ in $(seq 50); do [ -e "$published" ] && break; sleep 0.1; done
grun forced get mia com.morvane.gatewise.mail whiteList
printf '(the daemon'"'"'s own record, out of Mia'"'"'s reach)\n'
users="Library/Application Support/Morvane/Tutela/Users"
printf '%s %s\n' "$(stat -c '%A %U' "$root/$users/4301")" "$users/4301"
kill "$mail_pid"
wait "$mail_pid" 2>/dev/null || true
