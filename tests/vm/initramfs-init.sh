#!/bin/busybox sh
# The guest's first process, in its initramfs: loads what reaching the host's files over
# virtio 9p needs, mounts the host's root read-only and hands over to tests/vm/guest-init.sh.
# With KESTRUNE_GUEST_RW=1 the root is writable (the boot tier's own Debian root, booted by
# its systemd).
/bin/busybox mount -t proc proc /proc
/bin/busybox mount -t devtmpfs devtmpfs /dev
for module in /modules/*.ko; do
    /bin/busybox insmod "$module" || echo "vm tier: cannot load $module"
done
access=ro,cache=loose
# Writable, with the shared mappings that SQLite's write-ahead log needs.
[ "${KESTRUNE_GUEST_RW:-}" = 1 ] && access=rw,cache=mmap
if ! /bin/busybox mount -t 9p -o trans=virtio,version=9p2000.L,$access,msize=262144 \
    hostroot /host; then
    echo "vm tier: cannot mount the host's files"
    /bin/busybox poweroff -f
fi
/bin/busybox umount /proc
/bin/busybox mount --move /dev /host/dev 2>/dev/null || /bin/busybox umount /dev
exec /bin/busybox switch_root /host "$KESTRUNE_GUEST_INIT"
