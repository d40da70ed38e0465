#!/bin/sh
# Installs the package with pip the way README.md says, offline, into a
# fresh virtual environment that sees Debian's setuptools, from a copy of
# the sources (pip's build leaves files beside them), then imports it from
# elsewhere and searches an index built with it.
# Usage: pip_install_test.sh SOURCE_DIR PYTHON
set -eu
source_dir=$1
python=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/src"
(cd "$source_dir" && cp -r CMakeLists.txt README.md pyproject.toml setup.py setup.cfg cmake src python "$work/src/")
"$python" -m venv --system-site-packages "$work/venv"
"$work/venv/bin/python" -m pip install --no-build-isolation --no-index --quiet "$work/src" >"$work/pip.log" 2>&1 ||
  { cat "$work/pip.log"; exit 1; }
rm -rf "$work/src"

cd "$work"
"$work/venv/bin/python" - <<'PYTHON'
import quorvex
quorvex.build([("Haus", "house"), ("Rathaus", "town hall")], "index", name="demo")
with quorvex.open("index") as index:
    assert [hit.key for hit in index.search("HAUS")] == ["Haus", "Rathaus"], index.search("HAUS")
print("installed:", quorvex.__file__)
PYTHON
