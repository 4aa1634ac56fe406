// EPC driver: chip set-up, frame information with the temperature monitor, the decode of DCS
// planes into distance and grey images with its feature chain, frame caching for binned fast
// frame rates, and the filter switches.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "calib/calib.h"
#include "drivers/drv.h"
#include "drivers/epc/epc_calib.h"
#include "drivers/epc/epc_kernels.h"
#include "drivers/epc/epc_priv.h"
#include "log/log.h"
#include "platform/platform.h"
#include "tevix/tevix.h"
#include "tevix/tevix_param.h"

using namespace tevix::epc;

namespace {

constexpr uint8_t k_reg_class = 1;
constexpr uint16_t k_fmt_calib = 171;
constexpr uint16_t k_fmt_grey = 11;
constexpr uint32_t k_hdr_no_merge = 23205;
constexpr int32_t k_raw_grey = 56506;

// Process-wide times of the last automatic integration adjustment and consistency write.
std::atomic<uint64_t> g_auto_intg_us{0};
std::atomic<uint64_t> g_consist_ms{0};
std::atomic<bool> g_consist_done{false};
std::atomic<bool> g_auto_intg_done{false};

bool _reg_write(tevix_dev_t *dev, uint32_t reg, const uint32_t *v, uint16_t n) {
    if (tevix_reg_batch_write(dev, k_reg_class, reg, v, n)) return true;
    VX_LOG_AS(VX_LOG_ERR, "_epc_reg_rw", "[%s]reg write fail!\n");
    return false;
}

bool _reg_read(tevix_dev_t *dev, uint32_t reg, uint32_t *v) {
    if (tevix_reg_batch_read(dev, k_reg_class, reg, v, 1)) return true;
    VX_LOG_AS(VX_LOG_ERR, "_epc_reg_rw", "[%s]reg write fail!\n");
    return false;
}

bool _epc_reg_setup(tevix_dev_t *dev) {
    const uint32_t v139 = 2, zeros[3] = {0, 0, 0}, v174 = 4;
    if (!_reg_write(dev, 139, &v139, 1) || !_reg_write(dev, 113, zeros, 3) ||
        !_reg_write(dev, 174, &v174, 1))
        return false;
    for (uint32_t reg : {34u, 37u, 40u, 43u}) {
        uint32_t v = 0;
        if (!_reg_read(dev, reg, &v)) return false;
        v |= 0x30;
        if (!_reg_write(dev, reg, &v, 1)) return false;
    }
    return true;
}

tevix_param_item_t _item(uint32_t id, uint8_t len) {
    tevix_param_item_t it{};
    it.id = id;
    it.len = len;
    return it;
}

bool _param_set_u32(tevix_dev_t *dev, uint32_t id, uint32_t value, uint8_t len) {
    tevix_param_item_t it = _item(id, len);
    std::memcpy(it.value.u8, &value, 4);
    return tevix_param_batch_set(dev, &it, 1) != 0;
}

// System calibration (parameter 18): f32 scale, f32 offset, then a validity byte.
void _read_sys_calib(epc_priv *p, tevix_dev_t *dev, bool log_invalid, bool *ok) {
    tevix_param_item_t it = _item(TEVIX_PARAM_SYS_CALIB, 9);
    const bool valid = tevix_param_batch_get(dev, &it, 1) && it.value.u8[8] != 0;
    if (valid) {
        p->sys_scale = it.value.f32[0];
        p->sys_offset = it.value.f32[1];
    } else if (log_invalid) {
        VX_LOG_AS(VX_LOG_ERR, "epc_filter_enable", "[%s]Sys calib param not valid\n");
    }
    if (ok) *ok = valid;
}

[[noreturn]] void _die_malloc(const char *name) {
    VX_LOG_AS(VX_LOG_ERR, name, "[%s]malloc failed\n");
    std::exit(-3);
}

void _image_size(epc_priv *p) {
    if (p->sensor_mode == 4) {
        p->width = 160;
        p->height = 60;
    } else {
        p->width = 320;
        p->height = 240;
    }
}

void _bpf_reload(epc_priv *p, bool force) {
    if (!force && p->bpf_ok && p->bpf_ss == p->bpf_ss_built && p->bpf_sr == p->bpf_sr_built &&
        p->bpf_min == p->bpf_min_built && p->bpf_max == p->bpf_max_built)
        return;
    VX_LOG_AS(VX_LOG_DBG, "_filter_bpf_reload_parameter", "[%s]bpf2d_iir reload: %f/%f/%u/%u\n",
              static_cast<double>(p->bpf_ss), static_cast<double>(p->bpf_sr), p->bpf_min,
              p->bpf_max);
    std::lock_guard<std::mutex> lock(p->filter_mtx);
    vx_bpf2d_iir_uninit(&p->bpf);
    p->bpf_ss_built = p->bpf_ss;
    p->bpf_sr_built = p->bpf_sr;
    p->bpf_min_built = p->bpf_min;
    p->bpf_max_built = p->bpf_max;
    p->bpf_ok = vx_bpf2d_iir_init(&p->bpf, p->width, p->height, p->bpf_ss, p->bpf_sr, p->bpf_min,
                                  p->bpf_max);
    if (!p->bpf_ok)
        VX_LOG_AS(VX_LOG_ERR, "_filter_bpf_reload_parameter", "[%s]vx_bpf2d_iir_init failed\n");
}

void _calib_unmount(epc_priv *p) {
    calib_unmount(p);
}
void _calib_mount(epc_priv *p) {
    calib_mount(p);
}

void _mod_freq_event(epc_priv *p, uint32_t f0, uint32_t f1, bool from_load) {
    if (f1 != 0) {
        VX_LOG_AS(VX_LOG_ERR, "_epc_on_mod_freq_change", "[%s]MOD_FREQ [%d, %d] HZ not support\n",
                  f0, f1);
        return;
    }
    if (!from_load && f0 == p->freq && p->calib_mounted) return;
    if (from_load)
        VX_LOG_AS(VX_LOG_DBG, "_epc_on_mod_freq_change",
                  "[%s]MOD_FREQ [%d, %d] HZ: try loading calib data\n", f0, f1);
    else
        VX_LOG_AS(VX_LOG_DBG, "_epc_on_mod_freq_change",
                  "[%s]MOD_FREQ change: [%d, %d] -> [%d, %d] HZ\n", p->freq, 0, f0, f1);
    {
        std::lock_guard<std::mutex> lock(p->calib_mtx);
        _calib_unmount(p);
        p->freq = f0;
        _calib_mount(p);
    }
    p->range = range_mm(p->freq);
    if (p->range) {
        p->c1_ph = p->c1 * 32768.0f / static_cast<float>(p->range);
        p->c2_ph = p->c2 * 32768.0f / static_cast<float>(p->range);
        p->c3_ph = (p->c3 * 32768u) / p->range;
    }
}

bool _epc_init(tevix_drv_t *drv, tevix_dev_t *dev) {
    if (!drv || !dev) return false;
    if (!_epc_reg_setup(dev)) return false;
    auto *p = new (std::nothrow) epc_priv;
    if (!p) _die_malloc("epc_init");
    drv->dev = dev;
    drv->priv = p;

    // Lens data goes into the table's lens record; the undistortion map is the device's, built
    // by the frame access for each image size it meets.
    tevix::calib::lens_load_search(dev, &drv->ops->lens, &p->lens_bin);

    const uint32_t id_cmd = 250;
    uint32_t mode = 0;
    if (!_reg_write(dev, 17, &id_cmd, 1) || !_reg_read(dev, 18, &mode)) mode = 0;
    p->sensor_mode = mode;

    char model[17] = "", chip[17] = "", rev[17] = "";
    char product[sizeof dev->product + 1];
    std::memcpy(product, dev->product, sizeof dev->product);
    product[sizeof dev->product] = '\0';
    if (std::sscanf(product, "%16[^-]-%16[^-]-%16[^-]", model, chip, rev) == 3) {
        if (std::strcmp(chip, "E3") == 0) {
            p->bfps = 1;
            VX_LOG_AS(VX_LOG_INF, "epc_init", "[%s]bfps enabled for model: %s-%s\n", model, chip);
        } else if (std::strcmp(chip, "E5") == 0) {
            p->sensor_mode = 4;
        }
    }

    _image_size(p);
    p->grey_size = p->sensor_mode == 4 ? k_grey_buf_small : k_grey_buf_full;
    p->grey = static_cast<uint8_t *>(std::calloc(p->grey_size, 1));
    if (!p->grey) _die_malloc("epc_init");
    p->grey_valid = 1;

    _bpf_reload(p, true);

    int64_t sec = 0;
    uint32_t usec = 0;
    tevix::plat::now_utc(&sec, &usec);
    tevix_param_item_t clk = _item(TEVIX_PARAM_HOST_CLOCK, 8);
    clk.value.u32[0] = static_cast<uint32_t>(sec);
    clk.value.u32[1] = usec + 100;
    tevix_param_batch_set(dev, &clk, 1);
    p->freq_list_n = 0;
    return true;
}

void _epc_uninit(tevix_drv_t *drv) {
    epc_priv *p = priv_of(drv);
    if (!p) return;
    {
        std::lock_guard<std::mutex> lock(p->filter_mtx);
        vx_bpf2d_iir_uninit(&p->bpf);
    }
    std::free(p->bfps_buf);
    std::free(p->conf);
    std::free(p->conf_raw);
    std::free(p->dist32);
    std::free(p->work16);
    {
        std::lock_guard<std::mutex> lock(p->calib_mtx);
        std::free(p->grey);
        p->grey = nullptr;
        _calib_unmount(p);
    }
    std::free(p->marks);
    tevix_param_len_bin_free(p->lens_bin);
    delete p;
    drv->priv = nullptr;
}

int16_t _median7(const int16_t *ring) {
    int16_t v[k_temp_ring];
    std::copy(ring, ring + k_temp_ring, v);
    std::nth_element(v, v + k_temp_ring / 2, v + k_temp_ring);
    return v[k_temp_ring / 2];
}

void _temp_filter(epc_priv *p, int16_t *tcb, int16_t *tib) {
    if (p->ring_full) {
        const int16_t mcb = _median7(p->ring_cb), mib = _median7(p->ring_ib);
        const int16_t hcb = *tcb, hib = *tib;
        if (std::abs(hcb - mcb) > 100) {
            *tcb = mcb;
            VX_LOG_AS(VX_LOG_DBG, "epc_frame_get_info",
                      "[%s]cb temp jump: Tcb in hdr=%d, Tcb filterd=%d\n", hcb, mcb);
        }
        if (std::abs(hib - mib) > 100) {
            *tib = mib;
            VX_LOG_AS(VX_LOG_DBG, "epc_frame_get_info",
                      "[%s]ib temp jump: Tib in hdr=%d, Tib filterd=%d\n", hib, mib);
        }
    }
}

void _temp_push(epc_priv *p, int16_t tcb, int16_t tib) {
    p->ring_cb[p->ring_pos] = tcb;
    p->ring_ib[p->ring_pos] = tib;
    if (++p->ring_pos == k_temp_ring) {
        p->ring_pos = 0;
        p->ring_full = 1;
    }
}

void _temp_accept(epc_priv *p, int16_t tcb, int16_t tib) {
    if (tib >= -300 && tib <= 900 && std::abs(tib - tcb) <= 600) {
        if (tcb < -40 || tcb > 1000)
            VX_LOG_AS(VX_LOG_WRN, "epc_frame_get_info",
                      "[%s]wrong CB temp %d detected: distance value may be wrong \n", tcb);
        p->tcb = tcb;
        p->tib = tib;
        return;
    }
    const bool already = p->tib == p->tcb - 100 && p->tib != 0;
    if (!already)
        VX_LOG_AS(VX_LOG_WRN, "epc_frame_get_info",
                  "[%s]wrong IB temp %d detected: corrected to temp_cb - 10 (reported only once)\n",
                  tib);
    p->tcb = tcb;
    p->tib = static_cast<int16_t>(tcb - 100);
}

void _feature_temp_monitor(epc_priv *p, uint16_t format) {
    if (!p->temp_mon || format == k_fmt_calib) {
        VX_TRC("[%s]Temp monitor not enable\n");
        return;
    }
    const uint64_t now = tevix::plat::mono_ms();
    if (now - p->temp_report_ms <= 9000 && p->temp_report_ms != 0) return;
    p->temp_report_ms = now;
    VX_DBG("[%s]Tib:%.2f, Tcb:%.2f, FPS:%.1f/%d\n", p->tib / 10.0, p->tcb / 10.0,
           static_cast<double>(p->fps), static_cast<int>(p->fps_host));
}

uint32_t _today_utc_midnight() {
    int64_t sec = 0;
    uint32_t usec = 0;
    tevix::plat::now_utc(&sec, &usec);
    return static_cast<uint32_t>(sec - sec % 86400);
}

bool _epc_frame_get_info(tevix_drv_t *drv, tevix_frame_info_t *info, const uint8_t *raw) {
    epc_priv *p = priv_of(drv);
    if (!p || !info || !raw) return false;
    std::memset(info, 0, sizeof *info);
    uint32_t size, time_word;
    uint16_t idx, fmt, w, h;
    int16_t tcb, tib;
    std::memcpy(&size, raw, 4);
    std::memcpy(&idx, raw + 4, 2);
    std::memcpy(&fmt, raw + 6, 2);
    std::memcpy(&w, raw + 8, 2);
    std::memcpy(&h, raw + 10, 2);
    std::memcpy(&tcb, raw + 12, 2);
    std::memcpy(&tib, raw + 14, 2);
    std::memcpy(&time_word, raw + 16, 4);

    if (fmt != k_fmt_calib) {
        if (!drv->dev || drv->dev->type != TEVIX_DEV_FILE) {
            _temp_filter(p, &tcb, &tib);
            int16_t hcb, hib;
            std::memcpy(&hcb, raw + 12, 2);
            std::memcpy(&hib, raw + 14, 2);
            _temp_push(p, hcb, hib);
        }
        _temp_accept(p, tcb, tib);
    }
    _feature_temp_monitor(p, fmt);

    info->size = size;
    info->format = fmt;
    info->index = idx;
    const bool small = p->sensor_mode == 4;
    info->width = w ? w : (small ? 160u : 320u);
    info->height = h ? h : (small ? 60u : 240u);
    if (fmt < 256)
        info->depth = (size / info->width / info->height) & 0xFF;
    else
        info->depth = time_word;
    info->temperature = static_cast<uint16_t>(p->tcb) |
                        (static_cast<uint32_t>(static_cast<uint16_t>(p->tib)) << 16);
    info->ts_sec = _today_utc_midnight() + (time_word & 0x1F) * 3600 +
                   ((time_word >> 5) & 0x3F) * 60 + ((time_word >> 11) & 0x3F);
    info->ts_usec = (time_word >> 17) * 64;
    if (fmt < 256 && fmt != k_fmt_calib && size % (info->width * info->height) != 0) {
        VX_ERR("[%s]Wrong frame size %d,%d (%d,%d)\n", size, info->depth, info->width,
               info->height);
        return false;
    }
    p->frame_pending = 1;

    ++p->frame_cnt;
    const uint64_t now = tevix::plat::mono_ms();
    if (p->fps_host_set) {
        p->fps = static_cast<float>(p->fps_host);
        p->fps_host_set = 0;
        p->meas_cnt = p->frame_cnt;
        p->meas_ms = now;
    } else if (p->meas_ms == 0) {
        p->meas_cnt = p->frame_cnt;
        p->meas_ms = now;
    } else if (now - p->meas_ms >= 3000) {
        const uint16_t frames = static_cast<uint16_t>(p->frame_cnt - p->meas_cnt);
        p->fps = static_cast<float>(frames * 1000.0 / static_cast<double>(now - p->meas_ms));
        p->meas_cnt = p->frame_cnt;
        p->meas_ms = now;
    }
    return true;
}

uint32_t _dev_fps(const epc_priv *p) {
    return p->fps_host ? p->fps_host : static_cast<uint32_t>(p->fps);
}

void _feature_auto_intg(epc_priv *p, tevix_dev_t *dev, const uint16_t *samples, uint32_t count) {
    const sample_stats s = classify_samples(samples, count);
    const uint32_t bad_pct =
        s.samples ? static_cast<uint32_t>(static_cast<uint64_t>(s.bad) * 1000 / s.samples) : 0;
    VX_LOG_AS(VX_LOG_TRC, "_feature_auto_intg_calc_step",
              "[%s]bad_pct:%d, bad_cnt:%d, cnt_high/low:%d,%d sat_ratio: %d,\n", bad_pct, s.bad,
              s.high, s.low, p->auto_intg_th);
    const int32_t step = auto_intg_step(s, p->auto_intg_th);
    tevix_param_item_t it = _item(TEVIX_PARAM_INTG1, 2);
    if (!tevix_param_batch_get(dev, &it, 1)) {
        VX_ERR("[%s]get intg failed\n");
    } else {
        const int32_t cur = it.value.u16[0];
        const int32_t next = std::clamp(cur + step, 50, 1500);
        if (next != cur) {
            VX_DBG("[%s]AUTO_INTG: %d->%d\n", cur, next);
            tevix_param_item_t set = _item(TEVIX_PARAM_INTG1, 2);
            set.value.u16[0] = static_cast<uint16_t>(next);
            if (!tevix_param_batch_set(dev, &set, 1))
                VX_ERR("[%s]adjust intg from %d to %d failed\n", cur, next);
        }
    }
    g_auto_intg_us = tevix::plat::mono_us();
    g_auto_intg_done = true;
}

template <class T>
bool _grow(T *&buf, uint32_t n) {
    void *q = std::realloc(buf, static_cast<size_t>(n) * sizeof(T));
    if (!q) return false;
    buf = static_cast<T *>(q);
    return true;
}

bool _ensure_work(epc_priv *p, uint32_t n) {
    if (p->work_n >= n && p->conf_n == n) return true;
    if (p->work_n < n) {
        if (!_grow(p->dist32, n) || !_grow(p->conf_raw, n) || !_grow(p->work16, n)) return false;
        p->work_n = n;
    }
    if (!_grow(p->conf, n)) {
        p->conf_n = 0;
        return false;
    }
    p->conf_n = n;
    return true;
}

struct layout {
    uint32_t word;    // low byte planes, high byte flags
    uint32_t planes;  // planes the decode uses
};

layout _layout_of(const epc_priv *p, uint16_t fmt) {
    const uint32_t small = p->sensor_mode == 4 ? 512 : 0;
    switch (fmt) {
        case 1:
            return {258 + small, 2};
        case 4:
        case 10:
            return {257 + small, 1};
        default:
            if (p->sport) return {514, 2};
            return {4 + small, 4};
    }
}

// Distance decode of the frame's planes into dist32 and conf_raw (sensor order).
// With range k_phase_turn and offset 0 the "distances" are the phases themselves.
void _decode_planes(epc_priv *p, const uint16_t *raw, uint32_t w, uint32_t h, uint32_t planes,
                    uint32_t stored, uint32_t range, int32_t off) {
    const uint32_t n = w * h;
    if (planes == 4) {
        decode_4dcs(raw, n, range, off, p->dist32, p->conf_raw);
        return;
    }
    const plane_pair pp = reduced_pair(p->freq);
    if (planes == 2) {
        const uint16_t *pa = stored >= 4 ? raw + pp.p0 * n : raw;
        const uint16_t *pb = stored >= 4 ? raw + pp.p1 * n : raw + n;
        decode_pair(pa, pb, raw, raw + n, n, pp, range, off, p->dist32, p->conf_raw);
        return;
    }
    for (uint32_t r = 0; r < h; ++r) {
        uint32_t r0, r1;
        if (one_plane_rows(r, h, &r0, &r1)) {
            const uint16_t *a = raw + r0 * w, *b = raw + r1 * w;
            decode_pair(a, b, a, b, w, pp, range, off, p->dist32 + r * w, p->conf_raw + r * w);
        } else if (r >= 2) {
            std::memcpy(p->dist32 + r * w, p->dist32 + (r - 2) * w, w * 4);
            std::memcpy(p->conf_raw + r * w, p->conf_raw + (r - 2) * w, w * 4);
        } else {
            std::fill(p->dist32 + r * w, p->dist32 + (r + 1) * w,
                      static_cast<int32_t>(tevix::epc::k_dist_invalid));
            std::fill(p->conf_raw + r * w, p->conf_raw + (r + 1) * w, 0u);
        }
    }
}

uint8_t *_minamp_marks(epc_priv *p, uint32_t n) {
    if (p->marks_n < n) {
        void *q = std::realloc(p->marks, n);
        if (!q) _die_malloc("_feature_minamp_filter");
        p->marks = static_cast<uint8_t *>(q);
        std::memset(p->marks + p->marks_n, 0, n - p->marks_n);
        p->marks_n = n;
    }
    return p->marks;
}

// Kind-1 chain; each out-of-place stage reads one buffer and writes the other, the spatial
// filters work in place on the current one. The result ends in out.
void _post_process(epc_priv *p, uint16_t *out, uint32_t w, uint32_t h) {
    const uint32_t n = w * h;
    uint16_t *cur = out, *other = p->work16;
    if (p->minamp) {
        uint8_t *marks = p->minamp_hyst ? _minamp_marks(p, n) : nullptr;
        minamp(cur, other, p->conf, n, p->minamp_th, marks, p->minamp_hyst_val);
        std::swap(cur, other);
    }
    if (p->smooth) {
        if (p->smooth_level) vx_median2d_u16(cur, w, h, p->smooth_level);
        std::lock_guard<std::mutex> lock(p->filter_mtx);
        if (p->bpf_ok && p->bpf.width == w && p->bpf.height == h) {
            vx_bpf2d_iir(&p->bpf, other, cur, w, h);
            std::swap(cur, other);
        }
    }
    if (p->flypix) vx_flypix_u16_k3(cur, w, h, 31u - std::min<uint32_t>(p->flypix_level, 31));
    vx_fhole_u16_k3(cur, w, h, 0);
    range_gate(cur, other, n, p->range);
    std::swap(cur, other);
    if (cur != out) std::memcpy(out, cur, n * 2);
}

bool _check_consistency(epc_priv *p, tevix_dev_t *dev, const uint16_t *raw, uint32_t n,
                        uint32_t samples) {
    if (frame_consistent(raw, n, samples)) return true;
    const uint64_t now = tevix::plat::mono_ms();
    if (g_consist_done && now - g_consist_ms < 1000) return true;
    tevix_param_item_t it = _item(TEVIX_PARAM_CONSIST, 3);
    it.value.u16[0] = p->consist_val;
    it.value.u8[2] = p->consist_val == 0 ? 1 : 0;
    tevix_param_batch_set(dev, &it, 1);
    g_consist_ms = now;
    g_consist_done = true;
    return false;
}

int32_t _decode_grey(epc_priv *p, uint16_t *out, const uint16_t *raw, uint32_t w, uint32_t h,
                     uint32_t planes, const tevix_frame_info_t &info) {
    const uint32_t n = w * h;
    if (p->conf && p->conf_n == n && p->hash == info_hash(info)) {
        VX_LOG_AS(VX_LOG_TRC, "epc_frame_decode", "[%s]use confid hash to calc gray ...\n");
        grey_from_conf(p->conf, n, out);
        return static_cast<int32_t>(n * 2);
    }
    if (p->work_n < n) {
        if (!_grow(p->dist32, n) || !_grow(p->conf_raw, n) || !_grow(p->work16, n)) return -1;
        p->work_n = n;
    }
    uint32_t *g = p->conf_raw;
    if (planes == 4)
        grey_4dcs(raw, n, g);
    else if (planes == 2)
        grey_2dcs(raw, raw + n, n, g);
    else
        grey_1plane(raw, w, h, g);
    int32_t *g32 = p->dist32;
    for (uint32_t i = 0; i < n; ++i) g32[i] = static_cast<int32_t>(g[i]);
    if (p->hdr && p->hdr_setting != k_hdr_no_merge) hdr_merge(g32, g, w, h);
    if (p->sensor_mode != 4)
        rows_reorder_u16(g32, out, w, h);
    else
        narrow_u16(g32, out, n);
    return static_cast<int32_t>(n * 2);
}

int32_t _epc_frame_decode(tevix_drv_t *drv, uint8_t *out_bytes, uint32_t out_cap, uint32_t kind,
                          const uint8_t *raw_bytes, uint32_t raw_len,
                          const tevix_frame_info_t *info) {
    epc_priv *p = priv_of(drv);
    if (!p || !out_bytes || !raw_bytes || !info || kind > TEVIX_DECODE_GRAY) return -1;
    if ((reinterpret_cast<uintptr_t>(raw_bytes) | reinterpret_cast<uintptr_t>(out_bytes)) & 1) {
        VX_ERR("[%s]unaligned frame buffer\n");
        return -1;
    }
    const auto *raw = reinterpret_cast<const uint16_t *>(raw_bytes);
    auto *out = reinterpret_cast<uint16_t *>(out_bytes);

    if (p->auto_intg && p->auto_intg_th && !p->hdr &&
        (!g_auto_intg_done || tevix::plat::mono_us() - g_auto_intg_us >= 2000))
        _feature_auto_intg(p, drv->dev, raw, std::min(info->size, raw_len) / 2);

    switch (info->format) {
        case 1:
        case 2:
        case 4:
        case 10:
            break;
        case 8:
            if (kind == TEVIX_DECODE_DIST) p->frame_pending = 0;
            return -1;
        case k_fmt_calib:
            VX_INF("[%s]Calibration data frame,size:%d\n", info->size);
            return -1;
        default:
            return -1;
    }
    const uint32_t w = info->width, h = info->height;
    const uint32_t n = w * h;
    const layout lay = _layout_of(p, info->format);
    // 64-bit sizes: width and height come from the frame header.
    const uint64_t n64 = static_cast<uint64_t>(w) * h;
    const uint32_t stored =
        n64 ? static_cast<uint32_t>(std::min(info->size, raw_len) / (n64 * 2)) : 0;
    if (n64 == 0 || stored < lay.planes || out_cap < n64 * 2) {
        VX_ERR("[%s]wrong data len: src=%d, dst=%d\n", raw_len, out_cap);
        return -1;
    }

    if (p->consist && lay.planes == 4 &&
        !_check_consistency(p, drv->dev, raw, n, std::min(info->size, raw_len) / 2))
        return -1;

    if (kind == TEVIX_DECODE_GRAY) return _decode_grey(p, out, raw, w, h, lay.planes, *info);

    if (!_ensure_work(p, n)) {
        VX_ERR("[%s]malloc failed\n");
        return -1;
    }
    p->hash = 0xFFFFFFFFu;
    const bool sport1 = p->sport && p->sport_level == 1;
    bool calibrated = false;
    if (kind == TEVIX_DECODE_DIST) {
        std::lock_guard<std::mutex> lock(p->calib_mtx);
        calibrated = calib_valid(p) && p->range;
        if (calibrated) {
            _decode_planes(p, raw, w, h, lay.planes, stored, k_phase_turn, 0);
            apply_calibration(p, p->dist32, w, h, p->pix_calib && !sport1);
        }
    }
    if (!calibrated)
        _decode_planes(p, raw, w, h, lay.planes, stored, p->range, p->offset_en ? p->offset_mm : 0);
    if (kind == TEVIX_DECODE_DIST && p->hdr && p->hdr_setting != k_hdr_no_merge)
        hdr_merge(p->dist32, p->conf_raw, w, h);
    if (p->sensor_mode != 4) {
        rows_reorder(p->conf_raw, p->conf, w, h);
        rows_reorder_u16(p->dist32, out, w, h);
    } else {
        std::memcpy(p->conf, p->conf_raw, n * 4);
        narrow_u16(p->dist32, out, n);
    }
    p->hash = info_hash(*info);
    if (kind == TEVIX_DECODE_DIST) {
        p->frame_pending = 0;
        _post_process(p, out, w, h);
    }
    return static_cast<int32_t>(n * 2);
}

void _feature_bfps_fill_data(epc_priv *p, uint8_t *out) {
    const uint32_t fs = p->bfps_fs, q = fs / 4;
    uint8_t *old_f = p->bfps_buf, *new_f = p->bfps_buf + fs;
    VX_TRC("[%s]bfps: frbuf=%p, frbuf_len=%d, fs=%d, roll=%d\n", static_cast<void *>(p->bfps_buf),
           p->bfps_len, fs, p->bfps_roll);
    const uint32_t roll = p->bfps_roll;
    if (roll == 0) {
        std::memcpy(out, old_f, fs);
        p->bfps_roll = q;
        return;
    }
    std::memcpy(out, new_f, roll);
    std::memcpy(out + roll, old_f + roll, fs - roll);
    if (roll == q) {
        p->bfps_roll = fs / 2;
    } else if (roll == fs / 2) {
        p->bfps_roll = 3 * q;
    } else {
        std::memmove(p->bfps_buf, new_f, fs);
        p->bfps_len = fs;
        p->bfps_roll = 0;
    }
}

int32_t _epc_frame_raw_proc(tevix_drv_t *drv, uint8_t *raw, uint32_t count,
                            tevix_frame_info_t *info) {
    epc_priv *p = priv_of(drv);
    if (!p || !raw || !info || count != 1) return 0;
    if (info->format == k_fmt_grey) {
        std::lock_guard<std::mutex> lock(p->calib_mtx);
        if (p->grey_size < info->size) {
            VX_DBG("[%s]change gray size to %d\n", info->size);
            void *q = std::realloc(p->grey, info->size);
            if (!q) _die_malloc("epc_frame_raw_proc");
            p->grey = static_cast<uint8_t *>(q);
            p->grey_size = info->size;
        }
        if (p->grey_valid) {
            const int32_t div = p->grey_div ? p->grey_div : 1;
            for (uint32_t i = 0; i + 1 < info->size; i += 2) {
                uint16_t s;
                std::memcpy(&s, raw + i, 2);
                const auto v =
                    static_cast<int16_t>(((static_cast<int32_t>(s) - 2048) / div) * p->grey_scale);
                std::memcpy(p->grey + i, &v, 2);
            }
        } else {
            std::memset(p->grey, 0, p->grey_size);
        }
        return k_raw_grey;
    }
    if (!p->bfps || p->sport) return 0;
    if (p->bfps_mode == 2) return 0;
    if (p->bfps_mode == 4 && _dev_fps(p) > 19) {
        if (info->format != 2) return 0;
        const uint32_t fs = info->size;
        if (!p->bfps_buf || p->bfps_fs != fs) {
            if (p->bfps_buf)
                VX_DBG(
                    "[%s]realloc bfps buffer since frame size changed : %d -> %d (blen=%d, "
                    "fsz=%d)\n",
                    p->bfps_fs, fs, p->bfps_len, fs);
            std::free(p->bfps_buf);
            p->bfps_buf = static_cast<uint8_t *>(std::calloc(4, fs));
            if (!p->bfps_buf) _die_malloc("epc_frame_raw_proc");
            p->bfps_fs = fs;
            p->bfps_len = 0;
            p->bfps_roll = 0;
            VX_DBG("[%s]alloc bfps buffer: frbuf_idx=%d, fsize=%d, fidx=%d\n", 0, fs, info->index);
        }
        VX_TRC("[%s]bfps cache frame: buflen=%d, fridx=%d, frsz=%d\n", p->bfps_len, info->index,
               fs);
        p->bfps_info = *info;
        if (p->bfps_len + fs > 4 * fs) {
            p->bfps_len = 0;
            p->bfps_roll = 0;
        }
        std::memcpy(p->bfps_buf + p->bfps_len, raw, fs);
        p->bfps_len += fs;
        _feature_bfps_fill_data(p, raw);
        return 0;
    }
    p->bfps_info = *info;
    return 1;
}

bool _epc_need_data(tevix_drv_t *drv, uint8_t *out, uint32_t kind, tevix_frame_info_t *info) {
    epc_priv *p = priv_of(drv);
    if (!p || !out || !info) return false;
    const uint32_t fps = _dev_fps(p);
    if (!p->bfps || kind != TEVIX_DECODE_DIST || p->sport || p->bfps_info.format != 2 ||
        p->bfps_mode != 4 || fps < 20 || !p->bfps_buf || p->bfps_len < p->bfps_roll + p->bfps_fs)
        return false;
    _feature_bfps_fill_data(p, out);
    uint32_t d = fps ? 1000 / (4 * fps) : 5;
    if (fps && d > 1) d -= 1;
    uint32_t usec = p->bfps_info.ts_usec + d * 1000;
    p->bfps_info.ts_sec += usec / 1000000;
    p->bfps_info.ts_usec = usec % 1000000;
    *info = p->bfps_info;
    return true;
}

void *_epc_lens_bin_get(tevix_drv_t *drv) {
    epc_priv *p = priv_of(drv);
    return p ? p->lens_bin : nullptr;
}

uint32_t _epc_calib_freq_list_get(tevix_drv_t *drv, uint32_t *list, uint32_t *count) {
    epc_priv *p = priv_of(drv);
    const uint32_t n = p ? p->freq_list_n : 0;
    if (list && n) std::memcpy(list, p->freq_list, n * 4);
    if (count) *count = n;
    return n;
}

int32_t _epc_reserved9(tevix_drv_t *) {
    return 0;
}
int32_t _epc_reserved18(tevix_drv_t *, uint32_t, uint32_t, uint32_t) {
    return 0;
}
int32_t _epc_reserved19(tevix_drv_t *) {
    return 1;
}

void _epc_on_cap_state(tevix_drv_t *drv, uint32_t state) {
    epc_priv *p = priv_of(drv);
    if (!p || state) return;
    p->frame_cnt = p->meas_cnt = 0;
    p->meas_ms = 0;
    p->fps = 0.0f;
}

void _epc_on_update_fps(tevix_drv_t *drv, uint32_t fps) {
    epc_priv *p = priv_of(drv);
    if (!p) return;
    p->fps_host = fps;
    p->fps_host_set = 1;
}

void _epc_on_update_intg_time(tevix_drv_t *drv, uint32_t value, uint8_t index) {
    epc_priv *p = priv_of(drv);
    if (!p) return;
    if (index == 1) p->hdr = value != 0;
    VX_DBG("[%s]intg%d: %d, hdr_en=%d\n", index + 1, value, p->hdr);
}

void _epc_on_update_frame_format(tevix_drv_t *drv, uint32_t format) {
    epc_priv *p = priv_of(drv);
    if (!p) return;
    if (format == 4 || format == 1) {
        p->sport = 1;
        p->sport_level = format == 4 ? 1 : 0;
    } else {
        p->sport = 0;
    }
    _read_sys_calib(p, drv->dev, false, nullptr);
}

void _epc_on_update_mod_freq(tevix_drv_t *drv, uint32_t f0, uint32_t f1) {
    epc_priv *p = priv_of(drv);
    if (!p) return;
    if (f0 == 0) return;
    _mod_freq_event(p, f0, f1, false);
    // The system calibration belongs to the frequency: read it again after every change.
    _read_sys_calib(p, drv->dev, false, nullptr);
}

void _epc_on_update_frame_count(tevix_drv_t *drv, uint16_t count) {
    epc_priv *p = priv_of(drv);
    if (p) p->grey_div = count ? count : 1;
}

void _epc_on_update_roi(tevix_drv_t *drv, const tevix_roi_t *roi) {
    epc_priv *p = priv_of(drv);
    if (!p || !roi) return;
    p->roi = *roi;
    if (p->sensor_mode != 2 && p->sensor_mode != 4) p->sensor_mode = 2;
    uint32_t w = p->width, h = p->height;
    if (p->sensor_mode == 2) {
        static constexpr uint8_t sw[5] = {0, 1, 2, 3, 1}, sh[5] = {0, 1, 2, 3, 2};
        p->roi_w = static_cast<uint32_t>(roi->right - roi->left + 1);
        p->roi_h = static_cast<uint32_t>(roi->bottom - roi->top + 1);
        if (roi->binning > 4) {
            VX_ERR("[%s] roi wrong mode: %u\n", roi->binning);
        } else {
            w = 320u >> sw[roi->binning];
            h = 240u >> sh[roi->binning];
        }
    }
    VX_DBG("[%s] roi updated: %ux%u @ (%u, %u), binning=%u\n", w, h, roi->left, roi->top,
           roi->binning);
    if (w == p->width && h == p->height) return;
    p->width = w;
    p->height = h;
    _bpf_reload(p, true);
    std::lock_guard<std::mutex> lock(p->calib_mtx);
    _calib_unmount(p);
    _calib_mount(p);
}

// Whether the local calibration file opens as a valid container; its timestamp into *ts.
bool _local_file_valid(const epc_priv *p, uint32_t *ts) {
    tevix_param_handle_t h{};
    if (!tevix_param_open_file(&h, p->param_path)) return false;
    *ts = h.hdr.ts;
    tevix_param_close(&h);
    return true;
}

// Fetches the device's calibration data into the local file (upload mode).
bool _fetch_from_device(tevix_dev_t *dev) {
    return tevix_param_load_from_dev(dev);
}

void _write_freq(tevix_dev_t *dev, uint32_t freq) {
    tevix_param_item_t it = _item(TEVIX_PARAM_MOD_FREQ, 4);
    it.value.u32[0] = freq;
    tevix_param_batch_set(dev, &it, 1);
}

// Decides which calibration file to trust and the frequency to run at, and mounts.
int32_t _epc_calib_load(tevix_drv_t *drv, uint32_t, uint32_t, uint32_t) {
    constexpr const char *fn = "epc_calib_load";
    epc_priv *p = priv_of(drv);
    if (!p) return -1;
    tevix_dev_t *dev = drv->dev;
    if (!tevix_get_param_absolute_name(dev, p->param_path, sizeof p->param_path) ||
        !p->param_path[0]) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]cannot get param name!\n");
        return -1;
    }
    VX_LOG_AS(VX_LOG_DBG, fn, "[%s]param_name:%s\n", p->param_path);
    uint32_t local_ts = 0;
    bool valid = _local_file_valid(p, &local_ts);
    if (valid) {
        // Calibration information: u8 valid, u8 data present, u16 version, u32 stored size,
        // u32 data size, u32 timestamp.
        tevix_param_item_t info = _item(TEVIX_PARAM_CALIB_INFO, 16);
        if (!tevix_param_batch_get(dev, &info, 1)) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s] get PARAM_INFO_CALIB failed!\n");
            valid = false;
        } else if (info.value.u8[0] != 1 || !info.value.u8[1]) {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s] No valid calib data on dev, use local cache!\n");
        } else if (info.value.u32[3] > local_ts) {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]local param (ts=%u) is not up-to-date (dev ts=%u)\n",
                      local_ts, info.value.u32[3]);
            valid = false;
        }
    }
    if (!valid) {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Try to load calib data from device ... \n");
        if (_fetch_from_device(dev)) {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Load calibration data from device OK\n");
            valid = _local_file_valid(p, &local_ts);
        } else {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Load calibration data from device failed\n");
        }
    }
    {
        std::lock_guard<std::mutex> lock(p->calib_mtx);
        p->local_valid = valid ? 1 : 0;
    }
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Decide mod-freq begin... \n");
    tevix_param_item_t it = _item(TEVIX_PARAM_MOD_FREQ, 4);
    const bool read = tevix_param_batch_get(dev, &it, 1) && it.value.u32[0];
    if (!read) VX_LOG_AS(VX_LOG_ERR, fn, "[%s] get mod freq failed\n");
    const uint32_t dev_freq = read ? it.value.u32[0] : 0;
    if (valid) {
        if (read) {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s] adapting to device MOD_FREQ : [%u, %u] HZ\n", dev_freq,
                      0u);
            _mod_freq_event(p, dev_freq, 0, true);
        }
        if (!read || !p->calib_mounted) {
            // Whatever the file offers: its first block decides the frequency.
            _mod_freq_event(p, 0, 0, true);
            if (p->calib_mounted && p->freq) {
                VX_LOG_AS(VX_LOG_INF, fn, "[%s]set device freq to calibrated freq: [%u, %u]\n",
                          p->freq, 0u);
                _write_freq(dev, p->freq);
                _mod_freq_event(p, p->freq, 0, true);
            } else {
                // The file offers nothing usable: run at the device's frequency (or 12 MHz).
                const uint32_t f = read ? dev_freq : 12000000u;
                _mod_freq_event(p, f, 0, true);
                if (!read) _write_freq(dev, f);
            }
        }
    } else {
        const uint32_t f = read ? dev_freq : 12000000u;
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]calib not valid: set freq to %u\n", f);
        _mod_freq_event(p, f, 0, true);
        if (!read) _write_freq(dev, f);
    }
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Decide mod-freq end... \n");
    return 0;
}

