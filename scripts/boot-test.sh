#!/usr/bin/env bash
# The boot tier: Kestrune as a switch image boots it. The freshly built Debian packages are
# installed with apt-get into a Debian 12 root (made once with debootstrap, with systemd, and
# cached; each run works on a copy-on-write view of it), the chip device daemon is started by
# modprobe's install line as on a switch, the store is put in /mnt/flash, and the root is
# booted under qemu with Debian's kernel and systemd as its first process. A unit of the
# image's reads what the boot left behind (tests/boot/kestrune-boot-check) and powers the
# guest off; this script says what it found. Root only.
#   scripts/boot-test.sh [strata|sand]...     (default: both families)
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD
cache=${KESTRUNE_BOOT_CACHE:-/var/cache/kestrune-boot}
mirror=${KESTRUNE_DEBIAN_MIRROR:-http://deb.debian.org/debian}
families=("$@")
[ ${#families[@]} -gt 0 ] || families=(strata sand)
fail() {
    echo "boot tier: FAILED: $*" >&2
    exit 1
}

work=$(mktemp -d)
mounts=()
cleanup() {
    for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
        umount -l "${mounts[$i]}" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

kernel=$(scripts/vm-kernel.sh) || fail "no guest kernel"
release=$(basename "$kernel")
scripts/deb.sh "$work/debs" >/dev/null

# Debian 12 with systemd, made once and kept. Nothing Kestrune needs is in it: the packages'
# own dependencies must bring it.
base=$cache/bookworm-systemd
if [ ! -f "$base/.kestrune-ready" ]; then
    echo "boot tier: making a Debian 12 root with systemd in $base (once)" >&2
    rm -rf "$base" "$base.tmp"
    mkdir -p "$cache"
    debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus bookworm "$base.tmp" \
        "$mirror" >"$cache/debootstrap.log" 2>&1 ||
        { tail -n 20 "$cache/debootstrap.log" >&2; fail "debootstrap (log: $cache/debootstrap.log)"; }
    touch "$base.tmp/.kestrune-ready"
    mv "$base.tmp" "$base"
fi

bootFamily() {
    local family=$1
    local run=$work/$family
    local root=$run/root
    mkdir -p "$run/upper" "$run/overlay-work" "$root"
    mount -t overlay "kestrune-boot-$family" \
        -o "lowerdir=$base,upperdir=$run/upper,workdir=$run/overlay-work" "$root"
    mounts+=("$root")
    for fs in proc sys dev dev/pts; do
        mkdir -p "$root/$fs"
    done
    mount -t proc proc "$root/proc" && mounts+=("$root/proc")
    mount --bind /dev "$root/dev" && mounts+=("$root/dev")
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    mkdir -p "$root/debs"
    cp "$work"/debs/*.deb "$root/debs/"
    inRoot() {
        chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
            DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"
    }
    echo "boot tier ($family): apt-get install the packages" >&2
    inRoot apt-get update >"$run/apt.log" 2>&1 || true
    inRoot sh -c 'apt-get install -y --no-install-recommends /debs/kestrune_*.deb /debs/kestrune-sim_*.deb /debs/libkestrune0_*.deb' \
        >>"$run/apt.log" 2>&1 || { tail -n 20 "$run/apt.log" >&2; fail "apt-get install"; }
    umount "$root/dev" "$root/proc"

    # What the image builder adds for this switch: the kernel's modules, the chip's driver
    # (its simulator, started by modprobe as the real one is loaded) and tools, the legacy
    # filter (the guest's kernel has no nftables), the store, the agent and the check.
    mkdir -p "$root/lib/modules"
    cp -a "$kernel/lib/modules/$release" "$root/lib/modules/"
    printf '%s\n' 8021q tun sch_prio cuse veth >"$root/etc/modules-load.d/kestrune-switch.conf"
    local module=strata-dma-drv
    [ "$family" = sand ] && module=sand-dma
    echo "install $module /usr/libexec/kestrune/kestrune-chip-daemon --family $family --module $module --chip-log /run/kestrune/chip.log \$CMDLINE_OPTS" \
        >"$root/etc/modprobe.d/kestrune-chip.conf"
    for tool in fab schan; do
        ln -sf "/usr/libexec/kestrune/chip-tools/$tool" "$root/usr/local/sbin/$tool"
    done
    inRoot update-alternatives --set iptables /usr/sbin/iptables-legacy >/dev/null
    inRoot update-alternatives --set ip6tables /usr/sbin/ip6tables-legacy >/dev/null
    mkdir -p "$root/mnt/flash" "$root/var/tmp/kestrune-boot"
    cp "$root/usr/share/kestrune/examples/$family.json" "$root/mnt/flash/zel-persistent-store.json"
    install -m 0755 tests/boot/kestrune-boot-check "$root/usr/local/sbin/"
    cp tests/boot/kestrune-agent.service tests/boot/kestrune-boot-check.service "$root/etc/systemd/system/"
    inRoot systemctl enable kestrune-agent.service kestrune-boot-check.service >/dev/null 2>&1
    inRoot systemctl mask getty@.service serial-getty@.service console-getty.service \
        systemd-timesyncd.service apt-daily.timer apt-daily-upgrade.timer >/dev/null 2>&1 || true
    echo "kestrune-$family" >"$root/etc/hostname"
    sed -i 's|^KESTRUNE_METRICS=.*|KESTRUNE_METRICS=/var/lib/kestrune/kestrune.prom|' \
        "$root/etc/default/kestrune"

    # What this family's restore must leave: its exit status, a device the agent sees, the VRF
    # ports that need their holder, an event of the run, and the journal's warnings: exactly
    # the restore's failures, one line each (every event after the parse).
    local expect=$root/var/tmp/kestrune-boot/expect
    local events=tests/production/expected/$family-events.txt
    if [ "$family" = strata ]; then
        echo "exitStatus=0" >"$expect"
        echo "vrfPorts='ns-red/et1_2 ns-red/et1_5 ns-red/et1_8 ns-red/et1_11 ns-red/po3 ns-blue/et1_3 ns-blue/et1_6 ns-blue/et1_9 ns-blue/et1_12'" >>"$expect"
    else
        echo "exitStatus=1" >"$expect"
        echo "vrfPorts='ns-red/et1_2 ns-blue/et1_3'" >>"$expect"
    fi
    echo "agentSees=vlan10" >>"$expect"
    echo "eventSeen='Adding subintf Ethernet1/1.100'" >>"$expect"
    grep -v '^ConfigParser: ' "$events" | sed 's/^[A-Za-z]*: /Kestrune:0 /' \
        >"$root/var/tmp/kestrune-boot/expected-warnings.txt" || true

    echo "boot tier ($family): booting the image" >&2
    local started=$SECONDS
    timeout "${KESTRUNE_BOOT_TIMEOUT:-600}" qemu-system-x86_64 -accel tcg -cpu max -m 1024 -smp 1 \
        -nographic -no-reboot -nodefaults -serial stdio \
        -kernel "$kernel/vmlinuz" -initrd "$kernel/initramfs.cpio.gz" \
        -virtfs "local,path=$root,mount_tag=hostroot,security_model=none,multidevs=remap" \
        -append "console=ttyS0 quiet loglevel=3 panic=-1 KESTRUNE_GUEST_RW=1 KESTRUNE_GUEST_INIT=/lib/systemd/systemd systemd.show_status=0" \
        </dev/null >"$run/console.log" 2>&1 || echo "boot tier ($family): qemu exited with $?" >&2
    local results=$root/var/tmp/kestrune-boot/results.txt
    cp -a "$root/var/tmp/kestrune-boot" "$work/$family-findings" 2>/dev/null || true
    [ -s "$results" ] || { tail -n 30 "$run/console.log" >&2; fail "$family: the booted image reported nothing"; }
    echo "boot tier ($family): booted and checked in $((SECONDS - started)) s" >&2
    sed "s/^/  $family: /" "$results" >&2
    grep -q '^done$' "$results" || fail "$family: the check did not finish"
    if grep -q '^FAILED' "$results"; then
        [ -n "${KESTRUNE_BOOT_KEEP:-}" ] && cp -a "$work/$family-findings" "$KESTRUNE_BOOT_KEEP/" 2>/dev/null
        fail "$family: $(grep -c '^FAILED' "$results") check(s) failed"
    fi
}

for family in "${families[@]}"; do
    bootFamily "$family"
done
echo "boot tier: ${families[*]} booted, restored and checked"
