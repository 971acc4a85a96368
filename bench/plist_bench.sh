#!/usr/bin/env bash
# Property-list throughput: our codec beside python3's plistlib, and beside libplist's parsers when
# the driver was built with them, on the same generated ~20 MB XML and binary files, in one run;
# then whole processes: `gatewise plist convert` beside `plistutil` on the same files (CPU time and
# peak resident memory from /usr/bin/time). Every goal is printed beside its figure, MET or NOT MET.
# Usage: bench/plist_bench.sh [BUILD_DIR]   (BENCH_REPEAT=N runs: the best is kept; default 3)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-build}"
repeat="${BENCH_REPEAT:-3}"
driver="$build/bench/plist_throughput"
cli="$build/bin/gatewise"
[ -x "$driver" ] || { echo "plist_bench: $driver is not built (cmake --build $build)" >&2; exit 1; }
work="$(mktemp -d /tmp/gatewise-plist-bench-XXXXXX)"
trap 'rm -rf "$work"' EXIT

# Nested dictionaries and arrays of strings, integers, reals, dates and data, scaled until each
# encoding is about 20 MB. Seeded, so every run measures the same files.
python3 - "$work" <<'PY'
import datetime, os, plistlib, random, sys
work = sys.argv[1]
target = 20 * 1000 * 1000

def record(rng, i):
    word = lambda: "".join(rng.choice("abcdefghijklmnopqrstuvwxyz") for _ in range(rng.randint(4, 14)))
    base = datetime.datetime(2001, 1, 1)
    return {
        "name": f"user-{i}-{word()}",
        "uid": rng.randint(500, 60000),
        "quota": rng.randint(-2**62, 2**63 - 1),
        "ratio": rng.random() * 1000,
        "created": base + datetime.timedelta(seconds=rng.randint(-10**9, 10**9)),
        "avatar": rng.randbytes(rng.randint(16, 96)),
        "tags": [word() for _ in range(rng.randint(1, 6))],
        "enabled": rng.random() < 0.5,
        "limits": [{"day": d, "seconds": rng.randint(0, 86400), "label": word()}
                   for d in range(rng.randint(1, 7))],
        "history": [base + datetime.timedelta(seconds=rng.randint(0, 10**9)) for _ in range(3)],
    }

for name, fmt in (("sample.xml", plistlib.FMT_XML), ("sample.bplist", plistlib.FMT_BINARY)):
    count = 2000
    for _ in range(6):  # the size grows about linearly with the count: a few steps settle it
        rng = random.Random(20261123)
        value = {"version": 1, "users": [record(rng, i) for i in range(count)]}
        data = plistlib.dumps(value, fmt=fmt)
        if abs(len(data) - target) <= target * 0.05:
            break
        count = max(1, round(count * target / len(data)))
    with open(os.path.join(work, name), "wb") as f:
        f.write(data)
PY

# plistlib on the same files, from memory, best of the same number of runs.
measure_plistlib() {
  python3 - "$work" "$repeat" <<'PY'
import os, plistlib, sys, time
work, repeat = sys.argv[1], int(sys.argv[2])
def best(run):
    times = []
    for _ in range(repeat):
        start = time.perf_counter(); run(); times.append(time.perf_counter() - start)
    return min(times)
for enc, name, fmt in (("xml", "sample.xml", plistlib.FMT_XML),
                       ("binary", "sample.bplist", plistlib.FMT_BINARY)):
    data = open(os.path.join(work, name), "rb").read()
    value = plistlib.loads(data)
    print(f"plistlib parse-{enc} {len(data)} {best(lambda: plistlib.loads(data)):.6f}")
    print(f"plistlib write-{enc} {len(data)} {best(lambda: plistlib.dumps(value, fmt=fmt)):.6f}")
PY
}

# One process converting a file: "user system maxRSS-KiB" of the best (least CPU) of the runs.
measure_process() {
  local best=""
  for _ in $(seq "$repeat"); do
    /usr/bin/time -f "%U %S %M" -o "$work/time.txt" "$@" > /dev/null 2>&1 || return 1
    local line
    line="$(tail -1 "$work/time.txt")"
    if [ -z "$best" ] || python3 -c 'import sys; a=sys.argv[1].split(); b=sys.argv[2].split(); sys.exit(0 if float(a[0])+float(a[1]) < float(b[0])+float(b[1]) else 1)' "$line" "$best"; then
      best="$line"
    fi
  done
  echo "$best"
}

