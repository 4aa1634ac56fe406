#!/usr/bin/python3
"""Measures the browser viewer: latency from pull to paint in the page, and the server's CPU above
the capture itself.

  bench/view/bench_viewer.py BUILD_DIR [SECONDS] [epc|sony]

Runs the virtual camera at 30 fps (an EPC unit at 320x240, or a SONY unit at 640x480) twice: under tevix_frame_reference --live ... images
(pull and the viewer's decode: the capture itself) and under `tevix view` with one headless chromium page watching. The
page measures each frame's pull-to-paint time (the server stamps the pull; the page compares at
paint, same clock). Prints the latency median/p95, the rate painted and both CPU shares.
"""
import os
import re
import subprocess
import sys
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service


def _cpu_s(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def _browser():
    opts = webdriver.ChromeOptions()
    opts.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--use-gl=swiftshader",
                 "--enable-unsafe-swiftshader", "--disable-dev-shm-usage", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--window-size=1400,1000"):
        opts.add_argument(flag)
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=opts)


def main():
    build = sys.argv[1]
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 20.0
    model = sys.argv[3] if len(sys.argv) > 3 else "epc"
    vcam = [os.path.join(build, "emu/tevix-vcam"), "--model", model, "--scene", "2", "--fps",
            "30", "--"]
    ref = subprocess.run(vcam + [os.path.join(build, "tests/tools/tevix_frame_reference"), "--live",
                                 str(seconds), "images"], capture_output=True, text=True, check=True)
    ref_frames, ref_cpu = int(ref.stdout.split()[1]), float(ref.stdout.split()[3])

    tool = os.path.join(build, "tools/tevix")
    view = subprocess.Popen(vcam + [tool, "view", "--port", "0"], stdout=subprocess.PIPE, text=True)
    drv = None
    try:
        url = re.match(r"viewer at (\S+)", view.stdout.readline()).group(1)
        pid = int(subprocess.check_output(["pgrep", "-n", "-f", "^" + tool + " view"]).split()[0])
        drv = _browser()
        drv.get(url)
        time.sleep(5)  # the capture starts, the page settles
        c0, t0 = _cpu_s(pid), time.monotonic()
        p0 = drv.execute_script("window.tevixStats.latency = []; return window.tevixStats.painted")
        f0 = drv.execute_script("return window.tevixStats.frames")
        lat = []
        while time.monotonic() - t0 < seconds:
            time.sleep(2)
            lat += drv.execute_script("const l = window.tevixStats.latency.slice();"
                                      "window.tevixStats.latency = []; return l")
        elapsed = time.monotonic() - t0
        view_cpu = (_cpu_s(pid) - c0) / elapsed * seconds
        painted = drv.execute_script("return window.tevixStats.painted") - p0
        received = drv.execute_script("return window.tevixStats.frames") - f0
    finally:
        if drv:
            drv.quit()
        view.terminate()
        view.wait(15)
    lat.sort()
    cap = 100 * ref_cpu / seconds
    srv = 100 * view_cpu / seconds
    print("capture itself (pull + u16 distance and grey): %.1f%% of a core (%.1f frames/s)" %
          (cap, ref_frames / seconds))
    print("tevix view with one page:       %.1f%% of a core" % srv)
    print("server above the capture:       %.1f%% of a core" % (srv - cap))
    print("reaching the page / painted:    %.1f / %.1f frames/s" %
          (received / elapsed, painted / elapsed))
    print("pull to paint:                  median %d ms, p95 %d ms (%d frames)" %
          (lat[len(lat) // 2], lat[int(len(lat) * 0.95)], len(lat)))


if __name__ == "__main__":
    main()
