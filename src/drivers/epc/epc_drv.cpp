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
#include "drivers/drv_pipeline.h"
#include "drivers/epc/epc_calib.h"
#include "drivers/epc/epc_kernels.h"
#include "drivers/epc/epc_priv.h"
#include "log/log.h"
#include "platform/platform.h"
#include "tevix/tevix.h"
#include "tevix/tevix_param.h"

using namespace tevix::epc;
namespace drv = tevix::drv;

namespace {

constexpr uint8_t k_reg_class = 1;
constexpr uint16_t k_fmt_calib = 171;
constexpr uint32_t k_hdr_no_merge = 23205;

// Process-wide time of the last consistency write.
std::atomic<uint64_t> g_consist_ms{0};
std::atomic<bool> g_consist_done{false};

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

void _image_size(epc_priv *p) {
    if (p->sensor_mode == 4) {
        p->width = 160;
        p->height = 60;
    } else {
        p->width = 320;
        p->height = 240;
    }
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
    if (!p) drv::die_malloc("epc_init");
    drv->dev = dev;
    drv->priv = static_cast<drv::drv_state *>(p);

    // Lens data goes into the table's lens record; the undistortion map is the device's, built
    // by the frame access for each image size it meets.
    tevix::calib::lens_load_search(dev, &drv->ops->lens, &p->lens_bin);

    const uint32_t id_cmd = 250;
    uint32_t mode = 0;
    if (!_reg_write(dev, 17, &id_cmd, 1) || !_reg_read(dev, 18, &mode)) mode = 0;
    p->sensor_mode = mode;

    char model[17], chip[17], rev[17];
    if (drv::product_fields(dev, model, chip, rev)) {
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
    if (!p->grey) drv::die_malloc("epc_init");
    p->grey_valid = 1;

    drv::bpf_reload(*p, true);
    drv::send_host_clock(dev);
    p->freq_list_n = 0;
    return true;
}

void _epc_uninit(tevix_drv_t *drv) {
    epc_priv *p = priv_of(drv);
    if (!p) return;
    drv::release(*p);
    {
        std::lock_guard<std::mutex> lock(p->calib_mtx);
        _calib_unmount(p);
    }
    delete p;
    drv->priv = nullptr;
}

bool _epc_frame_get_info(tevix_drv_t *drv, tevix_frame_info_t *info, const uint8_t *raw) {
    epc_priv *p = priv_of(drv);
    if (!p || !info || !raw) return false;
    const bool small = p->sensor_mode == 4;
    return drv::frame_info(*p, drv->dev, info, raw, small ? 160u : 320u, small ? 60u : 240u);
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
        if (!q) drv::die_malloc("_feature_minamp_filter");
        p->marks = static_cast<uint8_t *>(q);
        std::memset(p->marks + p->marks_n, 0, n - p->marks_n);
        p->marks_n = n;
    }
    return p->marks;
}

// Kind-1 chain; each out-of-place stage reads one buffer and writes the other, the spatial
// filters work in place on the current one; the last stage writes out.
void _post_process(epc_priv *p, uint16_t *out, uint32_t w, uint32_t h) {
    const uint32_t n = w * h;
    drv::pingpong pp(out, p->work16, n);
    if (p->minamp) {
        uint8_t *marks = p->minamp_hyst ? _minamp_marks(p, n) : nullptr;
        minamp(pp.cur, pp.other, p->conf, n, p->minamp_th, marks, p->minamp_hyst_val);
        pp.flip();
    }
    if (p->smooth) {
        if (p->smooth_level) vx_median2d_u16(pp.cur, w, h, p->smooth_level);
        drv::bilateral_stage(*p, pp, w, h);
    }
    if (p->flypix) vx_flypix_u16_k3(pp.cur, w, h, 31u - std::min<uint32_t>(p->flypix_level, 31));
    vx_fhole_u16_k3(pp.cur, w, h, 0);
    // The gate goes pixel by pixel, so it may write out over its own input: no final copy.
    range_gate(pp.cur, out, n, p->range);
}

bool _check_consistency(epc_priv *p, tevix_dev_t *dev, const uint16_t *raw, uint32_t n,
                        uint32_t samples) {
    if (frame_consistent(raw, n, samples)) return true;
    const uint64_t now = tevix::plat::mono_ms();
    if (g_consist_done && now - g_consist_ms < 1000) return true;
    tevix_param_item_t it = drv::param_item(TEVIX_PARAM_CONSIST, 3);
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
    if (drv::grey_from_cache(*p, out, n, info)) return static_cast<int32_t>(n * 2);
    if (!drv::grow_work(*p, n)) return -1;
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

    drv::auto_intg(*p, drv->dev, raw, std::min(info->size, raw_len) / 2);

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

    if (!drv::ensure_work(*p, n)) {
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
        drv::publish_conf(*p, n);
        narrow_u16(p->dist32, out, n);
    }
    p->hash = info_hash(*info);
    if (kind == TEVIX_DECODE_DIST) {
        p->frame_pending = 0;
        _post_process(p, out, w, h);
    }
    return static_cast<int32_t>(n * 2);
}

void _epc_on_update_intg_time(tevix_drv_t *drv, uint32_t value, uint8_t index) {
    epc_priv *p = priv_of(drv);
    if (p) drv::intg_time_update(*p, value, index);
}

void _epc_on_update_mod_freq(tevix_drv_t *drv, uint32_t f0, uint32_t f1) {
    epc_priv *p = priv_of(drv);
    if (!p) return;
    if (f0 == 0) return;
    _mod_freq_event(p, f0, f1, false);
    // The system calibration belongs to the frequency: read it again after every change.
    drv::read_sys_calib(*p, drv->dev, false, nullptr);
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
    if (!drv::roi_resize(*p, *roi, w, h)) return;
    std::lock_guard<std::mutex> lock(p->calib_mtx);
    _calib_unmount(p);
    _calib_mount(p);
}

// Decides which calibration file to trust and the frequency to run at, and mounts.
int32_t _epc_calib_load(tevix_drv_t *drv, uint32_t, uint32_t, uint32_t) {
    constexpr const char *fn = "epc_calib_load";
    epc_priv *p = priv_of(drv);
    if (!p) return -1;
    tevix_dev_t *dev = drv->dev;
    const int trust = drv::calib_trust_local(*p, dev);
    if (trust < 0) return -1;
    const bool valid = trust > 0;
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Decide mod-freq begin... \n");
    tevix_param_item_t it = drv::param_item(TEVIX_PARAM_MOD_FREQ, 4);
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
                drv::write_mod_freq(dev, p->freq);
                _mod_freq_event(p, p->freq, 0, true);
            } else {
                // The file offers nothing usable: run at the device's frequency (or 12 MHz).
                const uint32_t f = read ? dev_freq : 12000000u;
                _mod_freq_event(p, f, 0, true);
                if (!read) drv::write_mod_freq(dev, f);
            }
        }
    } else {
        const uint32_t f = read ? dev_freq : 12000000u;
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]calib not valid: set freq to %u\n", f);
        _mod_freq_event(p, f, 0, true);
        if (!read) drv::write_mod_freq(dev, f);
    }
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Decide mod-freq end... \n");
    return 0;
}

