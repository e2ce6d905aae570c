#!/bin/bash
# Files, functions and links that the documents name exist: names.sh SOURCE_TREE
# Also tries that it would notice one that does not.
set -euo pipefail
cd "$1"

status=0
count=0
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
complain() {
    echo "$1"
    status=1
}

directories='common|tty|vc|kit|include|programs|examples|dev|bench|tests|docs|man'

# What stands in backquotes, and the files in a document's pictures.
names() {
    # shellcheck disable=SC2016  # the backquotes are the documents'
    { sed '/^```/,/^```/d' "$1" | grep -oE '`[^`]+`' || true; } | tr -d '`'
    pictures "$1" | grep -oE "\b($directories)/[A-Za-z0-9_./-]*[A-Za-z0-9_]" ||
        true
}

# shellcheck disable=SC2016
pictures() {
    sed -n '/^```mermaid$/,/^```$/p' "$1"
}

# Paths of the tree, and names with parentheses; of others nothing is known.
exists() {
    case "$1" in
    *[*\<\ \$]*) ;;
    *\(\))
        count=$((count + 1))
        grep -qrE "\b${1%()}\(" common tty vc kit include programs
        ;;
    *)
        [[ $1 =~ ^($directories)/ ]] || return 0
        count=$((count + 1))
        [ -e "$1" ]
        ;;
    esac
}

check() {
    local name
    while read -r name; do
        exists "$name" || complain "$1 names $name, which is nowhere"
    done < <(names "$1" | sort -u)
}

for document in docs/architecture.md docs/tutorial.md docs/hazards.md \
    docs/abi.md CONTRIBUTING.md README.md SECURITY.md; do
    check "$document"
done
[ "$count" -ge 100 ] || complain "only $count names found"
[ "$(pictures docs/architecture.md | grep -c '^```mermaid')" = 2 ] ||
    complain "docs/architecture.md has other than two pictures"

# A name that is wrong, in a picture or in backquotes, must be noticed:
# trial TEXT NAME
trial() {
    printf '%s\n' "$1" >"$scratch/trial.md"
    [[ $(check "$scratch/trial.md") == *"names $2, which is nowhere"* ]] ||
        complain "a wrong name is not noticed: $1"
}
trial "$(pictures docs/architecture.md |
    sed 's,kit/keeper\.cpp,kit/no_keeper.cpp,')" kit/no_keeper.cpp
# shellcheck disable=SC2016
trial 'see `vc/no_loop.cpp`' vc/no_loop.cpp
# shellcheck disable=SC2016
trial 'see `no_such_function()`' 'no_such_function()'

for document in docs/*.md ./*.md; do
    while read -r target; do
        [ -e "$(dirname "$document")/$target" ] ||
            complain "$document links to $target, which is absent"
    done < <(grep -oE '\]\([^):#]+\)' "$document" | sed 's/^](//; s/)$//')
done
exit "$status"
