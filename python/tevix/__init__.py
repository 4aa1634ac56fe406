"""tevix: USB time-of-flight depth cameras and their recordings, with numpy arrays.

    import tevix
    with tevix.open() as cam:                      # the first camera; or "usb://...", "file://rec.oni"
        cam.params["FPS"] = 30
        with cam.capture(record="out.oni") as stream:
            for frame in stream:
                mm = frame.depth()                 # uint16 (H, W), millimetres
                xyz = frame.points()               # float32 (N, 3), metres
                break

Errors raise tevix.Error (or a subclass) carrying the library's reason and code; bad arguments
raise ValueError or TypeError.
"""
from __future__ import annotations

import dataclasses
import struct
from typing import Dict, Iterator, List, Optional, Sequence, Tuple, Union

import numpy as np

from . import _tevix

__all__ = [
    "__version__", "Error", "OpenError", "ClosedError", "Timeout", "DeviceLost", "EndOfRecording", "WrongState",
    "CaptureError", "DeviceInfo", "CameraInfo", "Lens", "Roi", "Camera", "Params", "Filters",
    "Stream", "Frame", "FrameInfo", "Recording", "Node", "Property", "devices", "open",
    "colorize", "infrared", "convert", "point_cloud", "repair", "set_log_levels", "INVALID_MM",
]

INVALID_MM = 65500
"""The value of invalid pixels in distance images (millimetres)."""


class Error(Exception):
    """A failure reported by the library: `reason` (text) and `code` (a capture code or 0)."""

    def __init__(self, reason: str, code: int = 0):
        super().__init__(reason)
        self.reason = reason
        self.code = code

    def __reduce__(self):
        return (type(self), (self.reason, self.code))


class OpenError(Error):
    """No such camera or recording, or it could not be opened."""


class ClosedError(Error):
    """The camera (or recording) was closed."""


class CaptureError(Error):
    """The capture ended with an error (a stall, a transfer error)."""


class Timeout(CaptureError):
    """No frame arrived within the timeout."""


class DeviceLost(CaptureError):
    """The camera went away (unplugged) during the capture."""


class EndOfRecording(CaptureError):
    """A recording played to its end (iterators end instead of raising it)."""


class WrongState(Error):
    """The call does not fit the device's state (not capturing, not a recording)."""


_tevix._set_error_classes({
    "Error": Error, "OpenError": OpenError, "ClosedError": ClosedError,
    "CaptureError": CaptureError, "Timeout": Timeout, "DeviceLost": DeviceLost,
    "EndOfRecording": EndOfRecording, "WrongState": WrongState,
})
_tevix.init("")
_tevix.log_config(7, 7, 7)
__version__ = _tevix.version().lstrip("v")

Frame = _tevix.Frame
FrameInfo = _tevix.FrameInfo


def set_log_levels(console: int = 7, file: int = 7, usb: int = 7) -> None:
    """Library diagnostics: 0 trace ... 4 info, 5 warnings, 6 errors, 7 off (the default)."""
    for v in (console, file, usb):
        _int(v, "log level", 0, 7)
    _tevix.log_config(console, file, usb)


# ---- arguments ----

def _int(v, what: str, lo: int, hi: int) -> int:
    if isinstance(v, bool) or not isinstance(v, (int, np.integer)):
        raise TypeError(f"{what} must be an int, not {type(v).__name__}")
    v = int(v)
    if not lo <= v <= hi:
        raise ValueError(f"{what} must be in {lo}..{hi}, not {v}")
    return v


def _num(v, what: str) -> float:
    if isinstance(v, bool) or not isinstance(v, (int, float, np.integer, np.floating)):
        raise TypeError(f"{what} must be a number, not {type(v).__name__}")
    return float(v)


# ---- identity ----

@dataclasses.dataclass(frozen=True)
class Lens:
    """Pinhole intrinsics (pixels) and distortion coefficients k1, k2, p1, p2, k3, ..."""
    cx: float
    cy: float
    fx: float
    fy: float
    distortion: Tuple[float, ...] = ()
    width: int = 0
    height: int = 0


@dataclasses.dataclass(frozen=True)
class DeviceInfo:
    """A camera found on USB."""
    uri: str
    product: str
    vendor: str
    serial: str


