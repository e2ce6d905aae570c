#!/bin/bash
# Compares what a library exports with its version script, and what it needs and
# is called with what is written down.
# Usage: abi.sh LIBRARY SONAME VERSION_SCRIPT NEEDED_LIST
set -euo pipefail
export LC_ALL=C
symbols=$(dirname "$0")/../../../dev/symbols

dynamic() {
    readelf -d "$1" | sed -n "s/.*($2).*\[\(.*\)\]$/\1/p" | sort
}

script=$(realpath "$3")
# The loader has a hand in data of a thread, and a name for each processor.
diff -u "$4" <(dynamic "$1" NEEDED | grep -v '^ld-linux')
diff -u <(echo "$2") <(dynamic "$1" SONAME)
diff -u <("$symbols" list "$script") \
    <(nm -D --defined-only "$1" | awk '$2 != "A" { print $3 }' | sort)
