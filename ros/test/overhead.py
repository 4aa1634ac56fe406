#!/usr/bin/python3
"""Measures tevix_ros_node's CPU per camera beyond the library's own decode.

  ros/test/overhead.py BUILD_DIR [SECONDS]

Runs the virtual camera at 30 fps (320x240) twice: once under tevix_frame_reference --live, which
pulls and decodes distance, grey and point cloud as the node does, and once under the node with a
subscriber on every topic. Prints both CPU shares and their difference (the node's overhead).
"""
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time


def _cpu_s(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    build = sys.argv[1]
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 20.0
    vcam = [os.path.join(build, "emu/tevix-vcam"), "--scene", "2", "--fps", "30", "--"]
    ref = subprocess.run(vcam + [os.path.join(build, "tests/tools/tevix_frame_reference"), "--live",
                                 str(seconds)], capture_output=True, text=True, check=True)
    frames, lib_cpu = ref.stdout.split()[1], float(ref.stdout.split()[3])

    tmp = tempfile.mkdtemp(prefix="tevix_ros_overhead_")
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    env = dict(os.environ, ROS_MASTER_URI="http://127.0.0.1:%d" % port, ROS_HOSTNAME="127.0.0.1",
               ROS_HOME=tmp, ROS_LOG_DIR=tmp)
    procs = []

    def start(args):
        p = subprocess.Popen(args, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                             start_new_session=True)
        procs.append(p)
        return p

    try:
        start(["roscore", "-p", str(port)])
        time.sleep(3)
        start(vcam + [os.path.join(build, "ros/tevix_ros_node"), "__name:=tevix"])
        for t in ["/depth/image_raw", "/ir/image_raw", "/points", "/depth/camera_info"]:
            start(["rostopic", "hz", t])
        time.sleep(5)
        pid = int(subprocess.check_output(["pgrep", "-f", "^" + os.path.join(build, "ros/tevix_ros_node")]).split()[0])
        c0, t0 = _cpu_s(pid), time.monotonic()
        time.sleep(seconds)
        node_cpu = (_cpu_s(pid) - c0) / (time.monotonic() - t0) * seconds
    finally:
        for p in reversed(procs):
            try:
                os.killpg(p.pid, signal.SIGINT)
                p.wait(10)
            except (ProcessLookupError, subprocess.TimeoutExpired):
                os.killpg(p.pid, signal.SIGKILL)
    lib = 100 * lib_cpu / seconds
    node = 100 * node_cpu / seconds
    print("library pull + decode: %.1f%% of a core (%s frames in %.0f s)" % (lib, frames, seconds))
    print("tevix_ros_node:        %.1f%% of a core" % node)
    print("node overhead:         %.1f%% of a core per 320x240 camera at 30 fps" % (node - lib))


if __name__ == "__main__":
    main()
