#!/usr/bin/env bash
# Prepares the test guest's kernel once and prints its folder: Debian's own kernel package,
# unpacked (never installed) into a cache, with its module index and a small initramfs that
# mounts the host's root file system over 9p and starts tests/vm/guest-init.sh on it.
# KESTRUNE_VM_CACHE chooses the cache (default /var/cache/kestrune-vm). KESTRUNE_VM_ROOT
# names another root file system for the guest (the 32-bit one of scripts/i386-root.sh):
# its own kernel package, downloaded there, and its own busybox are used, and the cache is
# inside it, where the guest finds its modules.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
guestRoot=${KESTRUNE_VM_ROOT:-}
cache=${KESTRUNE_VM_CACHE:-$guestRoot/var/cache/kestrune-vm}
arch=${KESTRUNE_VM_ARCH:-amd64}
busybox=$guestRoot/bin/busybox

# A kernel prepared before, when today's cannot be had (no index, a mirror mid-sync).
cached() {
    local folder
    for folder in "$cache"/*-"$arch"; do
        [ -s "$folder/initramfs.cpio.gz" ] && { echo "$folder"; return 0; }
    done
    return 1
}

fail() {
    cached && exit 0
    echo "vm tier: FAILED: $*" >&2
    exit 1
}

# The kernel the meta-package names today, e.g. linux-image-6.1.0-56-amd64.
kernelPackage() {
    apt-cache depends "linux-image-$arch" 2>/dev/null |
        sed -n 's/^ *Depends: \(linux-image-[0-9].*\)$/\1/p' | head -n 1
}
if [ -n "$guestRoot" ]; then
    debFile=$(ls "$guestRoot"/root/linux-image-[0-9]*.deb 2>/dev/null | head -n 1)
    package=$(basename "${debFile%%_*}")
else
    package=$(kernelPackage)
    if [ -z "$package" ]; then
        apt-get update >/dev/null 2>&1 || true
        package=$(kernelPackage)
    fi
fi
[ -n "$package" ] || fail "the guest cannot start: apt knows no linux-image-$arch package"
release=${package#linux-image-}
folder=$cache/$release
# The initramfs is built last: its presence says the folder is complete.
if [ -s "$folder/initramfs.cpio.gz" ] && [ "$folder/initramfs.cpio.gz" -nt "$root/tests/vm/initramfs-init.sh" ]; then
    echo "$folder"
    exit 0
fi

work=$(mktemp -d "$cache.XXXXXX" 2>/dev/null || { mkdir -p "$cache" && mktemp -d "$cache.XXXXXX"; })
trap 'rm -rf "$work"' EXIT
if [ -n "$guestRoot" ]; then
    cp "$debFile" "$work/"
else
    (cd "$work" && apt-get download "$package" >/dev/null 2>&1) ||
        { apt-get update >/dev/null 2>&1 || true; (cd "$work" && apt-get download "$package" >/dev/null 2>&1); } ||
        fail "the guest cannot start: apt-get download $package failed"
fi
dpkg-deb -x "$work"/linux-image-*.deb "$work/unpacked"
mkdir -p "$work/kernel"
cp "$work/unpacked/boot/vmlinuz-$release" "$work/kernel/vmlinuz"
mkdir -p "$work/kernel/lib/modules"
mv "$work/unpacked/lib/modules/$release" "$work/kernel/lib/modules/"
depmod -b "$work/kernel" "$release"

# The initramfs: busybox, the modules that reach the host's files over virtio 9p, and init.
ramfs=$work/ramfs
mkdir -p "$ramfs/bin" "$ramfs/modules" "$ramfs/proc" "$ramfs/sys" "$ramfs/dev" "$ramfs/host"
cp "$busybox" "$ramfs/bin/busybox"
# In load order, as modprobe resolves their dependencies.
order=0
while read -r _ path _; do
    order=$((order + 1))
    cp "$path" "$ramfs/modules/$(printf '%02d' "$order")-$(basename "$path")"
done < <(modprobe -d "$work/kernel" -S "$release" --show-depends -a virtio_pci 9pnet_virtio 9p |
    grep '^insmod ' | awk '!seen[$2]++')
[ "$order" -gt 0 ] || fail "the guest cannot start: no 9p modules in $package"
install -m 0755 "$root/tests/vm/initramfs-init.sh" "$ramfs/init"
(cd "$ramfs" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/kernel/initramfs.cpio.gz"

rm -rf "$folder"
mkdir -p "$cache"
mv "$work/kernel" "$folder"
echo "$folder"
