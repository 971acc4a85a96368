# Sourced by scripts/demo.sh: $gatewise, $stage, $root, section() and run() are set.
#
# tutelad in the demo's system root with a household of two managed children that exist only in
# this root: users from nss_wrapper (uids 4301 and 4302, unknown to the real machine), sessions from
# <root>/run/utmp, a wall clock frozen by libfaketime in a file this script rewrites. It cannot
# touch the real machine: no system bus is reachable (logind is never asked), the end action is
# "none", and the users it would act on have no processes.
tutelad="$stage/sbin/tutelad"
faketime_lib=/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1
nss_wrapper_lib=$(ls /usr/lib/*/libnss_wrapper.so 2>/dev/null | head -n 1 || true)
if [ ! -x "$tutelad" ] || [ ! -r "$faketime_lib" ] || [ -z "$nss_wrapper_lib" ]; then
  section "tutelad (skipped: needs tutelad, libfaketime and nss_wrapper)"
  return 0
fi

section "tutelad: a household of two, with a moved clock"
chmod 755 "$root"
mkdir -p "$root/etc" "$root/run" "$root/Library/Preferences"
printf 'root:x:0:0:root:/root:/bin/sh\nmia:x:4301:4301:Mia:/home/mia:/bin/sh\nleo:x:4302:4302:Leo:/home/leo:/bin/sh\n' >"$root/etc/passwd"
printf 'root:x:0:\nmia:x:4301:\nleo:x:4302:\n' >"$root/etc/group"
cat >"$root/Library/Preferences/com.morvane.Gatewise.plist" <<'PLIST'
<plist version="1.0"><dict><key>endAction</key><string>none</string></dict></plist>
PLIST

household_env=(LD_PRELOAD="$nss_wrapper_lib $faketime_lib" NSS_WRAPPER_PASSWD="$root/etc/passwd"
  NSS_WRAPPER_GROUP="$root/etc/group" FAKETIME_TIMESTAMP_FILE="$root/faketime"
  FAKETIME_NO_CACHE=1 DONT_FAKE_MONOTONIC=1 TZ=Europe/Berlin
  DBUS_SYSTEM_BUS_ADDRESS="unix:path=$root/no-bus" ASAN_OPTIONS=verify_asan_link_order=0)
in_household() { env "${household_env[@]}" "$@"; }
grun() { printf '$ gatewise %s\n' "$*"; in_household "$gatewise" "$@" || true; }
clock() { printf '%s\n' "$1" >"$root/faketime.new" && mv "$root/faketime.new" "$root/faketime"; printf -- '-- the clock now shows %s (Europe/Berlin)\n' "$1"; }
# Who is logged in: one utmp record per name (the layout of glibc's struct utmp on 64-bit Linux).
logged_in() {
  python3 - "$root/run/utmp" "$@" <<'PY'
import os, struct, sys
path, names = sys.argv[1], sys.argv[2:]
with open(path + ".new", "wb") as f:
    for i, name in enumerate(names, 1):
        f.write(struct.pack("@hi32s4s32s256shhiii4i20s", 7, 20000 + i, b"tty%d" % i, b"t%d" % i,
                            name.encode(), b"", 0, 0, 0, 0, 0, 0, 0, 0, 0, b""))
os.replace(path + ".new", path)
PY
  printf -- '-- logged in: %s\n' "${*:-nobody}"
}

# Mia: a curfew every night from 21:00 to 07:00. Leo: an hour a day.
curfews="$root/curfews.plist"
{
  printf '<plist version="1.0"><dict>'
  for day in sunday monday tuesday wednesday thursday friday saturday; do
    printf '<key>%s</key><array>' "$day"
    printf '<dict><key>start</key><string>00:00:00</string><key>end</key><string>07:00:00</string></dict>'
    printf '<dict><key>start</key><string>21:00:00</string><key>end</key><string>23:59:59</string></dict>'
    printf '</array>'
  done
  printf '</dict></plist>\n'
} >"$curfews"
clock "2026-01-05 20:40:00"
grun limits set mia computer --enable --curfews "$curfews"
grun limits set leo computer --enable --weekday-allowance 3600 --weekend-allowance 3600
logged_in leo
env "${household_env[@]}" "$tutelad" --root "$root" --foreground --log-level 1 \
  >"$root/tutelad.log" 2>&1 &
tutelad_pid=$!
for _ in $(seq 50); do
  [ -S "$root/run/gatewise/bootstrap/com.morvane.gatewise" ] && break
  sleep 0.1
done
grun can-login mia
grun usage leo

clock "2026-01-05 21:05:00"
printf '(Mia is refused: a curfew is in force, reason 1, until 07:00)\n'
grun can-login mia

clock "2026-01-05 21:36:00"
if [ "$(id -u)" = 0 ] && command -v setpriv >/dev/null; then
  printf '(Leo, logged in since 20:40, asks for his status items)\n'
  printf '$ gatewise status-items   # as leo\n'
  setpriv --reuid 4302 --regid 4302 --clear-groups env "${household_env[@]}" "$gatewise" \
    status-items || true
else
  printf '(status items are answered to their own user: run the demo as root to see Leo'"'"'s)\n'
fi
grun usage leo

clock "2026-01-05 21:40:05"
printf '(Leo'"'"'s hour is used up: reason 2, until midnight; the daemon acts with endAction "none")\n'
grun can-login leo
grep -h "is over" "$root/tutelad.log" || true

printf '(An administrator grants Leo half an hour and has the daemon reread his overrides)\n'
grun overrides extend leo __COMPUTER__ 1800
grun fcd read-overrides leo
grun can-login leo

kill "$tutelad_pid"
wait "$tutelad_pid" 2>/dev/null || true
