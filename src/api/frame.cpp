// Frame data access: decoding getters, point clouds, lens calibration, colour output.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "api/session.h"
#include "drivers/drv.h"
#include "log/log.h"
#include "tevix/vx_pcl.h"

using tevix::api::busy_guard;

namespace {

bool _dev_ok(const tevix_dev_t *dev) {
    return dev && dev->session && dev->session->open && dev->api_mutex;
}

template <class T>
std::unique_ptr<T[]> _alloc(size_t n) {
    return std::unique_ptr<T[]>(new (std::nothrow) T[n ? n : 1]());
}

// Decodes a raw frame of the given kind into 16-bit values; the number of values, 0 on error.
int _decode_u16(tevix_dev_t *dev, uint16_t *dst, uint32_t dst_len, uint32_t kind,
                const uint8_t *raw, uint32_t raw_len, const tevix_frame_info_t *info,
                const char *caller) {
    tevix_session *s = dev->session;
    if (!info) info = &s->last_info;
    uint64_t pixels = static_cast<uint64_t>(info->width) * info->height;
    if (!dst || pixels > dst_len) {
        VX_LOG_AS(VX_LOG_ERR, caller, "[%s]wrong dst_len: %d (wxh=%dx%d)\n",
                  static_cast<int>(dst_len), static_cast<int>(info->width),
                  static_cast<int>(info->height));
        return 0;
    }
    if (!raw || info->size > raw_len) {
        VX_LOG_AS(VX_LOG_ERR, caller, "[%s]raw frame length too small: datalen=%d, frlen=%d\n",
                  static_cast<int>(raw_len), static_cast<int>(info->size));
        return 0;
    }
    tevix_drv_t *drv = s->drv;
    int32_t n = -1;
    if (drv && drv->ops->frame_decode)
        n = drv->ops->frame_decode(drv, reinterpret_cast<uint8_t *>(dst), dst_len * 2, kind, raw,
                                   raw_len, info);
    if (n < 0) {
        VX_LOG_AS(VX_LOG_ERR, caller, "[%s]raw frame decode to %d failed: %d\n",
                  static_cast<int>(kind), static_cast<int>(n));
        return 0;
    }
    tevix::api::record_decoded(s, kind, dst, static_cast<uint32_t>(n / 2));
    return n / 2;
}

int _get_u16(tevix_dev_t *dev, uint16_t *dst, uint32_t dst_len, uint32_t kind, const uint8_t *raw,
             uint32_t raw_len, const tevix_frame_info_t *info, const char *caller) {
    if (!_dev_ok(dev)) {
        VX_LOG_AS(VX_LOG_ERR, caller, "[%s] Device handler Is NULL!\r\n");
        return -1;
    }
    busy_guard busy(dev);
    return _decode_u16(dev, dst, dst_len, kind, raw, raw_len, info, caller);
}

// Float getters decode into the upper half of the caller's buffer and widen forwards in place:
// each float written lies before the 16-bit values still to be read.
int _get_f32(tevix_dev_t *dev, float *dst, uint32_t dst_len, uint32_t kind, const uint8_t *raw,
             uint32_t raw_len, const tevix_frame_info_t *info, float scale, const char *caller) {
    if (!_dev_ok(dev)) {
        VX_LOG_AS(VX_LOG_ERR, caller, "[%s] Device handler Is NULL!\r\n");
        return -1;
    }
    busy_guard busy(dev);
    if (!dst) return _decode_u16(dev, nullptr, dst_len, kind, raw, raw_len, info, caller);
    uint16_t *half = reinterpret_cast<uint16_t *>(dst) + (dst_len / 2) * 2;
    int n = _decode_u16(dev, half, dst_len, kind, raw, raw_len, info, caller);
    for (int i = 0; i < n; ++i) dst[i] = static_cast<float>(half[i]) * scale;
    return n;
}

// Intrinsics for a width x height image: the caller's lens or the driver's.
bool _intrinsics(tevix_dev_t *dev, const tevix_lens_t *lens, uint32_t width, uint32_t height,
                 tevix_lens_param_t *out) {
    if (lens) {
        *out = tevix_lens_param_t{};
        out->cx = lens->cx;
        out->cy = lens->cy;
        out->fx = lens->fx;
        out->fy = lens->fy;
        out->n_dcoef = std::min<uint32_t>(lens->n_dcoef, 16);
        for (int i = 0; i < 16; ++i) out->dcoef[i] = lens->dcoef[i];
        out->width = lens->width ? lens->width : width;
        out->height = lens->height ? lens->height : height;
        return true;
    }
    tevix_drv_t *drv = dev->session->drv;
    return drv && drv->ops->lens_param_get && drv->ops->lens_param_get(drv, out, width, height);
}

int _pcl_ex(tevix_dev_t *dev, float *out, uint32_t out_len, const void *src, bool src_f32,
            const void *fourth, bool one_value, bool d_is_z, uint32_t width, uint32_t height,
            const tevix_lens_t *lens, const char *caller) {
    uint32_t per = one_value ? 1 : fourth ? 4 : 3;
    uint64_t need = static_cast<uint64_t>(width) * height * per;
    if (!out || !src || need > out_len) {
        VX_LOG_AS(VX_LOG_ERR, caller,
                  "[%s]Pcl output buffer too small: only %u floats, needs %u x %u floats\n",
                  out_len, width * height, per);
        return 0;
    }
    tevix_lens_param_t lp{};
    if (!_intrinsics(dev, lens, width, height, &lp)) {
        VX_LOG_AS(VX_LOG_ERR, caller, "[%s]Cannot generate PCL: no lens parameter in driver.\n");
        return 0;
    }
    const float intr[4] = {static_cast<float>(lp.cx), static_cast<float>(lp.cy),
                           static_cast<float>(lp.fx), static_cast<float>(lp.fy)};
    int r = src_f32 ? vx_pcl_get_xyzd_f32(out, static_cast<const float *>(src), nullptr,
                                          static_cast<int32_t>(width), static_cast<int32_t>(height),
                                          intr, fourth, one_value, d_is_z)
                    : vx_pcl_get_xyzd_u16(out, static_cast<const uint16_t *>(src), nullptr,
                                          static_cast<int32_t>(width), static_cast<int32_t>(height),
                                          intr, fourth, one_value, d_is_z);
    return r == 0 ? static_cast<int>(width * height) : 0;
}

struct pix_format {
    uint8_t bytes, r, g, b;
    int8_t other_at;  // position of the remaining byte, -1 for three-byte formats
    uint8_t other;
};
constexpr pix_format k_formats[8] = {
    {3, 0, 1, 2, -1, 0}, {4, 0, 1, 2, 3, 255}, {3, 2, 1, 0, -1, 0},  {4, 2, 0, 1, 3, 255},
    {4, 0, 1, 2, 3, 0},  {4, 2, 0, 1, 3, 0},   {4, 1, 2, 3, 0, 255}, {4, 3, 2, 1, 0, 255},
};

// Runs render on the default colour map with the configured palette for this call.
template <class Render>
int _with_palette(const tevix_cmap_cfg_t *cfg, Render render) {
    vx_cmap_t *cmap = tevix::api::default_cmap();
    uint32_t old = vx_cmap_get_palette(cmap);
    if (cfg) vx_cmap_set_palette(cmap, cfg->palette);
    int r = render(cmap, cfg ? static_cast<int>(cfg->histeq) : 0);
    if (cfg) vx_cmap_set_palette(cmap, old);
    return r;
}

template <class T, class Render>
int _to_rgb(uint8_t *dst, uint32_t dst_len, const T *src, uint32_t src_len, uint32_t fmt,
            const tevix_cmap_cfg_t *cfg, Render render) {
    if (!dst || !src || fmt > 7) return -22;
    const pix_format &pf = k_formats[fmt];
    uint32_t n = std::min(dst_len / pf.bytes, src_len);
    if (pf.bytes == 4) std::memset(dst, pf.other, static_cast<size_t>(dst_len / 4) * 4);
    if (n == 0) return 0;
    _with_palette(cfg, [&](vx_cmap_t *cmap, int histeq) {
        return render(cmap, src, static_cast<int32_t>(n), dst + pf.r, dst + pf.g, dst + pf.b,
                      static_cast<int32_t>(pf.bytes), histeq);
    });
    return static_cast<int>(n);
}

// Integer part of a grey sample. Negative and NaN samples count as 0; samples beyond any
// integer saturate instead of reaching an undefined conversion.
int64_t _whole(uint16_t v) {
    return v;
}
int64_t _whole(float v) {
    if (!(v > 0.0f)) return 0;
    return v < 1e15f ? static_cast<int64_t>(v) : int64_t{1} << 50;
}

template <class T>
int _gray_to_ir(uint8_t *dst, const T *src, uint32_t src_len, int balance) {
    if (!dst || !src || src_len < 1) return 0;
    uint64_t sum = 0, count = 0;
    for (uint32_t i = 0; i < src_len; ++i) {
        int64_t v = _whole(src[i]);
        if (v < 32768) {
            sum += static_cast<uint64_t>(v);
            ++count;
        }
    }
    int64_t mean = count ? static_cast<int64_t>(sum / count) : 0;
    int64_t divisor = 1;
    if (mean > balance - 640) divisor = mean - (balance - 640);
    for (uint32_t i = 0; i < src_len; ++i) {
        int64_t v = _whole(src[i]);
        dst[i] = static_cast<uint8_t>(std::min<int64_t>(v * 128 / divisor, 255));
    }
    return static_cast<int>(src_len);
}

// Lens calibration of one image; bilinear allows blending for grey images (never distances).
int _lens_calib_apply(tevix_dev_t *dev, void *dst, uint32_t dst_len, const void *src,
                      uint32_t src_len, int is_f32, int mode, const tevix_frame_info_t *info,
                      const tevix_lens_t *lens, int bilinear) {
    const char *name = "tevix_lens_calib_apply";
    if (!dev || !dev->session || !dst || !src || !info) {
        VX_LOG_AS(VX_LOG_ERR, name, "[%s]lens_calib_apply argument error\n");
        return 0;
    }
    uint32_t w = info->width, h = info->height;
    uint64_t n = static_cast<uint64_t>(w) * h;
    if (n > std::min(dst_len, src_len)) {
        VX_LOG_AS(VX_LOG_ERR, name,
                  "[%s]lens_calib_apply dst_len or src_len too small: dst_len=%d, src_len=%d\n",
                  static_cast<int>(dst_len), static_cast<int>(src_len));
        return 0;
    }
    tevix_session *s = dev->session;
    bool undistort = s->lens_cfg.en_2d != 0;
    tevix_lens_param_t lp{};
    if ((undistort || mode != 0) && !_intrinsics(dev, lens, w, h, &lp)) {
        VX_LOG_AS(VX_LOG_ERR, name, "[%s]Cannot generate PCL: no lens parameter in driver.\n");
        return 0;
    }
    auto remap = [&](void *buf) {
        if (!undistort) return true;
        vx_lens_t vl{lp.cx, lp.cy, lp.fx, lp.fy, lp.dcoef, lp.n_dcoef, lp.width, lp.height};
        if (!vx_calib_len_update_map(&s->undist, &vl, w, h)) return false;
        return is_f32 ? vx_calib_len_undistort_f32(&s->undist, static_cast<float *>(buf),
                                                   static_cast<float *>(buf), w, h, bilinear)
                      : vx_calib_len_undistort_u16(&s->undist, static_cast<uint16_t *>(buf),
                                                   static_cast<uint16_t *>(buf), w, h);
    };
    size_t bytes = static_cast<size_t>(n) * (is_f32 ? 4 : 2);
    if (mode == 0) {
        if (dst != src) std::memmove(dst, src, bytes);
        return remap(dst) ? 1 : 0;
    }
    // Distances through the lens model, one value per pixel, into a float image first (the
    // source may be the destination).
    const float intr[4] = {static_cast<float>(lp.cx), static_cast<float>(lp.cy),
                           static_cast<float>(lp.fx), static_cast<float>(lp.fy)};
    int d_is_z = mode == 2;
    auto tmp = _alloc<float>(static_cast<size_t>(n));
    if (!tmp) return 0;
    int32_t wi = static_cast<int32_t>(w), hi = static_cast<int32_t>(h);
    if (is_f32) {
        vx_pcl_get_xyzd_f32(tmp.get(), static_cast<const float *>(src), nullptr, wi, hi, intr,
                            nullptr, 1, d_is_z);
        std::memcpy(dst, tmp.get(), bytes);
    } else {
        vx_pcl_get_xyzd_u16(tmp.get(), static_cast<const uint16_t *>(src), nullptr, wi, hi, intr,
                            nullptr, 1, d_is_z);
        vx_conv_f32_u16(static_cast<uint16_t *>(dst), tmp.get(), static_cast<int32_t>(n), 1000.0f);
    }
    return remap(dst) ? 1 : 0;
}

}  // namespace

