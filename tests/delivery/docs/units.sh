#!/bin/bash
# The units say what they mean to systemd, and the daemon that needs nothing but
# its directory has nothing else: units.sh SOURCE_TREE
set -euo pipefail
source=$1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

for unit in ttyline-ttylined ttyline-consoled; do
    # A program that is there, whatever has been installed.
    sed 's|@CMAKE_INSTALL_FULL_SBINDIR@/[a-z]*|/bin/true|' \
        "$source/systemd/$unit.service.in" >"$work/$unit.service"
    grep -q '^Type=notify$' "$work/$unit.service"
    grep -q '^WatchdogSec=' "$work/$unit.service"
done
# What it says of other units of this machine, by its status too, is not of
# these.
systemd-analyze verify --man=no "$work"/*.service 2>"$work/said" || true
if grep 'ttyline-' "$work/said"; then
    status=1
fi
# In tenths: 4.0.
systemd-analyze security --no-pager --offline=yes --threshold=40 \
    "$work/ttyline-ttylined.service" | tail -n 1 || status=1
exit "$status"
