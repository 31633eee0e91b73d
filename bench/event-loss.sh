#!/usr/bin/env bash
# Kills a restore outright (SIGKILL) at random points, ROUNDS times (default 20), and counts
# for each kill the events the process traced as recorded against the events on disk (the
# history and its journals, as `kestrune events` reads them). Root; uses `kestrune simulate`
# on a store of 3,536 failures on a host without VLANs.
#   bench/event-loss.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
rounds=${2:-20}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 "$root/bench/generate-store.py" --ports 512 --lags 64 --members 4 --subintfs 512 \
    --svis 1000 --vrfs 32 --rules 2000 --compact -o "$work/store.json"
worst=0
for round in $(seq "$rounds"); do
    rm -f "$work"/h.db* "$work/trace.txt"
    "$build/bin/kestrune" simulate "$work/store.json" --history "$work/h.db" --trace 0-9 \
        --trace-file "$work/trace.txt" >/dev/null 2>&1 &
    pid=$!
    sleep "0.$(printf '%03d' $((RANDOM % 400)))"
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    recorded=$(grep -c '^Kestrune:9 logEvent ' "$work/trace.txt" || true)
    stored=$("$build/bin/kestrune" events --json --history "$work/h.db" 2>/dev/null |
        grep -c '"message"' || true)
    lost=$((recorded - stored))
    [ "$lost" -gt "$worst" ] && worst=$lost
    printf 'kill %2d: %5d recorded, %5d on disk, %d lost\n' "$round" "$recorded" "$stored" "$lost"
done
echo "most events lost to one SIGKILL: $worst"
