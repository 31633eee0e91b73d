#!/usr/bin/env bash
# The demo restore: on Debian 12 as root, installs what is missing, builds, and restores a
# store with the chip simulator in place of the switch chip, inside a private network
# namespace, then shows in one screen what the kernel holds, the restore's summary and what
# verify finds. Where the host kernel has no VLAN support the restore runs inside the qemu
# guest of the vm test tier instead; its output is carried out through a shared folder, so
# none of the guest console's own bytes reach the terminal.
#   scripts/demo.sh [STORE] [kestrune simulate options]   (default: examples/strata.json)
#   (--full shows every device with its kind, MTU, MAC, state, qdisc and addresses)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

# KESTRUNE_DEMO_BUILT=1: the build is there already (the test of the demo's output).
if [ -z "${KESTRUNE_DEMO_BUILT:-}" ]; then
    install_packages
    cmake --preset default >/dev/null
    cmake --build --preset default --target kestrune-cli >/dev/null
fi

store=examples/strata.json
if [ $# -gt 0 ] && [ "${1#-}" = "$1" ]; then
    store=$1
    shift
fi
# No trace lines unless asked: the guest's output is a file, not a terminal.
options=()
brief=--brief
traced=
for option in "$@"; do
    case $option in
        --full) brief= ;;
        --trace | --trace-file | --trace=* | --trace-file=*) traced=yes; options+=("$option") ;;
        *) options+=("$option") ;;
    esac
done
[ -z "$brief" ] || options+=("$brief")
[ -n "$traced" ] || options+=(--trace-file /dev/null)

status=0
# VLAN devices are what some host kernels cannot make; try one in a throwaway namespace.
if unshare -n sh -c 'ip link add k0 type veth peer name k1 &&
                     ip link add link k0 name k0.5 type vlan id 5' 2>/dev/null; then
    build/bin/kestrune simulate "$store" --history "" "${options[@]}" || status=$?
else
    echo "This kernel cannot make VLAN devices: restoring inside the qemu guest."
    out=$(mktemp -d)
    trap 'rm -rf "$out"' EXIT
    quoted=$(printf "'%s' " "${options[@]}")
    KESTRUNE_VM_WRITABLE=$out scripts/vm-run.sh /bin/sh -c \
        "$PWD/build/bin/kestrune simulate '$PWD/$store' --history '' $quoted >$out/output 2>&1; echo \$? >$out/status" \
        >/dev/null 2>&1 || true
    [ -s "$out/status" ] || { echo "demo: the guest did not finish the restore" >&2; exit 1; }
    cat "$out/output"
    status=$(cat "$out/status")
fi
if [ "$status" = 1 ] && grep -q '"platformType": *"Sand"' "$store"; then
    echo
    echo "Exit status 1, as expected: the Sand platform makes no kernel devices for LAGs and"
    echo "subinterfaces, so the restore lists each of them as a failure."
fi
exit "$status"
