#!/bin/bash
# usage: unit_test.sh UNIT TARGET
# Has systemd itself judge the unit, without running it: whether it is understood, and how far it
# keeps the daemon in.
set -euo pipefail
unit=$1 target=$2

folder=$(mktemp --directory)
trap 'rm -rf "$folder"' EXIT
# The program need not be installed here.
sed 's|^ExecStart=.*|ExecStart=/bin/true|' "$unit" >"$folder/${unit##*/}"
cp "$target" "$folder"

said=$(systemd-analyze verify --man=no "$folder/${unit##*/}" "$folder/${target##*/}" 2>&1)
if [ -n "$said" ]; then
    echo "$said" >&2
    exit 1
fi
# Tenths: 2.5 is the most.
systemd-analyze security --offline=true --no-pager --threshold=25 "$folder/${unit##*/}"
