#!/bin/sh
# Usage: scripts/measure-open.sh BUILD_DIR OUT_DIR [OLD_TOOL]
#
# The figures of "Opening an index" in docs/PERFORMANCE.md, on the German
# FreeDict dictionary (dict-freedict-deu-eng), warm page cache:
#   - builds its index with BUILD_DIR's quorvex tool (into OUT_DIR/deu);
#   - runs quorvex_bench_open's parts three times each: open (times of
#     mapped and whole opens in one process), first (a process's first
#     mapped open, 100 processes per run), check (what checking every key
#     and value record at open would cost), memory (1 against 10 mapped
#     readers; once with readers made by from_directory) and search (mapped
#     against whole, same process);
#   - times `quorvex search INDEX haus` and `quorvex info INDEX` with
#     hyperfine (-N, 5 warm-ups, 50 runs; three times) and takes their peak
#     resident size with /usr/bin/time -v (ten runs each); OLD_TOOL, a tool
#     binary built from an earlier commit, is measured the same way.
# Everything goes to OUT_DIR as text (and hyperfine's JSON); nothing in the
# tree changes. Needs: dict-freedict-deu-eng, hyperfine, time; BUILD_DIR
# configured with -DQUORVEX_BUILD_BENCH=ON and built (targets quorvex and
# quorvex_bench_open), python3. About ten minutes on two CPUs.
set -eu

if [ $# -lt 2 ]; then
  echo "usage: $0 BUILD_DIR OUT_DIR [OLD_TOOL]" >&2
  exit 2
fi
build=$1
out=$2
old_tool=${3:-}
tool=$build/tools/quorvex
program=$build/bench/quorvex_bench_open
dictionary=/usr/share/dictd/freedict-deu-eng.index
for file in "$tool" "$program"; do
  if [ ! -x "$file" ]; then
    echo "error: $file is missing; build the targets quorvex and quorvex_bench_open" >&2
    exit 1
  fi
done
mkdir -p "$out"
index=$out/deu
rm -rf "$index"
"$tool" build --skip-invalid "$dictionary" "$index" >"$out/build.txt"

note() { echo "== $*" | tee -a "$out/log.txt"; }
note "started $(date -u), $(uptime)"

for run in 1 2 3; do
  note "open run $run"
  "$program" open "$index" >"$out/open-$run.txt"
  cat "$out/open-$run.txt"
done

# One sample per process: the median and p99 of 100 processes, three times.
for run in 1 2 3; do
  note "first open of a process, run $run"
  : >"$out/first-$run.txt"
  i=0
  while [ $i -lt 100 ]; do
    "$program" first "$index" | sed 's/.*: //; s/ us$//' >>"$out/first-$run.txt"
    i=$((i + 1))
  done
  sort -n "$out/first-$run.txt" | awk '{ v[NR] = $1 } END {
    p50 = int((NR + 1) / 2); p99 = int(NR * 0.99 + 0.999999)
    printf "first mapped open of a process, %d processes: median %.1f us p99 %.1f us min %.1f max %.1f\n",
      NR, v[p50], v[p99], v[1], v[NR] }' | tee -a "$out/log.txt"
done

for run in 1 2 3; do
  note "check run $run"
  "$program" check "$index" | tee -a "$out/log.txt"
done

for run in 1 2 3; do
  note "memory run $run"
  "$program" memory "$index" >"$out/memory-$run.txt"
  cat "$out/memory-$run.txt"
done
note "memory, whole readers"
"$program" memory "$index" --whole >"$out/memory-whole.txt"
cat "$out/memory-whole.txt"

for run in 1 2 3; do
  note "search run $run"
  "$program" search "$index" >"$out/search-$run.txt"
  cat "$out/search-$run.txt"
done

measure_tool() {  # NAME BINARY
  name=$1
  binary=$2
  for run in 1 2 3; do
    note "hyperfine $name run $run"
    hyperfine -N --warmup 5 --runs 50 --export-json "$out/hyperfine-$name-$run.json" \
      "$binary search $index haus" "$binary info $index" | tee -a "$out/log.txt"
    # hyperfine prints means; the medians are in its JSON.
    python3 -c 'import json, sys
for r in json.load(open(sys.argv[1]))["results"]:
    print("%s %s: median %.1f ms, min %.1f, max %.1f, stddev %.1f, user %.1f, system %.1f" % (sys.argv[2],
          r["command"].split()[1], *(r[k] * 1e3 for k in ("median", "min", "max", "stddev", "user", "system")))) ' \
      "$out/hyperfine-$name-$run.json" "$name" | tee -a "$out/log.txt"
  done
  for command in "search $index haus" "info $index"; do
    label=$(echo "$command" | cut -d' ' -f1)
    : >"$out/rss-$name-$label.txt"
    i=0
    while [ $i -lt 10 ]; do
      # shellcheck disable=SC2086
      /usr/bin/time -v "$binary" $command 2>&1 >/dev/null |
        sed -n 's/^[[:space:]]*Maximum resident set size (kbytes): //p' >>"$out/rss-$name-$label.txt"
      i=$((i + 1))
    done
    sort -n "$out/rss-$name-$label.txt" | awk -v what="$name $label" '{ v[NR] = $1 } END {
      printf "%s: peak RSS over %d runs: median %d KiB, min %d, max %d\n", what, NR, v[int((NR + 1) / 2)], v[1], v[NR] }' |
      tee -a "$out/log.txt"
  done
}
measure_tool new "$tool"
if [ -n "$old_tool" ]; then
  measure_tool old "$old_tool"
fi
note "finished $(date -u), $(uptime)"
