#!/bin/sh
# Usage: scripts/bench-compare.sh [BUILD_DIR [PROGRAM_OPTION...]]
#        scripts/bench-compare.sh --plot-only [BUILD_DIR]
#
# Runs quorvex_bench_compare from BUILD_DIR (default build) on the Debian
# dictionaries, then:
#   - puts its tables, with the machine and the date, into docs/PERFORMANCE.md
#     between the lines <!-- results:begin --> and <!-- results:end -->;
#   - keeps the latency data in BUILD_DIR/bench/compare-latency.dat and draws
#     it with gnuplot as docs/performance-latency.png.
# Options after BUILD_DIR go to the program (see its --help); with DICTD_INDEX
# arguments the dictionaries are yours instead of the three defaults. If the
# program fails (or finds an answer that differs from Quorvex's), nothing in
# docs/ changes. --plot-only draws the plot again from the last run's data.
# With --folded among the options the folded comparison runs instead: its
# tables go between <!-- folded-results:begin --> and
# <!-- folded-results:end -->, and no plot is drawn.
# Needs: libsqlite3-dev and libdivsufsort-dev at build time, gnuplot-nox,
# dict-freedict-deu-eng, dict-freedict-jpn-eng and dict-gcide (make bench
# installs them).
set -eu

plot_only=false
if [ "${1:-}" = "--plot-only" ]; then
  plot_only=true
  shift
fi
build=${1:-build}
[ $# -gt 0 ] && shift
root=$(cd "$(dirname "$0")/.." && pwd)
program=$build/bench/quorvex_bench_compare
doc=$root/docs/PERFORMANCE.md
plot=$root/docs/performance-latency.png
data=$build/bench/compare-latency.dat

# One panel per dictionary and limit, a cumulative distribution per
# contender. The data file names the dictionaries, limits and contenders in
# its first lines; its blocks come in that nesting.
draw() {
  dictionaries=$(sed -n 's/^# dictionaries: //p' "$data")
  limits=$(sed -n 's/^# limits: //p' "$data")
  contenders=$(sed -n 's/^# contenders: //p' "$data")
  gnuplot <<GNUPLOT
data = "$data"
dictionaries = "$dictionaries"
limits = "$limits"
contenders = "$contenders"
nd = words(dictionaries)
nl = words(limits)
nc = words(contenders)
set terminal pngcairo size 1500,900 font "sans,10"
set output "$plot"
set logscale x 10
set format x "10^{%T}"
set xrange [0.5:1e6]
set yrange [0:1]
set grid
set xlabel "latency per keyword (microseconds, log scale)"
set ylabel "fraction of keywords"
set multiplot layout nl, nd margins 0.05, 0.87, 0.07, 0.92 spacing 0.06, 0.1 \
  title "Search latency per keyword, cumulative: 1,000 keywords found in the keys + 100 found nowhere"
do for [l = 1:nl] {
  do for [d = 1:nd] {
    set title sprintf("%s, limit %s", word(dictionaries, d), word(limits, l))
    # One legend for all panels, in the strip kept free on their right.
    if (l == 1 && d == 1) { set key at screen 0.995, 0.5 right center vertical } else { unset key }
    plot for [c = 1:nc] data index ((d - 1) * nl + (l - 1)) * nc + (c - 1) using 1:2 \
      with steps linewidth 2 title word(contenders, c)
  }
}
unset multiplot
GNUPLOT
}

if $plot_only; then
  draw
  echo "wrote $plot (data: $data)"
  exit 0
fi

if [ ! -x "$program" ]; then
  echo "error: $program is missing; configure with -DQUORVEX_BUILD_BENCH=ON and build it" >&2
  exit 1
fi

folded=false
for option in "$@"; do
  [ "$option" = "--folded" ] && folded=true
done
begin='<!-- results:begin -->'
end='<!-- results:end -->'
if $folded; then
  begin='<!-- folded-results:begin -->'
  end='<!-- folded-results:end -->'
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ! grep -qx "$begin" "$doc" || ! grep -qx "$end" "$doc"; then
  echo "error: $doc lacks the lines $begin and $end" >&2
  exit 1
fi

started=$(date)
"$program" --markdown "$work/tables.md" --plot-data "$work/latency.dat" "$@"

# ---- The generated part of docs/PERFORMANCE.md ----
{
  echo "$begin"
  echo "<!-- Written by scripts/bench-compare.sh; edits here are overwritten. -->"
  echo
  echo "Run started $started, finished $(date)."
  echo
  echo "| Machine | |"
  echo "|---|---|"
  echo "| CPU | $(lscpu | sed -n 's/^Model name: *//p' | head -n 1), $(nproc) CPUs online |"
  echo "| Memory | $(free -g | awk '/^Mem:/ {print $2}') GiB |"
  echo "| System | Debian $(cat /etc/debian_version), Linux $(uname -r) |"
  echo "| Compiler | $(g++ --version | head -n 1), CMake Release build |"
  echo
  cat "$work/tables.md"
  echo
  echo "$end"
} >"$work/results.md"

awk -v results="$work/results.md" -v begin="$begin" -v end="$end" '
  $0 == begin { while ((getline line < results) > 0) print line; skipping = 1; next }
  $0 == end   { skipping = 0; next }
  !skipping   { print }
' "$doc" >"$work/PERFORMANCE.md"
cp "$work/PERFORMANCE.md" "$doc"

if $folded; then
  echo "wrote $doc"
  exit 0
fi
cp "$work/latency.dat" "$data"
draw
echo "wrote $doc and $plot (data: $data)"
