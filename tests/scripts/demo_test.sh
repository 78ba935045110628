#!/bin/bash
# usage: demo_test.sh DEMO
# Runs the demo and looks at what a person sees: one screen, and everything when asked.
set -euo pipefail
demo=$1

fail() {
    echo "$1" >&2
    echo "$output" >&2
    exit 1
}

output=$("$demo")
[ "$(wc -l <<<"$output")" -le 24 ] || fail "It does not fit on a screen."
[ "$(wc -L <<<"$output")" -le 80 ] || fail "A line is too long for a screen."
[ "$(grep --count ' right$' <<<"$output")" -eq 8 ] || fail "Not every chapter has its line."
grep --quiet 'everything was as it must be' <<<"$output" || fail "It does not say how it ended."
! grep --quiet 'HTTP/1.1' <<<"$output" || fail "It shows requests without being asked."

# On a terminal, the wait is a bar that gets shorter.
output=$(script --quiet --return --command "$demo" /dev/null)
grep --quiet '\[#*\] 4 s' <<<"$output" || fail "The wait does not begin with a full bar."
grep --quiet '\[#\{1,19\}\.\{1,19\}\]' <<<"$output" || fail "The bar does not get shorter."

output=$("$demo" --verbose)
for shown in 'HTTP/1.1 201 Created' 'Base.1.12.Created' 'AuditEvent.1.1.UserLogout' '\[right\]'; do
    grep --quiet "$shown" <<<"$output" || fail "The verbose output does not show $shown."
done
! grep --extended-regexp --quiet '[0-9a-f]{64}' <<<"$output" || fail "It shows a whole token."

! output=$("$demo" --loud 2>&1) || fail "It takes an option that it does not have."
grep --quiet '^usage: ' <<<"$output" || fail "It does not say how it is called."
