#!/usr/bin/env bash
# The demo as a person sees it: plain text (no terminal control byte, no carriage return from
# the guest's console), one screen, and the Sand example's exit status 1 explained.
set -euo pipefail
cd "$(dirname "$0")/../.."
fail() {
    echo "demo output: FAILED: $*" >&2
    exit 1
}
for example in strata sand; do
    status=0
    output=$(KESTRUNE_DEMO_BUILT=1 scripts/demo.sh "examples/$example.json" 2>&1) || status=$?
    lines=$(printf '%s\n' "$output" | wc -l)
    printf '%s\n' "$output" | grep -q $'[\e\r]' && fail "$example: control bytes in the output"
    [ "$lines" -le 40 ] || fail "$example: $lines lines, more than a screen"
    grep -q '^The kernel matches the store: ' <<<"$output" || fail "$example: no verification line"
    if [ "$example" = sand ]; then
        [ "$status" = 1 ] || fail "sand: exit status $status, not 1"
        grep -q '^Exit status 1, as expected' <<<"$output" || fail "sand: exit 1 not explained"
    else
        [ "$status" = 0 ] || fail "strata: exit status $status"
    fi
    echo "demo output: $example: $lines lines, exit $status, plain text"
done
