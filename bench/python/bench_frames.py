#!/usr/bin/python3
"""Frames per second of the Python loop `for frame in stream: frame.depth()` against the plain C
pull-and-decode loop (tevix_frame_reference --rate) on the same recording, in one run.

    bench/python/bench_frames.py [BUILD_DIR] [FRAMES]

Copies: the pull copies each raw frame once, out of the device's pull buffer into memory the
Frame owns (so frames stay valid after later pulls); depth() decodes straight into the numpy
array it returns (no copy). The C loop decodes into a buffer it reuses.
"""
import os
import subprocess
import sys
import tempfile
import time

root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "build/release"))
frames = int(sys.argv[2]) if len(sys.argv) > 2 else 3000
sys.path.insert(0, os.path.join(build, "python"))
import tevix  # noqa: E402

tmp = tempfile.mkdtemp(prefix="tevix_bench_py_")
subprocess.run([os.path.join(build, "emu/tevix-vcam"), "--scene", "2", "--fps", "0", "--",
                os.path.join(build, "tools/tevix"), "demo", "--out", tmp, "--seconds", "1"],
               check=True, stdout=subprocess.DEVNULL)
rec = os.path.join(tmp, "capture.oni")


def python_loop(n):
    with tevix.open("file://" + rec) as cam:
        cam.params["FPS"] = 0  # every frame, no pacing
        with cam.capture(loop=True) as stream:
            t0 = time.perf_counter()
            for i, frame in enumerate(stream):
                frame.depth()
                if i + 1 == n:
                    break
            return n / (time.perf_counter() - t0)


def c_loop(n):
    out = subprocess.run([os.path.join(build, "tests/tools/tevix_frame_reference"), "--rate", rec,
                          str(n)], check=True, capture_output=True, text=True).stdout.split()
    return float(out[out.index("fps") + 1])


python_loop(100), c_loop(100)  # warm caches
best_py = max(python_loop(frames) for _ in range(3))
best_c = max(c_loop(frames) for _ in range(3))
print(f"python/frame_depth_loop {best_py:.0f} frames/s ratio={best_py / best_c:.2f} vs c/pull_and_decode_loop")
print(f"c/pull_and_decode_loop {best_c:.0f} frames/s")
