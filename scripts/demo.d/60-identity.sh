# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
section "Executable identity: a digest that survives renames and prebinding, not edits"
bundle="$root/Applications/Sample.app"
mkdir -p "$bundle/Contents/MacOS" "$bundle/Contents/Resources"
printf '<plist version="1.0"><dict/></plist>\n' >"$bundle/Contents/Info.plist"
printf '#!/bin/sh\necho sample\n' >"$bundle/Contents/MacOS/Sample"
ln -s MacOS/Sample "$bundle/Contents/launcher"
run identity "$bundle"
mv "$bundle" "$root/Applications/Renamed.app"
bundle="$root/Applications/Renamed.app"
chmod 0700 "$bundle/Contents/MacOS/Sample"
printf '# renamed and chmod-ed: same identity\n'
run identity "$bundle"
printf 'more\n' >"$bundle/Contents/Resources/extra.txt"
printf '# a file added inside: another identity\n'
run identity "$bundle"
printf '# ... unless that file is excluded\n'
run identity "$bundle" --exclude Contents/Resources/extra.txt

section "Mach-O: a minimal big-endian header (PowerPC executable, no load commands)"
# magic FEEDFACE, cputype 18, subtype 0, filetype 2, 0 commands, 0 bytes, flags 4 (dynamically linked)
printf '\xfe\xed\xfa\xce\x00\x00\x00\x12\x00\x00\x00\x00\x00\x00\x00\x02\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x04' \
  >"$root/tiny-ppc"
run macho info "$root/tiny-ppc"
printf '# never prebound: unprebind answers 2 and writes nothing\n'
run unprebind "$root/tiny-ppc" "$root/tiny-ppc.out" || printf '(exit status %d)\n' "$?"
