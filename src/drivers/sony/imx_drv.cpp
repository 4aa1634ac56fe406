// SONY driver: a 640x480 sensor without register set-up, lens intrinsics read from the device,
// the settings table shared with the telemetry synchronisation, filter tuning by modulation
// frequency, single and dual frequency (unwrapped over the frequencies' common range), the
// automatic change to the HDR format for a second integration time, the decode of each raw format
// (imx_format.h) and its post-processing chain. Frame information, caches, filter switches and
// calibration blocks are the stages every driver shares (drivers/drv_pipeline.h).
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "calib/calib.h"
#include "drivers/drv.h"
#include "drivers/drv_pipeline.h"
#include "drivers/epc/epc_kernels.h"
#include "drivers/sony/imx_format.h"
#include "drivers/sony/imx_priv.h"
#include "log/log.h"
#include "tele/vxtele.h"
#include "tevix/tevix.h"

using namespace tevix::imx;
namespace drv = tevix::drv;
namespace tele = tevix::tele;

namespace {

constexpr uint16_t k_fmt_calib = 171, k_fmt_hdr = 15;

// Filter tuning by f0, from the top: the first row whose bound f0 (whole MHz) reaches applies.
struct tune_row {
    float mhz, threshold, sigma_range, sigma_spatial;
};
constexpr tune_row k_tuning[] = {
    {100, 2, 0.05f, 0.01f}, {80, 3, 0.05f, 0.02f}, {50, 3, 0.05f, 0.04f}, {30, 4, 0.05f, 0.06f},
    {24, 4, 0.05f, 0.08f},  {20, 10, 0.05f, 0.1f}, {12, 10, 0.05f, 0.2f},
};

void _register_settings(imx_priv *p) {
    const tele::item items[] = {
        {"f_en_hysteresis", tele::k_type_u8, &p->en_hyst},
        {"f_param_hysteresis", tele::k_type_u16, &p->hyst_val},
        {"f_en_flyfilter", tele::k_type_u8, &p->en_fly},
        {"f_param_flyfilter_th", tele::k_type_u32, &p->fly_th},
        {"f_en_fill_hole", tele::k_type_u8, &p->en_fill},
        {"f_en_bpf2d_iir", tele::k_type_u8, &p->en_bpf},
        {"f_param_bpf_sigma_spatial", tele::k_type_f32, &p->bpf_ss},
        {"f_param_bpf_sigma_range", tele::k_type_f32, &p->bpf_sr},
        {"f_param_bpf_range_min", tele::k_type_u16, &p->bpf_min},
        {"f_param_bpf_range_max", tele::k_type_u16, &p->bpf_max},
        {"f_en_gaus_iir", tele::k_type_u8, &p->en_gauss},
        {"f_param_gaus_iir_sigma", tele::k_type_f32, &p->gauss_sigma},
    };
    p->tele = vxtele_register("imx", items, sizeof items / sizeof items[0]);
}

// Intrinsics the device stores (parameters 22, 86, 87: cx, cy, fx, fy, d0..d4 as floats) into
// the table's lens record; the built-in record stays when they cannot be read or are not
// positive.
void _lens_from_device(tevix_drv_t *drv, imx_priv *p) {
    drv->ops->lens = k_imx_default_lens;
    tevix_param_item_t it[3] = {drv::param_item(TEVIX_PARAM_LENS0, 16),
                                drv::param_item(TEVIX_PARAM_LENS1, 16),
                                drv::param_item(TEVIX_PARAM_LENS2, 4)};
    if (!tevix_param_batch_get(drv->dev, it, 3)) return;
    float v[9];
    std::memcpy(v, it[0].value.u8, 16);
    std::memcpy(v + 4, it[1].value.u8, 16);
    std::memcpy(v + 8, it[2].value.u8, 4);
    for (int i = 0; i < 4; ++i)
        if (!(v[i] > 0) || !std::isfinite(v[i])) return;
    for (int i = 4; i < 9; ++i)
        if (!std::isfinite(v[i])) return;
    tevix_lens_param_t &l = drv->ops->lens;
    l.cx = v[0];
    l.cy = v[1];
    l.fx = v[2];
    l.fy = v[3];
    std::fill(std::begin(l.dcoef), std::end(l.dcoef), 0.0);
    for (int i = 0; i < 5; ++i) l.dcoef[i] = v[4 + i];
    l.n_dcoef = 5;
    p->lens_from_dev = 1;
    VX_LOG_AS(VX_LOG_DBG, "imx_init", "[%s]cx:%f, cy:%f, fx:%f, fy:%f\n", l.cx, l.cy, l.fx, l.fy);
    VX_LOG_AS(VX_LOG_DBG, "imx_init", "[%s]d0:%f, d1:%f, d2:%f, d3:%f ,d4:%f\n", l.dcoef[0],
              l.dcoef[1], l.dcoef[2], l.dcoef[3], l.dcoef[4]);
}

bool _imx_init(tevix_drv_t *drv, tevix_dev_t *dev) {
    if (!drv || !dev) return false;
    auto *p = new (std::nothrow) imx_priv;
    if (!p) drv::die_malloc("imx_init");
    drv->dev = dev;
    drv->priv = static_cast<drv::drv_state *>(p);
    p->grey_size = k_grey_buf;
    p->grey = static_cast<uint8_t *>(std::calloc(k_grey_buf, 1));
    if (!p->grey) drv::die_malloc("imx_init");
    p->grey_valid = 1;
    drv::bpf_reload(*p, true);
    drv::send_host_clock(dev);
    _lens_from_device(drv, p);
    // Lens files, when the device's parameter directory holds one, win over the device's values.
    if (tevix::calib::lens_load_search(dev, &drv->ops->lens, &p->lens_bin)) p->lens_file = 1;
    _register_settings(p);
    p->saved_fmt = -1;
    p->freq_list_n = 0;
    return true;
}

void _imx_uninit(tevix_drv_t *drv) {
    imx_priv *p = priv_of(drv);
    if (!p) return;
    vxtele_unregister(p->tele);
    drv::release(*p);
    {
        std::lock_guard<std::mutex> lock(p->calib_mtx);
        calib_unmount(p);
    }
    std::free(p->iq);
    std::free(p->dist1);
    std::free(p->conf1);
    delete p;
    drv->priv = nullptr;
}

bool _imx_frame_get_info(tevix_drv_t *drv, tevix_frame_info_t *info, const uint8_t *raw) {
    imx_priv *p = priv_of(drv);
    if (!p || !info || !raw) return false;
    if (!drv::frame_info(*p, drv->dev, info, raw, p->width, p->height)) return false;
    uint32_t time_word;
    std::memcpy(&time_word, raw + 16, 4);
    VX_LOG_AS(VX_LOG_TRC, "imx_frame_get_info", "[%s]frame: fmt=%d, sz=%d, wxh = %dx%d\n",
              info->format, info->size, info->width, info->height);
    VX_LOG_AS(VX_LOG_TRC, "imx_frame_get_info", "[%s]idx:%d,0x%x\n", info->index, time_word);
    return true;
}

// The second set's buffers and the I/Q buffers for n pixels.
bool _ensure_sets(imx_priv *p, uint32_t n) {
    if (p->work1_n >= n) return true;
    void *a = std::realloc(p->iq, size_t{n} * 12);
    if (a) p->iq = static_cast<int16_t *>(a);
    void *b = std::realloc(p->dist1, size_t{n} * 4);
    if (b) p->dist1 = static_cast<int32_t *>(b);
    void *c = std::realloc(p->conf1, size_t{n} * 4);
    if (c) p->conf1 = static_cast<uint32_t *>(c);
    if (!a || !b || !c) return false;
    p->work1_n = n;
    return true;
}

// Phases (1/32768 turn, 65500 invalid) and confidences of one frequency (or exposure) of a frame.
void _decode_phases(imx_priv *p, const layout &l, const uint8_t *raw, uint32_t n, uint32_t set,
                    int32_t *phase, uint32_t *conf) {
    const auto *raw16 = reinterpret_cast<const uint16_t *>(raw);
    switch (l.type) {
        case sample::dcs16:
            tevix::epc::decode_4dcs(raw16, n, tevix::epc::k_phase_turn, 0, phase, conf);
            break;
        case sample::phase16:
            decode_phase_words(raw16, n, tevix::epc::k_phase_turn, 0, phase, conf);
            break;
        default: {
            const int16_t *x = nullptr, *y = nullptr;
            if (!iq_planes(l, raw, n, &x, &y)) {
                expand_iq(l, raw, n, set, p->iq, p->iq + n, p->iq + 2 * size_t{n});
                x = p->iq;
                y = p->iq + n;
            }
            tevix::epc::phase_xy(x, y, n, phase, conf);
            break;
        }
    }
}

int32_t _decode_grey(imx_priv *p, uint16_t *out, const uint8_t *raw, const layout &l, uint32_t n,
                     const tevix_frame_info_t &info) {
    if (drv::grey_from_cache(*p, out, n, info)) return static_cast<int32_t>(n * 2);
    if (!drv::grow_work(*p, n) || !_ensure_sets(p, n)) return -1;
    uint32_t *g = p->conf_raw;
    if (l.type == sample::dcs16) {
        tevix::epc::grey_4dcs(reinterpret_cast<const uint16_t *>(raw), n, g);
    } else {
        // The amplitude of the samples, as the 4-plane grey takes it: fast_sqrt(conf / 4).
        _decode_phases(p, l, raw, n, 0, p->dist1, g);
        for (uint32_t i = 0; i < n; ++i) g[i] = tevix::epc::fast_sqrt(g[i] >> 2);
    }
    for (uint32_t i = 0; i < n; ++i)
        out[i] = static_cast<uint16_t>(std::min<uint32_t>(g[i], 65535));
    return static_cast<int32_t>(n * 2);
}

// Kind-1 chain in its order: bilateral IIR, 5x5 median, Gaussian IIR, 5x5 flying pixel, hole
// filling; the out-of-place bilateral filter ping-pongs with the work buffer.
void _post_process(imx_priv *p, uint16_t *out, uint32_t w, uint32_t h) {
    drv::pingpong pp(out, p->work16, w * h);
    if (p->en_bpf) drv::bilateral_stage(*p, pp, w, h);
    if (p->smooth && p->smooth_level >= 2) vx_median2d_u16(pp.cur, w, h, 5);
    if (p->en_gauss) vx_gauss2d_iir_u16(pp.cur, w, h, p->gauss_sigma);
    if (p->en_fly) vx_flypix_u16_k5(pp.cur, w, h, 31u - std::min<uint32_t>(p->fly_th, 31));
    if (p->en_fill) vx_fhole_u16_k3(pp.cur, w, h, 0);
    pp.finish();
}

enum class calib_mode { none, sincor, drnu };

int32_t _imx_frame_decode(tevix_drv_t *drv, uint8_t *out_bytes, uint32_t out_cap, uint32_t kind,
                          const uint8_t *raw, uint32_t raw_len, const tevix_frame_info_t *info) {
    constexpr const char *fn = "imx_frame_decode";
    imx_priv *p = priv_of(drv);
    if (!p || !out_bytes || !raw || !info || kind > TEVIX_DECODE_GRAY) return -1;
    if ((reinterpret_cast<uintptr_t>(raw) | reinterpret_cast<uintptr_t>(out_bytes)) & 1) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]unaligned frame buffer\n");
        return -1;
    }
    auto *out = reinterpret_cast<uint16_t *>(out_bytes);
    vxtele_sync(p->tele, false);
    drv::bpf_reload(*p, false);
    VX_LOG_AS(VX_LOG_TRC, fn, "[%s]src_len:%d decode:0x%0x ,%d, 0x%x\n", raw_len, kind, out_cap,
              info->format);
    switch (info->format) {
        case 0:
            return -1;
        case 8:
            if (kind == TEVIX_DECODE_DIST) p->frame_pending = 0;
            return -1;
        case k_fmt_calib:
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]Calibration data frame,size:%d\n", info->size);
            return -1;
        default:
            break;
    }
    const layout l = layout_of(info->format);
    if (!l.word) return -1;
    if (info->format == k_fmt_hdr) VX_LOG_AS(VX_LOG_TRC, fn, "[%s]HDR frame received\n");
    const uint32_t w = info->width, h = info->height;
    const uint64_t n64 = uint64_t{w} * h;
    if (n64 == 0 || n64 > (1u << 26) || out_cap < 2 * n64 || raw_len < l.min_n * n64) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]wrong data len: src=%d, dst=%d\n", raw_len, out_cap);
        p->frame_pending = 0;
        return -1;
    }
    const uint32_t n = static_cast<uint32_t>(n64);
    if (l.type == sample::dcs16)
        drv::auto_intg(*p, drv->dev, reinterpret_cast<const uint16_t *>(raw),
                       std::min(info->size, raw_len) / 2);
    if (kind == TEVIX_DECODE_GRAY) return _decode_grey(p, out, raw, l, n, *info);
    if (!drv::ensure_work(*p, n) || !_ensure_sets(p, n)) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]malloc failed\n");
        return -1;
    }
    p->hash = 0xFFFFFFFFu;
    const bool hdr = l.word == 8;
    const bool dual = l.sets == 2 && !hdr && p->unwrap.n0 != 0;
    const int32_t off = p->offset_en ? p->offset_mm : 0;
    {
        std::lock_guard<std::mutex> lock(p->calib_mtx);
        calib_mode mode = calib_mode::none;
        if (kind == TEVIX_DECODE_DIST && calib_valid(p) && p->r0 && (!dual || p->r1))
            mode = p->pix_calib ? calib_mode::drnu : calib_mode::sincor;
        // Every decode takes the phases first.
        _decode_phases(p, l, raw, n, 0, p->dist32, p->conf_raw);
        if (dual || hdr) _decode_phases(p, l, raw, n, 1, p->dist1, p->conf1);
        if (hdr) hdr_pick(p->dist32, p->conf_raw, p->dist1, p->conf1, n);
        if (mode != calib_mode::none) {
            // Through the mounted blocks; a pair's distances wrap at their ranges for unwrapping.
            const bool pixels = mode == calib_mode::drnu;
            drv::apply_calibration(*p, p->slot, p->r0, p->dist32, w, h, pixels,
                                   dual ? p->unwrap.r0_mm : 0.0f);
            tevix::epc::narrow_u16(p->dist32, out, n);
            if (dual) {
                drv::apply_calibration(*p, p->slot1, p->r1, p->dist1, w, h, pixels,
                                       p->unwrap.r1_mm);
                tevix::epc::narrow_u16(p->dist1, p->work16, n);
            }
        } else {
            // The distance offset of a pair applies to the unwrapped distance.
            phase_to_mm(p->dist32, n, p->rx0, dual ? 0 : off, out);
            if (dual) phase_to_mm(p->dist1, n, p->rx1, 0, p->work16);
        }
        if (dual) {
            tevix::algo::dual_freq_unwrap(p->unwrap, out, p->work16, out, n);
            if (mode == calib_mode::none && off)
                for (uint32_t i = 0; i < n; ++i)
                    if (out[i] < tevix::epc::k_dist_invalid)
                        out[i] = static_cast<uint16_t>(
                            std::clamp<int32_t>(out[i] + off, 0, tevix::epc::k_dist_invalid - 1));
        }
    }
    drv::publish_conf(*p, n);
    p->hash = tevix::epc::info_hash(*info);
    if (kind == TEVIX_DECODE_DIST) {
        p->frame_pending = 0;
        _post_process(p, out, w, h);
    }
    return static_cast<int32_t>(n * 2);
}

