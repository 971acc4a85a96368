#!/usr/bin/env bash
# Shows what Gatewise does on a built-in sample, in a temporary system root that is removed after.
# Usage: scripts/demo.sh STAGE   (STAGE: the prefix `make demo` installed into)
set -euo pipefail
stage="$(cd "${1:?usage: demo.sh STAGE}" && pwd)"
gatewise="$stage/bin/gatewise"
root="$(mktemp -d /tmp/gatewise-demo-XXXXXX)"
trap 'rm -rf "$root"' EXIT
export GATEWISE_ROOT="$root"

section() { printf '\n== %s\n' "$*"; }
run() { printf '$ gatewise %s\n' "$*"; "$gatewise" "$@"; }

section "Gatewise demo in the temporary system root $root"

# Each piece of the demo is a script of its own in scripts/demo.d, run in name order.
for piece in "$(dirname "$0")"/demo.d/*.sh; do
  [ -e "$piece" ] || continue
  # shellcheck source=/dev/null
  source "$piece"
done
printf '\nDone. The temporary system root is removed again.\n'
