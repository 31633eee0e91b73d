# What the tests that install Kestrune's packages into a Debian 12 root share (sourced by
# scripts/package-test.sh and scripts/boot-test.sh, each of which defines fail first): a
# scratch folder whose mounts are undone at exit, a root made once with debootstrap and
# cached, copy-on-write views of it, and commands run inside one with a clean environment.

work=$(mktemp -d)
mounts=()
cleanup() {
    for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
        umount -l "${mounts[$i]}" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

attach() { # attach TYPE-OR-bind SOURCE TARGET
    mkdir -p "$3"
    if [ "$1" = bind ]; then mount --bind "$2" "$3"; else mount -t "$1" "$2" "$3"; fi
    mounts+=("$3")
}

# cachedRoot FOLDER [PACKAGE,...]: a minimal Debian 12 (with the packages named) in FOLDER,
# made once and kept; a root half made is made again.
cachedRoot() {
    local base=$1 include=${2:+--include=$2}
    local cache mirror=${KESTRUNE_DEBIAN_MIRROR:-http://deb.debian.org/debian}
    cache=$(dirname "$base")
    [ -f "$base/.kestrune-ready" ] && return 0
    echo "making a Debian 12 root in $base (once)" >&2
    rm -rf "$base" "$base.tmp"
    mkdir -p "$cache"
    # shellcheck disable=SC2086
    debootstrap --variant=minbase $include bookworm "$base.tmp" "$mirror" \
        >"$cache/debootstrap.log" 2>&1 ||
        { tail -n 20 "$cache/debootstrap.log" >&2; fail "debootstrap (log: $cache/debootstrap.log)"; }
    touch "$base.tmp/.kestrune-ready"
    mv "$base.tmp" "$base"
}

# rootView BASE RUN: a fresh copy-on-write view of BASE at RUN/root; the base stays as it is.
rootView() {
    mkdir -p "$2/upper" "$2/overlay-work" "$2/root"
    mount -t overlay kestrune-root -o "lowerdir=$1,upperdir=$2/upper,workdir=$2/overlay-work" \
        "$2/root"
    mounts+=("$2/root")
}

# inRoot COMMAND...: runs it inside $root (the caller's) with a clean environment.
inRoot() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
        DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"
}
