"""Recordings opened for random access, pixel routines on numpy arrays, repair."""
import shutil

import numpy as np
import pytest

import tevix


def test_recording_random_access(recorded):
    path, frames = recorded
    with tevix.Recording(path) as rec:
        names = [n.name for n in rec.nodes]
        assert names == ["Device", "VX_REPLAY"]
        assert len(rec) == rec.frame_count == len(frames)
        props = {(p.node, p.name): p.value for p in rec.properties}
        assert props[(1, "VX_PRODUCT")] == "VXCAM-E1-R1"
        assert props[(2, "VX_FRAME_IMGW")] == 320
        assert rec.raw(5) == frames[5][0] and rec.raw(-1) == frames[-1][0]
        for i in (7, 2, 39):  # out of order
            assert np.array_equal(rec.depth(i), frames[i][1])
            assert np.array_equal(rec.grey(i), frames[i][2])
        with pytest.raises(ValueError):
            rec.depth(len(frames))
        with pytest.raises(TypeError):
            rec.depth("3")
    with pytest.raises(tevix.OpenError):
        tevix.Recording("/nonexistent.oni")


def test_pixel_routines_on_numpy_arrays(recorded):
    depth = recorded[1][0][1]
    rgb = tevix.colorize(depth, (0, 6000))
    assert rgb.shape == (240, 320, 3) and rgb.dtype == np.uint8
    assert not np.array_equal(tevix.colorize(depth, (0, 6000), palette=3), rgb)
    assert np.array_equal(tevix.convert(depth, np.uint8, shift=4), np.minimum(depth >> 4, 255).astype(np.uint8))
    m = tevix.convert(depth, np.float32, scale=0.001)
    assert m.dtype == np.float32 and np.allclose(m, depth * np.float32(0.001))
    ir = tevix.infrared(recorded[1][0][2])
    assert ir.shape == (240, 320) and ir.dtype == np.uint8 and ir.max() > 0
    # A pinhole cloud: the pixel at the principal point lies on the axis at its distance.
    flat = np.full((4, 8), 2000, np.uint16)
    pts = tevix.point_cloud(flat, (4.0, 2.0, 100.0, 100.0), invalid="nan").reshape(4, 8, 3)
    np.testing.assert_allclose(pts[2, 4], (0.0, 0.0, 2.0), atol=1e-6)
    assert tevix.point_cloud(np.full((4, 8), 65500, np.uint16), (4, 2, 100, 100)).shape == (0, 3)
    # Arrays the routines cannot take: wrong types, views that are not contiguous, no pixels.
    with pytest.raises(ValueError, match="C-contiguous"):
        tevix.colorize(depth[:, ::2])
    with pytest.raises(TypeError):
        tevix.colorize(depth.astype(np.int32))
    with pytest.raises(TypeError):
        tevix.colorize([1, 2, 3])
    with pytest.raises(ValueError):
        tevix.colorize(np.zeros(0, np.uint16))
    with pytest.raises(ValueError):
        tevix.point_cloud(flat, (4, 2, 0, 100))
    with pytest.raises(ValueError):
        tevix.point_cloud(flat.ravel(), (4, 2, 100, 100))
    with pytest.raises(TypeError):
        tevix.convert(depth, np.int64)
    with pytest.raises(ValueError):
        tevix.colorize(depth, palette=64)


def test_repair_of_a_recording_cut_short(recorded, tmp_path):
    path, frames = recorded
    cut = str(tmp_path / "cut.oni")
    data = open(path, "rb").read()
    # Only the first records of a file that was never finished: the header counts still zero.
    with tevix.Recording(path) as rec:
        end = data.find(b"NIR\0", len(data) - 2 * len(rec.raw(0)))
    with open(cut, "wb") as f:
        f.write(data[:12] + b"\0" * 12 + data[24:end])
    assert tevix.repair(cut) > 0
    with tevix.Recording(cut) as rec:
        assert 0 < len(rec) < len(frames)
        assert rec.raw(0) == frames[0][0]
