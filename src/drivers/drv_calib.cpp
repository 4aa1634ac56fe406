// Calibration blocks shared by the drivers: parsing, the fit of station measurements, mounting the
// block of a frequency, and the per-pixel application of a mounted block to decoded phases (the
// block format is in drv_calib.h).
#include "drivers/drv_calib.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "algo/simd.h"
#include "drivers/drv_state.h"
#include "drivers/epc/epc_kernels.h"
#include "log/log.h"
#include "tevix/tevix_param.h"
#include "tevix/vx_fit.h"

namespace tevix::drv {

using tevix::epc::k_dist_invalid;
using tevix::epc::k_phase_turn;
using tevix::epc::range_mm;

namespace {

constexpr uint8_t k_table_phase = 1, k_table_pixels = 2;

template <class T>
T _get(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

#if defined(__x86_64__) || defined(__i386__)
// Eight pixels a step, the table read by a gather; the scalar loop's operations in its order.
VX_TARGET_AVX2 size_t _apply_avx2(const float *table, const int16_t *pix, float pix_scale,
                                  float add, float top, float wrap, int32_t *dist, size_t n) {
    const __m256i turn = _mm256_set1_epi32(int32_t(k_phase_turn)), none = _mm256_set1_epi32(-1);
    const __m256 vadd = _mm256_set1_ps(add), vscale = _mm256_set1_ps(pix_scale);
    const __m256 zero = _mm256_setzero_ps(), vtop = _mm256_set1_ps(top);
    const __m256 half = _mm256_set1_ps(0.5f), vwrap = _mm256_set1_ps(wrap);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256i ph = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(dist + i));
        const __m256i valid =
            _mm256_and_si256(_mm256_cmpgt_epi32(turn, ph), _mm256_cmpgt_epi32(ph, none));
        __m256 d = _mm256_add_ps(_mm256_i32gather_ps(table, _mm256_and_si256(ph, valid), 4), vadd);
        if (pix) {
            const __m128i p16 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(pix + i));
            d = _mm256_add_ps(
                d, _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepi16_epi32(p16)), vscale));
        }
        if (wrap > 0) {
            d = _mm256_add_ps(d, _mm256_and_ps(_mm256_cmp_ps(d, zero, _CMP_LT_OQ), vwrap));
            d = _mm256_sub_ps(d, _mm256_and_ps(_mm256_cmp_ps(d, vwrap, _CMP_GE_OQ), vwrap));
        }
        d = _mm256_min_ps(_mm256_max_ps(d, zero), vtop);
        const __m256i r = _mm256_cvttps_epi32(_mm256_add_ps(d, half));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dist + i),
                            _mm256_blendv_epi8(ph, r, valid));
    }
    return i;
}
#endif

}  // namespace

bool parse_drv_hdr(std::span<const uint8_t> payload, calib_block &b) {
    if (payload.size() < k_drv_hdr) return false;
    const uint8_t *h = payload.data();
    b.freq = _get<uint32_t>(h);
    b.ver = h[4];
    b.ts = _get<uint32_t>(h + 5);
    b.noneed_calc_coeff = h[9];
    b.box_len_mm = _get<uint16_t>(h + 10);
    b.t_cb = _get<int16_t>(h + 12);
    b.t_ib = _get<int16_t>(h + 14);
    b.scale_um = _get<int32_t>(h + 16);
    b.offset_mm = _get<int32_t>(h + 20);
    b.c1 = _get<float>(h + 24);
    b.c2 = _get<float>(h + 28);
    b.width = _get<uint16_t>(h + 32);
    b.height = _get<uint16_t>(h + 34);
    b.tables = h[36];
    return true;
}

