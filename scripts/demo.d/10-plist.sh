# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
# Property lists, the common currency of Gatewise: a managed user's settings-like dictionary goes
# from XML to binary and back, then its description text is printed.
section "Property lists: a sample of a managed user's settings, XML -> binary -> XML"
plist_dir="$root/tmp/demo-plist"
mkdir -p "$plist_dir"
pushd "$plist_dir" >/dev/null
cat > settings.plist <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>name</key>
	<string>kim</string>
	<key>enabled</key>
	<true/>
	<key>allowancesActive</key>
	<true/>
	<key>allowances</key>
	<array>
		<dict>
			<key>name</key>
			<string>Computer</string>
			<key>weekdaySeconds</key>
			<integer>5400</integer>
			<key>weekendSeconds</key>
			<integer>10800</integer>
		</dict>
	</array>
	<key>appList</key>
	<array>
		<dict>
			<key>bundleID</key>
			<string>org.example.Paint</string>
			<key>path</key>
			<string>/Applications/Paint.app</string>
		</dict>
	</array>
	<key>timeLastUpdated</key>
	<date>2026-11-23T08:00:00Z</date>
	<key>signature</key>
	<data>3q2+7w==</data>
	<key>ratio</key>
	<real>0.75</real>
</dict>
</plist>
PLIST
run plist convert --format binary "settings.plist" "settings.bplist"
printf 'settings.plist: %s bytes of XML; settings.bplist: %s bytes, starting "%s"\n' \
  "$(wc -c < "settings.plist")" "$(wc -c < "settings.bplist")" \
  "$(head -c 8 "settings.bplist")"
run plist convert --format xml "settings.bplist" -
run plist print "settings.bplist"
printf 'A file that is not a property list is refused, and no output file appears:\n'
printf 'not a plist' > "broken.plist"
run plist convert --format xml "broken.plist" "never.plist" || \
  printf '(exit status %s; never.plist exists: %s)\n' "$?" \
    "$([ -e "never.plist" ] && echo yes || echo no)"

section "The log: one line through GWFrameworkLog, copied to standard error"
run --log-stderr log 0 GWDemoConvert 42 "converted settings.plist: 100% of it"
run --log-stderr log 2 GWDemoConvert 43 "a trace line, above the default threshold 0: not written"
run --log-stderr --log-level 2 log 2 GWDemoConvert 44 "the same trace line with --log-level 2"
popd >/dev/null
