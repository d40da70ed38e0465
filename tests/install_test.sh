#!/bin/sh
# Installs the library into a temporary prefix and builds the C example
# against it twice: through pkg-config and through find_package(Quorvex).
# Usage: install_test.sh BUILD_DIR SOURCE_DIR
set -eu
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

prefix="$work/prefix"
cmake --install "$build_dir" --prefix "$prefix" >"$work/install.log"

libdir=$(dirname "$(find "$prefix" -name 'libQuorvex.so' | head -n 1)")
test -n "$libdir" || { echo "libQuorvex.so was not installed"; exit 1; }
test -f "$prefix/include/quorvex/CApi.h" || { echo "CApi.h was not installed"; exit 1; }
test ! -e "$prefix/include/quorvex/Assertions.h" || { echo "an internal header was installed"; exit 1; }

echo "== the installed tool, run from its prefix, with its completion and manual page"
if [ -x "$prefix/bin/quorvex" ]; then
  env -u LD_LIBRARY_PATH "$prefix/bin/quorvex" --version
  completion="$prefix/share/bash-completion/completions/quorvex"
  words=$(bash -c ". '$completion'; COMP_WORDS=(quorvex se); COMP_CWORD=1; _quorvex; echo \${COMPREPLY[*]}")
  test "$words" = search || { echo "bash completion of 'quorvex se' gave '$words'"; exit 1; }
  if command -v help2man >/dev/null; then
    test -f "$prefix/share/man/man1/quorvex.1" || { echo "quorvex.1 was not installed"; exit 1; }
  fi
fi

echo "== pkg-config"
PKG_CONFIG_PATH="$libdir/pkgconfig"
export PKG_CONFIG_PATH
pkg-config --modversion quorvex
cc -std=c11 -Wall -Wextra -Werror "$source_dir/examples/byte_arrays.c" \
  $(pkg-config --cflags --libs quorvex) -Wl,-rpath,"$libdir" -o "$work/byte_arrays_pc"
cc -std=c11 -Wall -Wextra -Werror "$source_dir/examples/build_and_search.c" \
  $(pkg-config --cflags --libs quorvex) -Wl,-rpath,"$libdir" -o "$work/build_and_search_pc"
"$work/build_and_search_pc"
c++ -std=c++17 -Wall -Wextra -Werror "$source_dir/examples/build_and_search.cpp" \
  $(pkg-config --cflags --libs quorvex) -Wl,-rpath,"$libdir" -o "$work/build_and_search_cpp_pc"
"$work/build_and_search_cpp_pc" "$work/index-pc"
"$work/byte_arrays_pc"

echo "== find_package"
cmake -S "$source_dir/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_RPATH="$libdir" >"$work/configure.log"
cmake --build "$work/examples" >"$work/build.log"
for program in byte_arrays_c build_and_search_c; do
  "$work/examples/$program"
done
"$work/examples/build_and_search_cpp" "$work/index-cmake"
