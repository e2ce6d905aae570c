#!/bin/bash
# Compares what a library exports, needs and is called with what is written
# down. Usage: abi.sh LIBRARY SONAME SYMBOL_LIST NEEDED_LIST
set -euo pipefail
export LC_ALL=C

dynamic() {
    readelf -d "$1" | sed -n "s/.*($2).*\[\(.*\)\]$/\1/p" | sort
}

diff -u "$4" <(dynamic "$1" NEEDED)
diff -u <(echo "$2") <(dynamic "$1" SONAME)
diff -u "$3" <(nm -D --defined-only "$1" | awk '$2 != "A" { print $2, $3 }' |
    sort -k 2)
