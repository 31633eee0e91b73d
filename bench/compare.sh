#!/usr/bin/env bash
# The standing restore benchmark: Kestrune against three other ways to restore the same kernel
# state from the same store, on stores the generator makes (no files are kept):
#   floor   bench/Floor.cpp, the same ioctl/rtnetlink operations issued directly
#   batch   `ip -batch`, `tc -batch` and `sysctl -p` once per namespace
#   shell   one `ip`/`tc`/`sysctl` process per operation
# Each run is in fresh network and mount namespaces; rounds are interleaved, the order of the
# four rotating. After every run the kernel's state (devices, MTUs, MACs, admin state, root
# qdiscs, addresses) is read back and checked against Kestrune's. Prints medians, spreads
# (min-max) and ratios. The host kernel makes no VLAN devices, so the stores have none.
#   bench/compare.sh [ROUNDS] [BUILD_DIR]       (root; ROUNDS defaults to 5)
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${1:-5}
build=$(cd "${2:-build}" && pwd)
work=$(mktemp -d /tmp/kestrune-compare-XXXXXX)
trap 'rm -rf "$work"' EXIT
[ -x "$build/bin/restore-floor" ] || { echo "compare: build first (cmake --build --preset default)" >&2; exit 2; }

# The stores: the Strata example without its VLAN devices, then generated ones.
python3 - "$work/example.json" <<'PY'
import json, sys
store = json.load(open("examples/strata.json"))
store["Vant"]["subIntfNameToEncapVlanId"] = {}
store["Oku"]["interfaces"] = {k: v for k, v in store["Oku"]["interfaces"].items()
                              if "." not in k and not k.startswith("Vlan")}
json.dump(store, open(sys.argv[1], "w"))
PY
python3 bench/generate-store.py --ports 512 --routed 256 --lags 64 --members 4 --subintfs 0 \
    --svis 0 --vrfs 32 --rules 2000 --compact -o "$work/512.json"
python3 bench/generate-store.py --ports 1024 --routed 512 --lags 128 --members 4 --subintfs 0 \
    --svis 0 --vrfs 32 --rules 2000 --compact -o "$work/1024.json"

# Runs a command in fresh namespaces; prints its wall time in ms, then leaves the state read
# back in $2.
sandboxed() { # COMMAND STATE
    unshare -n -m bash -c '
        mount --make-rprivate / && mount -t tmpfs kestrune-bench /run && mkdir /run/netns
        ip link set lo up
        start=$(date +%s%N)
        bash -c "$1" >/dev/null 2>"$2.err" || echo "FAILED: $1" >&2
        end=$(date +%s%N)
        echo $(( (end - start) / 1000 ))
        "$3" >"$2"
    ' sandbox "$1" "$2" "$build/bin/state-dump" | awk '{ printf "%.1f\n", $1 / 1000 }'
}

# The kernel tears a run's namespaces down after it exits, holding the locks that making a
# namespace needs: a contender started meanwhile would pay for its predecessor. Waits until
# making an empty namespace is quick again (at most 5 s).
settle() {
    for ((try = 0; try < 100; try++)); do
        local start end
        start=$(date +%s%N)
        unshare -n true
        end=$(date +%s%N)
        (((end - start) < 10000000)) && return
        sleep 0.05
    done
}

