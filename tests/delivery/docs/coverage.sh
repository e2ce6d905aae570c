#!/bin/bash
# What is delivered has a manual page: the symbols of the libraries, the keys,
# and the options and commands of the programs, which the pages do not invent
# either. Usage: coverage.sh SOURCE_TREE PROGRAM...
set -euo pipefail
source=$1
shift

status=0
complain() {
    echo "$1"
    status=1
}

rendered() {
    mandoc -T ascii -O width=1000 "$1" | col -b
}

# One a line, with their dashes.
options() {
    grep -oE -- '(^|[[ |(])--?[a-z][a-z0-9-]*' | grep -oE -- '--?[a-z].*' |
        sort -u
}

check_symbols() {
    local script name count=0
    for script in "$source"/{tty,vc,kit}/lib*.map; do
        while read -r name; do
            count=$((count + 1))
            [ -f "$source/man/man3/$name.3" ] ||
                complain "no manual page for $name"
        done < <("$source/dev/symbols" list "$(realpath "$script")" |
            sed 's/@@.*//')
    done
    [ "$count" -ge 30 ] || complain "only $count symbols found"
}

check_keys() {
    diff <(grep -oE '"[A-Z0-9_]+"' "$source/common/keys.cpp" | tr -d '"') \
        <(sed -n '/^\.Bd/,/^\.Ed/p' "$source/man/man7/tty.7" |
            grep -v '^\.' | grep -oE '[A-Z0-9_]+') ||
        complain "tty(7) has other keys than the library"
}

# Kinds of records and of items, as numbers: same WHAT EXPECTED DESCRIBED
same() {
    [ -n "$2" ] || complain "no numbers for $1 found in the header"
    diff <(sort -u <<<"$2") <(sort -u <<<"$3") ||
        complain "$1 has other numbers than the header"
}

check_numbers() {
    # 0x408 is two bits in one record.
    same "vc(7)" \
        "$(sed -nE 's/^#define VC_FLAG_[A-Z_]+ (0x[0-9a-f]+)u$/\1/p' \
            "$source/include/ttyline/vc.h")" \
        "$(sed -nE 's/^\.It (0x[0-9a-f]+) Ta .*/\1/p' \
            "$source/man/man7/vc.7" | grep -vx 0x408)"
    same "tty(7)" \
        "$(sed -nE 's/^#define TTYLIB_TLV_[A-Z_]+ (0x[0-9a-f]+)( .*)?$/\1/p' \
            "$source/include/ttyline/tty.h")" \
        "$(sed -nE 's/^\.It (0x[0-9a-f]+) Ta .*/\1/p' \
            "$source/man/man7/tty.7")"
}

help_of() {
    "$1" --help
    if [ "$(basename "$1")" = ttyctl ]; then
        commands_of "$1" | while read -r command; do
            "$1" "$command" --help
        done
    fi
}

# Of ttyctl, which lists them behind two blanks.
commands_of() {
    "$1" --help | sed -n '/^Commands:/,/^Options/p' |
        sed -nE 's/^  ([a-z-]+) .*/\1/p'
}

check_program() {
    local name page option
    name=$(basename "$1")
    page=$(find "$source/man" -name "$name.[18]")
    [ -n "$page" ] || {
        complain "no manual page for $name"
        return
    }
    help_of "$1" | options >"$scratch/said"
    sed -n '/^\.It Fl/p' "$page" | sed 's/\\-/-/g; s/^\.It Fl /-/' |
        grep -oE -- '^--?[a-z][a-z0-9-]*' | sort -u >"$scratch/described"
    rendered "$page" | options >"$scratch/shown"
    [ -s "$scratch/said" ] || complain "$name --help lists no option"
    while read -r option; do
        complain "$page does not describe $option"
    done < <(comm -23 "$scratch/said" "$scratch/shown")
    while read -r option; do
        complain "$page describes $option, which --help lacks"
    done < <(comm -13 "$scratch/said" "$scratch/described")
}

check_commands() {
    local name
    commands_of "$1" >"$scratch/commands"
    [ "$(wc -l <"$scratch/commands")" -ge 10 ] ||
        complain "ttyctl --help lists too few commands"
    while read -r name; do
        grep -qE "^\.It Cm $name( |\$)" "$source/man/man1/ttyctl.1" ||
            complain "ttyctl(1) does not describe the command $name"
    done <"$scratch/commands"
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
check_symbols
check_keys
check_numbers
for program in "$@"; do
    check_program "$program"
    [ "$(basename "$program")" != ttyctl ] || check_commands "$program"
done
exit "$status"
