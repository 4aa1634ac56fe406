"""The browser viewer (`tevix view`) driven by the distribution's headless chromium through
selenium. Runs under tevix-vcam: the served camera is the virtual camera on the real USB path."""
import faulthandler
import http.client
import json
import os
import re
import select
import socket
import subprocess
import tempfile
import time
import urllib.error
import urllib.parse
import urllib.request

import pytest
from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select

TOOL = os.environ["TEVIX_TOOL"]
SHOTS = os.environ.get("TEVIX_VIEW_SHOTS", "view-screenshots")
# Should anything hang, say where before CTest's timeout kills the run.
faulthandler.dump_traceback_later(540, exit=True)
DRIVER_LOG = os.path.join(SHOTS, "chromedriver.log")


def _tail(path, n=4000):
    try:
        with open(path, errors="replace") as f:
            return f.read()[-n:]
    except OSError:
        return ""


def wait_for(what, timeout=45.0, step=0.1):
    """Polls until what() is truthy; returns its value or fails naming the condition."""
    end = time.monotonic() + timeout
    while True:
        value = what()
        if value:
            return value
        if time.monotonic() > end:
            pytest.fail(f"timed out waiting for {getattr(what, '__doc__', None) or what}")
        time.sleep(step)


class Viewer:
    """One `tevix view` process; base is the URL it printed (with the token if any)."""

    def __init__(self, *args, cwd=None):
        # The tool's log goes to a file: a pipe nobody reads would block it once full.
        self.log = tempfile.TemporaryFile("w+")
        self.proc = subprocess.Popen([TOOL, "view", "--port", "0", *args], cwd=cwd,
                                     stdout=subprocess.PIPE, stderr=self.log, text=True)
        ready, _, _ = select.select([self.proc.stdout], [], [], 30)
        line = self.proc.stdout.readline() if ready else ""
        m = re.match(r"viewer at (http://([\d.]+):(\d+)/)(\?token=(\w+))?", line)
        if not m:
            self.proc.kill()
            pytest.fail(f"tevix view did not start: {line!r} {self.stderr()}")
        self.root, self.host, self.port = m.group(1), m.group(2), int(m.group(3))
        self.token = m.group(5) or ""
        self.page = m.group(1) + (m.group(4) or "")

    def url(self, path, auth=True, **query):
        if auth and self.token:
            query["token"] = self.token
        q = urllib.parse.urlencode(query)
        return self.root + path.lstrip("/") + ("?" + q if q else "")

    def request(self, method, path, auth=True, **query):
        """(status, parsed JSON or bytes) of one request."""
        req = urllib.request.Request(self.url(path, auth, **query), method=method,
                                     data=b"" if method == "POST" else None)
        try:
            with urllib.request.urlopen(req, timeout=10) as r:
                status, body = r.status, r.read()
        except urllib.error.HTTPError as e:
            status, body = e.code, e.read()
        try:
            return status, json.loads(body)
        except ValueError:
            return status, body

    def state(self):
        status, s = self.request("GET", "/api/state")
        assert status == 200
        return s

    def raw(self, data):
        """Sends bytes as they are (no client-side normalisation) and returns the status line."""
        with socket.create_connection((self.host, self.port), timeout=10) as s:
            s.sendall(data)
            return s.recv(4096).split(b"\r\n", 1)[0].decode(errors="replace")

    def close(self):
        self.proc.terminate()
        try:
            rc = self.proc.wait(timeout=15)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            pytest.fail("tevix view did not stop on SIGTERM")
        assert rc == 0, self.stderr()

    def stderr(self):
        self.log.seek(0)
        return self.log.read()[-4000:]


@pytest.fixture
def viewer(request, tmp_path):
    v = Viewer(*getattr(request, "param", ()), "--record-dir", str(tmp_path))
    v.record_dir = tmp_path
    yield v
    v.close()