// Lens undistortion is the device's lens-calibration setting, kept by the camera interface.
void _set_lens_calib(tevix_dev_t *dev, uint8_t on) {
    tevix_lens_calib_cfg_t *cfg = tevix_lens_calib_config_get(dev);
    if (!cfg) return;
    tevix_lens_calib_cfg_t next = *cfg;
    next.en_2d = on;
    tevix_lens_calib_config_set(dev, &next);
}

bool _epc_filter_enable(tevix_drv_t *drv, uint32_t id, const tevix_filter_arg_t *arg) {
    epc_priv *p = priv_of(drv);
    if (!p || id > 14) return false;
    static const tevix_filter_arg_t zero{};
    const tevix_filter_arg_t &a = arg ? *arg : zero;
    tevix_dev_t *dev = drv->dev;
    switch (id) {
        case 0:
            p->lens_calib = 1;
            _set_lens_calib(dev, 1);
            return true;
        case 1:
            p->pix_calib = 1;
            if (!calib_valid(p) || (p->sport && p->sport_level == 1)) return false;
            VX_INF("[%s]pix calib enabled\n");
            return true;
        case 2:
            p->smooth_variant = a.u8[0];
            p->smooth_strength = a.u8[1];
            p->smooth = 1;
            if (p->smooth_variant == 240) {
                p->bpf_ss = p->smooth_strength / 100.0f;
                p->bpf_sr = 0.05f;
                p->bpf_min = 4096;
                p->bpf_max = 0;
                if (p->smooth_strength > 66) {
                    p->smooth_level = 5;
                } else if (p->smooth_strength >= 11) {
                    p->smooth_level = 3;
                } else {
                    p->smooth_level = 0;
                    p->smooth = 0;
                }
            }
            _bpf_reload(p, false);
            return true;
        case 3:
            return false;
        case 4:
            p->minamp = 1;
            p->minamp_th = a.u16[0];
            return true;
        case 5:
            p->auto_intg = 1;
            p->auto_intg_th = a.u16[0];
            return true;
        case 6:
            p->consist = 1;
            p->consist_val = a.u16[0];
            return true;
        case 7:
            p->temp_mon = 1;
            p->temp_mon_val = a.u16[0];
            return true;
        case 8: {
            tevix_param_item_t it[2] = {_item(TEVIX_PARAM_INTG1, 2), _item(TEVIX_PARAM_INTG2, 2)};
            it[0].value.u16[0] = a.u16[0];
            it[1].value.u16[0] = a.u16[1];
            if (!tevix_param_batch_set(dev, it, 2)) {
                VX_ERR("[%s]enable HDR failed\n");
                return false;
            }
            p->hdr = 1;
            p->hdr_setting = a.u32[0];
            return true;
        }
        case 9:
            if (p->offset_mm != a.s16[0])
                VX_DBG("[%s]offset_mm: %d -> %d\n", p->offset_mm, a.s16[0]);
            p->offset_mm = a.s16[0];
            p->offset_en = 1;
            return true;
        case 10: {
            const uint8_t level = a.u8[0];
            VX_INF("[%s]Enable sport mode: %d\n", level);
            static constexpr uint32_t fmt[3] = {1, 4, 2};
            if (level > 2) {
                VX_ERR("[%s]wrong SPORT MODE: %d\n", level);
                return false;
            }
            if (!_param_set_u32(dev, TEVIX_PARAM_FRM_FMT, fmt[level], 4)) {
                if (level == 0)
                    VX_ERR("[%s]enable SPORT MODE 0 failed\n");
                else
                    VX_ERR("[%s]enable SPORT MODE 1 failed\n");
                return false;
            }
            p->sport_level = level;
            p->sport = 1;
            return true;
        }
        case 11: {
            VX_INF("[%s]Enable sys calib\n");
            bool ok = false;
            _read_sys_calib(p, dev, true, &ok);
            if (!ok) return false;
            p->sys_calib = 1;
            return true;
        }
        case 12: {
            std::lock_guard<std::mutex> lock(p->calib_mtx);
            if (!p->grey) {
                p->grey = static_cast<uint8_t *>(std::calloc(k_grey_buf_full, 1));
                if (!p->grey) {
                    VX_ERR("[%s]malloc failed\n");
                    return false;
                }
                p->grey_size = k_grey_buf_full;
            }
            p->grey_div = a.u16[0] ? a.u16[0] : 1;
            p->grey_scale = 1;
            return true;
        }
        case 13:
            p->flypix_level = std::min<uint8_t>(a.u8[0], 31);
            p->flypix = 1;
            return true;
        default:
            p->temp_comp = 1;
            return true;
    }
}

