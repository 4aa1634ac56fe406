// File replay backend: plays a recording's data node as if a camera sent it. Each frame goes to
// the event callback as a 36-byte stream header followed by the frame, paced by the frame rate or
// one frame per cap_wait (sync mode).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "ll/dispatch.h"
#include "ll/oni/oni.h"
#include "log/log.h"
#include "platform/platform.h"
#include "tevix/tevix_types.h"
#include "tevix/vx_stream.h"

namespace {

namespace oni = tevix::oni;

constexpr uint8_t k_param_mod_freq = 1;
constexpr uint8_t k_param_vendor = 2;
constexpr uint8_t k_param_product = 3;
constexpr uint8_t k_param_geometry = 4;
constexpr uint8_t k_param_unique_id = 5;
constexpr uint8_t k_param_sensor = 7;
constexpr uint8_t k_param_version = 6;
constexpr uint8_t k_param_roi = 9;
constexpr uint8_t k_param_frame_fmt = 10;
constexpr uint8_t k_param_fps = 12;
constexpr uint8_t k_param_intg1 = 13;
constexpr uint8_t k_param_intg2 = 16;
constexpr uint8_t k_param_dual_freq = 21;
constexpr size_t k_product_max = 17;
constexpr uint32_t k_default_max_fps = 60;
constexpr uint32_t k_default_max_intg_us = 1500;

// What the recording's properties tell about the recorded camera.
struct dev_desc {
    std::string vendor, product, serial;
    uint64_t dev_id = 0;
    uint8_t dev_ver[8] = {};
    uint32_t width = 320, height = 240, subframes = 4, frame_fmt = 2, frame_size = 0;
    uint32_t mod_freq = 0, mod_freq1 = 0, max_fps = 0, max_intg_us = 0, fps = 0;
    uint32_t intg1 = 0, intg2 = 0;
    uint8_t roi[13] = {};
    uint8_t frame_info[100] = {};
    bool has_frame_info = false;
    uint32_t bytes() const { return frame_size ? frame_size : width * height * subframes * 2; }
};

struct file_priv {
    std::mutex data_mtx;  // the reader and the flags below
    std::unique_ptr<oni::reader> rd;
    uint32_t node_id = 0;
    dev_desc desc;
    std::atomic<uint32_t> fps{0};
    std::atomic<uint8_t> paced{0};
    std::atomic<uint8_t> loop{0};
    std::atomic<uint8_t> stopped{1};
    std::atomic<uint8_t> exit{0};
    std::atomic<uint8_t> evt_running{0};
    std::atomic<uint8_t> abort{0};
    tevix_ll_evt_cb cb = nullptr;
    void *user = nullptr;
    std::atomic<uint32_t> delivered{0};

    std::mutex sig_mtx;
    std::condition_variable sig_cv;
    bool signalled = false;

    std::FILE *calib_fp = nullptr;
    std::string calib_name;
    std::string dir;  // the recording's directory, where an embedded calibration file goes

