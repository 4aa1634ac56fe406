#!/usr/bin/env bash
# The main job: builds tevix (release) and runs the command-line tool against what is attached.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target tevix_tool
tool=build/release/tools/tevix
"$tool" version
"$tool" list
