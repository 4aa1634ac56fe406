#!/usr/bin/env bash
# Builds the release preset, runs every benchmark program and prints one line per benchmark:
#
#   NAME VALUE UNIT ratio=R vs REFERENCE
#
#   bench/run.sh [FILTER]      FILTER: regular expression passed as --benchmark_filter
#
# Convention for benchmark programs (Google Benchmark, under bench/<subsystem>/):
# - Report a rate: state.SetBytesProcessed (printed in GB/s, 1e9 bytes) or
#   state.SetItemsProcessed (printed in M items/s). Without either the time per iteration is
#   printed in the benchmark's time unit.
# - Name the reference with the label "ref=<benchmark name>" (state.SetLabel). The reference is a
#   benchmark of the same program and always runs in the same run: with a FILTER, a short probe
#   pass finds the references first and the measuring pass includes them. ratio = this rate / the reference's rate (for times: reference time / this
#   time), so a ratio above 1 means faster than the reference. No label, no ratio.
# - Extra words in the label after the ref= item are ignored.
# - The benchmark's own counters (state.counters) follow as name=value.
# Set BENCH_BUILD_DIR to use another build directory than build/release.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
filter=${1:-}
build=${BENCH_BUILD_DIR:-$root/build/release}

if [[ -n ${BENCH_BUILD_DIR:-} ]]; then
    cmake --preset release -S "$root" -B "$build" >/dev/null
else
    (cd "$root" && cmake --preset release >/dev/null)
fi
mapfile -t targets < <(sed -n 's/^ *tevix_add_bench( *\([A-Za-z0-9_]*\).*/\1/p' "$root"/bench/*/CMakeLists.txt)
[[ ${#targets[@]} -gt 0 ]] || { echo "bench/run.sh: no benchmarks" >&2; exit 2; }
cmake --build "$build" -j2 --target "${targets[@]}" >&2

exec /usr/bin/python3 - "$build" "$filter" "${targets[@]}" <<'PY'
import json, os, re, subprocess, sys, tempfile

build, flt, targets = sys.argv[1], sys.argv[2], sys.argv[3:]

def run(binary, name_filter, quick=False):
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        cmd = [binary, "--benchmark_format=json", "--benchmark_out=" + out.name,
               "--benchmark_out_format=json"]
        if name_filter:
            cmd.append("--benchmark_filter=" + name_filter)
        if quick:
            cmd.append("--benchmark_min_time=0.001")
        ok = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0
        try:
            with open(out.name) as f:
                data = json.load(f)
        except (OSError, ValueError):
            return [], False
    runs = [b for b in data.get("benchmarks", []) if b.get("run_type", "iteration") == "iteration"]
    return runs, ok

def rate(b):
    if "bytes_per_second" in b:
        return b["bytes_per_second"] / 1e9, "GB/s", True
    if "items_per_second" in b:
        return b["items_per_second"] / 1e6, "M items/s", True
    return b["real_time"], b.get("time_unit", "ns"), False

STANDARD = {"family_index", "per_family_instance_index", "repetitions", "repetition_index",
            "threads", "iterations", "real_time", "cpu_time", "bytes_per_second",
            "items_per_second"}

def counters(b):
    # The benchmark's own counters (state.counters), as name=value.
    return "".join(f" {k}={v:.4g}" for k, v in b.items()
                   if k not in STANDARD and isinstance(v, (int, float)) and not isinstance(v, bool))

def ref_of(b):
    m = re.search(r"(?:^|\s)ref=(\S+)", b.get("label", ""))
    return m.group(1) if m else None

def find(name):
    for d, _, files in os.walk(os.path.join(build, "bench")):
        if name in files and os.access(os.path.join(d, name), os.X_OK):
            return os.path.join(d, name)
    return None

status = 0
for t in targets:
    binary = find(t)
    if not binary:
        print(f"bench/run.sh: {t} not built", file=sys.stderr)
        status = 1
        continue
    selected = None
    if flt:
        # A short first pass finds the selected benchmarks and their references, so that the
        # measuring pass runs both together.
        probe, _ = run(binary, flt, quick=True)
        if not probe:
            continue  # nothing in this program matches FILTER
        selected = {b["name"] for b in probe}
        refs = sorted({ref_of(b) for b in probe if ref_of(b)} - selected)
        wide = flt if not refs else "(" + flt + ")|^(" + "|".join(re.escape(r) for r in refs) + ")$"
        runs, ok = run(binary, wide)
    else:
        runs, ok = run(binary, "")
    status |= 0 if ok else 1
    refs = {b["name"]: b for b in runs}
    for b in runs:
        if selected is not None and b["name"] not in selected:
            continue
        name = b["name"]
        if b.get("error_occurred"):
            print(f"{name} ERROR {b.get('error_message', '')}")
            status = 1
            continue
        value, unit, is_rate = rate(b)
        line = f"{name} {value:.3g} {unit}"
        ref = ref_of(b)
        if ref:
            # A reference named without its run options (min_time, real_time...) is found too.
            r = refs.get(ref) or next((x for n, x in refs.items() if n.split("/")[0] == ref), None)
            if r is None:
                line += f" ratio=? vs {ref}"
            else:
                rv = rate(r)[0]
                ratio = (value / rv) if is_rate else (rv / value)
                line += f" ratio={ratio:.2f} vs {ref}"
        print(line + counters(b), flush=True)
sys.exit(status)
PY
