#!/bin/bash
# A library exports what its header declares, but for what the program is to
# define, and nothing else.
# Usage: declared.sh SOURCE_TREE VERSION_SCRIPT HEADER [NOT_EXPORTED...]
set -euo pipefail
export LC_ALL=C
source=$1
script=$2
header=$3
shift 3

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
# Functions as the compiler has understood them, data as it is written.
echo "#include <$header>" |
    gcc -x c -std=c99 -I"$source/include" -fsyntax-only \
        -aux-info "$scratch/functions" -
{
    sed -nE "s,^/\* [^ ]*/$header:.* \*?([a-z_0-9]+) \(.*,\1,p" \
        "$scratch/functions"
    sed -nE 's/^extern [^(]*\b([a-z_0-9]+);.*/\1/p' \
        "$source/include/$header"
} | sort -u | grep -vxFf <(printf '%s\n' "$@") >"$scratch/declared"
[ "$(wc -l <"$scratch/declared")" -ge 5 ]
"$source/dev/symbols" list "$script" | sed 's/@@.*//' |
    diff -u "$scratch/declared" -