measure_processes() {
  [ -x "$cli" ] || return 0
  for enc in xml binary; do
    local in="$work/sample.xml" flag="xml"
    [ "$enc" = binary ] && in="$work/sample.bplist" && flag="bin"
    echo "process gatewise convert-$enc $(measure_process "$cli" plist convert --format "$enc" "$in" "$work/out.gw")"
    if command -v plistutil > /dev/null; then
      echo "process plistutil convert-$enc $(measure_process plistutil -i "$in" -o "$work/out.pu" -f "$flag")"
    fi
  done
  echo "process gatewise start $(measure_process "$cli" --help)"
  if command -v plistutil > /dev/null; then
    echo "process plistutil start $(measure_process plistutil -h)"
  fi
}

{
  "$driver" "$work/sample.xml" "$work/sample.bplist" "$repeat"
  measure_plistlib
} > "$work/results.txt"
measure_processes > "$work/processes.txt"

python3 - "$work/results.txt" "$work/processes.txt" <<'PY'
import sys
rows = {}
for line in open(sys.argv[1]):
    who, op, size, secs = line.split()
    rows[(who, op)] = (int(size), float(secs))
mbps = lambda key: rows[key][0] / 1e6 / rows[key][1]
verdict = lambda ok: "MET" if ok else "NOT MET"
print(f"files: XML {rows[('gatewise', 'parse-xml')][0] / 1e6:.1f} MB, "
      f"binary {rows[('gatewise', 'parse-binary')][0] / 1e6:.1f} MB (best of runs, from memory)")
print(f"{'operation':<14}{'gatewise MB/s':>15}{'plistlib MB/s':>15}{'ratio':>8}{'libplist MB/s':>15}{'ratio':>8}  goal")
# Goals against libplist where it is measured (parsers), against plistlib otherwise.
libplist_goal = {"parse-xml": 1.5, "parse-binary": 2.0, "write-xml": 1.0, "write-binary": 1.0}
for op in ("parse-xml", "parse-binary", "write-xml", "write-binary"):
    ours = mbps(("gatewise", op))
    py = mbps(("plistlib", op))
    line = f"{op:<14}{ours:>15.1f}{py:>15.1f}{ours / py:>7.1f}x"
    goals = [f">= 5x plistlib {verdict(ours / py >= 5)}"]
    if ("libplist", op) in rows:
        lp = mbps(("libplist", op))
        line += f"{lp:>15.1f}{ours / lp:>7.1f}x"
        goals.append(f">= {libplist_goal[op]}x libplist {verdict(ours / lp >= libplist_goal[op])}")
    else:
        line += f"{'-':>15}{'-':>8}"
    print(line + "  " + "; ".join(goals))
if not any(who == "libplist" for who, _ in rows):
    print("libplist: not measured (the driver was built without libplist-dev)")

procs = {}
for line in open(sys.argv[2]):
    parts = line.split()
    if len(parts) == 6:
        procs[(parts[1], parts[2])] = (float(parts[3]) + float(parts[4]), int(parts[5]))
if procs:
    print(f"{'whole process':<22}{'gatewise CPU s':>15}{'plistutil CPU s':>16}{'gatewise MB':>13}{'plistutil MB':>14}  goal")
    for op in ("convert-xml", "convert-binary", "start"):
        if ("gatewise", op) not in procs:
            continue
        cpu, rss = procs[("gatewise", op)]
        line = f"{op:<22}{cpu:>15.3f}"
        if ("plistutil", op) in procs:
            pcpu, prss = procs[("plistutil", op)]
            line += f"{pcpu:>16.3f}{rss / 1024:>13.1f}{prss / 1024:>14.1f}"
            if op != "start":
                line += f"  CPU < plistutil {verdict(cpu < pcpu)}; memory < plistutil {verdict(rss < prss)}"
            else:
                line += "  (for information)"
        else:
            line += f"{'-':>16}{rss / 1024:>13.1f}{'-':>14}"
        print(line)
PY
