# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
# A managed user's time limits live in their time-limits preference file; `limits set` is its
# editor. Notifications go to a bus address inside the root, so the demo reaches nobody outside.
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$root/run/no-system-bus"
section "Time limits of a managed user: the computer and the games group"
limits_curfews="$root/tmp/limits-curfews.plist"
mkdir -p "$root/tmp"
printf '$ gatewise curfews set-weekday 21:00:00 07:00:00 > limits-curfews.plist\n'
"$gatewise" curfews --locale en_GB set-weekday 21:00:00 07:00:00 > "$limits_curfews"
run limits set emma computer --enable --weekday-allowance 7200 --weekend-allowance 14400 \
  --curfews "$limits_curfews"
run limits set emma games --enable --weekday-allowance 1800
run limits list emma
run limits describe emma __COMPUTER__
run limits describe emma __GAMES__
run limits show emma __GAMES__
printf '# Removing the games group'"'"'s work-day allowance leaves it without a schedule.\n'
run limits set emma games --weekday-allowance none
run limits describe emma __GAMES__
run limits set emma no-such-item --enable || true

section "Extra time for today: overrides"
# The daemon's per-user folders live here; the daemon creates the parent when it is installed.
mkdir -p "$root/Library/Application Support/Morvane/Tutela/Users"
run overrides extend emma __COMPUTER__ 1800
run overrides extend emma __COMPUTER__ 900
run overrides total emma __COMPUTER__
run overrides expire emma __COMPUTER__
run overrides total emma __COMPUTER__
run overrides total emma __COMPUTER__ --include-expired
run overrides extend emma __COMPUTER__ -1
run overrides total emma __COMPUTER__
unset DBUS_SYSTEM_BUS_ADDRESS
