// tevix._tevix: the library's public C interface for Python. Devices, frames and recordings are
// objects that own their handles; pixels come back as numpy arrays that own their memory (the
// library decodes straight into them). The GIL is released while the library waits or decodes.
// Errors become the exception classes the Python layer registers (tevix.Error and its kin).
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tevix/tevix.h"
#include "tevix/tevix_version.h"
#include "tevix/vx_cmap.h"
#include "tevix/vx_pcl.h"

namespace py = pybind11;

namespace {

constexpr uint32_t k_raw_capacity = 8u << 20;

// A failure with the library's code (capture codes, or 0 for other failures) and its reason.
struct tevix_failure {
    int code;
    std::string reason;
    std::string kind;  // exception class name when not chosen by the code
};

// Exception classes by name, set by the Python layer at import.
py::dict &_classes() {
    static py::dict *d = new py::dict();
    return *d;
}

[[noreturn]] void _fail(int code, std::string reason, std::string kind = "") {
    throw tevix_failure{code, std::move(reason), std::move(kind)};
}

const char *_class_for(int code) {
    switch (code) {
        case TEVIX_ERR_CAP_TIMEOUT:
            return "Timeout";
        case TEVIX_ERR_CAP_UNKNOWN:
        case TEVIX_ERR_CAP_CANCEL:
            return "DeviceLost";
        case TEVIX_ERR_CAP_EOF:
            return "EndOfRecording";
        case TEVIX_ERR_CAP_WRONG_STATE:
            return "WrongState";
        default:
            return code < 0 ? "CaptureError" : "Error";
    }
}

// One device handle shared by the Python device object and the frames pulled from it.
struct device_state {
    tevix_dev_t *dev = nullptr;
    std::mutex decode_mtx;  // the driver decodes one frame at a time
    std::mutex pull_mtx;    // one pull at a time into the pull buffer
    std::vector<uint8_t> pull_buf;
    bool is_file = false;
    ~device_state() {
        if (dev) tevix_dev_close(dev);
    }
};
using device_ptr = std::shared_ptr<device_state>;

tevix_dev_t *_live(const device_ptr &d) {
    if (!d || !d->dev) _fail(0, "the camera is closed", "ClosedError");
    return d->dev;
}

struct frame_info {
    uint32_t index, width, height, format, size;
    double timestamp;                              // seconds since 1970 (the camera's clock)
    double board_temperature, sensor_temperature;  // degrees Celsius
};

class frame {
  public:
    frame(device_ptr d, std::vector<uint8_t> raw, const tevix_frame_info_t &info)
        : dev_(std::move(d)), raw_(std::move(raw)), info_(info) {}

    frame_info info() const {
        return {info_.index,
                info_.width,
                info_.height,
                info_.format,
                info_.size,
                info_.ts_sec + info_.ts_usec * 1e-6,
                static_cast<int16_t>(info_.temperature & 0xFFFF) / 10.0,
                static_cast<int16_t>(info_.temperature >> 16) / 10.0};
    }
    py::bytes raw() const {
        return py::bytes(reinterpret_cast<const char *>(raw_.data()), info_.size);
    }
    uint32_t pixels() const { return info_.width * info_.height; }

    // Decodes into a fresh array of shape; fn(dev, dst, n) returns the library's result.
    template <class T, class Fn>
    py::array_t<T> decode(std::vector<py::ssize_t> shape, size_t values, Fn fn,
                          const char *what) const {
        tevix_dev_t *dev = _live(dev_);
        if (pixels() == 0) _fail(0, "the frame has no image size");
        py::array_t<T> out(shape);
        T *dst = out.mutable_data();
        int r;
        {
            py::gil_scoped_release nogil;
            std::lock_guard<std::mutex> lock(dev_->decode_mtx);
            r = fn(dev, dst, static_cast<uint32_t>(values));
        }
        if (r <= 0)
            _fail(0, std::string("frame ") + std::to_string(info_.index) + " gives no " + what +
                         " (format " + std::to_string(info_.format) + ")");
        return out;
    }