    std::thread evt;
};

file_priv *_priv(tevix_ll_dev_t *dev) {
    return dev ? static_cast<file_priv *>(dev->priv) : nullptr;
}

uint64_t _as_u64(uint32_t kind, const void *v, uint32_t size) {
    if (kind == static_cast<uint32_t>(oni::rec::prop_int) && size == 8) {
        uint64_t x;
        std::memcpy(&x, v, 8);
        return x;
    }
    if (kind == static_cast<uint32_t>(oni::rec::prop_real) && size == 8) {
        double d;
        std::memcpy(&d, v, 8);
        return d > 0 ? static_cast<uint64_t>(d) : 0;
    }
    if (kind == static_cast<uint32_t>(oni::rec::prop_string))
        return std::strtoull(static_cast<const char *>(v), nullptr, 0);
    uint64_t x = 0;
    std::memcpy(&x, v, std::min<uint32_t>(size, 8));
    return x;
}

std::string _as_text(uint32_t kind, const void *v, uint32_t size) {
    if (kind == static_cast<uint32_t>(oni::rec::prop_string))
        return std::string(static_cast<const char *>(v));
    if (kind == static_cast<uint32_t>(oni::rec::prop_general)) {
        std::string s(static_cast<const char *>(v), size);
        s.resize(std::strlen(s.c_str()));
        return s;
    }
    return std::to_string(_as_u64(kind, v, size));
}

void _copy_raw(uint8_t *dst, size_t cap, const void *v, uint32_t size) {
    std::memset(dst, 0, cap);
    std::memcpy(dst, v, std::min<size_t>(cap, size));
}

std::string _base_name(const std::string &path) {
    const size_t cut = path.find_last_of("/\\");
    return cut == std::string::npos ? path : path.substr(cut + 1);
}

void _calib_property(file_priv *p, const char *name, uint32_t kind, const void *v, uint32_t size) {
    if (std::strcmp(name, "VX_FILENAME_CALIB") == 0) {
        if (p->calib_fp) std::fclose(p->calib_fp);
        p->calib_fp = nullptr;
        const std::string base = _base_name(_as_text(kind, v, size));
        p->calib_name = p->dir + base;
        VX_LOG_AS(4, "_fill_ll_on_get_property", "[%s]embedded calib fname: %s, save to %s\n",
                  _as_text(kind, v, size).c_str(), p->calib_name.c_str());
        if (!base.empty() && base != "." && base != "..")
            p->calib_fp = std::fopen(p->calib_name.c_str(), "wb");
        if (!p->calib_fp)
            VX_LOG_AS(6, "_fill_ll_on_get_property", "[%s]Open calib data file failed: %s\n",
                      p->calib_name.c_str());
        return;
    }
    if (!p->calib_fp) {
        VX_LOG_AS(6, "_fill_ll_on_get_property",
                  "[%s]Wrong calib data in replay file: no calib file openned\n");
        return;
    }
    if (std::fwrite(v, 1, size, p->calib_fp) != size)
        VX_LOG_AS(6, "_fill_ll_on_get_property", "[%s]Write calib data file failed\n");
}

void _store_property(dev_desc &d, const char *name, uint32_t kind, const void *v, uint32_t size) {
    const std::string n(name);
    const auto u32 = [&] { return static_cast<uint32_t>(_as_u64(kind, v, size)); };
    if (n == "VX_VENDOR")
        d.vendor = _as_text(kind, v, size);
    else if (n == "VX_PRODUCT")
        d.product = _as_text(kind, v, size);
    else if (n == "VX_SERIAL")
        d.serial = _as_text(kind, v, size);
    else if (n == "VX_DEV_ID")
        d.dev_id = _as_u64(kind, v, size);
    else if (n == "VX_DEV_VER")
        _copy_raw(d.dev_ver, sizeof d.dev_ver, v, size);
    else if (n == "VX_DEV_MAX_FPS")
        d.max_fps = u32();
    else if (n == "VX_DEV_MAX_INTG_US")
        d.max_intg_us = u32();
    else if (n == "VX_FRAME_FMT")
        d.frame_fmt = u32();
    else if (n == "VX_FRAME_FPS")
        d.fps = u32();
    else if (n == "VX_FRAME_IMGW")
        d.width = u32();
    else if (n == "VX_FRAME_IMGH")
        d.height = u32();
    else if (n == "VX_FRAME_MOD_FREQ")
        d.mod_freq = u32();
    else if (n == "VX_FRAME_MOD_FREQ1")
        d.mod_freq1 = u32();
    else if (n == "VX_CONF_INTG1_US")
        d.intg1 = u32();
    else if (n == "VX_CONF_INTG2_US")
        d.intg2 = u32();
    else if (n == "VX_FRAME_ROI_INFO")
        _copy_raw(d.roi, sizeof d.roi, v, size);
    else if (n == "VX_FRAME_INFO") {
        _copy_raw(d.frame_info, sizeof d.frame_info, v, size);
        d.has_frame_info = true;
    }
}

void _fill_ll_on_get_property(oni::reader *, uint32_t kind, const char *name, const void *v,
                              uint32_t size, void *user) {
    auto *p = static_cast<file_priv *>(user);
    switch (static_cast<oni::rec>(kind)) {
        case oni::rec::prop_int:
            VX_DBG("[%s]PROP-INT  %s=%llu\n", name,
                   static_cast<unsigned long long>(_as_u64(kind, v, size)));
            break;
        case oni::rec::prop_real: {
            double d;
            std::memcpy(&d, v, 8);
            VX_DBG("[%s]PROP-REAL %s=%f\n", name, d);
            break;
        }
        case oni::rec::prop_string:
            VX_DBG("[%s]PROP-STR  %s=%s\n", name, static_cast<const char *>(v));
            break;
        case oni::rec::prop_general:
            VX_DBG("[%s]PROP-GEN  %s=%d bytes\n", name, static_cast<int>(size));
            break;
        default:
            VX_WRN("[%s]PROP-UNKNOWN: %s\n", name);
            return;
    }
    if (std::strcmp(name, "VX_FILENAME_CALIB") == 0 || std::strcmp(name, "VX_FILEDATA_CALIB") == 0)
        _calib_property(p, name, kind, v, size);
    else if (std::strncmp(name, "VX_", 3) == 0)
        _store_property(p->desc, name, kind, v, size);
}

// The node to play: "VX_REPLAY" when present, else the first node that is not a device.
uint32_t _data_node(const oni::reader &rd) {
    if (uint32_t id = rd.find_node("VX_REPLAY")) return id;
    for (uint32_t id = 1; id <= rd.max_node_id(); ++id) {
        const oni::node *n = rd.node_at(id);
        if (n && n->desc.type != static_cast<uint32_t>(oni::node_type::device)) return id;
    }
    return 0;
}

// The camera's time word: hours in bits 0..4, minutes 5..10, seconds 11..16, microseconds / 64
// above; here the recorded time of day (UTC) of the frame.
uint32_t _time_word(uint64_t ts_us) {
    const uint64_t sec = ts_us / 1000000 % 86400;
    const uint64_t usec = ts_us % 1000000;
    return static_cast<uint32_t>(sec / 3600 | (sec / 60 % 60) << 5 | (sec % 60) << 11 |
                                 (usec / 64) << 17);
}

// Board and sensor temperatures of a recorded frame: a camera frame begins with the same 20-byte
// descriptor as its stream header (u32 size first, temperatures at 12 and 14), so a frame whose
// first word is its own length carries them; otherwise the frame information recorded with the
// capture does (board in the low half, sensor in the high half).
void _frame_temps(const file_priv &p, const uint8_t *frame, uint32_t len, int16_t &tcb,
                  int16_t &tib) {
    uint32_t size = 0;
    if (len >= sizeof(vx_frame_desc_t)) std::memcpy(&size, frame, 4);
    if (size == len) {
        std::memcpy(&tcb, frame + 12, 2);
        std::memcpy(&tib, frame + 14, 2);
    } else if (p.desc.has_frame_info) {
        tevix_frame_info_t info;
        std::memcpy(&info, p.desc.frame_info, sizeof info);
        tcb = static_cast<int16_t>(info.temperature & 0xFFFF);
        tib = static_cast<int16_t>(info.temperature >> 16);
    }
}

void _build_header(const file_priv &p, uint8_t hdr[36], const uint8_t *frame, uint32_t frame_no,
                   uint32_t len, uint64_t ts_us) {
    vx_stream_hdr_t h{};
    h.sync = VX_STREAM_SYNC;
    h.idx = static_cast<uint16_t>(frame_no);
    h.len = len;
    h.desc.frlen = len;
    h.desc.fridx = static_cast<uint16_t>(frame_no);
    h.desc.frfmt = static_cast<uint16_t>(p.desc.frame_fmt);
    if (p.desc.frame_fmt < 256) {
        h.desc.width = static_cast<uint16_t>(p.desc.width);
        h.desc.height = static_cast<uint16_t>(p.desc.height);
        h.desc.time = _time_word(ts_us);
        _frame_temps(p, frame, len, h.desc.tcb, h.desc.tib);
    }
    h.flags0 = VX_STREAM_FLAG0_BOUND;
    std::memcpy(hdr, &h, sizeof h);
    h.hdr_cksum = vx_stream_hash16(hdr, 34, 0);
    std::memcpy(hdr, &h, sizeof h);
}

// Waits for cap_wait's signal in 500 ms slices; false when stop or exit ends the wait.
bool _wait_signal(file_priv *p) {
    std::unique_lock lk(p->sig_mtx);
    while (!p->signalled) {
        if (p->exit || p->stopped) return false;
        p->sig_cv.wait_for(lk, std::chrono::milliseconds(500));
    }
    p->signalled = false;
    VX_LOG_AS(0, "_ll_event_loop", "[%s]evt_loop get signal\n");
    return true;
}

void _ll_event_loop(tevix_ll_dev_t *dev, file_priv *p) {
    VX_DBG("[%s]Enter ll event loop...\n");
    uint32_t cap = p->desc.bytes();
    std::vector<uint8_t> frame;
    uint8_t *buf = static_cast<uint8_t *>(std::malloc(cap ? cap : 1));
    if (!buf) {
        VX_ERR("[%s]malloc failed\n");
        std::exit(-3);
    }
    while (!p->exit) {
        if (p->stopped) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        const uint32_t fps = p->fps;
        if (p->paced && fps != 0) {
            tevix::plat::sleep_ms(1000 / fps);
        } else if (!_wait_signal(p)) {
            continue;
        }
        if (p->exit) break;
        int got;
        uint32_t frame_no = 0, len = 0;
        uint64_t ts = 0;
        tevix_ll_evt_cb cb;
        void *user;
        {
            std::lock_guard lk(p->data_mtx);
            if (p->stopped || p->exit) continue;
            cb = p->cb;
            user = p->user;
            got = p->rd->read_frame(p->node_id);
            if (got != 1 && p->loop && p->rd->seek(p->node_id, 0, 0) == 0) {
                VX_INF("[%s]rewind capture: file EOF met\n");
                got = p->rd->read_frame(p->node_id);
            }
            if (got == 1) {
                const oni::record &r = p->rd->last();
                if (r.payload.size() > cap) {
                    VX_INF("[%s]realloc ll_file single frame buffer: %u -> %u bytes\n", cap,
                           static_cast<unsigned>(r.payload.size()));
                    auto *nb = static_cast<uint8_t *>(std::realloc(buf, r.payload.size()));
                    if (!nb) {
                        VX_ERR("[%s]malloc failed\n");
                        std::exit(-3);
                    }
                    buf = nb;
                    cap = static_cast<uint32_t>(r.payload.size());
                }
                len = static_cast<uint32_t>(r.payload.size());
                std::memcpy(buf, r.payload.data(), len);
                frame_no = r.frame_no;
                ts = r.timestamp;
            }
        }
        if (got == 1) {
            if (len < cap)
                VX_DBG2("[%s]load frame with diff size: last size:%d cur_size=%d\n",
                        static_cast<int>(cap), static_cast<int>(len));
            VX_DBG2("[%s]Get frame # %u @ %u ( %d bytes )\n", frame_no,
                    static_cast<unsigned>(ts / 1000), static_cast<int>(len));
            if (cb && !p->abort) {
                uint8_t hdr[VX_STREAM_HDR_SIZE];
                _build_header(*p, hdr, buf, frame_no, len, ts);
                cb(dev, TEVIX_LL_EVT_DATA, hdr, sizeof hdr, user);
                cb(dev, TEVIX_LL_EVT_DATA, buf, len, user);
            }
            ++p->delivered;
            continue;
        }
        VX_INF("[%s]stop capture: file EOF met\n");
        if (cb) cb(dev, TEVIX_LL_EVT_EOF, nullptr, 0, user);
        p->stopped = 1;
    }
    p->evt_running = 0;
    std::free(buf);
    VX_DBG("[%s]Exit ll event loop...\n");
}

void _file_ll_evt_thread(tevix_ll_dev_t *dev, file_priv *p) {
    VX_DBG("[%s]enter\n");
    _ll_event_loop(dev, p);
    VX_DBG("[%s]exit\n");
}

int _file_ll_init() {
    return 1;
}
void _file_ll_uninit() {}
void _file_ll_set_debug(uint32_t) {}

tevix_ll_dev_t *_file_ll_dev_open(tevix_ll_dev_t *dev) {
    if (!dev || dev->if_type != TEVIX_LL_IF_FILE || !dev->info.file) return nullptr;
    auto *p = _priv(dev);
    if (!p) {
        p = new (std::nothrow) file_priv();
        if (!p) {
            VX_ERR("[%s]malloc failed\n");
            std::exit(-2);
        }
        dev->priv = p;
    } else if (p->evt.joinable()) {
        return dev;
    }
    const std::string path(dev->info.file);
    const size_t cut = path.find_last_of("/\\");
    p->dir = cut == std::string::npos ? std::string() : path.substr(0, cut + 1);
    p->desc = dev_desc{};
    p->rd = oni::reader::open(path.c_str(), _fill_ll_on_get_property, p);
    if (p->calib_fp) {
        VX_INF("[%s]Extracted calib file `%s` from replay.\n", p->calib_name.c_str());
        std::fclose(p->calib_fp);
        p->calib_fp = nullptr;
    }
    p->node_id = p->rd ? _data_node(*p->rd) : 0;
    if (p->node_id == 0) {
        VX_ERR("[%s]No replay stream found in %s\n", path.c_str());
        p->rd.reset();
        delete p;
        dev->priv = nullptr;
        return nullptr;
    }
    p->rd->rewind();
    p->fps = p->desc.fps;
    VX_INF("[%s]open file dev: prod = %s, WxHxN = %dx%dx%d, modfreq=%u\n", p->desc.product.c_str(),
           static_cast<int>(p->desc.width), static_cast<int>(p->desc.height),
           static_cast<int>(p->desc.subframes), p->desc.mod_freq);
    dev->if_type = TEVIX_LL_IF_FILE;
    p->exit = 0;
    p->abort = 0;
    p->evt_running = 1;
    p->stopped = 1;
    p->evt = std::thread(_file_ll_evt_thread, dev, p);
    dev->ops = &file_ll_ops;
    return dev;
}

tevix_ll_dev_t *_file_ll_dev_open_by_fd(tevix_ll_dev_t *, int) {
    return nullptr;
}

void file_ll_dev_close(tevix_ll_dev_t *dev) {
    if (!dev || dev->if_type != TEVIX_LL_IF_FILE) return;
    file_priv *p = _priv(dev);
    if (!p) {
        VX_WRN("[%s]device no need to closed!\n");
        return;
    }
    bool join = false;
    {
        std::lock_guard lk(p->data_mtx);
        if (!p->exit) {
            VX_DBG("[%s]stop evt thread...\n");
            p->exit = 1;
            join = true;
        }
    }
    {
        std::lock_guard lk(p->sig_mtx);
        p->signalled = true;
    }
    p->sig_cv.notify_all();
    if (join && p->evt.joinable()) p->evt.join();
    {
        std::lock_guard lk(p->data_mtx);
        p->rd.reset();
    }
    delete p;
    dev->priv = nullptr;
}

uint32_t _file_ll_dev_list(tevix_ll_dev_t *, uint32_t) {
    return 0;
}

int _file_ll_exe_cmd(tevix_ll_dev_t *, uint8_t, uint8_t, uint16_t, uint8_t *, uint32_t, uint32_t) {
    return 1;
}

int32_t _file_ll_tx_data(tevix_ll_dev_t *, const uint8_t *, uint32_t) {
    return 0;
}

void _file_ll_cap_abort(tevix_ll_dev_t *dev) {
    if (file_priv *p = _priv(dev)) p->abort = 1;
}

void _file_ll_cap_wait(tevix_ll_dev_t *dev) {
    file_priv *p = _priv(dev);
    if (!p || (p->paced && p->fps != 0)) return;
    VX_TRC("[%s]signal evt_loop\n");
    {
        std::lock_guard lk(p->sig_mtx);
        p->signalled = true;
    }
    p->sig_cv.notify_all();
}

int _file_ll_cap_start(tevix_ll_dev_t *dev, uint32_t mode, tevix_ll_evt_cb cb, void *user) {
    file_priv *p = _priv(dev);
    if (!p) return 0;
    std::lock_guard lk(p->data_mtx);
    if (p->exit) return 0;
    p->rd->rewind();
    p->cb = cb;
    p->user = user;
    p->delivered = 0;
    p->abort = 0;
    p->loop = mode == 1;
    {
        std::lock_guard sl(p->sig_mtx);
        p->signalled = false;
    }
    p->stopped = 0;
    return 1;
}

int _file_ll_cap_stop(tevix_ll_dev_t *dev) {
    file_priv *p = _priv(dev);
    if (!p) return 0;
    {
        std::lock_guard lk(p->data_mtx);
        if (p->exit) return 0;
        p->stopped = 1;
    }
    p->sig_cv.notify_all();
    return 1;
}

int32_t _file_ll_cap_seek(tevix_ll_dev_t *dev, uint32_t frame_idx, uint32_t whence) {
    file_priv *p = _priv(dev);
    if (!p) return -1;
    std::lock_guard lk(p->data_mtx);
    if (p->exit) return 0;
    return p->rd->seek(p->node_id, static_cast<int32_t>(frame_idx), whence);
}

int _file_ll_dev_reset(tevix_ll_dev_t *dev, uint8_t) {
    file_priv *p = _priv(dev);
    if (!p) return 0;
    std::lock_guard lk(p->data_mtx);
    p->rd->rewind();
    return 1;
}

int _file_ll_reg_write(tevix_ll_dev_t *, uint8_t, uint32_t, uint8_t *, uint16_t) {
    return 1;
}
int _file_ll_reg_read(tevix_ll_dev_t *, uint8_t, uint32_t, uint8_t *, uint16_t) {
    return 1;
}

uint32_t _u32_of(const tevix_param_wire_t &it) {
    uint32_t v = 0;
    std::memcpy(&v, it.value, sizeof v);
    return v;
}

int file_ll_param_set(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count) {
    file_priv *p = _priv(dev);
    if (!p || (!items && count)) return 1;
    for (uint32_t i = 0; i < count; ++i) {
        if (items[i].id == k_param_fps) {
            const uint32_t fps = _u32_of(items[i]);
            if (fps) {
                p->fps = fps;
                p->paced = 1;
                VX_INF("[%s]REP_SET: file replay set fps to %d\n", static_cast<int>(fps));
            } else {
                p->paced = 0;
                VX_INF("[%s]REP_SET: file replay set to sync mode\n");
            }
        } else if (items[i].id == k_param_mod_freq) {
            VX_INF("[%s]REP_SET: mod freq to %u\n", _u32_of(items[i]));
        }
    }
    return 1;
}

template <typename... T>
uint8_t _answer(tevix_param_wire_t &it, T... words) {
    size_t at = 0;
    ((std::memcpy(it.value + at, &words, sizeof words), at += sizeof words), ...);
    return static_cast<uint8_t>(at);
}

uint8_t _answer_text(tevix_param_wire_t &it, const std::string &s, size_t max) {
    const size_t n = std::min<size_t>({s.size(), max, sizeof it.value});
    std::memcpy(it.value, s.data(), n);
    return static_cast<uint8_t>(n);
}

int file_ll_param_get(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count) {
    file_priv *p = _priv(dev);
    if (!p || (!items && count)) return 1;
    const dev_desc &d = p->desc;
    for (uint32_t i = 0; i < count; ++i) {
        tevix_param_wire_t &it = items[i];
        std::memset(it.value, 0, sizeof it.value);
        switch (it.id) {
            case k_param_fps:
                it.len = _answer(it, p->fps.load());
                break;
            case k_param_product:
                it.len = _answer_text(it, d.product, k_product_max);
                break;
            case k_param_vendor:
                it.len = _answer_text(it, d.vendor, sizeof it.value);
                break;
            case k_param_geometry:
                it.len =
                    _answer(it, static_cast<uint16_t>(d.width), static_cast<uint16_t>(d.height),
                            d.max_fps ? d.max_fps : k_default_max_fps,
                            d.max_intg_us ? d.max_intg_us : k_default_max_intg_us);
                break;
            case k_param_unique_id: {
                // The recorded serial is the three unique-id words in hex; without one the
                // hardware id's high word stands for them.
                uint32_t w[3] = {static_cast<uint32_t>(d.dev_id >> 32), 0, 0};
                if (d.serial.size() == 24)
                    for (int k = 0; k < 3; ++k)
                        w[k] = static_cast<uint32_t>(
                            std::strtoul(d.serial.substr(8 * k, 8).c_str(), nullptr, 16));
                it.len = _answer(it, w[0], w[1], w[2]);
                break;
            }
            case k_param_sensor:
                // Part number, wafer and chip id as the hardware id's low word packs them.
                it.len = _answer(it, static_cast<uint16_t>((d.dev_id >> 24) & 0xFF),
                                 static_cast<uint16_t>((d.dev_id >> 16) & 0xFF),
                                 static_cast<uint16_t>(d.dev_id & 0xFFFF));
                break;
            case k_param_version:
                std::memcpy(it.value, d.dev_ver, sizeof d.dev_ver);
                it.len = sizeof d.dev_ver;
                break;
            case k_param_roi:
                std::memcpy(it.value, d.roi, 8);
                it.len = 8;
                break;
            case k_param_frame_fmt:
                it.len = _answer(it, d.frame_fmt);
                break;
            case k_param_mod_freq:
                it.len = _answer(it, d.mod_freq);
                break;
            case k_param_dual_freq:
                it.len = _answer(it, d.mod_freq, d.mod_freq1);
                break;
            case k_param_intg1:
                it.len = _answer(it, static_cast<uint16_t>(d.intg1));
                break;
            case k_param_intg2:
                it.len = _answer(it, static_cast<uint16_t>(d.intg2));
                break;
            default:
                break;
        }
    }
    return 1;
}

}  // namespace

const tevix_ll_ops file_ll_ops = {
    .init = _file_ll_init,
    .uninit = _file_ll_uninit,
    .set_debug = _file_ll_set_debug,
    .dev_open = _file_ll_dev_open,
    .dev_open_by_fd = _file_ll_dev_open_by_fd,
    .dev_close = file_ll_dev_close,
    .dev_list = _file_ll_dev_list,
    .exe_cmd = _file_ll_exe_cmd,
    .tx_data = _file_ll_tx_data,
    .cap_abort = _file_ll_cap_abort,
    .cap_wait = _file_ll_cap_wait,
    .cap_start = _file_ll_cap_start,
    .cap_stop = _file_ll_cap_stop,
    .cap_seek = _file_ll_cap_seek,
    .dev_reset = _file_ll_dev_reset,
    .reg_write = _file_ll_reg_write,
    .reg_read = _file_ll_reg_read,
    .param_set = file_ll_param_set,
    .param_get = file_ll_param_get,
};
