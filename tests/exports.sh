#!/bin/sh
# The library exports what its header declares, and needs the platform and the C library only.
# Usage: exports.sh LIBRARY EXPECTED_SYMBOLS
set -eu
nm -D --defined-only "$1" | awk '{print $3}' | LC_ALL=C sort | diff "$2" -
readelf -d "$1" | awk '/NEEDED|SONAME/ {gsub(/[][]/, "", $NF); print $2, $NF}' | LC_ALL=C sort | diff - <<END
(NEEDED) libc.so.6
(NEEDED) libvs_platform.so
(SONAME) libvs_kvs.so.1
END
