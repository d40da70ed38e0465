#!/bin/sh
# make demo: build an index from a real German-English dictionary and search
# it. Uses Debian's dict-freedict-deu-eng, installing it if it is missing; where
# that cannot be done, falls back to the small sample in data/.
# Usage: scripts/demo.sh BUILD_DIR
set -eu
build_dir=${1:-build}
quorvex="$build_dir/tools/quorvex"
index="$build_dir/demo"
dictionary=/usr/share/dictd/freedict-deu-eng.index

section() { printf '\n== %s\n' "$1"; }

if [ ! -f "$dictionary" ]; then
  section "installing the FreeDict German-English dictionary"
  scripts/ensure-packages dict-freedict-deu-eng || true
fi
if [ -f "$dictionary" ]; then
  input=$dictionary
else
  echo "dict-freedict-deu-eng is not available; using the sample dictionary in data/"
  input=data/sample-deu-eng.tsv
fi

section "quorvex build --skip-invalid $input $index"
"$quorvex" build --skip-invalid --force "$input" "$index"

section "quorvex info $index"
"$quorvex" info "$index"

# The index is folded: keywords are found the way people type them, in any
# case, with or without accents, ß as ss.
for keyword in Haus uber strasse ung; do
  section "quorvex search --limit 5 --stats $index $keyword"
  "$quorvex" search --limit 5 --stats "$index" "$keyword"
done

section "quorvex search --full --limit 1 $index Übersetzung"
"$quorvex" search --full --limit 1 "$index" Übersetzung

section "quorvex search --json --limit 2 $index straßenbahn"
"$quorvex" search --json --limit 2 "$index" straßenbahn

section "quorvex verify $index"
"$quorvex" verify "$index"