@dataclasses.dataclass(frozen=True)
class CameraInfo:
    """An open camera (or recording): identity, driver and lens."""
    uri: str
    product: str
    vendor: str
    serial: str
    driver: str
    chip: str
    hardware_id: int
    versions: Tuple[int, int, int]
    lens: Optional[Lens]


class Roi(tuple):
    """Region of interest: rows top..bottom, columns left..right, binning mode."""
    __slots__ = ()
    _fields = ("top", "bottom", "left", "right", "binning")

    def __new__(cls, top: int, bottom: int, left: int, right: int, binning: int = 0):
        return tuple.__new__(cls, (top, bottom, left, right, binning))

    top = property(lambda s: s[0])
    bottom = property(lambda s: s[1])
    left = property(lambda s: s[2])
    right = property(lambda s: s[3])
    binning = property(lambda s: s[4])

    def __repr__(self):
        return "Roi(top=%d, bottom=%d, left=%d, right=%d, binning=%d)" % self


def devices() -> List[DeviceInfo]:
    """The cameras attached over USB."""
    return [DeviceInfo(**d) for d in _tevix.devices()]


# ---- parameters ----

# name: (id, struct format or "text", writable, per-value limits or None)
_PARAMS: Dict[str, tuple] = {
    "DEV_MOD": (0, "<I", True, (0, 255)),
    "MOD_FREQ": (1, "<I", True, (1_000_000, 200_000_000)),
    "VENDOR": (2, "text", False, None),
    "PRODUCT": (3, "text", False, None),
    "GEOMETRY": (4, "<HHII", False, None),
    "UID": (5, "<III", False, None),
    "VERSION": (6, "<HHHH", False, None),
    "SENSOR": (7, "<HHH", False, None),
    "ROI": (9, "<HHHHB4x", True, None),
    "FRM_FMT": (10, "<I", True, (0, 255)),
    "FPS": (12, "<I", True, "fps"),
    "INTG1": (13, "<H", True, "intg1"),
    "INTG2": (16, "<H", True, "intg2"),
    "FRAME_COUNT": (20, "<H", True, (0, 65535)),
    "DUAL_FREQ": (21, "<II", True, (1_000_000, 200_000_000)),
}


class Params:
    """Camera parameters by name: ``cam.params["FPS"] = 30``, ``cam.params.fps``.

    Names (any case): DEV_MOD, MOD_FREQ (Hz), DUAL_FREQ ((f0, f1) Hz), FPS, INTG1, INTG2
    (microseconds), FRM_FMT, FRAME_COUNT, ROI (a Roi), and read-only VENDOR, PRODUCT, GEOMETRY
    (max width, max height, max fps, max integration time), UID, VERSION, SENSOR. Values are
    checked against the camera's limits before they are sent.
    """

    def __init__(self, cam: "Camera"):
        object.__setattr__(self, "_cam", cam)

    @staticmethod
    def names() -> List[str]:
        return list(_PARAMS)

    @staticmethod
    def _entry(name):
        if not isinstance(name, str):
            raise TypeError(f"parameter names are text, not {type(name).__name__}")
        entry = _PARAMS.get(name.upper())
        if entry is None:
            raise ValueError(f"unknown parameter {name!r}; known: {', '.join(_PARAMS)}")
        return name.upper(), entry

    def __getitem__(self, name: str):
        key, (pid, fmt, _, _) = self._entry(name)
        raw = self._cam._dev.param_get(pid)
        if fmt == "text":
            return raw.split(b"\0", 1)[0].decode("latin-1")
        size = struct.calcsize(fmt)
        vals = struct.unpack(fmt, raw[:size].ljust(size, b"\0"))
        if key == "ROI":
            return Roi(*vals)
        return vals[0] if len(vals) == 1 else vals

    def __setitem__(self, name: str, value) -> None:
        key, (pid, fmt, writable, limits) = self._entry(name)
        if not writable:
            raise ValueError(f"parameter {key} is read-only")
        n = len(struct.unpack(fmt, b"\0" * struct.calcsize(fmt)))
        vals = tuple(value) if isinstance(value, (tuple, list, Roi)) else (value,)
        if len(vals) != n:
            raise ValueError(f"parameter {key} takes {n} value{'s' if n > 1 else ''}, not {len(vals)}")
        if key == "ROI":
            geo = self._cam._geometry()
            w, h = (geo[0], geo[1]) if geo else (65535, 65535)
            top, bottom, left, right, binning = (_int(v, f"ROI {f}", 0, 65535) for f, v in zip(Roi._fields, vals))
            if not (top <= bottom < h and left <= right < w):
                raise ValueError(f"ROI must lie within the {w}x{h} sensor with top <= bottom and left <= right")
            _int(binning, "ROI binning", 0, 4)
            vals = (top, bottom, left, right, binning)
        else:
            lo, hi = self._cam._limits(key, limits)
            vals = tuple(_int(v, key, lo, hi) for v in vals)
        self._cam._dev.param_set(pid, struct.pack(fmt, *vals))

    def __getattr__(self, name: str):
        if name.startswith("_"):
            raise AttributeError(name)
        try:
            return self[name]
        except ValueError as e:
            raise AttributeError(str(e)) from None

    def __setattr__(self, name: str, value) -> None:
        self[name] = value

    def __dir__(self):
        return [n.lower() for n in _PARAMS]

    def __repr__(self):
        return f"<tevix.Params of {self._cam!r}>"


