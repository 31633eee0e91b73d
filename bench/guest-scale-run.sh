#!/usr/bin/env bash
# The guest half of bench/guest-scale.sh: in one guest boot, for each store of WORK (a folder
# STORE/ with STORE/store.json), restores it ROUNDS times each way, the order rotating per
# round, and checks the state after every run:
#   kestrune   `kestrune simulate` as the command line runs it (the fast order)
#   library    bench/Floor.cpp with bench/peers.py's plan: the restore's own operations in
#              the library's order (VLAN devices made in the default namespace and moved)
#   bare       bench/Floor.cpp with bench/bare-plan.py's plan, written from the store
#   lever      the same with the kernel's IPv6 lever (bench/bare-plan.py's lever.txt)
# Each run's milliseconds go to STORE/WHO.ms, its state to STORE/WHO.state.
#   guest-scale-run.sh WORK ROUNDS BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
work=$1
rounds=$2
build=$3
export PATH=$build/bin/chip-tools:$PATH

# How long making an empty namespace takes in this guest when nothing is being torn down: the
# fastest of a few tries.
unshareNs() {
    local start end
    start=$(date +%s%N)
    unshare -n true
    end=$(date +%s%N)
    echo $((end - start))
}
quick=$(for try in 1 2 3 4 5; do unshareNs; done | sort -n | head -1)

# A namespace torn down after a run holds the locks making one needs: wait until making an
# empty namespace takes at most twice its quickest again, so no run pays for its predecessor
# (at most about 60 s).
settle() {
    for ((try = 0; try < 300; try++)); do
        (($(unshareNs) <= 2 * quick)) && return
        sleep 0.2
    done
}

kestrune() { # STORE_DIR
    local dir=$1
    "$build/bin/kestrune" simulate "$dir/store.json" --history "" --trace-file /dev/null \
        --report "$dir/k.json" >/dev/null || true
    python3 - "$dir/k.json" "$dir/kestrune.state" >>"$dir/kestrune.ms" <<'PY'
import json, sys
report = json.load(open(sys.argv[1]))
p = report["phasesMs"]
print("%.1f %.1f %.1f %.1f %.1f %.1f" % (p["total"], p["parse"] + p["init"], p["create"],
                                          p["move"], p["configure"], p["filterRules"]))
json.dump(report["kernel"], open(sys.argv[2], "w"))
PY
}

floor() { # STORE_DIR WHO PLAN
    unshare -n -m bash -c 'mount --make-rprivate / && mount -t tmpfs b /run && mkdir /run/netns &&
        ip link set lo up && "$1" "$2" "$3" "$4"' sandbox "$build/bin/restore-floor" "$3" \
        "$build/bin/state-dump" "$1/$2.state" >>"$1/$2.ms" || echo "guest-scale: $2 failed" >&2
}

for dir in "$work"/*/; do
    dir=${dir%/}
    store=$(basename "$dir")
    settle
    kestrune "$dir"
    : >"$dir/kestrune.ms"
    cp "$dir/k.json" "$dir/reference.json"
    python3 bench/peers.py "$dir/reference.json" "$dir/store.json" "$dir"
    python3 bench/bare-plan.py "$dir/store.json" "$dir"
    contenders=(kestrune library bare lever)
    for ((round = 0; round < rounds; round++)); do
        for ((i = 0; i < ${#contenders[@]}; i++)); do
            who=${contenders[$(((i + round) % ${#contenders[@]}))]}
            settle
            case $who in
            kestrune) kestrune "$dir" ;;
            library) floor "$dir" library "$dir/plan.txt" ;;
            bare) floor "$dir" bare "$dir/bare.txt" ;;
            lever) floor "$dir" lever "$dir/lever.txt" ;;
            esac
            python3 bench/same-state.py "$dir/reference.json" "$dir/$who.state" "$store $who" ||
                echo "$store $who" >>"$work/differs"
            echo "$store round $round $who: $(tail -1 "$dir/$who.ms")" >&2
        done
    done
done
