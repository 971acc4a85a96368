# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
: "${root:?the demo sets root}"
section "Applications: installed programs, records, nested executables and widgets"
# In a subshell, so that the settings below do not reach the later pieces.
(
export XDG_DATA_HOME="$root/home/mia/.local/share" XDG_DATA_DIRS=/usr/share LANGUAGE=de PATH=/usr/bin:/bin
mkdir -p "$root/usr/bin" "$root/usr/share/applications"
cp /bin/true "$root/usr/bin/notes"
printf '[Desktop Entry]\nType=Application\nName=Notes\nName[de]=Notizen\nExec=notes %%F\n' \
  >"$root/usr/share/applications/org.example.Notes.desktop"
printf '[Desktop Entry]\nType=Application\nName=Broken\n' >"$root/usr/share/applications/broken.desktop"
suite="$root/Applications/Suite.app"
mkdir -p "$suite/Contents/MacOS" "$suite/Contents/Helpers/Agent.app/Contents/MacOS"
cat >"$suite/Contents/Info.plist" <<'PLIST'
<plist version="1.0"><dict><key>CFBundleIdentifier</key><string>org.example.suite</string>
<key>CFBundleName</key><string>Suite</string><key>CFBundleExecutable</key><string>Suite</string></dict></plist>
PLIST
for program in MacOS/Suite Helpers/convert Helpers/Agent.app/Contents/MacOS/Agent; do
  cp /bin/true "$suite/Contents/$program"
done
printf '# desktop entries (localized names) and bundles; the entry without Exec is skipped\n'
run apps list
printf '# nested executables: the bundle'"'"'s own one is left out\n'
run apps nested "$suite"
run apps record "$suite"
printf '# a bare program gets substitute identifiers\n'
run bundle-info "$root/usr/bin/notes"

mkdir -p "$root/Library/Widgets/Clock.wdgt"
printf '<plist version="1.0"><dict><key>CFBundleIdentifier</key><string>org.example.clock</string><key>CFBundleName</key><string>Clock</string></dict></plist>\n' \
  >"$root/Library/Widgets/Clock.wdgt/Info.plist"
run widgets list
mv "$root/Library/Widgets/Clock.wdgt" "$root/Library/Widgets/Uhr.wdgt"
printf 'any\n' >"$root/Library/Widgets/Uhr.wdgt/identity"
printf '# renamed, with an identity file: the same identifier\n'
run widgets id "$root/Library/Widgets/Uhr.wdgt"
)