@pytest.fixture(scope="module")
def browser():
    opts = webdriver.ChromeOptions()
    opts.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--use-gl=swiftshader",
                 "--enable-unsafe-swiftshader", "--disable-dev-shm-usage", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update",
                 "--disable-sync", "--window-size=1400,1000", "--enable-logging=stderr"):
        opts.add_argument(flag)
    opts.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    # The browser stands for one on another computer: it runs outside the emulated USB bus (the
    # test runs under tevix-vcam, whose preload would otherwise serve chromium's own device probing
    # from the testbed). Its driver's log, with chromium's, stays beside the screenshots.
    env = {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "UMOCKDEV_DIR")}
    os.makedirs(SHOTS, exist_ok=True)
    if os.path.exists(DRIVER_LOG):
        os.remove(DRIVER_LOG)
    service = Service("/usr/bin/chromedriver", env=env, log_path=DRIVER_LOG,
                      service_args=["--log-level=INFO"])
    drv = webdriver.Chrome(service=service, options=opts)
    drv.set_page_load_timeout(30)
    drv.set_script_timeout(30)
    yield drv
    drv.quit()


def stats(drv):
    return drv.execute_script("return window.tevixStats")


def console_errors(drv):
    return [e["message"] for e in drv.get_log("browser") if e["level"] == "SEVERE"]


def shot(drv, name, element=None):
    os.makedirs(SHOTS, exist_ok=True)
    path = os.path.join(SHOTS, name + ".png")
    if element:
        drv.find_element(By.ID, element).screenshot(path)
    else:
        drv.save_screenshot(path)
    assert os.path.getsize(path) > 1000


def distinct_colours(drv, canvas_js):
    """Distinct RGB values in a canvas (WebGL ones are copied into a 2-D canvas first)."""
    return drv.execute_script(f"""
        const src = {canvas_js};
        const c = document.createElement('canvas');
        c.width = src.width; c.height = src.height;
        const g = c.getContext('2d');
        g.drawImage(src, 0, 0);
        const d = g.getImageData(0, 0, c.width, c.height).data, seen = new Set();
        for (let i = 0; i < d.length; i += 4) seen.add((d[i] << 16) | (d[i + 1] << 8) | d[i + 2]);
        return seen.size;""")


def open_page(drv, v):
    try:
        drv.get(v.page)
    except TimeoutException:
        # A renderer that misses the load deadline once (a loaded machine compiling shaders in
        # software) gets one more chance; a page that never loads still fails, with the log.
        print("page load timed out once; chromedriver log:\n" + _tail(DRIVER_LOG))
        drv.get(v.page)
    wait_for(lambda: (stats(drv) or {}).get("painted", 0) > 10)


def test_live_camera_page(browser, viewer):
    """Frames from the virtual camera reach all three views; the frame rate chosen on the page
    reaches the camera and the tool's measured rate follows; no console error."""
    drv, v = browser, viewer
    drv.get_log("browser")
    open_page(drv, v)
    first = stats(drv)
    wait_for(lambda: stats(drv)["lastIndex"] > first["lastIndex"] + 20)
    assert distinct_colours(drv, "document.getElementById('depth')") > 20
    assert distinct_colours(drv, "document.getElementById('ir')") > 20
    assert distinct_colours(drv, "document.querySelector('#points canvas')") > 5
    assert v.state()["clients"] == 1 and v.state()["capturing"]
    wait_for(lambda: "fps" in drv.find_element(By.ID, "readout").text
             and "VXCAM" in drv.find_element(By.ID, "camera").text)
    shot(drv, "live-page")
    for view in ("depth", "ir", "points"):
        shot(drv, "live-" + view, view)

    Select(drv.find_element(By.ID, "fps")).select_by_value("10")
    wait_for(lambda: v.state()["params"]["FPS"] == 10)
    # The rate the tool measures settles near the camera's new rate.
    wait_for(lambda: 7 <= v.state()["fps_measured"] <= 13, timeout=45)
    Select(drv.find_element(By.ID, "fps")).select_by_value("30")
    wait_for(lambda: v.state()["params"]["FPS"] == 30)

    # Binning through the region of interest: the camera sends smaller frames, the page follows.
    Select(drv.find_element(By.ID, "binning")).select_by_value("1")
    wait_for(lambda: stats(drv)["size"] == "160x120")
    Select(drv.find_element(By.ID, "binning")).select_by_value("0")
    wait_for(lambda: stats(drv)["size"] == "320x240")

    box = drv.find_element(By.CSS_SELECTOR, "[data-filter=smooth]")
    box.click()
    wait_for(lambda: v.state()["filters"]["smooth"])
    assert stats(drv)["errors"] == 0
    assert console_errors(drv) == []

    # A closed tab releases the stream and the capture stops.
    drv.get("about:blank")
    wait_for(lambda: v.state()["clients"] == 0 and not v.state()["capturing"])


