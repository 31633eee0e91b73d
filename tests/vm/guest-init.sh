#!/bin/sh
# The first process of the test guest. The root file system is the host's, read-only; the
# guest makes its own /proc, /sys, /tmp and /run, loads the modules of its own kernel, runs
# the command it was given and writes the command's exit status where the host reads it.
PATH=/usr/sbin:/usr/bin:/sbin:/bin
export PATH HOME=/tmp TMPDIR=/tmp GTEST_COLOR=no

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t tmpfs tmpfs /tmp
mount -t tmpfs tmpfs /run
mkdir /tmp/out
mount -t hostfs -o "$KESTRUNE_GUEST_OUT" hostfs /tmp/out

status=1
finish() {
    echo "$status" >/tmp/out/status
    sync
    /bin/busybox poweroff -f
}

# modprobe wants <dir>/lib/modules/<release>; the guest's modules live elsewhere on the host.
release=$(uname -r)
mkdir -p /tmp/modules/lib/modules
ln -s "/usr/lib/uml/modules/$release" "/tmp/modules/lib/modules/$release"
if ! modprobe -a -d /tmp/modules ipv6 8021q sch_prio tun veth; then
    echo "vm tier: the guest cannot load its modules (ipv6 8021q sch_prio tun veth)"
    finish
fi

# The guest kernel has no nftables families: the iptables tools must be the legacy ones.
mkdir /tmp/bin
for tool in iptables iptables-save iptables-restore ip6tables ip6tables-save ip6tables-restore; do
    family=${tool%%-*}
    ln -s "/usr/sbin/$family-legacy${tool#"$family"}" "/tmp/bin/$tool"
done
PATH=/tmp/bin:$PATH

cd "$KESTRUNE_GUEST_CWD" || cd /
. /tmp/out/command
status=$?
finish
