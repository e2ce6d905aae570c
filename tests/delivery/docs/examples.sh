#!/bin/bash
# The code in the manual pages is code: every literal block with C in it is
# complete and compiles as C and as C++, whole programs link, the prototypes
# agree with the headers and the records' layout with the compiler's.
# Usage: examples.sh SOURCE_TREE C_COMPILER CXX_COMPILER LIBTTY LIBVC
# LIBTTYKIT
set -euo pipefail
source=$1
cc=$2
cxx=$3
libtty=$4
libvc=$5
libttykit=$6

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
flags=(-pedantic-errors -Wall -Wextra -Werror -D_POSIX_C_SOURCE=200809L
       "-I$source/include")
pages=()
for page in "$source"/man/man?/*; do
    [ "$(head -c 4 "$page")" = ".so " ] || pages+=("$page")
done

# Each literal block with a statement in it as a file of its own.
awk -v out="$scratch" '
    FNR == 1 { page = FILENAME; sub(/.*\//, "", page); number = 0 }
    /^\.Bd -literal/ { inside = 1; text = ""; code = 0; next }
    /^\.Ed/ && inside {
        inside = 0
        if (code) {
            file = out "/" page "." ++number ".c"
            printf "%s", text > file
            close(file)
        }
        next
    }
    inside {
        sub(/^\\&/, "")
        gsub(/\\e/, "\\")
        gsub(/\\-/, "-")
        code = code || /;$/
        text = text $0 "\n"
    }' "${pages[@]}"

# The synopses of section 3, as declarations.
awk '
    /^\.Ft / { type = substr($0, 5) }
    /^\.Fo / { name = $2; arguments = ""; next }
    /^\.Fa / && name {
        argument = substr($0, 5)
        gsub(/"/, "", argument)
        arguments = arguments (arguments ? ", " : "") argument
    }
    /^\.Fc/ { print type " " name "(" arguments ");"; name = "" }
    /^\.Fn [a-z_]+ void$/ { print type " " $2 "(void);" }
    /^\.Vt extern / { line = substr($0, 5); sub(/ ;$/, ";", line); print line }
    /^\.Sh DESCRIPTION/ { nextfile }' \
    "$source"/man/man3/*.3 >"$scratch/declarations"
{
    echo '#include <ttyline/kit.h>'
    echo '#include <ttyline/vc.h>'
    echo '#ifdef __cplusplus'
    echo 'extern "C" {'
    echo '#endif'
    cat "$scratch/declarations"
    echo '#ifdef __cplusplus'
    echo '}'
    echo '#endif'
} >"$scratch/synopses.c"

# The table of the record: offset, size and name.
sed -nE 's/^\.It ([0-9]+) Ta ([0-9]+) Ta Fa ([a-z_]+) Ta .*/\1 \2 \3/p' \
    "$source/man/man7/vc.7" >"$scratch/fields"
{
    echo '#include <stddef.h>'
    echo '#include <ttyline/vc.h>'
    while read -r offset size field; do
        echo "extern char at_${field}["
        echo "    offsetof(tty_cmsg, $field) == $offset ? 1 : -1];"
        echo "extern char of_${field}["
        echo "    sizeof ((tty_cmsg *)0)->$field == $size ? 1 : -1];"
    done <"$scratch/fields"
    echo "extern char record[sizeof(tty_cmsg) == 156 ? 1 : -1];"
} >"$scratch/record.c"

cd "$scratch"
[ "$(wc -l <declarations)" -ge 30 ]
[ "$(wc -l <fields)" = 18 ]
examples=([a-z]*.[0-9].[0-9]*.c)
[ "${#examples[@]}" -ge 20 ]
for example in "${examples[@]}"; do
    [ "$(head -c 1 "$example")" = "#" ] || {
        echo "$example does not begin with what it includes"
        exit 1
    }
done

status=0
"$cxx" -std=c++17 -x c++ "${flags[@]}" -fsyntax-only ./*.c &
"$cc" -std=c99 "${flags[@]}" -fsyntax-only ./*.c || status=1
wait $! || status=1
[ "$status" = 0 ] || exit 1

mapfile -t programs < <(grep -l '^int main(' "${examples[@]}")
[ "${#programs[@]}" -ge 3 ]
for program in "${programs[@]}"; do
    "$cc" -std=c99 "${flags[@]}" -o program "$program" \
        "$libttykit" "$libvc" "$libtty"
done
