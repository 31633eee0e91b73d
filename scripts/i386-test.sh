#!/usr/bin/env bash
# The production target's tiers: builds Kestrune as 32-bit x86 binaries inside the cached
# Debian 12 i386 root (scripts/i386-root.sh), runs the unit and kernel tiers there as 32-bit
# processes on this machine's kernel, then the production tier in a 32-bit guest (Debian's
# i386 kernel under qemu) over that root. The build folder stays in the root, so a second run
# builds only what changed.
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)

step() { printf '\n==> %s\n' "$*"; }

root=$("$source/scripts/i386-root.sh")
build=/kestrune-build

mounts=()
unmount() {
    local i
    for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
        umount -l "${mounts[$i]}" 2>/dev/null || true
    done
}
trap unmount EXIT
# A run that is stopped still lets go of the root.
trap 'exit 130' INT TERM
attach() { # attach TYPE-OR-bind SOURCE TARGET
    mkdir -p "$3"
    if [ "$1" = bind ]; then
        mount --bind "$2" "$3"
    else
        mount -t "$1" "$2" "$3"
    fi
    mounts+=("$3")
}

# The root is a mount point of its own, as / is: the tests make their mounts private. Any user
# may walk it, as any user may walk /: the tests of what another user can do need that.
chmod 0755 "$root"
attach bind "$root" "$root"
# The sources at a fixed path inside the root, so the build folder's cache always matches.
attach bind "$source" "$root/kestrune"
attach proc proc "$root/proc"
attach sysfs sysfs "$root/sys"
attach bind /dev "$root/dev"
attach bind /dev/pts "$root/dev/pts" # terminals, for the tests of what a terminal shows
attach tmpfs tmpfs "$root/run"
attach tmpfs tmpfs "$root/tmp"

inRoot() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TMPDIR=/tmp \
        GTEST_COLOR=no "$@"
}

step "build (i386)"
inRoot cmake -S /kestrune -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
inRoot cmake --build "$build"
file=$(inRoot sh -c "od -An -t x1 -j 4 -N 1 $build/bin/kestrune" | tr -d ' ')
[ "$file" = 01 ] || { echo "FAILED: $build/bin/kestrune is not a 32-bit program" >&2; exit 1; }

step "tests (i386: unit, kernel)"
inRoot ctest --test-dir "$build" -L 'unit|kernel' -j "$(nproc)" --output-on-failure

step "tests (i386: production, in the 32-bit guest)"
# The guest sees the root, with the sources where the build expects them.
KESTRUNE_VM_ROOT=$root KESTRUNE_VM_ARCH=i386 KESTRUNE_VM_TIMEOUT=${KESTRUNE_VM_TIMEOUT:-1100} \
    "$source/scripts/vm-run.sh" "$build/bin/kestrune_production_tests"
