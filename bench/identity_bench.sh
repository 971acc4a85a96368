#!/usr/bin/env bash
# IdentityCreateWithPath (through `gatewise identity`) beside md5sum over the same bytes: a tree of
# large files (about 1 GiB in all) and a tree of many small files. Both are read from the page
# cache (each tree is read once before timing), so the comparison is of hashing and walking, not
# of the disk. Goal: at least 0.9x md5sum's throughput on large files and 0.7x on small ones.
# Usage: identity_bench.sh [BUILD]   (BENCH_LARGE_MB, BENCH_SMALL_FILES override the sizes)
set -euo pipefail
build="${1:-build}"
gatewise="$build/bin/gatewise"
large_mb="${BENCH_LARGE_MB:-1024}"
small_files="${BENCH_SMALL_FILES:-30000}"
[ -x "$gatewise" ] || { echo "identity_bench: $gatewise not built" >&2; exit 1; }
work="$(mktemp -d "${TMPDIR:-/tmp}/gatewise-identity-bench-XXXXXX")"
trap 'rm -rf "$work"' EXIT

now() { date +%s.%N; }
# Seconds taken by a command, best of three runs.
best_of_three() {
  local best="" start end took
  for _ in 1 2 3; do
    start="$(now)"
    "$@" >/dev/null
    end="$(now)"
    took="$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f", b - a }')"
    if [ -z "$best" ] || awk -v t="$took" -v b="$best" 'BEGIN { exit !(t < b) }'; then best="$took"; fi
  done
  echo "$best"
}
md5sum_tree() { find "$1" -type f -print0 | xargs -0 md5sum; }
report() {  # name bytes identity-seconds md5sum-seconds goal
  awk -v n="$1" -v bytes="$2" -v ti="$3" -v tm="$4" -v goal="$5" 'BEGIN {
    mb = bytes / 1048576; ri = mb / ti; rm = mb / tm; ratio = ri / rm;
    printf "%-12s %8.1f MB  identity %8.1f MB/s  md5sum %8.1f MB/s  ratio %.2f (goal %.1f) %s\n",
      n, mb, ri, rm, ratio, goal, (ratio >= goal ? "ok" : "BELOW GOAL") }'
}

# Large files: eight of large_mb / 8 MiB each.
mkdir -p "$work/large/Contents"
for i in 1 2 3 4 5 6 7 8; do
  head -c "$((large_mb * 1048576 / 8))" /dev/urandom >"$work/large/Contents/part$i.bin"
done
# Small files: 4 KiB each, 100 per folder.
mkdir -p "$work/small"
for ((d = 0; d * 100 < small_files; d++)); do
  mkdir "$work/small/d$d"
  head -c $((4096 * 100)) /dev/urandom | (cd "$work/small/d$d" && split -b 4096 -a 3 - f)
done

for tree in large small; do
  bytes="$(du -sb --apparent-size "$work/$tree" | cut -f1)"
  md5sum_tree "$work/$tree" >/dev/null  # warm the page cache
  t_identity="$(best_of_three "$gatewise" identity "$work/$tree")"
  t_md5sum="$(best_of_three md5sum_tree "$work/$tree")"
  goal=0.9
  [ "$tree" = small ] && goal=0.7
  report "$tree" "$bytes" "$t_identity" "$t_md5sum" "$goal"
done
