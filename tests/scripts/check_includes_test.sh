#!/bin/bash
# usage: check_includes_test.sh SCRIPT
# Shows the script small trees, each with one fault, and looks for that fault in what it says.
# Backticks stand in the document.
# shellcheck disable=SC2016
set -euo pipefail
script=$1
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

# prepare: a tree without a fault.
prepare() {
    rm -rf "$tree"
    mkdir -p "$tree"/docs "$tree"/src/{base,store,frame}
    cat >"$tree/docs/architecture.md" <<'END'
# Architecture

| thread | owns |
|---|---|
| `store/` | nothing that uses `frame` |

| folder | what it holds | uses |
|---|---|---|
| `base/` | helpers; includes `<unistd.h>` | nothing |
| `store/` | commands | `base` (text files) |
| `frame/` | the rest, as `store` says | `base`, `store` |
| `main.cpp` | the entry point | all |

The table ends before `nowhere/`.
END
    echo '#include <string>' >"$tree/src/base/text.h"
    printf '#include "base/text.h"\n#include <unistd.h>\n#include "store/keys.h"\n' >"$tree/src/store/keys.h"
    echo '#include "../store/keys.h"' >"$tree/src/frame/logger.cpp"
    printf '#include "base/text.h"\n#include "store/keys.h"\n' >"$tree/src/main.cpp"
}

replace() {
    grep --quiet --fixed-strings -e "$1" "$tree/docs/architecture.md"
    sed -i "s#$1#$2#" "$tree/docs/architecture.md"
}

# expect_fault TEXT: the script fails and says this, and nothing else.
expect_fault() {
    local said
    if said=$("$script" "$tree" 2>&1); then
        echo "Passed in spite of: $1" >&2
        exit 1
    fi
    if [[ "$said" != *"$1"* || "$said" == *$'\n'* ]]; then
        printf 'In the place of: %s\nit says: %s\n' "$1" "$said" >&2
        exit 1
    fi
}

prepare
"$script" "$tree"

echo '#include "store/keys.h"' >>"$tree/src/base/text.h"
expect_fault "src/base/text.h:2: base may not use store."

prepare
printf '\n#  include <frame/logger.cpp>\n' >>"$tree/src/store/keys.h"
expect_fault "src/store/keys.h:5: store may not use frame."

prepare
echo '#include "../frame/logger.cpp"' >"$tree/src/base/inner.h"
expect_fault "src/base/inner.h:1: base may not use frame."

prepare
echo '#include "main.cpp"' >>"$tree/src/frame/logger.cpp"
expect_fault "src/frame/logger.cpp:2: frame may not use main.cpp."

prepare
mkdir "$tree/src/events"
touch "$tree/src/events/event.h"
expect_fault "src/events has no row."

prepare
replace '| `base/` |' '| `bases/` |'
sed -i '/`bases/a | `base/` | | nothing |' "$tree/docs/architecture.md"
expect_fault "there is no src/bases."

prepare
sed -i '/^| `store.*files/p' "$tree/docs/architecture.md"
expect_fault "store has a row already."

prepare
replace '| nothing |' '| `frame` |'
expect_fault "these may use each other in a circle: base, frame, store."

prepare
replace '| nothing |' '| what it needs |'
expect_fault "what base uses is neither a folder nor nothing."

prepare
sed -i '/^| `store/a | the rest | | nothing |' "$tree/docs/architecture.md"
expect_fault "a row needs one name in backticks: the rest"

prepare
replace '| uses |' '| needs |'
expect_fault "has no table with the headings 'folder' and 'uses'."

prepare
rm -r "$tree/src"
expect_fault "There are no sources in"
