#!/bin/sh
# The committed src/FoldTables.inc is what the generator makes of the
# Unicode data installed here (Debian's unicode-data); skipped without it.
# Usage: fold_tables_test.sh SOURCE_DIR
set -eu
source_dir=$1
if [ ! -f /usr/share/unicode/UnicodeData.txt ]; then
  echo "unicode-data is not installed"
  exit 77
fi
generated=$(mktemp)
trap 'rm -f "$generated"' EXIT
python3 "$source_dir/scripts/generate-fold-tables.py" /usr/share/unicode "$generated"
if ! cmp -s "$generated" "$source_dir/src/FoldTables.inc"; then
  echo "src/FoldTables.inc differs from what scripts/generate-fold-tables.py makes of /usr/share/unicode:"
  diff "$source_dir/src/FoldTables.inc" "$generated" | head -20
  exit 1
fi
echo "src/FoldTables.inc matches the installed Unicode data"
