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
// Eight pixels a step, the phase table read by a gather; the scalar loop's operations in its
// order (no fused multiply-add, which the scalar loop does not have either).
VX_TARGET_AVX2 size_t _apply_avx2(const float *lut, float per_phase, const int16_t *pix,
                                  float pix_scale, float add, float top, float wrap, int32_t *dist,
                                  size_t n) {
    const __m256i turn = _mm256_set1_epi32(int32_t(k_phase_turn)), none = _mm256_set1_epi32(-1);
    const __m256 vadd = _mm256_set1_ps(add), vscale = _mm256_set1_ps(pix_scale);
    const __m256 vper = _mm256_set1_ps(per_phase);
    const __m256 zero = _mm256_setzero_ps(), vtop = _mm256_set1_ps(top);
    const __m256 half = _mm256_set1_ps(0.5f), vwrap = _mm256_set1_ps(wrap);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256i ph = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(dist + i));
        const __m256i valid =
            _mm256_and_si256(_mm256_cmpgt_epi32(turn, ph), _mm256_cmpgt_epi32(ph, none));
        const __m256i idx = _mm256_srli_epi32(_mm256_and_si256(ph, valid), 2);
        __m256 d = _mm256_mul_ps(_mm256_cvtepi32_ps(ph), vper);
        d = _mm256_add_ps(d, _mm256_i32gather_ps(lut, idx, 4));
        d = _mm256_add_ps(d, vadd);
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

namespace {

// Reads n values of T at *at, advancing it; false when fewer than n remain before end.
template <class T>
bool _take(const uint8_t *&at, const uint8_t *end, size_t n, std::vector<T> &out) {
    if (size_t(end - at) / sizeof(T) < n) return false;
    out.resize(n);
    if (n) std::memcpy(out.data(), at, n * sizeof(T));
    at += n * sizeof(T);
    return true;
}

void _clear_measurements(calib_block &b) {
    b.truth_mm.clear();
    b.meas_cb.clear();
    b.meas_ib.clear();
    b.ratio.clear();
    b.phases.clear();
    b.ns.clear();
    b.nf.clear();
    b.nc.clear();
    b.lists = false;
}

const char *_parse_measurements(const uint8_t *at, const uint8_t *end, calib_block &b) {
    if (b.width == 0 || b.height == 0 || b.width > 4096 || b.height > 4096) return "bad table size";
    std::vector<uint16_t> count;
    if (!_take(at, end, 1, count)) return "no measurement count";
    const size_t n = count[0], px = size_t{b.width} * b.height;
    if (n < 2 || n > 64) return "measurement count out of range";
    std::vector<uint8_t> geometry;
    if (!_take(at, end, n, b.truth_mm) || !_take(at, end, n, b.meas_cb) ||
        !_take(at, end, n, b.meas_ib) || !_take(at, end, 1, geometry))
        return "payload size does not match its measurements";
    if (geometry[0] > 1) return "unknown geometry";
    if (geometry[0] == 1 && !_take(at, end, px, b.ratio))
        return "payload size does not match its measurements";
    if (!_take(at, end, n * px, b.phases)) return "payload size does not match its measurements";
    for (float t : b.truth_mm)
        if (!(t > 0 && t < 65500)) return "true distance out of range";
    for (uint16_t r : b.ratio)
        if (r < 16384) return "pixel ratio out of range";
    if (at == end) return nullptr;
    for (std::vector<uint8_t> *list : {&b.ns, &b.nf, &b.nc}) {
        std::vector<uint8_t> len;
        if (!_take(at, end, 1, len) || !_take(at, end, len[0], *list))
            return "payload size does not match its measurements";
        for (uint8_t k : *list)
            if (k >= n) return "measurement index out of range";
    }
    if (at != end) return "payload size does not match its measurements";
    if (b.nf.empty() || b.nc.empty()) return "empty measurement list";
    b.lists = true;
    return nullptr;
}

template <class T>
void _put(std::vector<uint8_t> &v, const T &x) {
    const auto *p = reinterpret_cast<const uint8_t *>(&x);
    v.insert(v.end(), p, p + sizeof x);
}

template <class T>
void _put_all(std::vector<uint8_t> &v, const std::vector<T> &xs) {
    const auto *p = reinterpret_cast<const uint8_t *>(xs.data());
    v.insert(v.end(), p, p + xs.size() * sizeof(T));
}

}  // namespace