    py::array_t<uint16_t> depth() const {
        return decode<uint16_t>(
            {info_.height, info_.width}, pixels(),
            [this](tevix_dev_t *d, uint16_t *dst, uint32_t n) {
                return tevix_frame_get_dist_u16(d, dst, n, raw_.data(), info_.size, &info_);
            },
            "distance");
    }
    py::array_t<float> depth_m() const {
        return decode<float>(
            {info_.height, info_.width}, pixels(),
            [this](tevix_dev_t *d, float *dst, uint32_t n) {
                return tevix_frame_get_dist_f32(d, dst, n, raw_.data(), info_.size, &info_);
            },
            "distance");
    }
    py::array_t<uint16_t> grey() const {
        return decode<uint16_t>(
            {info_.height, info_.width}, pixels(),
            [this](tevix_dev_t *d, uint16_t *dst, uint32_t n) {
                return tevix_frame_get_gray_u16(d, dst, n, raw_.data(), info_.size, &info_);
            },
            "grey image");
    }
    // One point per pixel, (H * W, 3) float32 metres; invalid pixels are (0, 0, 0).
    py::array_t<float> points() const {
        const uint32_t n = pixels();
        std::vector<float> metres(n);
        return decode<float>(
            {static_cast<py::ssize_t>(n), 3}, 3 * size_t{n},
            [this, &metres](tevix_dev_t *d, float *dst, uint32_t count) {
                const uint32_t px = count / 3;
                if (tevix_frame_get_dist_f32(d, metres.data(), px, raw_.data(), info_.size,
                                             &info_) <= 0)
                    return 0;
                return tevix_frame_get_pcl(d, dst, count, metres.data(), px, info_.width,
                                           info_.height, nullptr);
            },
            "point cloud");
    }

  private:
    device_ptr dev_;
    std::vector<uint8_t> raw_;
    tevix_frame_info_t info_;
};

class device {
  public:
    explicit device(const std::optional<std::string> &uri) : st_(std::make_shared<device_state>()) {
        tevix_dev_t *d;
        {
            py::gil_scoped_release nogil;
            d = uri ? tevix_dev_open_by_uri(uri->c_str()) : tevix_dev_open(nullptr);
        }
        if (!d)
            _fail(0,
                  uri ? "cannot open " + *uri + " (no such camera or recording)"
                      : std::string("cannot open a camera: none is attached"),
                  "OpenError");
        st_->dev = d;
        st_->is_file = d->type == TEVIX_DEV_FILE;
    }

    void close() {
        if (!st_->dev) return;
        py::gil_scoped_release nogil;
        std::lock_guard<std::mutex> lock(st_->decode_mtx);
        tevix_cap_stop(st_->dev);
        tevix_dev_close(st_->dev);
        st_->dev = nullptr;
        std::lock_guard<std::mutex> pull(st_->pull_mtx);
        std::vector<uint8_t>().swap(st_->pull_buf);
    }
    bool closed() const { return st_->dev == nullptr; }
    bool is_file() const { return st_->is_file; }

    py::dict identity() {
        tevix_dev_t *d = _live(st_);
        py::dict out;
        char uri[320] = {};
        tevix_dev_get_uri(d, uri, sizeof uri);
        const char *chip = nullptr;
        const char *drv = tevix_dev_get_driver(d, &chip);
        out["uri"] = std::string(uri);
        out["product"] = std::string(d->product);
        out["vendor"] = std::string(d->vendor);
        out["serial"] = std::string(d->serial);
        out["hardware_id"] = d->hw_id;
        out["versions"] = py::make_tuple(d->version[0], d->version[1], d->version[2]);
        out["driver"] = drv ? std::string(drv) : std::string();
        out["chip"] = chip ? std::string(chip) : std::string();
        return out;
    }

