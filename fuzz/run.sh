#!/usr/bin/env bash
# Builds the fuzz preset and runs one libFuzzer target for a while.
#
#   fuzz/run.sh [TARGET] [SECONDS] [extra libFuzzer options...]
#
# TARGET defaults to fuzz_stream, SECONDS to 60. The build directory is build/fuzz (the preset's)
# unless FUZZ_BUILD_DIR names another. Seeds come from fuzz/corpus/<name> (TARGET without the
# "fuzz_" prefix); new inputs go to a work corpus in the build directory, so the repository's seed
# corpus stays small. A finding stops the run with a non-zero status and leaves a crash-* file in
# the build directory.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
target=${1:-fuzz_stream}
seconds=${2:-60}
shift $(($# > 2 ? 2 : $#))
build=${FUZZ_BUILD_DIR:-$root/build/fuzz}

cmake --preset fuzz -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j2 --target "$target"

bin=$(find "$build/fuzz" -type f -name "$target" -perm -u+x | head -n 1)
[[ -n $bin ]] || { echo "fuzz/run.sh: $target not built" >&2; exit 2; }
seeds=$root/fuzz/corpus/${target#fuzz_}
work=$build/corpus/$target
mkdir -p "$work"

cd "$build"
dirs=("$work")
[[ -d $seeds ]] && dirs+=("$seeds")
exec "$bin" -max_total_time="$seconds" -print_final_stats=1 "$@" "${dirs[@]}"
