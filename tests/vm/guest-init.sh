#!/bin/sh
# The first process of the test guest. The root file system is the host's, read-only; the
# guest makes its own /proc, /sys and /run, keeps its scratch files under /dev/shm (the
# host's /tmp stays visible: the build may live there), loads the modules of its own kernel,
# runs the command it was given and writes the command's exit status where the host reads it.
PATH=/usr/sbin:/usr/bin:/sbin:/bin
scratch=/dev/shm
export PATH HOME=$scratch/tmp TMPDIR=$scratch/tmp GTEST_COLOR=no

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t tmpfs tmpfs /run
mkdir -p $scratch
mount -t tmpfs tmpfs $scratch
mkdir $scratch/tmp $scratch/out
share() {
    mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 "$1" "$2"
}
share out $scratch/out
# A host folder the caller asked to keep the guest's results in, writable at its own path.
if [ -n "${KESTRUNE_GUEST_WRITABLE:-}" ]; then
    share writable "$KESTRUNE_GUEST_WRITABLE"
fi

status=1
finish() {
    echo "$status" >$scratch/out/status
    sync
    /bin/busybox reboot -f
}

# The filter tables and the matches the example rule sets use.
filters="ip_tables iptable_filter ip6_tables ip6table_filter xt_tcpudp xt_conntrack"
# The guest kernel's modules are in the host's cache of it (scripts/vm-kernel.sh).
if ! modprobe -a -d "$KESTRUNE_GUEST_MODULES" 8021q sch_prio tun veth cuse $filters; then
    echo "vm tier: the guest cannot load its modules (8021q sch_prio tun veth cuse $filters)"
    finish
fi

# The guest kernel has no nftables families: the iptables tools must be the legacy ones. They
# are linked outside /dev and /run, which the production tier's tests mount afresh.
tools=/mnt
mount -t tmpfs tmpfs $tools
for tool in iptables iptables-save iptables-restore ip6tables ip6tables-save ip6tables-restore; do
    family=${tool%%-*}
    ln -s "/usr/sbin/$family-legacy${tool#"$family"}" "$tools/$tool"
done
PATH=$tools:$PATH

cd "$KESTRUNE_GUEST_CWD" || cd /
. $scratch/out/command
status=$?
finish
