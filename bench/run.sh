#!/usr/bin/env bash
# Runs every benchmark of bench/ against the build folder given (default: build).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-build}"
for script in "$here"/*_bench.sh; do
  [ -e "$script" ] || continue
  echo "== $(basename "$script")"
  "$script" "$build"
done
for binary in "$build"/bench/*_bench; do
  [ -x "$binary" ] || continue
  echo "== $(basename "$binary")"
  "$binary"
done
