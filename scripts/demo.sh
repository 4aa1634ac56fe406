#!/usr/bin/env bash
# The main job: builds tevix (release), attaches a virtual camera streaming a rendered scene and
# runs the tool's demo against it: capture over USB with recording to an ONI file, replay of that
# file as a camera, and one frame exported as depth PNG, infrared PNG and PLY point cloud.
#   scripts/demo.sh [OUT_DIR]      (default out/demo)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
out=${1:-out/demo}
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target tevix_tool tevix_vcam
build/release/tools/tevix version
build/release/emu/tevix-vcam --scene 2 -- build/release/tools/tevix demo --out "$out"
