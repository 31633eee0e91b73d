#!/usr/bin/env bash
# Runs one test program (with its arguments) inside a full-kernel guest: Debian's own kernel
# under qemu (software emulation, or KVM on request), with VLAN, prio qdisc, TAP and CUSE support,
# whatever the host kernel lacks. The guest sees the host's files read-only over 9p, loads
# its own modules, and hands the program's exit status back through a file in a writable
# folder. Exits with that status; a guest that cannot start is a failure that says why.
# KESTRUNE_VM_WRITABLE=DIR (an existing host folder, absolute path without blanks) is
# writable in the guest at the same path, for results to keep. KESTRUNE_VM_ROOT=DIR with
# KESTRUNE_VM_ARCH=i386 boots the 32-bit guest over that root (scripts/i386-root.sh) instead of
# the host's; paths given are then paths inside it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

fail() {
    echo "vm tier: FAILED: $*" >&2
    exit 1
}

[ $# -ge 1 ] || fail "usage: vm-run.sh PROGRAM [ARGUMENTS...]"
guestRoot=${KESTRUNE_VM_ROOT:-}
qemu=qemu-system-x86_64
[ "${KESTRUNE_VM_ARCH:-amd64}" = i386 ] && qemu=qemu-system-i386
[ -x "$guestRoot/bin/busybox" ] ||
    fail "the guest cannot start: no $guestRoot/bin/busybox (Debian package busybox-static)"
kernel=$("$root/scripts/vm-kernel.sh")
# The guest's own paths: its root is the host's, or the one asked for.
guestSource=$root
guestKernel=${kernel#"$guestRoot"}
if [ -n "$guestRoot" ]; then
    guestSource=/kestrune
    [ -f "$guestRoot/kestrune/tests/vm/guest-init.sh" ] ||
        fail "the guest cannot start: the sources are not at $guestRoot/kestrune"
fi

out=$(mktemp -d "${TMPDIR:-/tmp}/kestrune-vm-XXXXXX")
trap 'rm -rf "$out"' EXIT
# The command, quoted for the guest's /bin/sh.
for argument in "$@"; do
    printf "'%s' " "${argument//\'/\'\\\'\'}"
done >"$out/command"

# Software emulation by default: KVM is not usable in every nested machine, and a guest that
# hangs on it says nothing. KESTRUNE_VM_ACCEL=kvm asks for it where it works.
accel=(-accel tcg -cpu max)
if [ "${KESTRUNE_VM_ACCEL:-tcg}" = kvm ]; then
    accel=(-accel kvm -cpu host)
fi
command -v "$qemu" >/dev/null || fail "the guest cannot start: no $qemu (Debian package qemu-system-x86)"
shares=(-virtfs "local,path=${guestRoot:-/},mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap"
    -virtfs "local,path=$out,mount_tag=out,security_model=none")
if [ -n "${KESTRUNE_VM_WRITABLE:-}" ]; then
    shares+=(-virtfs "local,path=$KESTRUNE_VM_WRITABLE,mount_tag=writable,security_model=none")
fi

# quiet: the kernel's own messages stay off the console, which carries the tests' output.
timeout "${KESTRUNE_VM_TIMEOUT:-600}" "$qemu" "${accel[@]}" -m 1024 -smp 1 \
    -nographic -no-reboot -nodefaults -serial stdio \
    -kernel "$kernel/vmlinuz" -initrd "$kernel/initramfs.cpio.gz" "${shares[@]}" \
    -append "console=ttyS0 quiet loglevel=0 panic=-1 KESTRUNE_GUEST_INIT=$guestSource/tests/vm/guest-init.sh KESTRUNE_GUEST_MODULES=$guestKernel KESTRUNE_GUEST_CWD=$PWD KESTRUNE_GUEST_WRITABLE=${KESTRUNE_VM_WRITABLE:-}" \
    </dev/null || echo "vm tier: the guest exited with status $?" >&2

[ -s "$out/status" ] || fail "the guest did not report a status: it could not start or it crashed"
exit "$(cat "$out/status")"
