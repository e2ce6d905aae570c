#!/bin/bash
# Compares a library with the interface that programs were built against:
# abi_baseline.sh LIBRARY BASELINE HEADERS. A change on purpose is written down
# with ABI_UPDATE=1 in the environment.
set -eu

library=$1
baseline=$2
headers=$3

if [ -n "${ABI_UPDATE-}" ]; then
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs \
        --headers-dir "$headers" --drop-private-types \
        --out-file "$baseline" "$library"
    # Where it was built is nobody's business.
    sed -i -E "s,path='[^']*/((common|tty|vc)/[^']*)',path='\\1'," "$baseline"
fi
abidiff --no-show-locs --headers-dir2 "$headers" --drop-private-types \
    "$baseline" "$library"