    py::object lens() {
        tevix_lens_t l{};
        if (!tevix_lens_param_get(_live(st_), &l)) return py::none();
        py::dict out;
        out["cx"] = l.cx;
        out["cy"] = l.cy;
        out["fx"] = l.fx;
        out["fy"] = l.fy;
        std::vector<float> k(l.dcoef, l.dcoef + std::min<uint32_t>(l.n_dcoef, 16));
        out["distortion"] = k;
        out["width"] = l.width;
        out["height"] = l.height;
        return out;
    }

    py::bytes param_get(uint32_t id) {
        tevix_param_item_t it{};
        it.id = id;
        int ok;
        {
            py::gil_scoped_release nogil;
            ok = tevix_param_batch_get(_live(st_), &it, 1);
        }
        if (!ok) _fail(0, "the camera did not answer parameter " + std::to_string(id));
        return py::bytes(reinterpret_cast<const char *>(it.value.u8),
                         std::min<size_t>(it.len, sizeof it.value.u8));
    }

    void param_set(uint32_t id, const py::bytes &value) {
        const std::string v = value;
        tevix_param_item_t it{};
        if (v.size() > 18) _fail(0, "a parameter value holds at most 18 bytes", "ValueError");
        it.id = id;
        it.len = static_cast<uint8_t>(v.size());
        std::memcpy(it.value.u8, v.data(), v.size());
        int ok;
        {
            py::gil_scoped_release nogil;
            ok = tevix_param_batch_set(_live(st_), &it, 1);
        }
        if (!ok) _fail(0, "the camera refused parameter " + std::to_string(id));
    }

    void filter(uint32_t id, bool on, const py::bytes &args) {
        const std::string a = args;
        tevix_filter_arg_t arg{};
        std::memcpy(arg.u8, a.data(), std::min(a.size(), sizeof arg.u8));
        const int r =
            on ? tevix_filter_enable(_live(st_), id, &arg) : tevix_filter_disable(_live(st_), id);
        if (r != 0)
            _fail(0, std::string("the driver refused to ") + (on ? "enable" : "disable") +
                         " filter " + std::to_string(id));
    }

    // Recording file (or None) and the replay loop switch, before start.
    void configure(const std::optional<std::string> &record, bool loop) {
        tevix_dev_t *d = _live(st_);
        tevix_cap_cfg_t cfg{};
        tevix_cap_config_get(d, &cfg);
        cfg.on_cap_err = nullptr;  // errors come back from the pull as codes
        cfg.on_cap_frdy = nullptr;
        cfg.save_replay = record ? 1 : 0;
        cfg.save_file = record ? record->c_str() : nullptr;
        cfg.file_replay_mode = loop ? 1 : 0;
        tevix_cap_config_set(d, &cfg);
    }

    void start() {
        int ok;
        {
            py::gil_scoped_release nogil;
            ok = tevix_cap_start(_live(st_));
        }
        if (!ok) _fail(0, "the capture did not start");
    }
    void stop() {
        if (!st_->dev) return;
        py::gil_scoped_release nogil;
        tevix_cap_stop(st_->dev);
    }
    bool capturing() { return st_->dev && tevix_cap_is_ongoing(st_->dev) == 1; }