bool parse_block(std::span<const uint8_t> payload, calib_block &b, const char **why) {
    const char *dummy;
    if (!why) why = &dummy;
    if (!parse_drv_hdr(payload, b)) return *why = "block shorter than its driver header", false;
    if (!std::isfinite(b.c1) || !std::isfinite(b.c2)) return *why = "bad coefficients", false;
    b.lut.clear();
    b.pixels.clear();
    b.truth_mm.clear();
    b.phases.clear();
    const uint8_t *at = payload.data() + k_drv_hdr;
    if (!b.noneed_calc_coeff) {
        // Measurements: u16 count, count f32 true distances, count images of phases.
        if (b.width == 0 || b.height == 0 || b.width > 4096 || b.height > 4096)
            return *why = "bad table size", false;
        if (payload.size() < k_drv_hdr + 2) return *why = "no measurement count", false;
        uint16_t count;
        std::memcpy(&count, at, 2);
        at += 2;
        const size_t px = size_t{b.width} * b.height;
        if (count < 2 || count > 64) return *why = "measurement count out of range", false;
        if (payload.size() != k_drv_hdr + 2 + size_t{count} * (4 + 2 * px))
            return *why = "payload size does not match its measurements", false;
        b.truth_mm.resize(count);
        std::memcpy(b.truth_mm.data(), at, 4u * count);
        at += 4u * count;
        b.phases.resize(count * px);
        std::memcpy(b.phases.data(), at, b.phases.size() * 2);
        for (float t : b.truth_mm)
            if (!(t > 0 && t < 65500)) return *why = "true distance out of range", false;
        return true;
    }
    if (b.tables & ~(k_table_phase | k_table_pixels)) return *why = "unknown tables", false;
    if (!(b.scale_um > 0 && b.scale_um <= 2000000)) return *why = "scale out of range", false;
    const bool pixels = b.tables & k_table_pixels;
    if (pixels && (b.width == 0 || b.height == 0 || b.width > 4096 || b.height > 4096))
        return *why = "bad table size", false;
    const size_t want = k_drv_hdr + (b.tables & k_table_phase ? k_phase_lut * 2 : 0) +
                        (pixels ? size_t{b.width} * b.height * 2 : 0);
    if (payload.size() != want) return *why = "payload size does not match its tables", false;
    if (b.tables & k_table_phase) {
        b.lut.resize(k_phase_lut);
        std::memcpy(b.lut.data(), at, k_phase_lut * 2);
        at += k_phase_lut * 2;
    }
    if (pixels) {
        b.pixels.resize(size_t{b.width} * b.height);
        std::memcpy(b.pixels.data(), at, b.pixels.size() * 2);
    }
    return true;
}

std::vector<uint8_t> encode_block(const calib_block &b) {
    std::vector<uint8_t> v(k_drv_hdr);
    auto put = [&](size_t at, const auto &x) { std::memcpy(v.data() + at, &x, sizeof x); };
    put(0, b.freq);
    v[4] = b.ver;
    put(5, b.ts);
    v[9] = b.noneed_calc_coeff;
    put(10, b.box_len_mm);
    put(12, b.t_cb);
    put(14, b.t_ib);
    put(16, b.scale_um);
    put(20, b.offset_mm);
    put(24, b.c1);
    put(28, b.c2);
    put(32, b.width);
    put(34, b.height);
    v[36] = b.tables;
    auto append = [&](const void *p, size_t n) {
        if (!n) return;
        const size_t at = v.size();
        v.resize(at + n);
        std::memcpy(v.data() + at, p, n);
    };
    if (!b.noneed_calc_coeff) {
        const auto count = static_cast<uint16_t>(b.truth_mm.size());
        append(&count, 2);
        append(b.truth_mm.data(), b.truth_mm.size() * 4);
        append(b.phases.data(), b.phases.size() * 2);
        return v;
    }
    if (b.tables & k_table_phase) append(b.lut.data(), b.lut.size() * 2);
    if (b.tables & k_table_pixels) append(b.pixels.data(), b.pixels.size() * 2);
    return v;
}

