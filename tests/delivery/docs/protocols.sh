#!/bin/bash
# The library's table of protocols and its ranges of lines, the constants of
# the public header, and the tables of vc(7) say the same.
# Usage: protocols.sh SOURCE_TREE C_COMPILER PROTOCOL_TABLE
set -euo pipefail
source=$1
cc=$2
table=$3

status=0
# The last number is not a protocol's name.
constants=$("$cc" -dM -E -I"$source/include" "$source/include/ttyline/vc.h" |
    sed -nE 's/^#define (VC_(PROTOCOL|LINE)_[A-Z_]+) ([0-9]+)$/\1 \3/p' |
    grep -v '^VC_PROTOCOL_MAX ')
if ! diff <(sort <<<"$constants") <("$table" header | sort); then
    echo "the header has other constants than the library"
    status=1
fi
if ! diff <(grep -E '^\.It [0-9].* Dv VC_' "$source/man/man7/vc.7") \
    <("$table" page); then
    echo "vc(7) has another table than the library"
    status=1
fi
exit "$status"