def test_record_then_play_seek_loop(browser, viewer):
    """Recording from the page gives an ONI file the reader accepts; a second viewer plays it,
    pauses, seeks and loops."""
    drv, v = browser, viewer
    open_page(drv, v)
    drv.find_element(By.ID, "record").click()
    wait_for(lambda: v.state()["recording"])
    start = stats(drv)["lastIndex"]
    wait_for(lambda: stats(drv)["lastIndex"] > start + 45)
    drv.find_element(By.ID, "record").click()
    wait_for(lambda: not v.state()["recording"])
    files = list(v.record_dir.glob("*.oni"))
    assert len(files) == 1
    info = subprocess.run([TOOL, "oni", "info", str(files[0])], capture_output=True, text=True)
    assert info.returncode == 0, info.stderr
    m = re.search(r'"VX_REPLAY".*frames (\d+)', info.stdout)
    assert m and int(m.group(1)) >= 40, info.stdout
    drv.get("about:blank")

    rec = Viewer("file://" + str(files[0]))
    try:
        drv.get_log("browser")
        open_page(drv, rec)
        count = rec.state()["playback"]["count"]
        assert count == int(m.group(1))
        assert drv.find_element(By.ID, "playback").is_displayed()
        assert drv.find_element(By.ID, "camera-controls").get_attribute("disabled")
        shot(drv, "recording-page")

        drv.find_element(By.ID, "play").click()  # pause
        wait_for(lambda: not rec.state()["playback"]["playing"])
        time.sleep(0.3)
        paused = stats(drv)["painted"]
        time.sleep(0.5)
        assert stats(drv)["painted"] == paused

        # A paused recording shows the frame it is moved to (recorded frames count from 1).
        for target in (5, count - 3):
            drv.execute_script("const s = document.getElementById('seek'); s.value = arguments[0];"
                               "s.dispatchEvent(new Event('change'));", target)
            wait_for(lambda: stats(drv)["lastIndex"] == target + 1)
            assert rec.state()["playback"]["position"] == target
        shot(drv, "recording-seek", "depth")

        # Played with loop on, the replay passes its end and starts again.
        drv.find_element(By.ID, "loop").click()
        wait_for(lambda: rec.state()["playback"]["loop"])
        drv.find_element(By.ID, "play").click()
        wait_for(lambda: rec.state()["playback"]["playing"])
        wait_for(lambda: stats(drv)["lastIndex"] < 10, timeout=45)
        assert console_errors(drv) == []
        drv.get("about:blank")
        status, _ = rec.request("POST", "/api/param", name="INTG1", value="100")
        assert status == 409  # a recording replays as recorded
    finally:
        rec.close()