for store in example 512 1024; do
    dir=$work/$store
    mkdir -p "$dir"
    # Kestrune's own run first: its state is the one the others must leave.
    "$build/bin/kestrune" simulate "$work/$store.json" --history "" --trace-file /dev/null \
        --report "$dir/reference.json" >/dev/null || true
    python3 bench/peers.py "$dir/reference.json" "$work/$store.json" "$dir"
    contenders=(kestrune floor batch shell)
    for ((round = 0; round < rounds; round++)); do
        for ((i = 0; i < 4; i++)); do
            who=${contenders[$(((i + round) % 4))]}
            settle
            case $who in
            kestrune)
                "$build/bin/kestrune" simulate "$work/$store.json" --history "" \
                    --trace-file /dev/null --report "$dir/k.json" >/dev/null || true
                python3 -c 'import json,sys; r=json.load(open(sys.argv[1])); p=r["phasesMs"]; print("%.1f %.1f %.1f %.1f %.1f %.1f %.1f" % (p["total"], p["total"] - p["filterRules"], p["parse"] + p["init"], p["create"], p["move"], p["configure"], p["filterRules"]))' "$dir/k.json" >>"$dir/kestrune.ms"
                python3 -c 'import json,sys; print(json.dumps(json.load(open(sys.argv[1]))["kernel"]))' "$dir/k.json" >"$dir/kestrune.state"
                ;;
            floor)
                PATH=$build/bin/chip-tools:$PATH unshare -n -m bash -c 'mount --make-rprivate / && mount -t tmpfs b /run && mkdir /run/netns && ip link set lo up && "$1" "$2" "$3" "$4"' \
                    sandbox "$build/bin/restore-floor" "$dir/plan.txt" "$build/bin/state-dump" \
                    "$dir/floor.state" | awk '{ printf "%.1f %.1f %.1f %.1f %.1f %.1f %.1f\n", $1, $1 - $2, $3, $4, $5, $6, $7 }' >>"$dir/floor.ms"
                ;;
            batch | shell)
                ms=$(sandboxed "bash $dir/$who.sh" "$dir/$who.state")
                echo "$ms $ms" >>"$dir/$who.ms"
                ;;
            esac
            python3 bench/same-state.py "$dir/reference.json" "$dir/$who.state" "$store $who"
        done
    done
done

python3 - "$work" <<'PY'
import os, statistics, sys
work = sys.argv[1]
def times(store, who, column):
    return [float(line.split()[column]) for line in open(os.path.join(work, store, who + ".ms"))]
print("| store | devices | Kestrune | floor | ip -batch | shell | Kestrune / floor | Kestrune / ip -batch | shell / Kestrune |")
print("|---|---|---|---|---|---|---|---|---|")
for store in ("example", "512", "1024"):
    import json
    devices = sum(len(v) for v in json.load(open(os.path.join(work, store, "reference.json")))["kernel"].values())
    med = {}
    cells = []
    for who in ("kestrune", "floor", "batch", "shell"):
        t = times(store, who, 0)
        med[who] = statistics.median(t)
        cells.append("%.0f (%.0f-%.0f)" % (med[who], min(t), max(t)))
    print("| %s | %d | %s | %.2f | %.2f | %.1f |" % (store, devices, " | ".join(cells),
          med["kestrune"] / med["floor"], med["kestrune"] / med["batch"], med["shell"] / med["kestrune"]))
print()
print("Without the filter-rule tools (Kestrune: parse to configure; floor: its operations):")
print("| store | Kestrune | floor | Kestrune / floor |")
print("|---|---|---|---|")
for store in ("example", "512", "1024"):
    k, f = times(store, "kestrune", 1), times(store, "floor", 1)
    print("| %s | %.0f (%.0f-%.0f) | %.0f (%.0f-%.0f) | %.2f |" % (store, statistics.median(k), min(k), max(k),
          statistics.median(f), min(f), max(f), statistics.median(k) / statistics.median(f)))
print()
print("By phase, medians in ms (Kestrune's init includes parsing the store):")
print("| store | init | create | move | configure | filter rules |")
print("|---|---|---|---|---|---|")
for store in ("example", "512", "1024"):
    cells = []
    for column in range(2, 7):
        k = statistics.median(times(store, "kestrune", column))
        f = statistics.median(times(store, "floor", column))
        cells.append("%.0f / %.0f (%.2f)" % (k, f, k / f if f else float("nan")))
    print("| %s | %s |" % (store, " | ".join(cells)))
print("(Kestrune / floor (ratio))")
PY
