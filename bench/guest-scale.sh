#!/usr/bin/env bash
# The restore at switch scale, where VLAN devices exist: generated stores with SVIs and
# subinterfaces spread over VRFs, restored in the qemu guest (whose kernel makes VLANs), in one
# guest boot per chip family, Kestrune against three floors (bench/guest-scale-run.sh):
#   library   the restore's own kernel operations in the library's order, issued directly
#   bare      the fewest operations that reach the same state, written from the store
#   lever     the same with the kernel's IPv6 lever: devices up with IPv6 off, then it on
# Every run's state is checked against Kestrune's. Prints, per family, medians with their
# spread (min-max) and the ratios, then each phase, then how Kestrune and the bare floor
# grow per 2 times the SVIs. Guest times are slow and noisy: read the ratios.
#   bench/guest-scale.sh [strata|sand|both] [ROUNDS] [BUILD_DIR] [STORE...]
# ROUNDS defaults to 3; the stores to all of:
#   switch    512 ports, 64 Port-Channels of 4, 512 subinterfaces, 1,000 SVIs, 32 VRFs
#   svi1024, svi2048, svi4094
#             512 ports, 64 Port-Channels of 4, that many SVIs (ids from 1), 256 VRFs
#   ports2304 2,304 ports, 64 Port-Channels of 4, 1,000 subinterfaces, 32 VRFs
# all with 2,000 filter rules a family; "small" (64 ports, 48 subinterfaces, 100 SVIs, 8 VRFs)
# tries the bench out.
set -euo pipefail
cd "$(dirname "$0")/.."
families=${1:-both}
rounds=${2:-3}
build=$(cd "${3:-build}" && pwd)
shift $(($# < 3 ? $# : 3))
stores=("$@")
[ ${#stores[@]} -gt 0 ] || stores=(switch svi1024 svi2048 svi4094 ports2304)
[ "$families" = both ] && families="strata sand"
[ -x "$build/bin/restore-floor" ] || { echo "guest-scale: build first" >&2; exit 2; }
work=$(mktemp -d /tmp/kestrune-guest-scale-XXXXXX)
# KESTRUNE_BENCH_KEEP=1 keeps the stores, plans, reports and the guest's log.
if [ "${KESTRUNE_BENCH_KEEP:-0}" = 1 ]; then
    echo "guest-scale: keeping $work" >&2
else
    trap 'rm -rf "$work"' EXIT
fi

arguments() { # STORE
    case $1 in
    switch) echo --ports 512 --lags 64 --members 4 --subintfs 512 --svis 1000 --vrfs 32 ;;
    svi*) echo --ports 512 --lags 64 --members 4 --subintfs 0 --svis "${1#svi}" --first-svi 1 \
        --vrfs 256 ;;
    small) echo --ports 64 --lags 4 --members 4 --subintfs 48 --svis 100 --vrfs 8 ;;
    ports2304) echo --ports 2304 --lags 64 --members 4 --subintfs 1000 --svis 0 --vrfs 32 ;;
    *) echo "guest-scale: no store $1" >&2; exit 2 ;;
    esac
}

for family in $families; do
    mkdir -p "$work/$family"
    for store in "${stores[@]}"; do
        mkdir -p "$work/$family/$store"
        # shellcheck disable=SC2046
        python3 bench/generate-store.py --family "$family" $(arguments "$store") --rules 2000 \
            --compact -o "$work/$family/$store/store.json"
    done
    KESTRUNE_VM_WRITABLE=$work KESTRUNE_VM_TIMEOUT=${KESTRUNE_VM_TIMEOUT:-7200} \
        scripts/vm-run.sh "$PWD/bench/guest-scale-run.sh" "$work/$family" "$rounds" "$build" \
        >"$work/$family.log" 2>&1 || { tail -20 "$work/$family.log" >&2; exit 1; }
    grep -a 'guest-scale\|Traceback\|Error\|: want ' "$work/$family.log" >&2 || true
    python3 bench/guest-scale-table.py "$work/$family" "$family" "${stores[@]}"
    if [ -s "$work/$family/differs" ]; then
        echo "guest-scale: the state differed after these runs:" >&2
        cat "$work/$family/differs" >&2
        exit 1
    fi
done
