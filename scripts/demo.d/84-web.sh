# Sourced by scripts/demo.sh: $gatewise, $stage, $root, section() and run() are set.
#
# The content filter for Mia: an administrator's allow and deny lists decide first, by URL
# beginning; pages on neither list go to the web-filter service, here gatewise-webfilter scoring
# pages with its default word list.
webfilter="$stage/bin/gatewise-webfilter"
words="$stage/share/gatewise/webfilter/words.txt"
if [ ! -x "$webfilter" ] || [ ! -r "$words" ]; then
  section "web content filter (skipped: gatewise-webfilter is not installed)"
  return 0
fi

section "web: allow and deny lists first, then the filter service"
mkdir -p "$root/Library/Managed Preferences/mia"
cat >"$root/Library/Managed Preferences/mia/com.morvane.gatewise.contentfilter.plist" <<'PLIST'
<plist version="1.0"><dict>
  <key>restrictWeb</key><true/>
  <key>useContentFilter</key><true/>
  <key>filterWhitelist</key><array><string>https://school.example/</string></array>
  <key>filterBlacklist</key><array><string>https://games.example</string></array>
</dict></plist>
PLIST
printf '(Mia'"'"'s browser is filtered, not limited to a white list)\n'
run web restricted mia || true

"$webfilter" --words "$words" >"$root/webfilter.log" 2>&1 &
webfilter_pid=$!
for _ in $(seq 50); do
  [ -S "$root/run/gatewise/bootstrap/com.morvane.webfilter" ] && break
  sleep 0.1
done

printf '(On the deny list, whatever the page says; the filter'"'"'s trace goes to standard error)\n'
run web check "https://GAMES.example/arcade" --user mia 2>/dev/null || true

printf '(On neither list: the filter service scores the page from its word list)\n'
cat >"$root/page.html" <<'HTML'
<html><head><title>Lucky night</title></head>
<body><h1>Online casino</h1><p>Play poker and win the jackpot at our casino tonight.</p></body></html>
HTML
run web check "https://news.example/lucky" --user mia --content "$root/page.html" 2>/dev/null || true

printf '(A page about homework passes)\n'
printf '<html><body>Homework help: fractions and the encyclopedia of animals.</body></html>\n' \
  >"$root/homework.html"
run web check "https://help.example/maths" --user mia --content "$root/homework.html" \
  2>/dev/null || true

kill "$webfilter_pid"
wait "$webfilter_pid" 2>/dev/null || true
