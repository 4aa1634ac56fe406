"""The camera through the package: identity, parameters, capture, errors, threads, memory."""
import os
import signal
import threading
import time

import numpy as np
import pytest

import tevix
from conftest import SANITIZED, reference


def test_devices_and_identity():
    found = tevix.devices()
    assert [d.product for d in found] == ["VXCAM-E1-R1"]
    with tevix.open(found[0].uri) as cam:
        info = cam.info
        assert (info.uri, info.driver, info.chip) == (found[0].uri, "EPC chip driver", "E1")
        assert len(info.serial) == 24 and info.lens.fx > 0 and info.lens.width == 320
        assert len(info.lens.distortion) == 5
    assert cam.closed


def test_parameters_by_name_with_validation():
    with tevix.open() as cam:
        cam.params["FPS"] = 20
        assert cam.params.fps == 20 and cam.params["fps"] == 20
        cam.params.fps = 60
        assert cam.params.FPS == 60
        max_w, max_h, max_fps, max_intg = cam.params.geometry
        assert (max_w, max_h) == (320, 240) and max_fps >= 60
        for value, exc in [(max_fps + 1, ValueError), (0, ValueError), (-5, ValueError),
                           (30.5, TypeError), ("30", TypeError), (True, TypeError), ((1, 2), ValueError)]:
            with pytest.raises(exc):
                cam.params["FPS"] = value
        assert cam.params.fps == 60  # nothing reached the camera
        with pytest.raises(ValueError, match="unknown parameter 'EXPOSURE'"):
            cam.params["EXPOSURE"] = 1
        with pytest.raises(ValueError, match="read-only"):
            cam.params["PRODUCT"] = "x"
        with pytest.raises(TypeError):
            cam.params[12]
        with pytest.raises(ValueError):
            cam.params["DUAL_FREQ"] = 20_000_000
        with pytest.raises(ValueError, match="within the 320x240 sensor"):
            cam.params["ROI"] = tevix.Roi(0, 300, 0, 100)
        with pytest.raises(ValueError, match="unknown filter"):
            cam.filters.enable("nonsense")
        with pytest.raises(TypeError):
            cam.filters.enable("min_amp", 1.5)
        with pytest.raises(ValueError):
            cam.filters.enable("flying_pixel", 32)
        cam.filters.enable("median")
        cam.filters.disable("median")


def test_capture_equals_the_c_library(recorded):
    path, frames = recorded
    ref = reference(path)
    assert len(ref) >= len(frames)
    # The grey image tells the frames apart (the still scene's depth repeats).
    by_grey = {r["grey"].tobytes(): r for r in ref}
    for raw, depth, grey, points in frames:
        r = by_grey[grey.tobytes()]
        assert depth.dtype == np.uint16 and depth.shape == (240, 320)
        assert np.array_equal(depth, r["depth"])
        valid = np.isfinite(r["xyz"][:, 2]) & (r["xyz"][:, 2] > 0)
        assert np.isnan(points[~valid]).all()
        np.testing.assert_allclose(points[valid], r["xyz"][valid], rtol=0, atol=1e-6)


def test_replay_gives_the_recorded_frames_and_ends_the_iterator(recorded):
    path, frames = recorded
    with tevix.open("file://" + path) as rec:
        assert rec.is_recording_file and len(rec) == len(frames)
        rec.params["FPS"] = 0  # as fast as they are read
        with rec.capture() as stream:
            replayed = [f for f in stream]  # ends by itself at the end
        assert len(replayed) == len(frames)
        for got, (raw, depth, _, _) in zip(replayed, frames):
            assert got.raw == raw
            assert np.array_equal(got.depth(), depth)
    # Frames keep their arrays and raw bytes after the device is closed; decoding needs it.
    with pytest.raises(tevix.ClosedError):
        replayed[0].depth()
    assert replayed[0].raw == frames[0][0]


def test_a_closed_camera_raises_on_every_call():
    cam = tevix.open()
    with cam.capture() as stream:
        frame = next(stream)
    cam.close()
    cam.close()  # closing twice is fine
    calls = [lambda: cam.params.fps, lambda: cam.params.__setitem__("FPS", 30),
             lambda: cam.filters.enable("median"), lambda: cam.capture().start(),
             lambda: cam.info, frame.depth, frame.grey, frame.points, frame.colorized]
    for call in calls:
        with pytest.raises(tevix.ClosedError, match="closed"):
            call()


def test_bad_arguments_raise_value_and_type_errors():
    with pytest.raises(TypeError):
        tevix.open(123)
    with pytest.raises(tevix.OpenError, match="cannot open usb://009:009"):
        tevix.open("usb://009:009")
    with tevix.open() as cam:
        with pytest.raises(ValueError):
            cam.capture(timeout=-1)
        with pytest.raises(TypeError):
            cam.capture(record=5)
        with pytest.raises(tevix.WrongState):
            cam.seek(3)


def test_the_gil_is_free_while_waiting_and_ctrl_c_stops_the_capture():
    with tevix.open() as cam:
        cam.params["FPS"] = 2
        ticks = []
        stop = threading.Event()

        def count():
            while not stop.is_set():
                ticks.append(1)
                time.sleep(0.001)

        t = threading.Thread(target=count)
        t.start()
        with cam.capture(timeout=10) as stream:
            next(stream)
            before = len(ticks)
            next(stream)  # about half a second of waiting in the library
            assert len(ticks) - before > 50
        stop.set()
        t.join()

        # Ctrl-C during a wait: KeyboardInterrupt within a frame interval, the capture stopped.
        timer = threading.Timer(0.2, lambda: os.kill(os.getpid(), signal.SIGINT))
        started = time.monotonic()
        with pytest.raises(KeyboardInterrupt):
            with cam.capture(timeout=10) as stream:
                timer.start()
                for _ in stream:
                    pass
        assert time.monotonic() - started < 5
        assert not cam._dev.capturing
        cam.params["FPS"] = 60
        with cam.capture() as stream:
            assert next(stream).info.width == 320


@pytest.mark.skipif(SANITIZED, reason="resident memory is not meaningful under sanitizers")
def test_open_capture_close_loops_keep_memory_flat():
    def rss_kib():
        with open("/proc/self/status") as f:
            return next(int(l.split()[1]) for l in f if l.startswith("VmRSS"))

    def cycle():
        with tevix.open() as cam, cam.capture() as stream:
            for i, frame in enumerate(stream):
                frame.depth(), frame.points()
                if i == 99:
                    break

    for _ in range(3):  # the allocator's pools and the event threads' arenas settle
        cycle()
    start = rss_kib()
    for _ in range(10):  # 1000 frames
        cycle()
    grown = (rss_kib() - start) / 1024
    print(f"resident memory over 1000 frames in 10 open/close cycles: {grown:+.1f} MiB")
    assert grown < 4