bool calc_coeff(calib_block &b, const char *fn) {
    const uint32_t range = range_mm(b.freq);
    const size_t px = size_t{b.width} * b.height, count = b.truth_mm.size();
    if (!range || px == 0 || count < 2 || b.phases.size() != count * px) return false;
    const double per_phase = double(range) / k_phase_turn;
    // 1. One line for every pixel: true = s * measured + o.
    std::vector<double> xs, ys;
    xs.reserve(count * px);
    ys.reserve(count * px);
    for (size_t k = 0; k < count; ++k)
        for (size_t i = 0; i < px; ++i) {
            const uint16_t ph = b.phases[k * px + i];
            if (ph >= k_phase_turn) continue;
            xs.push_back(ph * per_phase);
            ys.push_back(b.truth_mm[k]);
        }
    double s = 0, o = 0, r = 0;
    if (vx_fit_linear(xs.data(), ys.data(), int32_t(xs.size()), &s, &o, &r) != 0 || !(s > 0.5) ||
        !(s < 2.0)) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]LSR FIT failed: %d samples\n", static_cast<int>(xs.size()));
        return false;
    }
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]LSR FIT (r=%f): o=%f, s=%f\n", r, o, s);
    // 2. Each pixel's own offset: its mean residual; pixels never seen keep the global line.
    b.pixels.assign(px, 0);
    uint32_t bad = 0;
    for (size_t i = 0; i < px; ++i) {
        double sum = 0;
        int n = 0;
        for (size_t k = 0; k < count; ++k) {
            const uint16_t ph = b.phases[k * px + i];
            if (ph >= k_phase_turn) continue;
            sum += b.truth_mm[k] - (s * ph * per_phase + o);
            ++n;
        }
        if (n)
            b.pixels[i] = int16_t(std::clamp(std::lround(sum / n), -32768L, 32767L));
        else
            ++bad;
    }
    if (bad)
        VX_LOG_AS(VX_LOG_INF, fn,
                  "[%s] bad pixel blks: cnt = %u, fixed to use global (s, o) = %f, %f\n", bad, s,
                  o);
    // 3. The cyclic error over one turn: what is left, fitted as a sine of four periods a turn
    // plus an offset (a multiple linear fit on sin, cos and 1).
    std::vector<double> rows, res;
    for (size_t k = 0; k < count; ++k)
        for (size_t i = 0; i < px; ++i) {
            const uint16_t ph = b.phases[k * px + i];
            if (ph >= k_phase_turn) continue;
            const double a = 4.0 * 2.0 * M_PI * ph / k_phase_turn;
            rows.insert(rows.end(), {std::sin(a), std::cos(a), 1.0});
            res.push_back(b.truth_mm[k] - (s * ph * per_phase + o) - b.pixels[i]);
        }
    double c[3] = {0, 0, 0};
    if (vx_fit_mlf(rows.data(), res.data(), int32_t(res.size()), 3, c, 3.0, 3, nullptr, nullptr) !=
        0) {
        c[0] = c[1] = c[2] = 0;  // no cyclic error to speak of
    }
    const double amp = std::hypot(c[0], c[1]), pha = std::atan2(c[1], c[0]);
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]SIN FIT (r=%f): amp=%f, omega=%f, pha=%f, ofs=%f\n", r, amp, 4.0,
              pha, c[2]);
    b.lut.resize(k_phase_lut);
    for (uint32_t idx = 0; idx < k_phase_lut; ++idx) {
        const double a = 4.0 * 2.0 * M_PI * (idx * 4.0 + 2.0) / k_phase_turn;
        b.lut[idx] = int16_t(std::lround(c[0] * std::sin(a) + c[1] * std::cos(a) + c[2]));
    }
    b.scale_um = int32_t(std::lround(s * 1000.0));
    b.offset_mm = int32_t(std::lround(o));
    b.tables = k_table_phase | k_table_pixels;
    b.truth_mm.clear();
    b.phases.clear();
    return true;
}

void list_freq(drv_state &s, uint32_t f) {
    for (uint32_t i = 0; i < s.freq_list_n; ++i)
        if (s.freq_list[i] == f) return;
    if (s.freq_list_n < k_freq_list_max) s.freq_list[s.freq_list_n++] = f;
}

int mount_block(drv_state &s, uint8_t type, uint32_t *freq, calib_slot &slot) {
    const char *fn = s.names->mount;
    VX_LOG_AS(VX_LOG_TRC, fn, "[%s]Mount\n");
    if (!s.local_valid) {
        slot = calib_slot{};
        return -1;
    }
    if (slot.block && slot.block->freq == *freq && *freq != 0) {
        VX_LOG_AS(VX_LOG_TRC, fn, "[%s]Calib data already loaded: freq=%u\n", *freq);
        return 1;
    }
    slot = calib_slot{};
    tevix_param_handle_t h{};
    if (!tevix_param_open_file(&h, s.param_path)) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]open calib bin failed: %s\n", std::strerror(errno));
        return -1;
    }
    const bool first = s.freq_list_n == 0;
    const int32_t count = std::clamp<int32_t>(h.hdr.blk_cnt, 0, TEVIX_PARAM_MAX_BLKS);
    std::unique_ptr<calib_block> found;
    std::vector<uint8_t> payload;
    auto fail = [&](const char *fmt, auto... args) {
        VX_LOG_AS(VX_LOG_ERR, fn, fmt, args...);
        tevix_param_close(&h);
        return -1;
    };
    for (int32_t i = 0; i < count; ++i) {
        if (h.blk[i].type != type)
            return fail("[%s]wrong blk param type: %d for (ver%d)\n", h.blk[i].type, h.hdr.ver);
        calib_block b;
        uint8_t hdr[k_drv_hdr];
        if (h.blk[i].size < k_drv_hdr || std::fseek(h.fp, long(h.offset[i]), SEEK_SET) != 0 ||
            std::fread(hdr, 1, k_drv_hdr, h.fp) != k_drv_hdr)
            return fail("[%s]read par_drv_hdr failed: %s\n",
                        h.blk[i].size < k_drv_hdr ? "short block" : std::strerror(errno));
        parse_drv_hdr(hdr, b);
        if (first) list_freq(s, b.freq);
        if (found || (*freq != 0 && b.freq != *freq)) continue;
        payload.resize(h.blk[i].size);
        if (std::fseek(h.fp, long(h.offset[i]), SEEK_SET) != 0 ||
            std::fread(payload.data(), 1, payload.size(), h.fp) != payload.size())
            return fail("[%s]read drnu.payload failed: %s\n", std::strerror(errno));
        const char *why = nullptr;
        if (!parse_block(payload, b, &why)) return fail("[%s]parse calib file failed: %s\n", why);
        found = std::make_unique<calib_block>(std::move(b));
    }
    tevix_param_close(&h);
    if (!found) return -1;
    const calib_block &b = *found;
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]Calib data: freq=%u, ver=%d, ts=%d, noneed_calc_coeff:%d\n",
              b.freq, b.ver, static_cast<int>(b.ts), b.noneed_calc_coeff);
    if (!b.noneed_calc_coeff && !calc_coeff(*found, s.names->calc_coeff)) return -1;
    if (b.c1 != 0.0f) s.c1 = b.c1;
    if (b.c2 != 0.0f) s.c2 = b.c2;
    if (*freq == 0) *freq = b.freq;
    VX_LOG_AS(VX_LOG_INF, fn,
              "[%s]Calib data loaded [freq=%.1f, %s]: box_len: %.1f cm, temp: cb=%d, ib=%d, "
              "scale_um/offset_mm = %d/%d\n",
              b.freq / 1e6, "DRNU_LUT", b.box_len_mm / 10.0, b.t_cb, b.t_ib, b.scale_um,
              b.offset_mm);
    slot.block = std::move(found);
    return 1;
}

