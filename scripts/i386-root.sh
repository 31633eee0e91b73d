#!/usr/bin/env bash
# Prepares, once, a Debian 12 root file system of the production target's architecture
# (32-bit x86) with everything Kestrune needs to build and test, and prints its folder.
# It is made by debootstrap from the main archive and kept in a cache: Debian's i386 multiarch
# packages can be out of step with the host's for a while (a security index mid-sync), a
# root of its own cannot. A root made before serves when the mirror cannot be reached.
# KESTRUNE_I386_CACHE chooses the cache (default /var/cache/kestrune-i386).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cache=${KESTRUNE_I386_CACHE:-/var/cache/kestrune-i386}
mirror=${KESTRUNE_DEBIAN_MIRROR:-http://deb.debian.org/debian}

# What the build, the tests and the 32-bit guest need inside the root.
packages=(
    build-essential cmake ninja-build pkg-config
    rapidjson-dev libmnl-dev libsqlite3-dev libcli11-dev libgtest-dev libgmock-dev libfuse3-dev
    sqlite3 iproute2 iptables kmod busybox-static python3 procps cpio
)
stamp=$(printf '%s\n' "${packages[@]}" | sha256sum | cut -c1-12)
folder=$cache/bookworm-$stamp

fail() {
    echo "i386 tier: FAILED: $*" >&2
    exit 1
}

# The root is complete when its stamp file exists; it is written last.
if [ -f "$folder/.kestrune-ready" ]; then
    echo "$folder"
    exit 0
fi
command -v debootstrap >/dev/null || fail "no debootstrap (Debian package debootstrap)"

mkdir -p "$cache"
work=$(mktemp -d "$cache/work.XXXXXX")
cleanup() {
    for mount in proc sys dev; do
        umount -l "$work/$mount" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

echo "i386 tier: making a 32-bit Debian 12 root in $folder (once)" >&2
debootstrap --arch=i386 --variant=minbase bookworm "$work" "$mirror" >"$work.log" 2>&1 ||
    { tail -n 20 "$work.log" >&2; fail "debootstrap could not make the root (log: $work.log)"; }
mount -t proc proc "$work/proc"
mount -t sysfs sysfs "$work/sys"
mount --bind /dev "$work/dev"
cp /etc/resolv.conf "$work/etc/resolv.conf" 2>/dev/null || true
chroot "$work" /usr/bin/env DEBIAN_FRONTEND=noninteractive apt-get install -y \
    --no-install-recommends "${packages[@]}" >>"$work.log" 2>&1 ||
    { tail -n 20 "$work.log" >&2; fail "the packages could not be installed in the root (log: $work.log)"; }
# The guest kernel of the 32-bit production tier comes from the root's own archive.
(cd "$work/root" && chroot "$work" sh -c 'cd /root && apt-get download linux-image-686' >>"$work.log" 2>&1 &&
    kernel=$(chroot "$work" apt-cache depends linux-image-686 | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)$/\1/p' | head -n 1) &&
    chroot "$work" sh -c "cd /root && apt-get download $kernel" >>"$work.log" 2>&1) ||
    fail "the 32-bit guest kernel could not be downloaded (log: $work.log)"
chroot "$work" apt-get clean
for mount in proc sys dev; do
    umount -l "$work/$mount"
done
touch "$work/.kestrune-ready"
rm -rf "$folder"
mv "$work" "$folder"
rm -f "$work.log"
echo "$folder"