# ---- filters ----

# name: (id, argument layout: struct format of the 8-byte argument, number of values, limits)
_FILTERS: Dict[str, tuple] = {
    "lens_calib": (0, "", None),
    "pix_calib": (1, "", None),
    "smooth": (2, "<BB", (0, 255)),          # variant, strength (0..100; 240: own bilateral)
    "min_amp": (4, "<H", (0, 65535)),        # amplitude threshold
    "auto_intg": (5, "<H", (0, 1000)),       # saturation ratio, per mille
    "consistency": (6, "<H", (0, 65535)),
    "temp_monitor": (7, "<H", (0, 65535)),
    "hdr": (8, "<HH", (0, 65535)),           # two integration times, microseconds
    "offset": (9, "<h", (-32768, 32767)),    # millimetres
    "sport": (10, "<B", (0, 2)),
    "sys_calib": (11, "", None),
    "gray_scale": (12, "<H", (0, 65535)),
    "flying_pixel": (13, "<B", (0, 31)),
    "temp_comp": (14, "", None),
}
# Friendly names: the median (with the bilateral filter) is the driver's smoothing.
_FILTER_ALIASES = {"median": ("smooth", (0, 50)), "bilateral": ("smooth", (0, 50)),
                   "undistort": ("lens_calib", ())}


class Filters:
    """The driver's filters: ``cam.filters.enable("median")``, ``enable("min_amp", 40)``."""

    def __init__(self, cam: "Camera"):
        self._cam = cam

    @staticmethod
    def names() -> List[str]:
        return list(_FILTERS) + list(_FILTER_ALIASES)

    def _resolve(self, name, args):
        if not isinstance(name, str):
            raise TypeError(f"filter names are text, not {type(name).__name__}")
        if name in _FILTER_ALIASES:
            base, default = _FILTER_ALIASES[name]
            return base, args or default
        if name not in _FILTERS:
            raise ValueError(f"unknown filter {name!r}; known: {', '.join(self.names())}")
        return name, args

    def enable(self, name: str, *args: int) -> None:
        name, args = self._resolve(name, args)
        fid, fmt, limits = _FILTERS[name]
        count = len(struct.unpack(fmt, b"\0" * struct.calcsize(fmt))) if fmt else 0
        if len(args) > count:
            raise ValueError(f"filter {name} takes at most {count} value(s), not {len(args)}")
        vals = [_int(a, f"filter {name} value", *limits) for a in args] + [0] * (count - len(args))
        self._cam._dev.filter(fid, True, struct.pack(fmt, *vals) if fmt else b"")

    def disable(self, name: str) -> None:
        name, _ = self._resolve(name, ())
        self._cam._dev.filter(_FILTERS[name][0], False, b"")


# ---- capture ----

