#!/bin/bash
# Every test that docs/hazards.md names exists: hazards.sh SOURCE_TREE
set -euo pipefail
cd "$1"

# As they stand in the sources, one "Suite.test" a line.
sources=$(cat tests/unit/*/*.cpp tests/system/*/*.cpp tests/soak/*.cpp | tr '\n' ' ' |
    grep -oE 'TEST(_F)?\([A-Za-z0-9]+, *[A-Za-z0-9_]+\)' |
    sed -E 's/TEST(_F)?\(([A-Za-z0-9]+), *([A-Za-z0-9_]+)\)/\2.\3/')
# shellcheck disable=SC2016  # the backquotes are the documents'
named=$(grep -oE '`[A-Za-z]+\.[A-Za-z0-9_]+`' docs/hazards.md | tr -d '`' |
    grep -vE '\.(cpp|h|md)$')
[ "$(wc -l <<<"$named")" -ge 20 ]
status=0
while read -r test; do
    if ! grep -qxF "$test" <<<"$sources"; then
        echo "docs/hazards.md names a test that does not exist: $test"
        status=1
    fi
done <<<"$named"
exit "$status"
