"""Fixtures of the package's tests. They run under tevix-vcam (the virtual camera on the real USB
path) with PYTHONPATH pointing at the package in the build tree."""
import os
import struct
import subprocess

import numpy as np
import pytest

import tevix

SANITIZED = bool(os.environ.get("TEVIX_SANITIZED"))


def pytest_configure(config):
    config.addinivalue_line("markers", "unplug: needs a virtual camera that is unplugged")


@pytest.fixture(scope="session")
def recorded(tmp_path_factory):
    """A recording of 100 frames from the virtual camera, and those frames as Python saw them."""
    path = str(tmp_path_factory.mktemp("rec") / "capture.oni")
    frames = []
    with tevix.open() as cam, cam.capture(record=path) as stream:
        for frame in stream:
            frames.append((frame.raw, frame.depth(), frame.grey(), frame.points(invalid="nan")))
            if len(frames) == 40:
                break
    return path, frames


def reference(path):
    """The C library's own output for every frame of a recording (tevix_frame_reference)."""
    out = path + ".ref"
    subprocess.run([os.environ["TEVIX_FRAME_REFERENCE"], path, out], check=True,
                   stdout=subprocess.DEVNULL)
    data = open(out, "rb").read()
    assert data[:8] == b"TVXREF1\0"
    w, h = struct.unpack_from("<II", data, 8)
    n, pos, frames = w * h, 16 + 92, []
    step = 12 + 6 * n + 12 * n
    while pos + step <= len(data):
        frames.append({
            "depth": np.frombuffer(data, np.uint16, n, pos + 12).reshape(h, w),
            "grey": np.frombuffer(data, np.uint16, n, pos + 12 + 2 * n).reshape(h, w),
            "xyz": np.frombuffer(data, np.float32, 3 * n, pos + 12 + 6 * n).reshape(n, 3),
        })
        pos += step
    return frames