// The device's frame format (parameter 10); -1 when it cannot be read.
int32_t _device_format(tevix_dev_t *dev) {
    tevix_param_item_t it = drv::param_item(TEVIX_PARAM_FRM_FMT, 4);
    if (!tevix_param_batch_get(dev, &it, 1)) return -1;
    return static_cast<int32_t>(drv::item_u32(it, 0));
}

bool _set_format(tevix_dev_t *dev, int32_t from, int32_t to) {
    constexpr const char *fn = "imx_on_update_intg_time";
    VX_LOG_AS(VX_LOG_DBG, fn, "[%s]fmt auto change: %d->%d\n", from, to);
    if (drv::param_set_u32(dev, TEVIX_PARAM_FRM_FMT, static_cast<uint32_t>(to), 4)) return true;
    VX_LOG_AS(VX_LOG_ERR, fn, "[%s]set to fmt %d failed\n", to);
    return false;
}

// A second integration time needs the HDR format: switch to it, and back when it is cleared.
void _imx_on_update_intg_time(tevix_drv_t *drv, uint32_t value, uint8_t index) {
    imx_priv *p = priv_of(drv);
    if (!p) return;
    if (index == 1) {
        const int32_t cur = _device_format(drv->dev);
        if (value) {
            if (cur != k_fmt_hdr) {
                p->saved_fmt = cur;
                _set_format(drv->dev, cur, k_fmt_hdr);
            }
        } else if (p->saved_fmt > 0 && p->saved_fmt != cur) {
            if (_set_format(drv->dev, cur, p->saved_fmt)) p->saved_fmt = -1;
        }
    }
    drv::intg_time_update(*p, value, index);
}

