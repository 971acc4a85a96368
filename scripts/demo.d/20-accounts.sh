# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
# Managed users are the local directory records whose settings attribute is a property list;
# their managed preference files decide which domains are in force.
section "Managed users and the domains in force for each"

demo_record() {  # name, real name, settings text ("" for none)
  local folder="$root/var/lib/gatewise/directory/users"
  mkdir -p "$folder"
  {
    printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0"><dict>\n'
    printf '<key>name</key><array><string>%s</string></array>\n' "$1"
    printf '<key>dsAttrTypeStandard:RealName</key><array><string>%s</string></array>\n' "$2"
    if [ -n "$3" ]; then
      printf '<key>dsAttrTypeStandard:QRMSettings</key><array><string>%s</string></array>\n' "$3"
    fi
    printf '</dict></plist>\n'
  } > "$folder/$1.plist"
}

demo_pref() {  # user, domain, dictionary body
  local folder="$root/Library/Managed Preferences/$1"
  mkdir -p "$folder"
  printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0"><dict>%s</dict></plist>\n' \
    "$3" > "$folder/$2.plist"
}

settings='&lt;?xml version="1.0" encoding="UTF-8"?&gt;&lt;plist version="1.0"&gt;&lt;dict/&gt;&lt;/plist&gt;'
demo_record emma "Emma Example" "$settings"
demo_record leo "Leo Example" "$settings"
demo_record admin "Administrator" ""
demo_pref emma com.morvane.gatewise.timelimits '<key>enabled</key><true/>'
demo_pref emma com.morvane.gatewise.contentfilter '<key>whiteList</key><array/>'
demo_pref emma com.morvane.vistrel '<key>whiteListEnabled</key><false/>'
demo_pref emma complete ''
demo_pref leo com.morvane.applicationaccess.new '<key>gatewiseEnabled</key><true/>'
demo_pref leo com.morvane.Lumeway ''

run users
for user in emma leo; do
  run domains "$user"
done
run requires-daemon com.morvane.Lumeway || true
run requires-daemon org.example.other || true
run uid nobody-here || true
