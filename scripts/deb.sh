#!/usr/bin/env bash
# Builds the Debian packages of this tree (kestrune, libkestrune0, libkestrune-dev,
# kestrune-sim) into OUTDIR, versioned from the project's own version, and checks them with
# lintian at its default level.
#   scripts/deb.sh [OUTDIR]        (default: build-deb)
set -euo pipefail
cd "$(dirname "$0")/.."
outdir=${1:-build-deb}
mkdir -p "$outdir"
out=$(cd "$outdir" && pwd)
version=$(sed -n 's/^project(Kestrune VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "deb: no project version in CMakeLists.txt" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The sources as the repository has them, without any build folder, and a changelog entry
# for this version dated by the last commit, so the same tree gives the same packages.
source=$work/kestrune-$version
mkdir -p "$source"
git ls-files -z --cached --others --exclude-standard | tar --null -T - -cf - | tar -xf - -C "$source"
date=$(git log -1 --format=%ct 2>/dev/null || date +%s)
cat >"$source/debian/changelog" <<EOF
kestrune ($version) unstable; urgency=medium

  * Version $version of the project.

 -- Kestrune developers <kestrune@lists.example.org>  $(date -R -u -d "@$date")
EOF

echo "deb: building kestrune $version" >&2
if ! (cd "$source" && SOURCE_DATE_EPOCH=$date dpkg-buildpackage -b -uc -us) >"$work/build.log" 2>&1; then
    tail -n 40 "$work/build.log" >&2
    echo "deb: FAILED: dpkg-buildpackage (above, the end of its log)" >&2
    exit 1
fi
rm -f "$out"/*.deb
mv "$work"/*.deb "$out"/
lintian --fail-on error,warning "$out"/*.deb
ls "$out"/*.deb