// Flying-pixel threshold and bilateral sigmas for f0, unless the host chose the bilateral
// parameters itself (smoothing variant 240).
void _tune(imx_priv *p, uint32_t f0) {
    constexpr const char *fn = "imx_on_update_mod_freq";
    const float mhz = static_cast<float>(f0 / 1000000u);
    uint32_t th = 0;
    for (const tune_row &r : k_tuning) {
        if (mhz < r.mhz) continue;
        th = static_cast<uint32_t>(r.threshold);
        p->bpf_sr = r.sigma_range;
        p->bpf_ss = r.sigma_spatial;
        break;
    }
    p->fly_th = th;
    VX_LOG_AS(VX_LOG_DBG, fn, "[%s]FLYF  : threshold=%u\n", th);
    VX_LOG_AS(VX_LOG_DBG, fn, "[%s]BPF   : sigma range=%f, sigma spatial=%f\n",
              static_cast<double>(p->bpf_sr), static_cast<double>(p->bpf_ss));
    vxtele_sync(p->tele, true);
}

void _imx_on_update_mod_freq(tevix_drv_t *drv, uint32_t f0, uint32_t f1) {
    imx_priv *p = priv_of(drv);
    if (!p) return;
    if (f0 && !f1) {
        event_freq_change(p, f0, 0, false);
        p->dual = 0;
    } else if (f0 && f1) {
        event_freq_change(p, f0, f1, false);
        p->dual = 1;
    }
    if (p->smooth_variant != 240) _tune(p, f0);
    drv::read_sys_calib(*p, drv->dev, false, nullptr);
}

