# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
section "A sample user's week: curfews on school nights and at weekends"
week_file="$root/tmp/curfews-weekday.plist"
curfews_file="$root/tmp/curfews.plist"
mkdir -p "$root/tmp"
# The editing commands print the new curfews as XML; keep them in files for the queries below.
printf '# School nights: no computer from 21:00 to 07:00.\n'
printf '$ gatewise curfews --locale en_GB set-weekday 21:00:00 07:00:00 > curfews-weekday.plist\n'
"$gatewise" curfews --locale en_GB set-weekday 21:00:00 07:00:00 > "$week_file"
printf '# Weekends: a later evening, 23:00 to 09:00.\n'
printf '$ gatewise curfews --locale en_GB set-weekend 23:00:00 09:00:00 --curfews curfews-weekday.plist > curfews.plist\n'
"$gatewise" curfews --locale en_GB set-weekend 23:00:00 09:00:00 --curfews "$week_file" \
  > "$curfews_file"
run curfews --locale en_GB weekday-times --curfews "$curfews_file"
run curfews --locale en_GB weekend-times --curfews "$curfews_file"

section "When the next curfew starts and when the computer is free again (TZ=${TZ:-system})"
run curfews next-curfew --curfews "$curfews_file"
run curfews next-free --curfews "$curfews_file"
run curfews is-curfewed --curfews "$curfews_file" || true
tonight="$(date +%F) 22:00:00"
run curfews is-curfewed --curfews "$curfews_file" --at "$tonight" || true
run curfews next-free --curfews "$curfews_file" --at "$tonight"

section "The work week follows the locale"
run week --locale en_US
run week --locale he_IL

section "Duration texts"
run duration 90061
run duration --short --with-seconds 3725
