#!/usr/bin/env bash
# Installs a built Kestrune into a folder and builds the start-up program of the library-caller
# tier (tests/caller/startup) against it through find_package, as an image builder would.
#   scripts/build-startup.sh BUILD_DIR OUT_DIR   ->  OUT_DIR/build/kestrune-startup
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: build-startup.sh BUILD_DIR OUT_DIR" >&2; exit 2; }
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath "$1")
out=$(realpath -m "$2")
rm -rf "$out"
mkdir -p "$out"
cmake --install "$build" --prefix "$out/prefix" >/dev/null
cmake -S "$root/tests/caller/startup" -B "$out/build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_PREFIX_PATH="$out/prefix" >/dev/null
cmake --build "$out/build" >/dev/null
echo "built $out/build/kestrune-startup against $out/prefix"