void _imx_on_update_roi(tevix_drv_t *drv, const tevix_roi_t *roi) {
    imx_priv *p = priv_of(drv);
    if (!p || !roi) return;
    p->roi = *roi;
    uint32_t w = p->width, h = p->height;
    p->roi_w = static_cast<uint32_t>(roi->right - roi->left + 1);
    p->roi_h = static_cast<uint32_t>(roi->bottom - roi->top + 1);
    if (roi->binning > 3) {
        VX_ERR("[%s] roi wrong mode: binning=%u\n", roi->binning);
    } else {
        w = k_width >> roi->binning;
        h = k_height >> roi->binning;
    }
    if (!drv::roi_resize(*p, *roi, w, h)) return;
    std::lock_guard<std::mutex> lock(p->calib_mtx);
    calib_unmount(p);
    calib_mount(p);
}

bool _imx_filter_enable(tevix_drv_t *drv, uint32_t id, const tevix_filter_arg_t *arg) {
    constexpr const char *fn = "imx_filter_enable";
    imx_priv *p = priv_of(drv);
    if (!p) return false;
    if (id == TEVIX_FILTER_AUTO_INTG) {
        // The automatic integration steps parameter 13: the device must answer for it.
        tevix_param_item_t it = drv::param_item(TEVIX_PARAM_INTG1, 2);
        if (!tevix_param_batch_get(drv->dev, &it, 1)) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]enable AUTO_INTG failed\n");
            return false;
        }
    }
    const float scale = p->sys_scale;
    const int32_t offset = static_cast<int32_t>(p->sys_offset);
    if (!drv::filter_enable(*p, drv->dev, id, arg, calib_valid(p), k_grey_buf)) return false;
    switch (id) {
        case TEVIX_FILTER_SMOOTH:
            p->en_bpf = p->smooth;
            vxtele_sync(p->tele, true);
            break;
        case TEVIX_FILTER_SYS_CALIB:
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]scale/offset_mm: %.3f/%d -> %.3f/%d\n",
                      static_cast<double>(scale), offset, static_cast<double>(p->sys_scale),
                      static_cast<int32_t>(p->sys_offset));
            break;
        case TEVIX_FILTER_FLYING_PIXEL:
            p->en_fly = 1;
            p->fly_th = p->flypix_level;
            vxtele_sync(p->tele, true);
            break;
        default:
            break;
    }
    return true;
}