def _points(self, invalid: str = "drop") -> np.ndarray:
    """The point cloud in metres, float32: (N, 3) of the valid pixels (invalid="drop"), or
    (H * W, 3) with NaN rows for invalid pixels (invalid="nan")."""
    if invalid not in ("drop", "nan"):
        raise ValueError(f"invalid must be 'drop' or 'nan', not {invalid!r}")
    xyz = self._points()
    ok = np.isfinite(xyz[:, 2]) & (xyz[:, 2] > 0)
    if invalid == "drop":
        return xyz[ok]
    xyz[~ok] = np.nan
    return xyz


def _colorized(self, range_mm: Tuple[int, int] = (0, 6000), palette: int = 0) -> np.ndarray:
    """The distance image through a colour map, uint8 (H, W, 3) RGB, over range_mm."""
    return colorize(self.depth(), range_mm, palette)


Frame.points = _points
Frame.colorized = _colorized


class Stream:
    """A running capture; iterate it for frames. Ends cleanly at the end of a recording; raises
    Timeout when no frame arrives in time and DeviceLost when the camera goes away."""

    def __init__(self, cam: "Camera", record: Optional[str], timeout: float, loop: bool):
        self._cam, self._record, self._timeout, self._loop = cam, record, timeout, loop
        self._running = False

    def __enter__(self) -> "Stream":
        self.start()
        return self

    def __exit__(self, *exc) -> None:
        self.stop()

    def start(self) -> None:
        dev = self._cam._dev
        dev.configure(self._record, self._loop)
        dev.start()
        self._running = True

    def stop(self) -> None:
        if self._running:
            self._running = False
            if not self._cam._dev.closed:
                self._cam._dev.stop()

    def read(self, timeout: Optional[float] = None) -> Frame:
        """The next frame (raises EndOfRecording at the end of a recording)."""
        t = self._timeout if timeout is None else _num(timeout, "timeout")
        if not t > 0:
            raise ValueError("timeout must be positive")
        return self._cam._dev.pull(t)

    def __iter__(self) -> Iterator[Frame]:
        return self

    def __next__(self) -> Frame:
        if not self._running:
            raise StopIteration
        try:
            return self.read()
        except EndOfRecording:
            self.stop()
            raise StopIteration from None


class Camera:
    """An open camera or recording (``tevix.open``); a context manager that closes it."""

    def __init__(self, uri: Optional[str] = None):
        if uri is not None and not isinstance(uri, str):
            raise TypeError(f"uri must be text, not {type(uri).__name__}")
        self._dev = _tevix.Device(uri)
        self._info: Optional[CameraInfo] = None

    def __enter__(self) -> "Camera":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def close(self) -> None:
        self._dev.close()

    @property
    def params(self) -> Params:
        """Parameters by name (``cam.params["FPS"] = 30``, ``cam.params.fps``)."""
        return Params(self)

    @property
    def filters(self) -> Filters:
        """The driver's filters (``cam.filters.enable("median")``)."""
        return Filters(self)

    @property
    def closed(self) -> bool:
        return self._dev.closed

    @property
    def is_recording_file(self) -> bool:
        return self._dev.is_file

    @property
    def info(self) -> CameraInfo:
        if self._info is None:
            ident = self._dev.identity()
            lens = self._dev.lens()
            self._info = CameraInfo(
                lens=Lens(lens["cx"], lens["cy"], lens["fx"], lens["fy"], tuple(lens["distortion"]),
                          lens["width"], lens["height"]) if lens else None,
                versions=tuple(ident.pop("versions")), **ident)
        return self._info

    def _geometry(self):
        try:
            return self.params["GEOMETRY"]
        except Error:
            return None

    def _limits(self, key, limits):
        if not isinstance(limits, str):
            return limits
        geo = self._geometry()
        if limits == "fps":
            return (0 if self.is_recording_file else 1), (geo[2] if geo and geo[2] else 1000)
        hi = min(geo[3], 65535) if geo and geo[3] else 65535
        return (1 if limits == "intg1" else 0), hi

    def capture(self, record: Optional[str] = None, timeout: float = 5.0,
                loop: bool = False) -> Stream:
        """A capture to iterate, recording every raw frame into `record` (an ONI file) when given;
        `loop` starts a recording over at its end."""
        if record is not None and not isinstance(record, str):
            raise TypeError(f"record must be a file name, not {type(record).__name__}")
        t = _num(timeout, "timeout")
        if not t > 0:
            raise ValueError("timeout must be positive")
        return Stream(self, record, t, bool(loop))

    def seek(self, index: int) -> int:
        """Recordings: the next frame is frame `index` (from 0); the position reached."""
        return self._dev.seek(_int(index, "frame index", 0, 2**31 - 1), 0)

    def __len__(self) -> int:
        """Recordings: the number of frames."""
        return self._dev.seek(0, 2) if self.is_recording_file else 0

    def __repr__(self):
        return "<tevix.Camera closed>" if self.closed else f"<tevix.Camera {self.info.uri} {self.info.product}>"


