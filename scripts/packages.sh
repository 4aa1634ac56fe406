#!/usr/bin/env bash
# Builds the Debian packages (libtevix1, libtevix-dev, tevix-tools, python3-tevix) into
# build/package and checks each with lintian; fails on any lintian error.
#   scripts/packages.sh [BUILD_DIR]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/package}
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
      -DTEVIX_BUILD_TESTS=OFF -DTEVIX_BUILD_BENCH=OFF -DTEVIX_BUILD_ROS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)
debs=("$build"/*.deb)
echo "packages:"
for d in "${debs[@]}"; do echo "  $(basename "$d")"; done
if command -v lintian >/dev/null; then
    # Errors fail the build; warnings and notes are printed.
    lintian --fail-on error --no-tag-display-limit "${debs[@]}"
    echo "lintian: no errors"
else
    echo "lintian: not installed, packages not checked" >&2
fi