bool _epc_filter_enable(tevix_drv_t *drv, uint32_t id, const tevix_filter_arg_t *arg) {
    epc_priv *p = priv_of(drv);
    return p && drv::filter_enable(*p, drv->dev, id, arg, calib_valid(p), k_grey_buf_full);
}

bool _epc_filter_disable(tevix_drv_t *drv, uint32_t id) {
    epc_priv *p = priv_of(drv);
    return p && drv::filter_disable(*p, drv->dev, id);
}

}  // namespace

tevix_drv_ops epc_drv_ops = {
    _epc_init,
    _epc_uninit,
    _epc_frame_get_info,
    _epc_frame_decode,
    drv::op_need_data,
    drv::op_frame_raw_proc,
    drv_lens_param_get,
    drv::op_lens_bin_get,
    drv::op_calib_freq_list_get,
    drv::op_reserved9,
    drv::op_on_cap_state,
    drv::op_on_update_fps,
    _epc_on_update_intg_time,
    drv::op_on_update_frame_format,
    _epc_on_update_mod_freq,
    drv::op_on_update_frame_count,
    _epc_on_update_roi,
    _epc_calib_load,
    drv::op_reserved18,
    drv::op_reserved19,
    _epc_filter_enable,
    _epc_filter_disable,
    {nullptr, nullptr},
    k_epc_default_lens,
};
