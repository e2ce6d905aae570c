#!/bin/bash
# Follows docs/tutorial.md to the letter, in an empty directory against an
# installed tree: code blocks go to the file that they name, command blocks are
# run one after the other in one shell, and what a text block shows is what the
# commands before it have printed. Usage: tutorial.sh SOURCE_TREE BUILD_TREE
set -euo pipefail
source=$1
build=$2

# Under /tmp whatever TMPDIR says: a unix path has little room.
scratch=$(mktemp -d /tmp/ttyline.XXXXXX)
runner=
# shellcheck disable=SC2317  # the trap calls it
clean_up() {
    if [ -n "$runner" ]; then
        kill "$runner" 2>/dev/null || true
        wait "$runner" || true
    fi
    rm -rf "$scratch"
}
trap clean_up EXIT
trap 'exit 143' INT TERM HUP

cmake --install "$build" --prefix "$scratch/prefix" >"$scratch/install.log"
mkdir "$scratch/blocks" "$scratch/work"

# 01.c.greetd.c, 02.sh, 03.text, ...
awk -v out="$scratch/blocks" '
    /^```/ && !inside {
        inside = 1
        info = substr($0, 4)
        sub(/ /, ".", info)
        file = sprintf("%s/%02d.%s", out, ++number, info)
        printf "" > file
        next
    }
    /^```/ { inside = 0; close(file); next }
    inside { print > file }
    END { exit inside }' "$source/docs/tutorial.md"

# The daemons end with this shell, however it ends.
cat >"$scratch/follow" <<'END'
set -eu
./echo() { exec setpriv --pdeathsig KILL ./echo "$@"; }
./chat() { exec setpriv --pdeathsig KILL ./chat "$@"; }
ttylined() { exec setpriv --pdeathsig KILL "$prefix/sbin/ttylined" "$@"; }
code=0 commands=0 texts=0 printed=
for block in ../blocks/*; do
    case "$block" in
    *.c.*)
        cat "$block" >>"${block#*.c.}"
        code=$((code + 1))
        ;;
    *.sh)
        printed=../printed.$(basename "$block")
        echo "--- $block"
        . "$block" >"$printed" 2>&1 || {
            cat "$printed"
            exit 1
        }
        commands=$((commands + 1))
        ;;
    *.text)
        diff "$block" "$printed"
        texts=$((texts + 1))
        ;;
    *)
        echo "$block is neither code, commands nor text"
        exit 1
        ;;
    esac
done
[ "$code" -ge 8 ] && [ "$commands" -ge 9 ] && [ "$texts" -ge 4 ]
# What was typed is what is installed as examples, and as short as promised.
for name in echo chat; do
    diff "$name.c" "$prefix/share/doc/ttyline/examples/$name.c"
done
[ "$(wc -l <echo.c)" -le 40 ] && [ "$(wc -l <chat.c)" -le 120 ]
END

cd "$scratch/work"
# Killed, none of them could end the next one: each has the kernel do it.
prefix=$scratch/prefix setpriv --pdeathsig KILL timeout 60 \
    setpriv --pdeathsig KILL bash "$scratch/follow" &
runner=$!
status=0
wait "$runner" || status=$?
runner=
if [ "$status" != 0 ]; then
    tail -n 20 trace echo.c run/mng/tty/.*.txt 2>/dev/null || true
fi
exit "$status"
