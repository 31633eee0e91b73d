# The Debian packages Kestrune needs, and installing the missing ones. Sourced by the test
# and demo commands.

packages=(
    build-essential cmake ninja-build pkg-config git python3
    clang clang-format clang-tidy libclang-rt-14-dev
    rapidjson-dev libmnl-dev libsqlite3-dev libcli11-dev libgtest-dev libgmock-dev
    sqlite3 iproute2 iptables man-db systemd
    qemu-system-x86 cpio kmod busybox-static libfuse3-dev debootstrap
    debhelper lintian
    librsvg2-bin libxml2-utils
)

install_packages() {
    local missing=()
    for package in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    printf '\n==> installing %s\n' "${missing[*]}"
    [ "$(id -u)" -eq 0 ] || { echo "installing packages needs root: run as root" >&2; exit 1; }
    # A transiently failing index is not fatal: the install below says what is really missing.
    apt-get update || echo "warning: apt-get update failed; trying the install anyway" >&2
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}" || true
    local still=()
    for package in "${missing[@]}"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
            still+=("$package")
    done
    if [ ${#still[@]} -ne 0 ]; then
        echo "FAILED: these packages could not be installed: ${still[*]}" >&2
        exit 1
    fi
}

