#!/usr/bin/env bash
# Runs one test program (with its arguments) inside a user-mode Linux guest: a full kernel
# with VLAN, prio qdisc and TAP support, whatever the host kernel lacks. The guest sees the
# host's files read-only, loads its own modules, and hands the program's exit status back
# through a file in a writable folder. Exits with that status; a guest that cannot start is
# a failure that says why. KESTRUNE_VM_WRITABLE=DIR (an existing host folder, absolute path
# without blanks) is writable in the guest at the same path, for results to keep.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

fail() {
    echo "vm tier: FAILED: $*" >&2
    exit 1
}

[ $# -ge 1 ] || fail "usage: vm-run.sh PROGRAM [ARGUMENTS...]"
kernel=$(command -v linux || true)
[ -n "$kernel" ] || fail "the guest cannot start: no user-mode Linux kernel on PATH (Debian package user-mode-linux)"
[ -x /bin/busybox ] || fail "the guest cannot start: no /bin/busybox (Debian package busybox-static)"
ls -d /usr/lib/uml/modules/*/ >/dev/null 2>&1 || fail "the guest cannot start: no modules under /usr/lib/uml/modules"

out=$(mktemp -d "${TMPDIR:-/tmp}/kestrune-vm-XXXXXX")
trap 'rm -rf "$out"' EXIT
# The command, quoted for the guest's /bin/sh.
for argument in "$@"; do
    printf "'%s' " "${argument//\'/\'\\\'\'}"
done >"$out/command"

# quiet: the kernel's own messages stay off the console, which carries the tests' output.
timeout "${KESTRUNE_VM_TIMEOUT:-600}" "$kernel" mem=768M quiet loglevel=0 \
    rootfstype=hostfs rootflags=/ ro init="$root/tests/vm/guest-init.sh" \
    con=null con0=null,fd:1 uml_dir="$out" \
    KESTRUNE_GUEST_OUT="$out" KESTRUNE_GUEST_CWD="$PWD" \
    KESTRUNE_GUEST_WRITABLE="${KESTRUNE_VM_WRITABLE:-}" </dev/null ||
    echo "vm tier: the guest exited with status $?" >&2

[ -s "$out/status" ] || fail "the guest did not report a status: it could not start or it crashed"
exit "$(cat "$out/status")"
