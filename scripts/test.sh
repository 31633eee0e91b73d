#!/usr/bin/env bash
# The one test command: installs every Debian package Kestrune needs, checks formatting and
# lint, builds the default and the sanitizer build, runs every test tier in both, checks
# that an installed Kestrune is usable from CMake and pkg-config, builds the Debian packages
# and uses them in a fresh Debian 12 root (scripts/package-test.sh), builds and tests the
# 32-bit x86 production target in a Debian i386 root and guest, and fuzzes the store parser
# and the chip device daemon for a minute each (FUZZ_SECONDS to change that; 0 skips them).
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/packages.sh

step() { printf '\n==> %s\n' "$*"; }

# Folders that exist of those named: find fails on a missing one.
folders() {
    local folder
    for folder in "$@"; do
        [ -d "$folder" ] && echo "$folder"
    done
    return 0
}

sources() {
    # shellcheck disable=SC2046
    find $(folders src tools tests sim bench) -type f \( -name '*.h' -o -name '*.cpp' \) | sort
}

check_format() {
    step "clang-format"
    sources | xargs clang-format --dry-run --Werror
}

check_lint() {
    step "clang-tidy"
    local log status=0
    log=$(mktemp)
    # shellcheck disable=SC2046
    find $(folders src tools sim) -type f -name '*.cpp' | sort |
        xargs -P "$(nproc)" -n 4 clang-tidy -p build --quiet >"$log" 2>&1 || status=$?
    grep -v -E '^[0-9]+ warnings? generated\.$|^Suppressed [0-9]+ warnings|^Use -header-filter' \
        "$log" || true
    rm -f "$log"
    return "$status"
}

build_and_test() {
    local preset=$1
    step "build ($preset)"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    step "tests ($preset)"
    ctest --preset "$preset" -j "$(nproc)"
}

check_package() {
    step "installed package"
    local prefix consumer
    prefix=$(mktemp -d)
    consumer=$(mktemp -d)
    trap 'rm -rf "$prefix" "$consumer"' RETURN
    cmake --install build --prefix "$prefix" >/dev/null
    cmake -S tests/package -B "$consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build "$consumer" >/dev/null
    "$consumer/consumer"
    # shellcheck disable=SC2046
    g++ -std=c++20 tests/package/main.cpp -o "$consumer/pkgconfig-consumer" \
        $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs --static kestrune) \
        -Wl,-rpath,"$prefix/lib"
    "$consumer/pkgconfig-consumer"
}

# One fuzz target for `seconds`, over its seeds in the tree; new inputs go to a scratch folder
# and the seeds stay as they are.
fuzz_target() {
    local target=$1 seeds=$2 seconds=$3 corpus status=0
    corpus=$(mktemp -d)
    LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp \
        "build-fuzz/bin/$target" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$corpus/" "$corpus" "$seeds" 2>&1 | grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units)' || true
    if ls "$corpus"/crash-* "$corpus"/leak-* "$corpus"/timeout-* >/dev/null 2>&1; then
        echo "FAILED: $target found an input that breaks what it fuzzes:" >&2
        ls "$corpus"/crash-* "$corpus"/leak-* "$corpus"/timeout-* 2>/dev/null >&2
        status=1
    fi
    # Not a RETURN trap: it would stay set, and fire again where the folder's name is gone.
    rm -rf "$corpus"
    return "$status"
}

# The store parser and checker, then the chip device daemon's request reader and parsers.
fuzz() {
    local seconds=${FUZZ_SECONDS:-60}
    [ "$seconds" -gt 0 ] || return 0
    step "fuzz ($seconds s a target)"
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz --target store-fuzz chip-fuzz
    echo "store-fuzz:"
    fuzz_target store-fuzz tests/fuzz/corpus "$seconds"
    echo "chip-fuzz:"
    fuzz_target chip-fuzz tests/fuzz/chip-corpus "$seconds"
}

install_packages
check_format
build_and_test default
check_lint
check_package
step "Debian packages"
scripts/package-test.sh
build_and_test asan
step "32-bit x86 (the production target)"
scripts/i386-test.sh
fuzz
step "all checks passed"