    // The next frame. Waits in the library's slices (at most about two seconds each) with the GIL
    // released; between them Python's signal handlers run (Ctrl-C) and the deadline is checked.
    frame pull(double timeout_s) {
        tevix_dev_t *d = _live(st_);
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
        bool stopped = false;
        for (;;) {
            tevix_frame_info_t info{};
            int n;
            std::vector<uint8_t> raw;
            {
                py::gil_scoped_release nogil;
                std::lock_guard<std::mutex> lock(st_->pull_mtx);
                if (st_->pull_buf.size() < k_raw_capacity) st_->pull_buf.resize(k_raw_capacity);
                n = tevix_cap_get_frames(d, 1, st_->pull_buf.data(), k_raw_capacity, &info);
                // The frame's one copy: out of the pull buffer into memory the frame owns.
                if (n == 1) raw.assign(st_->pull_buf.begin(), st_->pull_buf.begin() + info.size);
            }
            if (PyErr_CheckSignals() != 0) throw py::error_already_set();
            if (n == 1) return frame(st_, std::move(raw), info);
            if (n < 0 && n != TEVIX_ERR_CAP_TIMEOUT)
                _fail(n, std::string("capture ended: ") + tevix_error_name(n));
            // A capture that stopped hands out what is left, then its error: pull once more.
            if (n == 0 && !tevix_cap_is_ongoing(d)) {
                if (stopped) _fail(TEVIX_ERR_CAP_WRONG_STATE, "the capture is not running");
                stopped = true;
                continue;
            }
            if (std::chrono::steady_clock::now() >= deadline)
                _fail(TEVIX_ERR_CAP_TIMEOUT, "no frame within " + std::to_string(timeout_s) + " s");
        }
    }

    int seek(int64_t index, uint32_t whence) {
        if (!st_->is_file) _fail(0, "only a recording can seek", "WrongState");
        return tevix_cap_seek_frame(_live(st_), static_cast<uint32_t>(index), whence);
    }

  private:
    device_ptr st_;
};

// Recordings opened for random access.
class recording {
  public:
    explicit recording(const std::string &path) : rec_(tevix_oni_open(path.c_str())) {
        if (!rec_) _fail(0, path + " is not a readable ONI recording", "OpenError");
    }
    ~recording() { close(); }
    void close() {
        if (rec_) tevix_oni_close(rec_);
        rec_ = nullptr;
    }
    tevix_oni_t *live() const {
        if (!rec_) _fail(0, "the recording is closed", "ClosedError");
        return rec_;
    }
    py::list nodes() const {
        py::list out;
        for (int id = 1; id <= tevix_oni_node_count(live()); ++id) {
            tevix_oni_node_t n{};
            if (!tevix_oni_node_info(rec_, static_cast<uint32_t>(id), &n)) continue;
            py::dict d;
            d["id"] = n.id;
            d["name"] = std::string(n.name);
            d["type"] = n.type;
            d["codec"] = std::string(reinterpret_cast<const char *>(&n.codec), 4);
            d["frames"] = n.frames;
            d["width"] = n.width;
            d["height"] = n.height;
            d["fps"] = n.fps;
            d["timestamps"] = py::make_tuple(n.min_ts, n.max_ts);
            out.append(d);
        }
        return out;
    }
    py::list properties() const {
        py::list out;
        const int n = tevix_oni_properties(
            live(),
            [](uint32_t node, uint32_t kind, const char *name, const void *v, uint32_t size,
               void *user) {
                py::object value;
                if (kind == 3) {
                    uint64_t x;
                    std::memcpy(&x, v, 8);
                    value = py::int_(x);
                } else if (kind == 4) {
                    double x;
                    std::memcpy(&x, v, 8);
                    value = py::float_(x);
                } else if (kind == 5) {
                    value = py::str(static_cast<const char *>(v));
                } else {
                    value = py::bytes(static_cast<const char *>(v), size);
                }
                static_cast<py::list *>(user)->append(py::make_tuple(node, name, value));
            },
            &out);
        if (n < 0) _fail(0, "the recording is damaged after its header");
        return out;
    }
    py::tuple read(uint32_t node, uint32_t index) const {
        uint64_t ts = 0;
        const int64_t size = tevix_oni_read_frame(live(), node, index, nullptr, 0, &ts);
        if (size < 0)
            _fail(0, "no frame " + std::to_string(index) + " in node " + std::to_string(node),
                  "IndexError");
        std::string buf(static_cast<size_t>(size), '\0');
        tevix_oni_read_frame(rec_, node, index, buf.data(), buf.size(), &ts);
        return py::make_tuple(py::bytes(buf), ts);
    }
    py::array_t<uint16_t> decode(uint32_t node, uint32_t index, uint32_t width,
                                 uint32_t height) const {
        py::array_t<uint16_t> out(
            {static_cast<py::ssize_t>(height), static_cast<py::ssize_t>(width)});
        int64_t got;
        {
            py::gil_scoped_release nogil;
            got = tevix_oni_decode_frame(live(), node, index, out.mutable_data(),
                                         uint64_t{width} * height);
        }
        if (got != static_cast<int64_t>(uint64_t{width} * height))
            _fail(0,
                  "frame " + std::to_string(index) + " of node " + std::to_string(node) +
                      " is no " + std::to_string(width) + "x" + std::to_string(height) +
                      " 16-bit image",
                  "IndexError");
        return out;
    }

