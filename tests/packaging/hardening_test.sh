#!/bin/bash
# usage: hardening_test.sh BINARY [stack] [library]
# Looks for the hardening of a built program or library: that of its loading always, the
# checks of the stack and those of the C library where they are named.
set -euo pipefail
binary=$1
shift

fail() {
    echo "$binary: $1" >&2
    exit 1
}

header=$(readelf --file-header --wide "$binary")
segments=$(readelf --program-headers --wide "$binary")
dynamic=$(readelf --dynamic --wide "$binary")
imports=$(nm --dynamic --undefined-only "$binary")

grep --quiet --extended-regexp 'Type: +DYN' <<<"$header" || fail "It has a fixed address."
if grep --quiet INTERP <<<"$segments"; then
    grep --quiet --extended-regexp 'FLAGS_1.* PIE' <<<"$dynamic" || fail "It has a fixed address."
fi
grep --quiet GNU_RELRO <<<"$segments" || fail "Its relocations stay writable."
grep --quiet --extended-regexp 'FLAGS_1.* NOW' <<<"$dynamic" || fail "It binds its functions late."
grep --quiet --extended-regexp 'GNU_STACK.* RW +0x' <<<"$segments" || fail "Its stack can be run."
if grep --quiet --extended-regexp 'LOAD.* RWE' <<<"$segments"; then
    fail "It can write what it runs."
fi
if grep --quiet TEXTREL <<<"$dynamic"; then
    fail "Its code is rewritten when it is loaded."
fi
if grep --quiet --extended-regexp 'RPATH|RUNPATH' <<<"$dynamic"; then
    fail "It looks for libraries in folders of its own."
fi

for check in "$@"; do
    case $check in
        stack) name=__stack_chk_fail ;;
        library) name='__[a-z]*printf_chk' ;;
        *) fail "There is no check '$check'." ;;
    esac
    grep --quiet "$name" <<<"$imports" || fail "It lacks the checks of the $check."
done
