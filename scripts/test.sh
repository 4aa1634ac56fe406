#!/usr/bin/env bash
# Builds tevix and runs the whole test suite: in the release preset, then under ASan + UBSan.
#   scripts/test.sh            release and asan
#   scripts/test.sh release    one preset only (release, debug, asan or tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan)
jobs=$(nproc)
for p in "${presets[@]}"; do
  echo "=== $p: configure and build"
  cmake --preset "$p" >/dev/null
  cmake --build --preset "$p" -j "$jobs"
  echo "=== $p: tests"
  ctest --preset "$p" -j "$jobs"
done