bool parse_block(std::span<const uint8_t> payload, calib_block &b, const char **why) {
    const char *dummy;
    if (!why) why = &dummy;
    if (!parse_drv_hdr(payload, b)) return *why = "block shorter than its driver header", false;
    if (!std::isfinite(b.c1) || !std::isfinite(b.c2)) return *why = "bad coefficients", false;
    b.lut.clear();
    b.pixels.clear();
    _clear_measurements(b);
    const uint8_t *at = payload.data() + k_drv_hdr;
    if (!b.noneed_calc_coeff) {
        *why = _parse_measurements(at, payload.data() + payload.size(), b);
        return *why == nullptr;
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

std::vector<uint8_t> block_payload(const calib_block &b) {
    std::vector<uint8_t> v;
    _put(v, b.freq);
    _put(v, b.ver);
    _put(v, b.ts);
    _put(v, b.noneed_calc_coeff);
    _put(v, b.box_len_mm);
    _put(v, b.t_cb);
    _put(v, b.t_ib);
    _put(v, b.scale_um);
    _put(v, b.offset_mm);
    _put(v, b.c1);
    _put(v, b.c2);
    _put(v, b.width);
    _put(v, b.height);
    if (b.noneed_calc_coeff) {
        _put(v, uint8_t((b.lut.empty() ? 0 : k_table_phase) |
                        (b.pixels.empty() ? 0 : k_table_pixels)));
        _put_all(v, b.lut);
        _put_all(v, b.pixels);
        return v;
    }
    _put(v, uint8_t(0));
    _put(v, uint16_t(b.truth_mm.size()));
    _put_all(v, b.truth_mm);
    _put_all(v, b.meas_cb);
    _put_all(v, b.meas_ib);
    _put(v, uint8_t(b.ratio.empty() ? 0 : 1));
    _put_all(v, b.ratio);
    _put_all(v, b.phases);
    if (b.lists)
        for (const std::vector<uint8_t> *list : {&b.ns, &b.nf, &b.nc}) {
            _put(v, uint8_t(list->size()));
            _put_all(v, *list);
        }
    return v;
}

namespace {

// Samples a global fit takes at most: a few unknowns need no million rows.
constexpr size_t k_fit_samples = 60000;
constexpr int k_fit_rounds = 4;

// A measurement block laid out for the fits, and the model fitted so far.
struct fit_data {
    explicit fit_data(const calib_block &blk) : b(blk) {}
    const calib_block &b;
    size_t px = 0;
    double per_phase = 0;          // millimetres of a phase unit
    std::vector<double> dcb, dib;  // per measurement: C since the calibration temperatures
    std::vector<uint8_t> ns, nf, nc;
    double s = 1, o = 0, c1 = 0, c2 = 0;
    std::vector<double> pix;
    double cyc[3] = {0, 0, 0};  // sin, cos and offset of the cyclic error at 4 x the angle
    std::vector<float> cyc_mm;  // the cyclic error of every phase

    double true_mm(size_t k, size_t i) const {
        return b.ratio.empty() ? b.truth_mm[k] : b.truth_mm[k] * (b.ratio[i] / 16384.0);
    }
    uint32_t phase(size_t k, size_t i) const { return b.phases[k * px + i]; }
    static double angle(double ph) { return 4.0 * 2.0 * M_PI * ph / k_phase_turn; }
    // What is left of a sample once the line (with the drift), the pixel's offset and the cyclic
    // error are taken off (each when asked).
    double residual(size_t k, size_t i, bool line, bool pixel, bool cyclic) const {
        const uint32_t ph = phase(k, i);
        double r = true_mm(k, i);
        if (line) r -= s * ph * per_phase + o - c1 * dcb[k] - c2 * dib[k];
        if (pixel) r -= pix[i];
        if (cyclic) r -= cyc_mm[ph];
        return r;
    }
    // Visits at most k_fit_samples valid samples of the listed measurements, spread over pixels.
    template <class F>
    void sample(const std::vector<uint8_t> &list, F &&f) const {
        const size_t step = std::max<size_t>(1, list.size() * px / k_fit_samples);
        for (size_t j = 0; j < list.size(); ++j)
            for (size_t i = j % step; i < px; i += step)
                if (phase(list[j], i) < k_phase_turn) f(size_t{list[j]}, i);
    }
    void cyclic_table() {
        cyc_mm.resize(k_phase_turn);
        for (uint32_t ph = 0; ph < k_phase_turn; ++ph) {
            const double a = angle(ph);
            cyc_mm[ph] = float(cyc[0] * std::sin(a) + cyc[1] * std::cos(a) + cyc[2]);
        }
    }
};

// Pearson correlation of two series (0 when either is constant).
double _corr(const std::vector<double> &a, const std::vector<double> &b) {
    double r = 0, s = 0, o = 0;
    vx_fit_linear(a.data(), b.data(), int32_t(std::min(a.size(), b.size())), &s, &o, &r);
    return r;
}

// The line, and with temperatures that vary the temperature coefficients with it; false when the
// samples decide no line. r: the correlation of the fitted values with the samples.
bool _fit_line(fit_data &d, bool temps, double *r) {
    std::vector<double> rows, y;
    d.sample(d.nf, [&](size_t k, size_t i) {
        rows.insert(rows.end(), {d.phase(k, i) * d.per_phase, 1.0, -d.dcb[k], -d.dib[k]});
        y.push_back(d.residual(k, i, false, true, true));
    });
    const int32_t n = int32_t(y.size());
    auto col = [&](size_t j, size_t c) { return rows[j * 4 + c]; };
    bool done = false;
    if (temps) {
        // Board and sensor coefficients. When the two temperatures move together they cannot be
        // told apart: the sensor's coefficient stays as given and the board's takes the rest (or
        // the other way round when only the sensor's temperature moves).
        double c[4];
        if (vx_fit_mlf(rows.data(), y.data(), n, 4, c, 0.0, 0, nullptr, nullptr) == 0) {
            d.s = c[0], d.o = c[1], d.c1 = c[2], d.c2 = c[3];
            done = true;
        }
        for (size_t t : {size_t{2}, size_t{3}}) {
            if (done) break;
            const double kept = t == 2 ? d.c2 : d.c1;
            std::vector<double> r3, y3(y.size());
            for (size_t j = 0; j < y.size(); ++j) {
                r3.insert(r3.end(), {col(j, 0), 1.0, col(j, t)});
                y3[j] = y[j] - kept * col(j, 5 - t);
            }
            if (vx_fit_mlf(r3.data(), y3.data(), n, 3, c, 0.0, 0, nullptr, nullptr) != 0) continue;
            d.s = c[0], d.o = c[1];
            (t == 2 ? d.c1 : d.c2) = c[2];
            done = true;
        }
    }
    if (!done) {
        // Temperatures held (or not told apart): the drift is what the coefficients say.
        std::vector<double> m(y.size()), yd(y.size());
        for (size_t j = 0; j < y.size(); ++j) {
            m[j] = col(j, 0);
            yd[j] = y[j] - d.c1 * col(j, 2) - d.c2 * col(j, 3);
        }
        if (vx_fit_linear(m.data(), yd.data(), n, &d.s, &d.o, nullptr) != 0) return false;
    }
    std::vector<double> fitted(y.size());
    for (size_t j = 0; j < y.size(); ++j)
        fitted[j] = d.s * col(j, 0) + d.o + d.c1 * col(j, 2) + d.c2 * col(j, 3);
    *r = _corr(fitted, y);
    return std::isfinite(d.s) && d.s > 0.5 && d.s < 2.0 && std::isfinite(d.c1) &&
           std::isfinite(d.c2) && std::fabs(d.c1) < 1000 && std::fabs(d.c2) < 1000;
}

// Each pixel's mean residual over the measurements of Nc (centred: their mean goes to the line's
// offset); the number of pixels never valid.
uint32_t _fit_pixels(fit_data &d, bool center) {
    std::vector<double> sum(d.px, 0.0);
    std::vector<uint32_t> n(d.px, 0);
    for (uint8_t k : d.nc)
        for (size_t i = 0; i < d.px; ++i) {
            if (d.phase(k, i) >= k_phase_turn) continue;
            sum[i] += d.residual(k, i, true, false, true);
            ++n[i];
        }
    uint32_t bad = 0;
    double mean = 0;
    for (size_t i = 0; i < d.px; ++i) {
        d.pix[i] = n[i] ? sum[i] / n[i] : 0.0;
        mean += d.pix[i];
        bad += n[i] == 0;
    }
    // Offsets about their mean, which belongs to the line.
    if (bad < d.px) mean /= double(d.px - bad);
    if (!center) return bad;
    d.o += mean;
    for (size_t i = 0; i < d.px; ++i)
        if (n[i]) d.pix[i] -= mean;
    return bad;
}

// The cyclic error over Ns: a sine of four periods a turn and an offset; r as for the line.
void _fit_cyclic(fit_data &d, double *r) {
    std::vector<double> rows, y;
    d.sample(d.ns, [&](size_t k, size_t i) {
        const double a = fit_data::angle(d.phase(k, i));
        rows.insert(rows.end(), {std::sin(a), std::cos(a), 1.0});
        y.push_back(d.residual(k, i, true, true, false));
    });
    if (vx_fit_mlf(rows.data(), y.data(), int32_t(y.size()), 3, d.cyc, 3.0, 3, nullptr, nullptr) !=
        0)
        d.cyc[0] = d.cyc[1] = d.cyc[2] = 0;  // no cyclic error to speak of
    d.cyclic_table();
    std::vector<double> fitted(y.size());
    for (size_t j = 0; j < y.size(); ++j)
        fitted[j] = d.cyc[0] * rows[j * 3] + d.cyc[1] * rows[j * 3 + 1] + d.cyc[2];
    *r = _corr(fitted, y);
}

std::vector<uint8_t> _all(size_t count) {
    std::vector<uint8_t> v(count);
    for (size_t k = 0; k < count; ++k) v[k] = uint8_t(k);
    return v;
}

int16_t _mm16(double v) {
    return int16_t(std::clamp<long>(std::lround(v), -32768, 32767));
}

}  // namespace

bool calc_coeff(calib_block &b, const char *fn) {
    const uint32_t range = range_mm(b.freq);
    const size_t px = size_t{b.width} * b.height, count = b.truth_mm.size();
    if (!range || px == 0 || count < 2 || b.phases.size() != count * px ||
        b.meas_cb.size() != count || b.meas_ib.size() != count ||
        !(b.ratio.empty() || b.ratio.size() == px))
        return false;
    fit_data d(b);
    d.px = px;
    d.per_phase = double(range) / k_phase_turn;
    d.c1 = b.c1;
    d.c2 = b.c2;
    d.pix.assign(px, 0.0);
    d.cyclic_table();
    if (b.lists) {
        d.ns = b.ns, d.nf = b.nf, d.nc = b.nc;
    } else {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]No Ns/Nf/Nc in calib data: use default Nc=arange(%d)\n",
                  static_cast<int>(count));
        d.ns = d.nf = d.nc = _all(count);
    }
    for (size_t k = 0; k < count; ++k) {
        d.dcb.push_back((b.meas_cb[k] - b.t_cb) / 10.0);
        d.dib.push_back((b.meas_ib[k] - b.t_ib) / 10.0);
    }
    bool temps = false;
    for (uint8_t k : d.nf)
        temps = temps || b.meas_cb[k] != b.meas_cb[d.nf[0]] || b.meas_ib[k] != b.meas_ib[d.nf[0]];
    double r_line = 0, r_sin = 0, r_mlf = 0;
    if (!_fit_line(d, false, &r_line)) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]LSR FIT failed: %d measurements of %dx%d\n",
                  static_cast<int>(count), b.width, b.height);
        return false;
    }
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]LSR FIT (r=%f): o=%f, s=%f\n", r_line, d.o, d.s);
    // Alternating rounds: each part fitted to what the others leave.
    for (int round = 0; round < k_fit_rounds; ++round) {
        _fit_pixels(d, true);
        _fit_cyclic(d, &r_sin);
        if (!_fit_line(d, temps, &r_mlf)) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]MLF FIT failed\n");
            return false;
        }
    }
    if (temps)
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]MLF FIT (r=%f): %f, %f, %f, %f\n", r_mlf, d.s, d.o, d.c1,
                  d.c2);
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]SIN FIT (r=%f): amp=%f, omega=%f, pha=%f, ofs=%f\n", r_sin,
              std::hypot(d.cyc[0], d.cyc[1]), 4.0, std::atan2(d.cyc[1], d.cyc[0]), d.cyc[2]);
    // Stored as the decode takes them: scale in micrometres per millimetre, offset and tables in
    // whole millimetres; the pixels' offsets are fitted once more against those.
    b.scale_um = int32_t(std::lround(d.s * 1000.0));
    b.offset_mm = int32_t(std::lround(d.o));
    b.c1 = float(d.c1);
    b.c2 = float(d.c2);
    b.lut.resize(k_phase_lut);
    for (uint32_t idx = 0; idx < k_phase_lut; ++idx) {
        const double a = fit_data::angle(idx * 4.0 + 2.0);
        b.lut[idx] = _mm16(d.cyc[0] * std::sin(a) + d.cyc[1] * std::cos(a) + d.cyc[2]);
    }
    d.s = b.scale_um / 1000.0;
    d.o = b.offset_mm;
    d.c1 = b.c1;
    d.c2 = b.c2;
    for (uint32_t ph = 0; ph < k_phase_turn; ++ph)
        d.cyc_mm[ph] = b.lut[(ph >> 2) & (k_phase_lut - 1)];
    const uint32_t bad = _fit_pixels(d, false);
    if (bad)
        VX_LOG_AS(VX_LOG_INF, fn,
                  "[%s] bad pixel blks: cnt = %u, fixed to use global (s, o) = %f, %f\n", bad, d.s,
                  d.o);
    b.pixels.resize(px);
    for (size_t i = 0; i < px; ++i) b.pixels[i] = _mm16(d.pix[i]);
    b.tables = k_table_phase | k_table_pixels;
    b.noneed_calc_coeff = 1;
    _clear_measurements(b);
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
    if (mb.lut_mm.size() != k_phase_lut || mb.built_factor != factor || mb.built_sys != sys_scale) {
        // The phase table in millimetres with the system scale folded in, built once per scale
        // and system scale (8192 floats stay in the first-level cache): the per-pixel work is a
        // multiplication, a table load and three additions.
        mb.lut_mm.resize(k_phase_lut);
        for (uint32_t idx = 0; idx < k_phase_lut; ++idx)
            mb.lut_mm[idx] = float((mb.lut.empty() ? 0.0 : mb.lut[idx]) * sys_scale);
        mb.per_phase = float(factor * sys_scale);
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
    const float *lut = mb.lut_mm.data();
    const float per_phase = mb.per_phase;
    const float add = float(sys_off + off), pix_scale = float(sys_scale);
    const float top = float(k_dist_invalid - 1);
    const size_t n = size_t{w} * h;
    size_t i = 0;
#if defined(__x86_64__) || defined(__i386__)
    if (tevix::simd::active() == tevix::simd::level::avx2)
        i = _apply_avx2(lut, per_phase, pix, pix_scale, add, top, wrap, dist, n);
#endif
    for (; i < n; ++i) {
        const int32_t phase = dist[i];
        if (uint32_t(phase) >= k_phase_turn) continue;  // invalid (65500)
        float d = float(phase) * per_phase;
        d = d + lut[uint32_t(phase) >> 2];
        d = d + add;
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
