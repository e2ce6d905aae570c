#!/bin/bash
# Every manual page is free of mandoc's warnings, stands where its section
# says, and refers to pages that are there: lint.sh SOURCE_TREE
set -euo pipefail
cd "$1/man"

status=0
complain() {
    echo "$1"
    status=1
}

# Pages of the system that ours refer to, which a test machine may lack.
elsewhere=' cfsetospeed.3 fcntl.2 login.1 printf.3 setsockopt.2 syslog.3 waitpid.2 '

count=0
for page in man?/*; do
    section=${page##*.}
    [ "${page%%/*}" = "man$section" ] ||
        complain "$page: in the wrong directory"
    if [ "$(head -c 4 "$page")" = ".so " ]; then
        target=$(sed -n 's/^\.so //p' "$page")
        [ -f "$target" ] || complain "$page: leads to $target, which is absent"
        name=$(basename "$page" ".$section")
        grep -qE "^\.Nm $name( ,)?\$" "$target" ||
            complain "$page: $target does not name $name"
        continue
    fi
    count=$((count + 1))
    mandoc -T lint -W warning "$page" || status=1
    title=$(basename "$page" ".$section" | tr '[:lower:]' '[:upper:]')
    grep -qx "\.Dt $title $section" "$page" ||
        complain "$page: another title than the file's name"
    while read -r name number; do
        [ -f "man$number/$name.$number" ] ||
            [[ $elsewhere == *" $name.$number "* ]] ||
            complain "$page: refers to $name($number), which is absent"
    done < <(sed -nE 's/.*Xr ([a-z0-9_-]+) ([1-8]).*/\1 \2/p' "$page")
done
[ "$count" -ge 25 ] || complain "only $count pages found"
exit "$status"
