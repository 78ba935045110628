#!/bin/bash
# usage: manual_pages_test.sh PAGE...
# Whether both readers of manual pages understand them without a complaint.
set -euo pipefail

mandoc -T lint -W warning "$@"
for page in "$@"; do
    said=$(man --warnings --encoding=UTF-8 --local-file "$page" 2>&1 >/dev/null)
    if [ -n "$said" ]; then
        echo "$page: $said" >&2
        exit 1
    fi
done
