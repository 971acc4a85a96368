#!/usr/bin/env bash
# Runs every libFuzzer target built in BUILD/fuzz for a short time, each on a scratch copy of its
# seeds in fuzz/corpus/<target>/ (the checked-in seeds are never modified).
# Usage: fuzz/run.sh [BUILD_DIR]   (default build-fuzz; FUZZ_SECONDS=N per target, default 20)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-build-fuzz}"
seconds="${FUZZ_SECONDS:-20}"
ran=0
for target in "$build"/fuzz/*_fuzz; do
  [ -x "$target" ] || continue
  name="$(basename "$target")"
  target="$(cd "$(dirname "$target")" && pwd)/$name"
  work="$(mktemp -d "/tmp/gatewise-$name-XXXXXX")"
  if [ -d "$here/corpus/$name" ]; then cp -R "$here/corpus/$name/." "$work/"; fi
  echo "== $name: ${seconds}s"
  status=0
  (cd "$work" && "$target" -max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=1 \
    -artifact_prefix="$work/" "$work") > "$work.log" 2>&1 || status=$?
  grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units)' "$work.log" || true
  if [ "$status" -ne 0 ]; then
    tail -40 "$work.log"
    echo "fuzz: $name failed (exit $status); reproducer and log kept in $work and $work.log" >&2
    exit 1
  fi
  rm -rf "$work" "$work.log"
  ran=$((ran + 1))
done
[ "$ran" -gt 0 ] || { echo "fuzz: no targets built in $build/fuzz" >&2; exit 1; }
echo "fuzz: $ran target(s) ran without a failure"
