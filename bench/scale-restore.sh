#!/usr/bin/env bash
# The whole restore of a switch-scale store, timed phase by phase: 512 ports (a quarter
# routed), 64 Port-Channels of 4, 512 subinterfaces, 1,000 SVIs, 32 VRFs and 2,000 filter
# rules per family, restored by `kestrune simulate` in the qemu guest (whose
# kernel makes VLANs). Prints the report's phasesMs and what was created.
#   bench/scale-restore.sh [strata|sand] [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
family=${1:-strata}
build=${2:-build}
work=$(mktemp -d /tmp/kestrune-scale-XXXXXX)
trap 'rm -rf "$work"' EXIT

python3 bench/generate-store.py --family "$family" --ports 512 --lags 64 --members 4 \
    --subintfs 512 --svis 1000 --vrfs 32 --rules 2000 --compact -o "$work/store.json"
KESTRUNE_VM_WRITABLE=$work KESTRUNE_VM_TIMEOUT=1200 scripts/vm-run.sh \
    "$build/bin/kestrune" simulate "$work/store.json" --history "" --trace-file /dev/null \
    --report "$work/report.json" >/dev/null || true
[ -s "$work/report.json" ] || { echo "scale-restore: no report was written" >&2; exit 1; }
python3 - "$work/report.json" <<'PY'
import collections, json, sys
report = json.load(open(sys.argv[1]))
print("ok:", report["ok"], " failures:", report["failures"]["count"])
print("phasesMs:", ", ".join("%s %.0f" % item for item in report["phasesMs"].items()))
made = collections.Counter((i["type"], i["created"]) for i in report["interfaces"])
print("interfaces:", ", ".join("%s %d/%d" % (t, made[(t, True)], made[(t, True)] + made[(t, False)])
                               for t in sorted({t for t, _ in made})))
devices = sum(len(ns) for ns in report["kernel"].values())
print("kernel: %d devices in %d namespaces" % (devices, len(report["kernel"])))
PY
