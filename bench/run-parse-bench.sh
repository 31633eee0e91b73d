#!/usr/bin/env bash
# Generates a store of 4,000 interfaces (1,024 ports of which 512 routed, 128 Port-Channels
# of 4 members, 1,500 subinterfaces, 1,348 VLAN interfaces, 3 VRFs, 200 rules) and times
# its parse. Usage: bench/run-parse-bench.sh [BUILD_DIR] [strata|sand]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
family=${2:-strata}
store=$(mktemp --suffix=.json)
trap 'rm -f "$store"' EXIT
python3 bench/generate-store.py --family "$family" --ports 1024 --routed 512 --lags 128 \
    --members 4 --subintfs 1500 --svis 1348 --vrfs 3 --rules 200 --compact -o "$store"
"$build/bin/parse-bench" "$store" 21