  private:
    tevix_oni_t *rec_;
};

// Arrays handed to the pixel routines: C-contiguous and of the exact type, else TypeError or
// ValueError with the reason (no silent copy of a wrong array).
template <class T>
py::array_t<T> _input(const py::array &a, const char *what) {
    if (!py::isinstance<py::array_t<T>>(a) || !a.dtype().is(py::dtype::of<T>()))
        _fail(0,
              std::string(what) + " must be a numpy array of " +
                  py::str(py::dtype::of<T>()).cast<std::string>() + ", not " +
                  py::str(a.dtype()).cast<std::string>(),
              "TypeError");
    if (!(a.flags() & py::array::c_style))
        _fail(0, std::string(what) + " must be C-contiguous (use numpy.ascontiguousarray)",
              "ValueError");
    if (a.size() == 0 || a.size() > (int64_t{1} << 30))
        _fail(0, std::string(what) + " must hold between 1 and 2^30 values", "ValueError");
    return py::reinterpret_borrow<py::array_t<T>>(a);
}

std::vector<py::ssize_t> _shape_plus(const py::array &a, py::ssize_t last) {
    std::vector<py::ssize_t> s(a.shape(), a.shape() + a.ndim());
    s.push_back(last);
    return s;
}

py::array_t<uint8_t> _cmap_u16(const py::array &src, uint16_t lo, uint16_t hi, uint32_t palette) {
    auto in = _input<uint16_t>(src, "distances");
    py::array_t<uint8_t> out(_shape_plus(src, 3));
    const tevix_cmap_cfg_t cfg{palette, 0};
    const auto n = static_cast<uint32_t>(in.size());
    int r;
    {
        py::gil_scoped_release nogil;
        r = tevix_cmap_dist_u16_to_RGB(out.mutable_data(), 3 * n, in.data(), n, TEVIX_PIX_RGB, lo,
                                       hi, &cfg);
    }
    if (r < 0) _fail(0, "colour conversion failed", "ValueError");
    return out;
}

py::array_t<uint8_t> _cmap_f32(const py::array &src, float lo, float hi, uint32_t palette) {
    auto in = _input<float>(src, "distances");
    py::array_t<uint8_t> out(_shape_plus(src, 3));
    const tevix_cmap_cfg_t cfg{palette, 0};
    const auto n = static_cast<uint32_t>(in.size());
    int r;
    {
        py::gil_scoped_release nogil;
        r = tevix_cmap_dist_f32_to_RGB(out.mutable_data(), 3 * n, in.data(), n, TEVIX_PIX_RGB, lo,
                                       hi, &cfg);
    }
    if (r < 0) _fail(0, "colour conversion failed", "ValueError");
    return out;
}

py::array_t<uint8_t> _ir_u16(const py::array &src, int balance) {
    auto in = _input<uint16_t>(src, "grey values");
    std::vector<py::ssize_t> shape(src.shape(), src.shape() + src.ndim());
    py::array_t<uint8_t> out(shape);
    const auto n = static_cast<uint32_t>(in.size());
    py::gil_scoped_release nogil;
    tevix_cmap_gray_u16_to_IR(out.mutable_data(), n, in.data(), n, balance);
    return out;
}

template <class D, class S, class P, int (*Fn)(D *, const S *, int32_t, P)>
py::array_t<D> _convert(const py::array &src, P param) {
    auto in = _input<S>(src, "source");
    std::vector<py::ssize_t> shape(src.shape(), src.shape() + src.ndim());
    py::array_t<D> out(shape);
    py::gil_scoped_release nogil;
    Fn(out.mutable_data(), in.data(), static_cast<int32_t>(in.size()), param);
    return out;
}

py::array_t<float> _pcl(const py::array &dist, float cx, float cy, float fx, float fy,
                        bool d_is_z) {
    if (dist.ndim() != 2) _fail(0, "distances must be a 2-D image (height, width)", "ValueError");
    const int32_t h = static_cast<int32_t>(dist.shape(0)), w = static_cast<int32_t>(dist.shape(1));
    if (!(fx > 0.0f) || !(fy > 0.0f)) _fail(0, "focal lengths must be positive", "ValueError");
    const float intr[4] = {cx, cy, fx, fy};
    py::array_t<float> out({static_cast<py::ssize_t>(h) * w, py::ssize_t{3}});
    std::fill(out.mutable_data(), out.mutable_data() + out.size(), 0.0f);
    int r;
    if (py::isinstance<py::array_t<uint16_t>>(dist) && dist.dtype().is(py::dtype::of<uint16_t>())) {
        auto in = _input<uint16_t>(dist, "distances");
        py::gil_scoped_release nogil;
        r = vx_pcl_get_xyzd_u16(out.mutable_data(), in.data(), nullptr, w, h, intr, nullptr, 0,
                                d_is_z);
    } else {
        auto in = _input<float>(dist, "distances");
        py::gil_scoped_release nogil;
        r = vx_pcl_get_xyzd_f32(out.mutable_data(), in.data(), nullptr, w, h, intr, nullptr, 0,
                                d_is_z);
    }
    if (r != 0) _fail(0, "point cloud failed", "ValueError");
    return out;
}

py::list _devices() {
    std::vector<tevix_dev_t> list(64);
    int n;
    {
        py::gil_scoped_release nogil;
        n = tevix_dev_list(list.data(), static_cast<int>(list.size()));
    }
    py::list out;
    for (int i = 0; i < n; ++i) {
        const tevix_dev_t &d = list[static_cast<size_t>(i)];
        char uri[64];
        std::snprintf(uri, sizeof uri, "usb://%03u:%03u:%03u", d.addr.usb.bus, d.addr.usb.port,
                      d.addr.usb.addr);
        py::dict e;
        e["uri"] = std::string(uri);
        e["product"] = std::string(d.product);
        e["vendor"] = std::string(d.vendor);
        e["serial"] = std::string(d.serial);
        out.append(e);
    }
    return out;
}

}  // namespace

