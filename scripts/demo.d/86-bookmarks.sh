# Sourced by scripts/demo.sh: $gatewise, $stage, $root, section() and run() are set.
#
# A managed child's allowed sites shown as her browser's bookmarks: the administrator's flat list
# becomes a bookmark folder, stored as "siteWhitelist" in her managed browser preference, and the
# root-only writer puts it into her own bookmark file. Ada exists only in this root (nss_wrapper).
section "bookmarks: a managed user's allowed sites as her bookmarks"
bm="$root/bookmarks-demo"
mkdir -p "$bm"
cat >"$bm/sites.plist" <<'PLIST'
<plist version="1.0"><array>
<dict><key>pageTitle</key><string>Encyclopedia</string><key>address</key><string>https://encyclopedia.example/</string><key>bookmarkPath</key><string>/</string></dict>
<dict><key>pageTitle</key><string>Times tables</string><key>address</key><string>https://maths.example/tables?level=2&amp;lang=en</string><key>bookmarkPath</key><string>/School/</string></dict>
<dict><key>pageTitle</key><string>Chess</string><key>address</key><string>https://chess.example/</string><key>bookmarkPath</key><string>/Games/</string></dict>
</array></plist>
PLIST
printf '(The editor turns the flat list of allowed sites into a bookmark folder)\n'
printf '$ gatewise bookmarks from-flat sites.plist\n'
"$gatewise" bookmarks from-flat "$bm/sites.plist" >"$bm/folder.plist"
grep -c '<key>WebBookmarkUUID</key>' "$bm/folder.plist" | sed 's/^/  nodes made: /'

# The managed preference of the browser: {"siteWhitelist": <the folder>}.
prefs="$root/Library/Managed Preferences/ada"
mkdir -p "$prefs"
{
  printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">\n<dict>\n<key>siteWhitelist</key>\n'
  sed -e '1,3d' -e '$d' "$bm/folder.plist"
  printf '</dict>\n</plist>\n'
} >"$prefs/com.morvane.Lumeway.plist"

nss_lib=$(ls /usr/lib/*/libnss_wrapper.so 2>/dev/null | head -n 1 || true)
if [ "$(id -u)" = 0 ] && [ -n "$nss_lib" ]; then
  printf 'root:x:0:0:root:/root:/bin/sh\nada:x:4311:4311:Ada:%s/home/ada:/bin/sh\n' "$root" >"$bm/passwd"
  printf 'root:x:0:\nada:x:4311:\n' >"$bm/group"
  mkdir -p "$root/home/ada/Library"
  chown -R 4311:4311 "$root/home/ada"
  chmod 700 "$root/home/ada/Library"
  as_ada_db() {
    env LD_PRELOAD="$nss_lib" NSS_WRAPPER_PASSWD="$bm/passwd" NSS_WRAPPER_GROUP="$bm/group" \
      DBUS_SYSTEM_BUS_ADDRESS="unix:path=$root/no-bus" ASAN_OPTIONS=verify_asan_link_order=0 "$@"
  }
  printf '(As root, the writer puts the folder into Ada'"'"'s own bookmark file)\n'
  printf '$ gatewise bookmarks write ada\n'
  as_ada_db "$gatewise" bookmarks write ada || true
  file="$root/home/ada/Library/Lumeway/Bookmarks.plist"
  stat -c '  %n: mode %a, owner %u:%g' "$file" | sed "s|$root||"
  printf '(What her browser shows, as a flat list of the whole file)\n'
  printf '$ gatewise bookmarks flat Bookmarks.plist --all\n'
  "$gatewise" bookmarks flat "$file" --all | grep -A1 -E '<key>(pageTitle|bookmarkPath)</key>' |
    grep '<string>' | sed -e 's/^[[:space:]]*<string>//' -e 's|</string>$||' | paste - - |
    awk -F'\t' '{ printf "  %-16s %s\n", $2, $1 }'
else
  printf '(the writer changes owners: run the demo as root, with nss_wrapper, to see it write)\n'
fi