def test_bad_requests_change_nothing(viewer):
    v = viewer
    before = v.state()
    for path, query, status in [
        ("/api/param", {"name": "GAIN", "value": "1"}, 400),
        ("/api/param", {"name": "FPS", "value": "0"}, 400),
        ("/api/param", {"name": "FPS", "value": "61"}, 400),
        ("/api/param", {"name": "FPS", "value": "1e1"}, 400),
        ("/api/param", {"name": "INTG1", "value": "-5"}, 400),
        ("/api/param", {"name": "MOD_FREQ", "value": "12 MHz"}, 400),
        ("/api/param", {}, 400),
        ("/api/filter", {"name": "smooth", "on": "yes"}, 400),
        ("/api/filter", {"name": "flying_pixel", "on": "1", "value": "32"}, 400),
        ("/api/filter", {"name": "format_disk", "on": "1"}, 400),
        ("/api/record", {"action": "start", "file": "../escape.oni"}, 400),
        ("/api/record", {"action": "start", "file": "/tmp/abs.oni"}, 400),
        ("/api/record", {"action": "burn"}, 400),
        ("/api/playback", {"action": "play"}, 409),
        ("/api/palette", {"id": "64"}, 400),
        ("/api/ack", {"stream": "x", "frames": "1"}, 400),
        ("/api/ack", {"stream": "999", "frames": "1"}, 404),
    ]:
        got, body = v.request("POST" if path != "/api/palette" else "GET", path, **query)
        assert got == status, (path, query, body)
        assert body["ok"] is False and body["error"], (path, query)
    # Paths outside the viewer's own files, sent byte for byte.
    for target in (b"/../../../../etc/passwd", b"/%2e%2e/%2e%2e/etc/passwd", b"/viewer.js/../../x",
                   b"/usr/share/javascript/three/three.min.js", b"/.git/config"):
        line = v.raw(b"GET " + target + b" HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
        assert re.match(r"HTTP/1\.1 4\d\d", line), (target, line)
    # Garbage instead of HTTP, an oversized body, a wrong method.
    assert re.match(r"HTTP/1\.1 4\d\d", v.raw(b"\x00\xff garbage \x16\x03\x01\r\n\r\n"))
    assert re.match(r"HTTP/1\.1 4\d\d", v.raw(
        b"POST /api/param?name=FPS&value=5 HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n"))
    assert v.request("DELETE", "/api/state")[0] in (404, 405)
    after = v.state()
    assert after["params"] == before["params"] and after["filters"] == before["filters"]
    assert not after["recording"] and list(v.record_dir.iterdir()) == []
    # At most four pages stream at once; a fifth is told so, and the first four still work.
    conns = []
    try:
        for _ in range(4):
            c = http.client.HTTPConnection(v.host, v.port, timeout=10)
            c.request("GET", "/api/stream")
            r = c.getresponse()
            assert r.status == 200 and r.read(4) == b"TVXF"
            conns.append(c)
        # An acknowledgement of more frames than were sent is refused.
        stream = r.getheader("X-Tevix-Stream")
        assert v.request("POST", "/api/ack", stream=stream, frames="1000")[0] == 400
        assert v.request("POST", "/api/ack", stream=stream, frames="1") == (200, {"ok": True})
        assert v.request("GET", "/api/stream")[0] == 503
    finally:
        for c in conns:
            c.close()
    wait_for(lambda: v.state()["clients"] == 0)
    assert v.request("POST", "/api/param", name="FPS", value="20") == (
        200, {"ok": True, "name": "FPS", "value": 20})


@pytest.mark.parametrize("viewer", [("--bind", "127.0.0.2")], indirect=True)
def test_token_beyond_loopback(browser, viewer):
    """Bound to another address the server wants its token on every request, the page included."""
    v = viewer
    assert v.host == "127.0.0.2" and re.fullmatch(r"[0-9a-f]{32}", v.token)
    for path in ("/", "/viewer.js", "/api/state", "/api/stream", "/api/nothing"):
        assert v.request("GET", path, auth=False)[0] == 403, path
    assert v.request("GET", "/api/state", auth=False, **{"token": "0" * 32})[0] == 403
    assert v.request("POST", "/api/param", auth=False, name="FPS", value="5")[0] == 403
    assert v.state()["params"]["FPS"] != 5
    drv = browser
    drv.get_log("browser")
    open_page(drv, v)
    assert console_errors(drv) == []
    drv.get("about:blank")
