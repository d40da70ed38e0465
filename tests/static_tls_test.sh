#!/bin/sh
# Checks that libQuorvex.so can be loaded with dlopen() into a running
# process: thread-local variables of the initial-exec model need room in the
# static TLS block, which such a process may not have left ("cannot allocate
# memory in static TLS block"). The linker marks a library that uses them
# with the STATIC_TLS flag and leaves TPOFF relocations for them.
# Usage: static_tls_test.sh PATH_TO_libQuorvex.so
set -eu
library=$1
status=0
if readelf -dW "$library" | grep -q 'STATIC_TLS'; then
  echo "$library has the STATIC_TLS flag:"
  readelf -dW "$library" | grep 'FLAGS'
  status=1
fi
tpoff=$(readelf -rW "$library" | grep -E 'R_X86_64_TPOFF(32|64)|R_AARCH64_TLS_TPREL' || true)
if [ -n "$tpoff" ]; then
  echo "$library has initial-exec TLS relocations:"
  printf '%s\n' "$tpoff"
  status=1
fi
if [ "$status" -eq 0 ]; then
  segment=$(readelf -lW "$library" | grep -c ' TLS ' || true)
  echo "no static TLS ($segment TLS segment(s), reached through the general model)"
fi
exit "$status"
