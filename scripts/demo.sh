#!/usr/bin/env bash
# The demo restore: on Debian 12 as root, installs what is missing, builds, and restores a
# store with the chip simulator in place of the switch chip, inside a private network
# namespace, then shows what the kernel holds. Where the host kernel has no VLAN support the
# restore runs inside the qemu guest of the vm test tier instead.
#   scripts/demo.sh [STORE] [kestrune simulate options]   (default: examples/strata.json)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

install_packages
cmake --preset default >/dev/null
cmake --build --preset default --target kestrune-cli >/dev/null

store=examples/strata.json
if [ $# -gt 0 ] && [ "${1#-}" = "$1" ]; then
    store=$1
    shift
fi

# VLAN devices are what some host kernels cannot make; try one in a throwaway namespace.
if unshare -n sh -c 'ip link add k0 type veth peer name k1 &&
                     ip link add link k0 name k0.5 type vlan id 5' 2>/dev/null; then
    exec build/bin/kestrune simulate "$store" --history "" "$@"
fi
echo "This kernel cannot make VLAN devices: restoring inside the qemu guest." >&2
exec scripts/vm-run.sh build/bin/kestrune simulate "$store" --history "" "$@"
