#!/bin/bash
# Files, functions and links that the documents name exist: names.sh SOURCE_TREE
set -euo pipefail
cd "$1"

status=0
count=0
complain() {
    echo "$1"
    status=1
}

# What stands in backquotes: paths of the tree, and names with parentheses.
# shellcheck disable=SC2016  # the backquotes are the documents'
names() {
    grep -oE '`[^`]+`' "$1" | tr -d '`' | sort -u
}

for document in docs/architecture.md docs/tutorial.md CONTRIBUTING.md; do
    while read -r name; do
        case "$name" in
        *[*\<\ \$]*) ;;
        *\(\))
            count=$((count + 1))
            grep -qrE "\b${name%()}\(" common tty vc kit include programs ||
                complain "$document names $name, which is nowhere"
            ;;
        common/* | tty/* | vc/* | include/* | kit/* | programs/* | dev/* | examples/* | tests/* | \
            docs/* | man/*)
            count=$((count + 1))
            [ -e "$name" ] || complain "$document names $name, which is absent"
            ;;
        esac
    done < <(names "$document")
done
[ "$count" -ge 50 ] || complain "only $count names found"

for document in docs/*.md ./*.md; do
    while read -r target; do
        [ -e "$(dirname "$document")/$target" ] ||
            complain "$document links to $target, which is absent"
    done < <(grep -oE '\]\([^):#]+\)' "$document" | sed 's/^](//; s/)$//')
done
exit "$status"
