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
# With --scaling first, the stores are 64, 256, 1,024 and 4,096 ports (half of them routed, one
# LAG of 4 per 8 ports, 32 VRFs, 2,000 rules a family), only Kestrune and the floor run, and
# the tables say how each phase grows per 4 times the size.
#   bench/compare.sh --scaling [ROUNDS] [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
scaling=0
if [ "${1:-}" = --scaling ]; then
    scaling=1
    shift
fi
rounds=${1:-5}
build=$(cd "${2:-build}" && pwd)
work=$(mktemp -d /tmp/kestrune-compare-XXXXXX)
trap 'rm -rf "$work"' EXIT
[ -x "$build/bin/restore-floor" ] || { echo "compare: build first (cmake --build --preset default)" >&2; exit 2; }

# Ports of a generated store: half routed, one LAG of 4 for every 8 ports.
generated() { # PORTS
    python3 bench/generate-store.py --ports "$1" --routed $(($1 / 2)) --lags $(($1 / 8)) \
        --members 4 --subintfs 0 --svis 0 --vrfs 32 --rules 2000 --compact -o "$work/$1.json"
}
if ((scaling)); then
    stores=(64 256 1024 4096)
    contenders=(kestrune floor)
else
    # The Strata example without its VLAN devices, then generated stores.
    stores=(example 512 1024)
    contenders=(kestrune floor batch shell)
    python3 - "$work/example.json" <<'PY'
import json, sys
store = json.load(open("examples/strata.json"))
store["Vant"]["subIntfNameToEncapVlanId"] = {}
store["Oku"]["interfaces"] = {k: v for k, v in store["Oku"]["interfaces"].items()
                              if "." not in k and not k.startswith("Vlan")}
json.dump(store, open(sys.argv[1], "w"))
PY
fi
for store in "${stores[@]}"; do
    [ "$store" = example ] || generated "$store"
done

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

for store in "${stores[@]}"; do
    dir=$work/$store
    mkdir -p "$dir"
    # Kestrune's own run first: its state is the one the others must leave.
    "$build/bin/kestrune" simulate "$work/$store.json" --history "" --trace-file /dev/null \
        --report "$dir/reference.json" >/dev/null || true
    python3 bench/peers.py "$dir/reference.json" "$work/$store.json" "$dir"
    for ((round = 0; round < rounds; round++)); do
        for ((i = 0; i < ${#contenders[@]}; i++)); do
            who=${contenders[$(((i + round) % ${#contenders[@]}))]}
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

python3 - "$work" "$scaling" "${stores[@]}" <<'PY'
import json, os, statistics, sys
work, scaling, stores = sys.argv[1], sys.argv[2] == "1", sys.argv[3:]
def times(store, who, column):
    return [float(line.split()[column]) for line in open(os.path.join(work, store, who + ".ms"))]
def median(store, who, column):
    return statistics.median(times(store, who, column))
def spread(store, who, column):
    t = times(store, who, column)
    return "%.0f (%.0f-%.0f)" % (statistics.median(t), min(t), max(t))
def devices(store):
    kernel = json.load(open(os.path.join(work, store, "reference.json")))["kernel"]
    return sum(len(v) for v in kernel.values())

if not scaling:
    print("| store | devices | Kestrune | floor | ip -batch | shell | Kestrune / floor | Kestrune / ip -batch | shell / Kestrune |")
    print("|---|---|---|---|---|---|---|---|---|")
    for store in stores:
        m = {who: median(store, who, 0) for who in ("kestrune", "floor", "batch", "shell")}
        print("| %s | %d | %s | %.2f | %.2f | %.1f |" % (
            store, devices(store), " | ".join(spread(store, who, 0) for who in m),
            m["kestrune"] / m["floor"], m["kestrune"] / m["batch"], m["shell"] / m["kestrune"]))
    print()
print("Without the filter-rule tools (Kestrune: parse to configure; floor: its operations):")
print("| store | devices | Kestrune | floor | Kestrune / floor |")
print("|---|---|---|---|---|")
for store in stores:
    print("| %s | %d | %s | %s | %.2f |" % (store, devices(store), spread(store, "kestrune", 1),
          spread(store, "floor", 1), median(store, "kestrune", 1) / median(store, "floor", 1)))
print()
phases = ("init", "create", "move", "configure", "filter rules")
print("By phase, medians in ms, Kestrune / floor (ratio); Kestrune's init includes parsing the store:")
print("| store | " + " | ".join(phases) + " |")
print("|---|" + "---|" * len(phases))
for store in stores:
    cells = []
    for column in range(2, 7):
        k, f = median(store, "kestrune", column), median(store, "floor", column)
        cells.append("%.0f / %.0f (%.2f)" % (k, f, k / f if f else float("nan")))
    print("| %s | %s |" % (store, " | ".join(cells)))
if scaling:
    print()
    print("Growth per 4 times the ports, Kestrune / floor (linear is 4.0):")
    print("| from | to | " + " | ".join(phases) + " |")
    print("|---|---|" + "---|" * len(phases))
    for small, large in zip(stores, stores[1:]):
        cells = []
        for column in range(2, 7):
            grow = [median(large, who, column) / max(median(small, who, column), 0.1)
                    for who in ("kestrune", "floor")]
            cells.append("%.1f / %.1f" % tuple(grow))
        print("| %s | %s | %s |" % (small, large, " | ".join(cells)))
PY