bool _epc_filter_disable(tevix_drv_t *drv, uint32_t id) {
    epc_priv *p = priv_of(drv);
    if (!p || id > 14 || id == 3) return false;
    tevix_dev_t *dev = drv->dev;
    switch (id) {
        case 0:
            p->lens_calib = 0;
            _set_lens_calib(dev, 0);
            return true;
        case 1:
            p->pix_calib = 0;
            VX_INF("[%s]pix calib disabled\n");
            return true;
        case 2:
            p->smooth = 0;
            p->smooth_variant = p->smooth_strength = 0;
            return true;
        case 4:
            p->minamp = 0;
            std::free(p->marks);
            p->marks = nullptr;
            p->marks_n = 0;
            return true;
        case 5:
            p->auto_intg = 0;
            p->auto_intg_th = 0;
            return true;
        case 6:
            p->consist = 0;
            return true;
        case 7:
            p->temp_mon = 0;
            return true;
        case 8: {
            tevix_param_item_t it = _item(TEVIX_PARAM_INTG2, 2);
            if (!tevix_param_batch_set(dev, &it, 1)) {
                VX_ERR("[%s]disable HDR failed\n");
                return false;
            }
            p->hdr = 0;
            p->hdr_setting = 0;
            return true;
        }
        case 9:
            p->offset_en = 0;
            return true;
        case 10:
            if (!_param_set_u32(dev, TEVIX_PARAM_FRM_FMT, 2, 4)) {
                VX_ERR("[%s]disable sport mode failed\n");
                return false;
            }
            VX_INF("[%s]Disable sport mode\n");
            p->sport = 0;
            return true;
        case 11:
            p->sys_calib = 0;
            return true;
        case 12:
            p->grey_scale = 0;
            return true;
        case 13:
            p->flypix = 0;
            return true;
        default:
            p->temp_comp = 0;
            return true;
    }
}

}  // namespace

tevix_drv_ops epc_drv_ops = {
    _epc_init,
    _epc_uninit,
    _epc_frame_get_info,
    _epc_frame_decode,
    _epc_need_data,
    _epc_frame_raw_proc,
    drv_lens_param_get,
    _epc_lens_bin_get,
    _epc_calib_freq_list_get,
    _epc_reserved9,
    _epc_on_cap_state,
    _epc_on_update_fps,
    _epc_on_update_intg_time,
    _epc_on_update_frame_format,
    _epc_on_update_mod_freq,
    _epc_on_update_frame_count,
    _epc_on_update_roi,
    _epc_calib_load,
    _epc_reserved18,
    _epc_reserved19,
    _epc_filter_enable,
    _epc_filter_disable,
    {nullptr, nullptr},
    k_epc_default_lens,
};
