#!/bin/bash
# The figures that bench/plot draws stand in the tables of the page that shows
# the pictures: figures.sh SOURCE_TREE. Also tries that it would notice another.
set -euo pipefail
cd "$1/docs"

tables=$(grep '^|' benchmarks.md | tr -d ',')

# The figures of a file that no cell begins with; not its first column, which
# says what was measured.
strangers() {
    grep -v '^#' "$1" | sed -E 's/^("[^"]*"|[0-9]+) //' | tr ' ' '\n' |
        while read -r figure; do
            grep -qE "\| $figure( |\|)" <<<"$tables" || echo "$1: $figure"
        done
}

status=0
count=0
for file in benchmarks/*.dat; do
    count=$((count + 1))
    found=$(strangers "$file")
    [ -z "$found" ] || { echo "$found" && status=1; }
    grep -qF "(${file%.dat}.svg)" benchmarks.md ||
        { echo "benchmarks.md does not show $file" && status=1; }
    [ -s "${file%.dat}.svg" ] || { echo "$file was not drawn" && status=1; }
done
[ "$count" -ge 3 ] || { echo "only $count files of figures" && status=1; }
[ -n "$(strangers <(echo '1 111 118 163'))" ] ||
    { echo "a wrong figure is not noticed" && status=1; }
exit "$status"
