#!/usr/bin/env bash
# The Debian packages as an image builder meets them: built from this tree (scripts/deb.sh,
# lintian-clean), installed with apt-get into a fresh Debian 12 root, then used there:
# `kestrune simulate` from the installed package, `kestrune restore` and `kestrune events`,
# `man kestrune`, and `systemd-analyze verify` of the boot service. Root only.
#   scripts/package-test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
cache=${KESTRUNE_DEB_ROOT_CACHE:-/var/cache/kestrune-deb-root}
fail() {
    echo "package test: FAILED: $*" >&2
    exit 1
}

source scripts/debian-root.sh

scripts/deb.sh "$work/debs" >/dev/null

# A minimal Debian 12, made once and kept; each run works on a copy-on-write view of it, so
# every run starts from the fresh root.
base=$cache/bookworm-minbase
cachedRoot "$base"
root=$work/root
rootView "$base" "$work"
attach proc proc "$root/proc"
attach sysfs sysfs "$root/sys"
attach bind /dev "$root/dev"
attach bind /dev/pts "$root/dev/pts"
attach tmpfs tmpfs "$root/run"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mkdir -p "$root/debs"
cp "$work"/debs/*.deb "$root/debs/"

echo "package test: apt-get install ./kestrune*.deb ./libkestrune*.deb man-db systemd" >&2
inRoot apt-get update >"$work/apt.log" 2>&1 || true
inRoot sh -c 'apt-get install -y --no-install-recommends /debs/kestrune_*.deb /debs/kestrune-sim_*.deb /debs/libkestrune0_*.deb /debs/libkestrune-dev_*.deb man-db systemd' \
    >>"$work/apt.log" 2>&1 || { tail -n 20 "$work/apt.log" >&2; fail "apt-get install"; }

# A store this kernel can restore whole: the installed Strata example without its VLAN
# devices, which some host kernels cannot make.
python3 - "$root/usr/share/kestrune/examples/strata.json" "$root/root/store.json" <<'PY'
import json, sys
store = json.load(open(sys.argv[1]))
store["Vant"]["subIntfNameToEncapVlanId"] = {}
store["Oku"]["interfaces"] = {k: v for k, v in store["Oku"]["interfaces"].items()
                              if "." not in k and not k.startswith("Vlan")}
json.dump(store, open(sys.argv[2], "w"))
PY
simulated=$(inRoot kestrune simulate /root/store.json 2>&1) || {
    echo "$simulated" | tail -n 5 >&2
    inRoot sh -c 'ls -l /usr/libexec/kestrune/chip-tools; dpkg -l | grep kestrune' >&2 || true
    fail "kestrune simulate"
}
grep -q "^Restored the Strata store: " <<<"$simulated" && grep -q "^No failures$" <<<"$simulated" ||
    { echo "$simulated" >&2; fail "kestrune simulate did not restore the store whole"; }
grep -q "^The kernel matches the store: " <<<"$simulated" ||
    { echo "$simulated" >&2; fail "kestrune simulate: verify finds drift after the restore"; }

mkdir -p "$root/root/empty"
inRoot kestrune restore --pstore-dir /root/empty >/dev/null 2>&1 || true
events=$(inRoot kestrune events) || fail "kestrune events"
grep -q "create /root/empty/zel-persistent-store.json file not present" <<<"$events" ||
    { echo "$events" >&2; fail "kestrune events does not show the restore's event"; }

page=$(inRoot sh -c 'MANWIDTH=100 man kestrune 2>&1') || { echo "$page" >&2; fail "man kestrune"; }
grep -q "kestrune restore" <<<"$page" || { echo "$page" >&2; fail "man kestrune shows no page"; }

verdict=$(inRoot systemd-analyze verify /lib/systemd/system/kestrune-restore.service 2>&1) ||
    { echo "$verdict" >&2; fail "systemd-analyze verify"; }
[ -z "$verdict" ] || { echo "$verdict" >&2; fail "systemd-analyze verify warns"; }
echo "package test: the packages install, simulate and verify, restore, record, show their page and pass systemd-analyze verify" >&2