def open(uri: Optional[str] = None) -> Camera:  # noqa: A001 - the package's verb
    """Opens a camera ("usb://bus:port[:addr]"), a recording ("file://path.oni"), or with no
    URI the first camera attached."""
    return Camera(uri)


# ---- recordings ----

@dataclasses.dataclass(frozen=True)
class Node:
    """A stream of a recording."""
    id: int
    name: str
    type: int
    codec: str
    frames: int
    width: int
    height: int
    fps: int
    timestamps: Tuple[int, int]


@dataclasses.dataclass(frozen=True)
class Property:
    node: int
    name: str
    value: Union[int, float, str, bytes]


_RAW_NODE = 0xFFFFFFFF


class Recording:
    """An ONI recording opened for random access: nodes, properties, frames by index.

    ``rec.depth(i)`` decodes frame i: from a stored distance stream when the recording has one,
    else from its raw frames through the recorded camera's driver (as replay does).
    """

    def __init__(self, path: str):
        if not isinstance(path, str):
            raise TypeError(f"path must be text, not {type(path).__name__}")
        self.path = path
        self._file = _tevix.RecordingFile(path)
        self.nodes: List[Node] = [Node(**n) for n in self._file.nodes()]
        self._device: Optional[Camera] = None

    def __enter__(self) -> "Recording":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def close(self) -> None:
        self._file.close()
        if self._device is not None:
            self._device.close()
            self._device = None

    @property
    def properties(self) -> List[Property]:
        return [Property(*p) for p in self._file.properties()]

    def node(self, name_or_type: Union[str, int]) -> Optional[Node]:
        for n in self.nodes:
            if n.name == name_or_type or n.type == name_or_type:
                return n
        return None

    def _main(self) -> Node:
        n = self.node("VX_REPLAY") or self.node(_RAW_NODE) or next(
            (n for n in self.nodes if n.type != 1), None)
        if n is None:
            raise Error(f"{self.path} holds no frames")
        return n

    @property
    def frame_count(self) -> int:
        return self._main().frames

    def __len__(self) -> int:
        return self.frame_count

    def _index(self, i: int, node: Node) -> int:
        i = _int(i, "frame index", -node.frames, node.frames - 1) if node.frames else _int(i, "frame index", 0, -1)
        return i % node.frames

    def raw(self, i: int, node: Optional[str] = None) -> bytes:
        """Frame i of a node (the raw frames by default) as stored."""
        n = self.node(node) if node else self._main()
        if n is None:
            raise ValueError(f"no node {node!r}")
        return self._file.read(n.id, self._index(i, n))[0]

    def _stored(self, kind: int) -> Optional[Node]:
        return next((n for n in self.nodes if n.type == kind and n.codec in ("NONE", "16zT", "16zP")
                     and n.width and n.height), None)

    def _frame(self, i: int) -> Frame:
        main = self._main()
        i = self._index(i, main)
        if self._device is None:
            self._device = Camera("file://" + self.path)
            self._device.params["FPS"] = 0  # one frame per pull
            self._stream = self._device.capture()
            self._stream.start()
        self._device.seek(i)
        return self._stream.read()

    def depth(self, i: int) -> np.ndarray:
        """Distance of frame i in millimetres, uint16 (H, W)."""
        n = self._stored(2)
        if n is not None:
            return self._file.decode(n.id, self._index(i, n), n.width, n.height)
        return self._frame(i).depth()

    def grey(self, i: int) -> np.ndarray:
        """Infrared of frame i, uint16 (H, W)."""
        n = self._stored(5)
        if n is not None:
            return self._file.decode(n.id, self._index(i, n), n.width, n.height)
        return self._frame(i).grey()

    def frame(self, i: int) -> Frame:
        """Raw frame i as a Frame (all decodes available), through the recorded driver."""
        return self._frame(i)

    def __repr__(self):
        return f"<tevix.Recording {self.path}: {len(self.nodes)} nodes>"


