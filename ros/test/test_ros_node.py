"""tevix_ros_node against a real ROS master: a virtual camera over USB, a recording, rosbag,
the parameter service and a camera that is unplugged and comes back.

Run by CTest with the distribution's interpreter; the environment names the programs:
TEVIX_VCAM, TEVIX_ROS_NODE, TEVIX_FRAME_REFERENCE.
"""
import os
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time

import numpy as np
import pytest

VCAM = os.environ["TEVIX_VCAM"]
NODE = os.environ["TEVIX_ROS_NODE"]
REFERENCE = os.environ["TEVIX_FRAME_REFERENCE"]
# Under ThreadSanitizer the node runs several times slower than the camera: frame rates there say
# nothing about the node, so only the service's answers are checked.
SLOW_BUILD = os.environ.get("TEVIX_SANITIZED") == "thread"
TOPICS = ["/depth/image_raw", "/ir/image_raw", "/points", "/depth/camera_info"]
INVALID_MM = 65500


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class _Processes:
    """Everything a test starts, each in its own process group, stopped at the end."""

    def __init__(self):
        self.procs = []

    def start(self, args, log):
        p = subprocess.Popen(args, stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
        self.procs.append(p)
        return p

    @staticmethod
    def stop(p, timeout=15):
        if p.poll() is None:
            try:
                os.killpg(p.pid, signal.SIGINT)
                p.wait(timeout)
            except (ProcessLookupError, subprocess.TimeoutExpired):
                pass
        if p.poll() is None:
            try:
                os.killpg(p.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            p.wait(5)
        # Nothing of the group may outlive it.
        deadline = time.time() + 5
        while time.time() < deadline:
            try:
                os.killpg(p.pid, 0)
            except ProcessLookupError:
                return
            time.sleep(0.05)
        os.killpg(p.pid, signal.SIGKILL)
        raise AssertionError("process group %d outlived its leader" % p.pid)

    def stop_all(self):
        for p in reversed(self.procs):
            self.stop(p)
        self.procs.clear()


@pytest.fixture(scope="module")
def ros():
    """A private ROS master on loopback, and rospy initialised against it."""
    tmp = tempfile.mkdtemp(prefix="tevix_ros_")
    port = _free_port()
    os.environ.update(
        ROS_MASTER_URI="http://127.0.0.1:%d" % port,
        ROS_HOSTNAME="127.0.0.1",
        ROS_IP="127.0.0.1",
        ROS_HOME=tmp,
        ROS_LOG_DIR=os.path.join(tmp, "log"),
    )
    procs = _Processes()
    log = open(os.path.join(tmp, "roscore.log"), "wb")
    procs.start(["roscore", "-p", str(port)], log)
    import rosgraph

    deadline = time.time() + 30
    while not rosgraph.is_master_online():
        assert time.time() < deadline, "roscore did not come up"
        time.sleep(0.2)
    import rospy

    rospy.init_node("tevix_test", anonymous=True, disable_signals=True)
    yield {"tmp": tmp, "procs": procs}
    rospy.signal_shutdown("test done")
    procs.stop_all()
    log.close()


class Collector:
    """Messages of the node's topics with their arrival times."""

    def __init__(self):
        import rospy
        from diagnostic_msgs.msg import DiagnosticArray
        from sensor_msgs.msg import CameraInfo, Image, PointCloud2

        self.lock = threading.Lock()
        self.msgs = {t: [] for t in TOPICS + ["/diagnostics", "/depth/image_rect"]}
        types = {
            "/depth/image_raw": Image,
            "/depth/image_rect": Image,
            "/ir/image_raw": Image,
            "/points": PointCloud2,
            "/depth/camera_info": CameraInfo,
            "/diagnostics": DiagnosticArray,
        }
        self.subs = [
            rospy.Subscriber(t, types[t], self._cb, callback_args=t, queue_size=500)
            for t in types
        ]

    def _cb(self, msg, topic):
        with self.lock:
            self.msgs[topic].append((time.monotonic(), msg))

    def count(self, topic):
        with self.lock:
            return len(self.msgs[topic])

    def wait(self, n, timeout, topics=TOPICS):
        deadline = time.time() + timeout
        while time.time() < deadline:
            if all(self.count(t) >= n for t in topics):
                return
            time.sleep(0.05)
        raise AssertionError("after %ss: %s" % (timeout, {t: self.count(t) for t in topics}))

    def rate(self, seconds):
        """Depth images per second arriving over the next seconds."""
        n0, t0 = self.count("/depth/image_raw"), time.monotonic()
        time.sleep(seconds)
        return (self.count("/depth/image_raw") - n0) / (time.monotonic() - t0)

    def close(self):
        for s in self.subs:
            s.unregister()


def _node_args(name, **params):
    # Each run has its own node name: private parameters outlive a node on the master.
    return [NODE, "__name:=tevix_" + name] + ["_%s:=%s" % kv for kv in params.items()]


def _start_node(ros, name, vcam_args=None, **params):
    log = open(os.path.join(ros["tmp"], name + ".log"), "wb")
    args = _node_args(name, **params)
    if vcam_args is not None:
        args = [VCAM] + vcam_args + ["--"] + args
    return ros["procs"].start(args, log)


def _read_reference(path):
    with open(path, "rb") as f:
        data = f.read()
    assert data[:8] == b"TVXREF1\0"
    w, h = struct.unpack_from("<II", data, 8)
    lens = struct.unpack_from("<20f3I", data, 16)
    n = w * h
    pos = 16 + 92
    frames = []
    step = 12 + 6 * n + 12 * n
    while pos + step <= len(data):
        index, sec, usec = struct.unpack_from("<3I", data, pos)
        depth = np.frombuffer(data, np.uint16, n, pos + 12).reshape(h, w)
        grey = np.frombuffer(data, np.uint16, n, pos + 12 + 2 * n).reshape(h, w)
        rect = np.frombuffer(data, np.uint16, n, pos + 12 + 4 * n).reshape(h, w)
        xyz = np.frombuffer(data, np.float32, 3 * n, pos + 12 + 6 * n).reshape(h, w, 3)
        frames.append({"index": index, "depth": depth, "grey": grey, "rect": rect, "xyz": xyz})
        pos += step
    return w, h, lens, frames


def _reference(ros, rec):
    out = rec + ".ref"
    subprocess.run([REFERENCE, rec, out], check=True, stdout=subprocess.DEVNULL, timeout=120)
    return _read_reference(out)


def _image(msg, dtype):
    return np.frombuffer(msg.data, dtype).reshape(msg.height, msg.width)


def _ros_depth(mm):
    return np.where(mm == INVALID_MM, 0, mm)


def _check_against_reference(col, w, h, lens, frames, organised=True, until=float("inf")):
    """Every message that arrived before `until` equals the library's output for the frame it was
    made from. The infrared image tells the frames apart (depth of a still scene repeats); the
    stamp pairs the others."""
    by_grey = {fr["grey"].tobytes(): fr for fr in frames}
    stamp_frame = {}
    for t, m in col.msgs["/ir/image_raw"]:
        if t >= until:
            continue
        assert (m.encoding, m.width, m.height, m.step) == ("16UC1", w, h, 2 * w)
        fr = by_grey.get(bytes(m.data))
        assert fr is not None, "an infrared image that is no frame of the recording"
        stamp_frame[m.header.stamp] = fr
    matched = 0
    for _, m in col.msgs["/depth/image_raw"]:
        assert (m.encoding, m.width, m.height, m.step) == ("16UC1", w, h, 2 * w)
        fr = stamp_frame.get(m.header.stamp)
        if fr is None:
            continue
        assert np.array_equal(_image(m, np.uint16), _ros_depth(fr["depth"]))
        matched += 1
    assert matched >= 50
    for _, m in col.msgs["/depth/image_rect"]:
        fr = stamp_frame.get(m.header.stamp)
        if fr is not None:
            assert np.array_equal(_image(m, np.uint16), _ros_depth(fr["rect"]))
    matched = 0
    for _, m in col.msgs["/points"]:
        fr = stamp_frame.get(m.header.stamp)
        if fr is None:
            continue
        want = fr["xyz"]
        valid = np.isfinite(want[..., 2]) & (want[..., 2] > 0)
        assert valid.any()
        if organised:
            assert (m.width, m.height, m.point_step, m.is_dense) == (w, h, 12, False)
            got = np.frombuffer(m.data, np.float32).reshape(h, w, 3)
            assert np.all(np.isnan(got[~valid]))
            np.testing.assert_allclose(got[valid], want[valid], rtol=0, atol=1e-6)
        else:
            assert (m.width, m.height, m.is_dense) == (int(valid.sum()), 1, True)
            got = np.frombuffer(m.data, np.float32).reshape(-1, 3)
            np.testing.assert_allclose(got, want[valid], rtol=0, atol=1e-6)
        matched += 1
    assert matched >= 50
    fx, fy, cx, cy = lens[2], lens[3], lens[0], lens[1]
    for _, m in col.msgs["/depth/camera_info"]:
        assert (m.width, m.height, m.distortion_model) == (w, h, "plumb_bob")
        assert list(m.K) == [fx, 0.0, cx, 0.0, fy, cy, 0.0, 0.0, 1.0]
        assert list(m.D) == list(lens[4 : 4 + 5])
    for t in TOPICS:
        stamps = [m.header.stamp for _, m in col.msgs[t]]
        assert all(a < b for a, b in zip(stamps, stamps[1:])), t + " stamps go backwards"


def _call(name, value, node="live"):
    import rospy
    from tevix_ros.srv import SetParam

    service = "/tevix_%s/set_param" % node
    rospy.wait_for_service(service, 10)
    return rospy.ServiceProxy(service, SetParam)(name, value)


def test_camera_recording_bag_and_service(ros):
    """Live camera: messages equal the library's, rosbag round trip, parameter changes."""
    rec = os.path.join(ros["tmp"], "live.oni")
    col = Collector()
    smoothed_from = float("inf")
    node = _start_node(ros, "live", ["--scene", "2", "--fps", "30"], record=rec, fps=30)
    try:
        col.wait(100, 60)

        bag = os.path.join(ros["tmp"], "live.bag")
        blog = open(os.path.join(ros["tmp"], "rosbag.log"), "wb")
        recorder = ros["procs"].start(["rosbag", "record", "-O", bag, "-l", "40"] + TOPICS, blog)
        recorder.wait(60)  # the limit ends it
        import rosbag

        with rosbag.Bag(bag) as b:
            info = b.get_type_and_topic_info().topics
            assert {t: info[t].message_count for t in TOPICS} == {t: 40 for t in TOPICS}
            assert sum(1 for _ in b.read_messages(topics=["/points"])) == 40

        # At 30 fps a loaded machine (a sanitizer build beside other tests) may deliver fewer
        # frames than the camera sends; at 5 fps every frame arrives. The change must show.
        fast = col.rate(3.0)
        res = _call("FPS", "5")
        assert res.ok and res.value == "5", res.message
        time.sleep(1.0)
        slow = col.rate(3.0)
        if not SLOW_BUILD:
            assert slow == pytest.approx(5, rel=0.25) and fast > 1.5 * slow, (fast, slow)
        for name, value, why in [
            ("FPS", "100000", "1.."),
            ("FPS", "ten", "whole number"),
            ("EXPOSURE", "5", "unknown parameter"),
            ("filter.nonsense", "on", "unknown filter"),
            ("INTG1", "-3", "integration time"),
        ]:
            res = _call(name, value)
            assert not res.ok and why in res.message, (name, value, res.message)
        assert SLOW_BUILD or col.rate(3.0) == pytest.approx(5, rel=0.25)
        smoothed_from = time.monotonic()  # later frames are filtered: the reference is not
        res = _call("filter.smooth", "on")
        assert res.ok, res.message
        res = _call("filter.smooth", "off")
        assert res.ok, res.message
    finally:
        ros["procs"].stop(node)
        col.close()
    assert node.returncode == 0
    w, h, lens, frames = _reference(ros, rec)
    assert len(frames) >= col.count("/depth/image_raw")
    _check_against_reference(col, w, h, lens, frames, until=smoothed_from)
    ros["live_recording"] = rec


def test_recording_plays_to_its_end(ros):
    rec = ros.get("live_recording")
    if rec is None:
        pytest.skip("the live test made no recording")
    col = Collector()
    time.sleep(0.5)
    node = _start_node(ros, "replay", uri="file://" + rec, organised="false", undistort="true")
    try:
        col.wait(100, 60, topics=TOPICS + ["/depth/image_rect"])
        stamps = [m.header.stamp.to_sec() for _, m in col.msgs["/depth/image_raw"]]
        steps = np.diff(stamps)
        # Paced replay keeps the recorded intervals (30 fps). On a loaded machine the recording
        # itself may hold bursts (the emulator catching up), so the mean interval is compared.
        assert SLOW_BUILD or np.mean(steps) == pytest.approx(1 / 30, rel=0.35)
        # At the end of the recording the node stops publishing and stays up.
        deadline = time.time() + 60
        last = -1
        while time.time() < deadline:
            n = col.count("/depth/image_raw")
            if n == last:
                break
            last = n
            time.sleep(1.5)
        assert node.poll() is None
    finally:
        ros["procs"].stop(node)
        col.close()
    w, h, lens, frames = _reference(ros, rec)
    _check_against_reference(col, w, h, lens, frames, organised=False)
    # Undistortion moves pixels: a rectified image differs from its raw image.
    raw = {m.header.stamp: m.data for _, m in col.msgs["/depth/image_raw"]}
    pairs = [(m.data, raw[m.header.stamp]) for _, m in col.msgs["/depth/image_rect"]
             if m.header.stamp in raw]
    assert pairs and all(r != d for r, d in pairs)


def test_reconnects_after_unplug(ros):
    col = Collector()
    node = _start_node(
        ros,
        "unplug",
        ["--scene", "2", "--fps", "30", "--unplug-after", "3000", "--replug-after", "1500"],
        reconnect_interval=0.2,
        ir_encoding="mono8",
    )
    try:
        col.wait(20, 30, topics=["/depth/image_raw", "/ir/image_raw"])
        ir = col.msgs["/ir/image_raw"][0][1]
        assert (ir.encoding, ir.step, len(ir.data)) == ("mono8", ir.width, ir.width * ir.height)
        # The gap of the unplug, then frames again.
        deadline = time.time() + 30
        gap = False
        while time.time() < deadline:
            with col.lock:
                times = [t for t, _ in col.msgs["/depth/image_raw"]]
            gaps = [b - a for a, b in zip(times, times[1:])]
            if any(g > 1.0 for g in gaps):
                i = max(range(len(gaps)), key=lambda k: gaps[k])
                if len(times) - (i + 1) >= 30:
                    gap = True
                    break
            time.sleep(0.2)
        assert gap, "no frames after the camera came back"
        with col.lock:
            diags = [m for _, m in col.msgs["/diagnostics"]]
        reconnects = [
            int(kv.value) for d in diags for s in d.status for kv in s.values if kv.key == "reconnects"
        ]
        assert reconnects and max(reconnects) >= 1
    finally:
        ros["procs"].stop(node)
        col.close()