bool _imx_filter_disable(tevix_drv_t *drv, uint32_t id) {
    imx_priv *p = priv_of(drv);
    if (!p || !drv::filter_disable(*p, drv->dev, id)) return false;
    switch (id) {
        case TEVIX_FILTER_SMOOTH:
            p->en_bpf = 0;
            vxtele_sync(p->tele, true);
            break;
        case TEVIX_FILTER_AUTO_INTG:
            VX_LOG_AS(VX_LOG_INF, "imx_filter_disable", "[%s]disable AUTO intg\n");
            break;
        case TEVIX_FILTER_FLYING_PIXEL:
            p->en_fly = 0;
            vxtele_sync(p->tele, true);
            break;
        default:
            break;
    }
    return true;
}

}  // namespace

tevix_drv_ops imx_drv_ops = {
    _imx_init,
    _imx_uninit,
    _imx_frame_get_info,
    _imx_frame_decode,
    drv::op_need_data,
    drv::op_frame_raw_proc,
    drv_lens_param_get,
    drv::op_lens_bin_get,
    drv::op_calib_freq_list_get,
    drv::op_reserved9,
    drv::op_on_cap_state,
    drv::op_on_update_fps,
    _imx_on_update_intg_time,
    drv::op_on_update_frame_format,
    _imx_on_update_mod_freq,
    drv::op_on_update_frame_count,
    _imx_on_update_roi,
    tevix::imx::calib_load,
    drv::op_reserved18,
    drv::op_reserved19,
    _imx_filter_enable,
    _imx_filter_disable,
    {nullptr, nullptr},
    k_imx_default_lens,
};
