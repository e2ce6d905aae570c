#!/bin/bash
# Usage: headers.sh BUILD_DIRECTORY SOURCE_DIRECTORY
set -eu

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
DESTDIR=$scratch cmake --install "$1" >/dev/null
diff -r "$2/include/ttyline" "$(find "$scratch" -type d -path '*/include/ttyline')"