# ---- pixel routines ----

def colorize(dist: np.ndarray, range_: Tuple[float, float] = (0, 6000), palette: int = 0) -> np.ndarray:
    """Distances (uint16 mm or float32 m) through a colour map (palette 0..63) over range_:
    uint8 array of shape dist.shape + (3,)."""
    lo, hi = range_
    palette = _int(palette, "palette", 0, 63)
    if not isinstance(dist, np.ndarray):
        raise TypeError(f"dist must be a numpy array, not {type(dist).__name__}")
    if dist.dtype == np.uint16:
        return _tevix.colorize_u16(dist, _int(lo, "range start", 0, 65535), _int(hi, "range end", 0, 65535), palette)
    return _tevix.colorize_f32(dist, _num(lo, "range start"), _num(hi, "range end"), palette)


def infrared(grey: np.ndarray, balance: int = 0) -> np.ndarray:
    """The 8-bit infrared picture of grey values (uint16), brightness balance -1024..1024."""
    return _tevix.ir_u16(grey, _int(balance, "balance", -1024, 1024))


_CONVERSIONS = {
    ("uint16", "uint8"): _tevix.conv_u16_u8,
    ("uint16", "float32"): _tevix.conv_u16_f32,
    ("float32", "uint16"): _tevix.conv_f32_u16,
    ("float32", "uint8"): _tevix.conv_f32_u8,
}


def convert(src: np.ndarray, dtype, scale: float = 1.0, shift: int = 0) -> np.ndarray:
    """The library's pixel conversions: uint16 -> uint8 (src >> shift, limited to 255),
    uint16 -> float32 (src * scale), float32 -> uint16 / uint8 (src * scale, limited; NaN -> 0)."""
    if not isinstance(src, np.ndarray):
        raise TypeError(f"src must be a numpy array, not {type(src).__name__}")
    key = (str(src.dtype), str(np.dtype(dtype)))
    fn = _CONVERSIONS.get(key)
    if fn is None:
        raise TypeError(f"no conversion from {key[0]} to {key[1]}; known: {sorted(_CONVERSIONS)}")
    if key == ("uint16", "uint8"):
        return fn(src, _int(shift, "shift", 0, 31))
    return fn(src, _num(scale, "scale"))


def point_cloud(dist: np.ndarray, lens: Union[Lens, Sequence[float]], d_is_z: bool = False,
                invalid: str = "drop") -> np.ndarray:
    """Points (metres, float32 (N, 3)) of a distance image (uint16 mm or float32 m, (H, W))
    through a pinhole lens (a Lens, or cx, cy, fx, fy). Distances are along the ray unless
    d_is_z. invalid: "drop" leaves invalid pixels out, "nan" keeps one row per pixel."""
    if not isinstance(dist, np.ndarray):
        raise TypeError(f"dist must be a numpy array, not {type(dist).__name__}")
    cx, cy, fx, fy = (lens.cx, lens.cy, lens.fx, lens.fy) if isinstance(lens, Lens) else lens
    xyz = _tevix.point_cloud(dist, *(_num(v, "lens value") for v in (cx, cy, fx, fy)), bool(d_is_z))
    if invalid not in ("drop", "nan"):
        raise ValueError(f"invalid must be 'drop' or 'nan', not {invalid!r}")
    ok = np.isfinite(xyz[:, 2]) & (xyz[:, 2] > 0)
    if invalid == "drop":
        return xyz[ok]
    xyz[~ok] = np.nan
    return xyz


def repair(path: str, out: Optional[str] = None) -> int:
    """Makes a recording whose writer died playable (into `out`, default in place); the number
    of frames kept."""
    return _tevix.repair(path, out or path)
