#!/bin/bash
# Runs a driver in a runtime directory of its own.
# Usage: run.sh plain|valgrind DRIVER
#
# valgrind: the driver and all that it forks must be without errors, and the
# driver must have closed at its end whatever it has opened. What it forks
# need not: a session's program starts with the daemon's descriptors.
set -u

way=$1
driver=$2
directory=$(mktemp -d /tmp/ttyline-memory-XXXXXX) || exit 1
trap 'rm -rf "$directory"' EXIT
export TMPDIR=$directory/0
mkdir "$TMPDIR" || exit 1

if [ "$way" = plain ]; then
    "$driver"
    exit
fi

# The descriptors that were open at the end and not at the start. The number of
# the connection to the inetd stays taken once it was there.
left_open() {
    awk '/ Open / { open = $0; next }
         open ~ /AF_UNIX socket/ && / dup3 / && !placeholder++ { open = "" }
         open != "" && !/<inherited from parent>/ { print open; found = 1 }
         { open = "" }
         END { exit !found }' "$1"
}

failed=0
# In the background for its process id, which names its log.
valgrind --track-fds=yes --leak-check=full --error-exitcode=99 \
    --log-file="$directory/log.%p" "$driver" &
pid=$!
wait "$pid" || failed=1
own=$directory/log.$pid
if ! grep -q 'FILE DESCRIPTORS: ' "$own"; then
    echo "no list of open descriptors"
    failed=1
elif left_open "$own"; then
    echo "descriptors left open"
    failed=1
fi
for log in "$directory"/log.*; do
    # Processes that were killed, or ran another program, have no summary.
    if grep -q 'ERROR SUMMARY: [1-9]' "$log" ||
        { ! grep -q 'ERROR SUMMARY: ' "$log" && grep -q ' at 0x' "$log"; }; then
        failed=1
    fi
done
[ "$failed" = 0 ] || cat "$directory"/log.*
exit "$failed"
