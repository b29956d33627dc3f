#!/bin/sh
# The library exports what its header declares, and needs the platform and the C library only.
# Usage: exports.sh LIBRARY EXPECTED_SYMBOLS
set -eu
nm -D --defined-only "$1" | awk '{print $3}' | LC_ALL=C sort | diff "$2" -

wanted='(NEEDED) libc.so.6
(NEEDED) libvs_platform.so
(SONAME) libvs_kvs.so.1'
found=$(readelf -d "$1" | awk '/NEEDED|SONAME/ {gsub(/[][]/, "", $NF); print $2, $NF}' | LC_ALL=C sort)
if [ "$found" != "$wanted" ]; then
    printf 'the dynamic section says\n%s\ninstead of\n%s\n' "$found" "$wanted" >&2
    exit 1
fi