PYBIND11_MODULE(_tevix, m) {
    m.doc() = "Low-level binding of the tevix C interface; use the tevix package instead.";

    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const tevix_failure &e) {
            if (e.kind == "ValueError") return PyErr_SetString(PyExc_ValueError, e.reason.c_str());
            if (e.kind == "TypeError") return PyErr_SetString(PyExc_TypeError, e.reason.c_str());
            if (e.kind == "IndexError") return PyErr_SetString(PyExc_IndexError, e.reason.c_str());
            const char *name = e.kind.empty() ? _class_for(e.code) : e.kind.c_str();
            py::object cls;
            if (_classes().contains(name))
                cls = _classes()[name];
            else if (_classes().contains("Error"))
                cls = _classes()["Error"];
            else
                cls = py::reinterpret_borrow<py::object>(PyExc_RuntimeError);
            const py::object exc = cls(e.reason, e.code);
            PyErr_SetObject(cls.ptr(), exc.ptr());
        }
    });

    m.def("_set_error_classes", [](py::dict d) { _classes() = d; });
    m.def(
        "init", [](const std::string &log) { tevix_init(log.c_str()); }, py::arg("log") = "");
    m.def("uninit", [] { tevix_uninit(); });
    m.def("log_config", &tevix_log_cfg, py::arg("console"), py::arg("file"), py::arg("usb"));
    m.def("version", [] { return std::string(TEVIX_VERSION_TEXT); });
    m.def("error_name", [](int code) { return std::string(tevix_error_name(code)); });
    m.def("devices", &_devices);
    m.def("repair", [](const std::string &in, const std::string &out) {
        int64_t n;
        {
            py::gil_scoped_release nogil;
            n = tevix_oni_repair(in.c_str(), out.c_str());
        }
        if (n < 0) _fail(0, "cannot repair " + in + " into " + out + " (see the log)");
        return n;
    });

    py::class_<frame_info>(m, "FrameInfo", "What the camera reported with a frame.")
        .def_readonly("index", &frame_info::index, "the camera's frame counter (16 bits)")
        .def_readonly("width", &frame_info::width)
        .def_readonly("height", &frame_info::height)
        .def_readonly("format", &frame_info::format, "frame format code")
        .def_readonly("size", &frame_info::size, "raw frame bytes")
        .def_readonly("timestamp", &frame_info::timestamp, "seconds since 1970, camera clock")
        .def_readonly("board_temperature", &frame_info::board_temperature, "degrees Celsius")
        .def_readonly("sensor_temperature", &frame_info::sensor_temperature, "degrees Celsius")
        .def("__repr__", [](const frame_info &i) {
            char b[200];
            std::snprintf(b, sizeof b,
                          "FrameInfo(index=%u, %ux%u, format=%u, timestamp=%.6f, board=%.1f C, "
                          "sensor=%.1f C)",
                          i.index, i.width, i.height, i.format, i.timestamp, i.board_temperature,
                          i.sensor_temperature);
            return std::string(b);
        });

    py::class_<frame>(m, "Frame", "A raw frame pulled from a camera or recording.")
        .def_property_readonly("info", &frame::info)
        .def_property_readonly("raw", &frame::raw, "the raw frame as the camera sent it")
        .def("depth", &frame::depth, "distance in millimetres, uint16 (H, W); 65500 marks invalid")
        .def("depth_m", &frame::depth_m, "distance in metres, float32 (H, W)")
        .def("grey", &frame::grey, "infrared amplitude, uint16 (H, W)")
        .def("_points", &frame::points);

    py::class_<device>(m, "Device")
        .def(py::init<const std::optional<std::string> &>(), py::arg("uri") = py::none())
        .def("close", &device::close)
        .def_property_readonly("closed", &device::closed)
        .def_property_readonly("is_file", &device::is_file)
        .def("identity", &device::identity)
        .def("lens", &device::lens)
        .def("param_get", &device::param_get)
        .def("param_set", &device::param_set)
        .def("filter", &device::filter)
        .def("configure", &device::configure)
        .def("start", &device::start)
        .def("stop", &device::stop)
        .def_property_readonly("capturing", &device::capturing)
        .def("pull", &device::pull)
        .def("seek", &device::seek);

    py::class_<recording>(m, "RecordingFile")
        .def(py::init<const std::string &>())
        .def("close", &recording::close)
        .def("nodes", &recording::nodes)
        .def("properties", &recording::properties)
        .def("read", &recording::read)
        .def("decode", &recording::decode);

    m.def("colorize_u16", &_cmap_u16);
    m.def("colorize_f32", &_cmap_f32);
    m.def("ir_u16", &_ir_u16);
    m.def("conv_u16_u8", &_convert<uint8_t, uint16_t, uint32_t, vx_conv_u16_u8>);
    m.def("conv_u16_f32", &_convert<float, uint16_t, float, vx_conv_u16_f32>);
    m.def("conv_f32_u16", &_convert<uint16_t, float, float, vx_conv_f32_u16>);
    m.def("conv_f32_u8", &_convert<uint8_t, float, float, vx_conv_f32_u8>);
    m.def("point_cloud", &_pcl);
}
