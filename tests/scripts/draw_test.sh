#!/bin/bash
# usage: draw_test.sh DRAW PICTURES
# The pictures that are shown are those of the results beside them, wherever they are drawn.
set -euo pipefail
draw=$1 pictures=$2
drawn=$(mktemp -d)
trap 'rm -rf "$drawn"' EXIT

fail() {
    echo "$*" >&2
    exit 1
}

# Neither another language nor settings of the user's show.
export LC_ALL=C LANG=de_DE.UTF-8 HOME=$drawn TZ=Asia/Tokyo
echo 'set decimalsign ","' >"$drawn/.gnuplot"
mkdir "$drawn/pictures"
for bench in footprint load; do
    "$draw" "$pictures/$bench.json" "$drawn/pictures"
done
for picture in "$drawn"/pictures/*.svg "$pictures"/footprint-*.svg "$pictures"/load-*.svg; do
    name=$(basename "$picture")
    cmp "$pictures/$name" "$drawn/pictures/$name" ||
        fail "Draw the pictures again: bench/draw $pictures/${name%%-*}.json"
done

for picture in "$drawn"/pictures/*.svg; do
    python3 -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' "$picture" ||
        fail "$picture is not well-formed."
    grep --quiet 'prefers-color-scheme: dark' "$picture" ||
        fail "$picture has no colours for dark surroundings."
    # Each colour is one of those that have another one there.
    while read -r colour; do
        grep --quiet --fixed-strings "[stroke=\"$colour\"]" "$picture" ||
            fail "$picture has the colour $colour, which stays as it is in dark surroundings."
    done < <(grep --only-matching --extended-regexp \
        "(fill|stroke|color)=['\"]#[0-9a-fA-F]{6}" "$picture" | sed "s/.*#/#/" | sort --unique)
done

echo '{"bench": "load"}' >"$drawn/incomplete.json"
if "$draw" "$drawn/incomplete.json" "$drawn/pictures" 2>/dev/null; then
    fail "Results that lack what is to be drawn are drawn."
fi