extern "C" {

int tevix_frame_get_dist_raw(tevix_dev_t *dev, uint16_t *dst, uint32_t dst_len, const uint8_t *raw,
                             uint32_t raw_len, const tevix_frame_info_t *info) noexcept {
    return _get_u16(dev, dst, dst_len, TEVIX_DECODE_DIST_RAW, raw, raw_len, info, __func__);
}

int tevix_frame_get_dist_u16(tevix_dev_t *dev, uint16_t *dst, uint32_t dst_len, const uint8_t *raw,
                             uint32_t raw_len, const tevix_frame_info_t *info) noexcept {
    return _get_u16(dev, dst, dst_len, TEVIX_DECODE_DIST, raw, raw_len, info, __func__);
}

int tevix_frame_get_dist_f32(tevix_dev_t *dev, float *dst, uint32_t dst_len, const uint8_t *raw,
                             uint32_t raw_len, const tevix_frame_info_t *info) noexcept {
    return _get_f32(dev, dst, dst_len, TEVIX_DECODE_DIST, raw, raw_len, info, 0.001f,
                    "tevix_frame_get_dist_f32");
}

int tevix_frame_get_distance(tevix_dev_t *dev, float *dst, uint32_t dst_len, const uint8_t *raw,
                             uint32_t raw_len, const tevix_frame_info_t *info) noexcept {
    return tevix_frame_get_dist_f32(dev, dst, dst_len, raw, raw_len, info);
}

int tevix_frame_get_gray_u16(tevix_dev_t *dev, uint16_t *dst, uint32_t dst_len, const uint8_t *raw,
                             uint32_t raw_len, const tevix_frame_info_t *info) noexcept {
    return _get_u16(dev, dst, dst_len, TEVIX_DECODE_GRAY, raw, raw_len, info, __func__);
}

int tevix_frame_get_gray_f32(tevix_dev_t *dev, float *dst, uint32_t dst_len, const uint8_t *raw,
                             uint32_t raw_len, const tevix_frame_info_t *info) noexcept {
    return _get_f32(dev, dst, dst_len, TEVIX_DECODE_GRAY, raw, raw_len, info, 1.0f,
                    "tevix_frame_get_gray_f32");
}

int tevix_frame_get_gray(tevix_dev_t *dev, float *dst, uint32_t dst_len, const uint8_t *raw,
                         uint32_t raw_len, const tevix_frame_info_t *info) noexcept {
    return tevix_frame_get_gray_f32(dev, dst, dst_len, raw, raw_len, info);
}

int tevix_frame_get_pcl(tevix_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                        uint32_t dist_len, uint32_t width, uint32_t height,
                        const tevix_lens_t *lens) noexcept {
    if (!_dev_ok(dev) || static_cast<uint64_t>(width) * height > dist_len) return 0;
    busy_guard busy(dev);
    return _pcl_ex(dev, pcl, pcl_len, dist, true, nullptr, false, dev->session->lens_cfg.d_is_z,
                   width, height, lens, __func__);
}

int tevix_frame_get_pcl_xyzd(tevix_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                             uint32_t dist_len, uint32_t width, uint32_t height, int colour,
                             float min, float max, const tevix_lens_t *lens) noexcept {
    if (!_dev_ok(dev) || !dist || static_cast<uint64_t>(width) * height > dist_len) return 0;
    busy_guard busy(dev);
    size_t n = static_cast<size_t>(width) * height;
    std::unique_ptr<float[]> fourth;
    const void *fourth_src = dist;
    if (colour) {
        auto words = _alloc<uint32_t>(n);
        fourth = _alloc<float>(n);
        if (!words || !fourth) {
            VX_ERR("[%s]malloc failed\n");
            return 0;
        }
        tevix_cmap_dist_f32_to_RGB(reinterpret_cast<uint8_t *>(words.get()),
                                   static_cast<uint32_t>(n * 4), dist, static_cast<uint32_t>(n),
                                   TEVIX_PIX_RGB0, min, max, nullptr);
        for (size_t i = 0; i < n; ++i) fourth[i] = static_cast<float>(words[i]);
        fourth_src = fourth.get();
    }
    return _pcl_ex(dev, pcl, pcl_len, dist, true, fourth_src, false, dev->session->lens_cfg.d_is_z,
                   width, height, lens, __func__);
}

int tevix_frame_get_pcl_xyzi(tevix_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                             uint32_t dist_len, const float *gray, uint32_t gray_len,
                             uint32_t width, uint32_t height, int ir_balance,
                             const tevix_lens_t *lens) noexcept {
    if (!_dev_ok(dev) || !dist || static_cast<uint64_t>(width) * height > dist_len) return 0;
    if (ir_balance < -1024 || ir_balance > 1024) {
        VX_ERR("[%s] wrong ir_balance value: %d\n", ir_balance);
        return 0;
    }
    busy_guard busy(dev);
    size_t n = static_cast<size_t>(width) * height;
    auto words = _alloc<uint32_t>(n);
    auto fourth = _alloc<float>(n);
    if (!words || !fourth) {
        VX_ERR("[%s]malloc failed\n");
        return 0;
    }
    if (gray) {
        // Grey values coloured through the grey palette over 0 .. 1664 - balance: a higher
        // balance gives a brighter picture.
        tevix_cmap_cfg_t grey{35, 0};
        auto *bytes = reinterpret_cast<uint8_t *>(words.get());
        int32_t count = static_cast<int32_t>(std::min<size_t>(n, gray_len));
        _with_palette(&grey, [&](vx_cmap_t *cmap, int) {
            return vx_cmap_f32_to_rgb(cmap, gray, count, bytes, bytes + 1, bytes + 2, 4, 0.0f,
                                      static_cast<float>(1664 - ir_balance), 0);
        });
    }
    for (size_t i = 0; i < n; ++i) fourth[i] = static_cast<float>(words[i]);
    return _pcl_ex(dev, pcl, pcl_len, dist, true, fourth.get(), false,
                   dev->session->lens_cfg.d_is_z, width, height, lens, __func__);
}

int tevix_lens_calib_config_set(tevix_dev_t *dev, const tevix_lens_calib_cfg_t *cfg) noexcept {
    if (!dev || !dev->session || !cfg) return 0;
    dev->session->lens_cfg = *cfg;
    VX_DBG("[%s]lens calib cfg: 2d_en=%d, 3d_en=%d, d_is_z=%d\n", cfg->en_2d, cfg->en_3d,
           cfg->d_is_z);
    return 1;
}

tevix_lens_calib_cfg_t *tevix_lens_calib_config_get(tevix_dev_t *dev) noexcept {
    return dev && dev->session ? &dev->session->lens_cfg : nullptr;
}

int tevix_lens_calib_apply(tevix_dev_t *dev, void *dst, uint32_t dst_len, const void *src,
                           uint32_t src_len, int is_f32, int mode, const tevix_frame_info_t *info,
                           const tevix_lens_t *lens) noexcept {
    return _lens_calib_apply(dev, dst, dst_len, src, src_len, is_f32, mode, info, lens, 0);
}

int tevix_lens_calib_apply_dist_f32(tevix_dev_t *dev, float *dst, uint32_t dst_len,
                                    const float *src, uint32_t src_len, int mode,
                                    const tevix_frame_info_t *info,
                                    const tevix_lens_t *lens) noexcept {
    return tevix_lens_calib_apply(dev, dst, dst_len, src, src_len, 1, mode, info, lens);
}

int tevix_lens_calib_apply_dist_u16(tevix_dev_t *dev, uint16_t *dst, uint32_t dst_len,
                                    const uint16_t *src, uint32_t src_len, int mode,
                                    const tevix_frame_info_t *info,
                                    const tevix_lens_t *lens) noexcept {
    return tevix_lens_calib_apply(dev, dst, dst_len, src, src_len, 0, mode, info, lens);
}

int tevix_lens_calib_apply_gray_f32(tevix_dev_t *dev, float *dst, uint32_t dst_len,
                                    const float *src, uint32_t src_len,
                                    const tevix_frame_info_t *info,
                                    const tevix_lens_t *lens) noexcept {
    return _lens_calib_apply(dev, dst, dst_len, src, src_len, 1, 0, info, lens, 1);
}

int tevix_lens_calib_apply_gray_u16(tevix_dev_t *dev, uint16_t *dst, uint32_t dst_len,
                                    const uint16_t *src, uint32_t src_len,
                                    const tevix_frame_info_t *info,
                                    const tevix_lens_t *lens) noexcept {
    return tevix_lens_calib_apply(dev, dst, dst_len, src, src_len, 0, 0, info, lens);
}

int tevix_lens_param_get(tevix_dev_t *dev, tevix_lens_t *lens) noexcept {
    if (!_dev_ok(dev) || !lens) return 0;
    tevix_session *s = dev->session;
    uint32_t w = s->last_info.width ? s->last_info.width : s->max_width;
    uint32_t h = s->last_info.height ? s->last_info.height : s->max_height;
    tevix_lens_param_t lp{};
    if (!_intrinsics(dev, nullptr, w, h, &lp)) return 0;
    lens->cx = static_cast<float>(lp.cx);
    lens->cy = static_cast<float>(lp.cy);
    lens->fx = static_cast<float>(lp.fx);
    lens->fy = static_cast<float>(lp.fy);
    for (int i = 0; i < 16; ++i) lens->dcoef[i] = static_cast<float>(lp.dcoef[i]);
    lens->n_dcoef = lp.n_dcoef;
    lens->width = lp.width;
    lens->height = lp.height;
    return 1;
}

int tevix_lens_param_set(tevix_dev_t *dev, const tevix_lens_t *lens) noexcept {
    if (!lens) return 0;
    static_assert(sizeof(tevix_lens_t) >= 48, "three 16-byte pieces");
    const auto *bytes = reinterpret_cast<const uint8_t *>(lens);
    tevix_param_item_t items[3] = {};
    const uint32_t ids[3] = {TEVIX_PARAM_LENS0, TEVIX_PARAM_LENS1, TEVIX_PARAM_LENS2};
    for (int i = 0; i < 3; ++i) {
        items[i].id = ids[i];
        items[i].len = 16;
        std::memcpy(items[i].value.u8, bytes + 16 * i, 16);
    }
    return tevix_param_batch_set(dev, items, 3) ? 1 : 0;
}

int tevix_cmap_palette_set(uint32_t palette) noexcept {
    return vx_cmap_set_palette(tevix::api::default_cmap(), palette) ? 1 : 0;
}

uint32_t tevix_cmap_palette_get(void) noexcept {
    return vx_cmap_get_palette(tevix::api::default_cmap());
}

int tevix_cmap_dist_u16_to_RGB(uint8_t *dst, uint32_t dst_len, const uint16_t *src,
                               uint32_t src_len, uint32_t fmt, uint16_t min, uint16_t max,
                               const tevix_cmap_cfg_t *cfg) noexcept {
    return _to_rgb(dst, dst_len, src, src_len, fmt, cfg,
                   [&](vx_cmap_t *c, const uint16_t *p, int32_t n, uint8_t *r, uint8_t *g,
                       uint8_t *b, int32_t stride, int histeq) {
                       return vx_cmap_u16_to_rgb(c, p, n, r, g, b, stride, min, max, histeq);
                   });
}

int tevix_cmap_dist_f32_to_RGB(uint8_t *dst, uint32_t dst_len, const float *src, uint32_t src_len,
                               uint32_t fmt, float min, float max,
                               const tevix_cmap_cfg_t *cfg) noexcept {
    return _to_rgb(dst, dst_len, src, src_len, fmt, cfg,
                   [&](vx_cmap_t *c, const float *p, int32_t n, uint8_t *r, uint8_t *g, uint8_t *b,
                       int32_t stride, int histeq) {
                       return vx_cmap_f32_to_rgb(c, p, n, r, g, b, stride, min, max, histeq);
                   });
}

int tevix_cmap_gray_u16_to_IR(uint8_t *dst, uint32_t, const uint16_t *src, uint32_t src_len,
                              int balance) noexcept {
    return _gray_to_ir(dst, src, src_len, balance);
}

int tevix_cmap_gray_f32_to_IR(uint8_t *dst, uint32_t, const float *src, uint32_t src_len,
                              int balance) noexcept {
    return _gray_to_ir(dst, src, src_len, balance);
}

}  // extern "C"