void apply_calibration(drv_state &s, calib_slot &slot, uint32_t range, int32_t *dist, uint32_t w,
                       uint32_t h, bool pixels, float wrap) {
    calib_block &mb = *slot.block;
    const calib_block &b = mb;
    double off = b.offset_mm;
    if (s.temp_comp) {
        // The first product in single precision, the sum in double, as the camera maker does.
        const float board = float((s.tcb - b.t_cb) * s.c1) / 10.0f;
        off -= std::round(double(board) + double((s.tib - b.t_ib) * s.c2) / 10.0);
    }
    if (s.offset_en) off += s.offset_mm;
    const double sys_off = s.sys_calib ? std::trunc(double(s.sys_offset)) : 0.0;
    const double sys_scale =
        (s.sys_calib ? std::trunc(32768.0 * double(s.sys_scale)) : 32768.0) / 32768.0;
    const double factor = b.scale_um / 1000.0 * range / 32768.0;
    if (mb.phase_mm.size() != k_phase_turn || mb.built_factor != factor ||
        mb.built_sys != sys_scale) {
        // Millimetres of every phase, built once per range, scale and system scale rather than
        // per pixel: the per-pixel work is a table load and three additions.
        mb.phase_mm.resize(k_phase_turn);
        for (uint32_t ph = 0; ph < k_phase_turn; ++ph) {
            const double lut = mb.lut.empty() ? 0.0 : mb.lut[(ph >> 2) & (k_phase_lut - 1)];
            mb.phase_mm[ph] = float((ph * factor + lut) * sys_scale);
        }
        mb.built_factor = factor;
        mb.built_sys = sys_scale;
    }
    const int16_t *pix = nullptr;
    if (pixels && !b.pixels.empty()) {
        if (b.width == w && b.height == h) {
            pix = b.pixels.data();
        } else if (!slot.size_warned) {
            VX_LOG_AS(VX_LOG_ERR, "_calc_dist_calib_drnu_lut_4dcs_mbr",
                      "[%s]image size %dx%d not support\n", static_cast<int>(w),
                      static_cast<int>(h));
            slot.size_warned = 1;
        }
    }
    const float *table = mb.phase_mm.data();
    const float add = float(sys_off + off), pix_scale = float(sys_scale);
    const float top = float(k_dist_invalid - 1);
    const size_t n = size_t{w} * h;
    size_t i = 0;
#if defined(__x86_64__) || defined(__i386__)
    if (tevix::simd::active() == tevix::simd::level::avx2)
        i = _apply_avx2(table, pix, pix_scale, add, top, wrap, dist, n);
#endif
    for (; i < n; ++i) {
        const int32_t phase = dist[i];
        if (uint32_t(phase) >= k_phase_turn) continue;  // invalid (65500)
        float d = table[phase] + add;
        if (pix) d += float(pix[i]) * pix_scale;
        if (wrap > 0) {
            d = d < 0.0f ? d + wrap : d;
            d = d >= wrap ? d - wrap : d;
        }
        d = std::min(std::max(d, 0.0f), top);
        dist[i] = static_cast<int32_t>(d + 0.5f);
    }
}

}  // namespace tevix::drv
