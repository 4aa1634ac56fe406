// Recursive Gaussian after Young and van Vliet (third order, one forward and one backward sweep
// per axis) applied as normalised convolution: the same filter smooths the image with invalid
// pixels set to 0 and the validity mask, and their ratio is the result. Sums are kept in double
// for wide kernels, whose poles approach 1; narrow ones (up to 16 pixels) run in float, twice the
// lanes, well inside a millimetre. The sweeps start from zero state, which the normalisation
// turns into a correct weighting at the borders.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <new>
#include <type_traits>
#include <vector>

#include "algo/simd.h"
#include "algo/vec.h"
#include "tevix/vx_filter.h"

namespace {

using tevix::algo::f32x4;
using tevix::algo::f32x8;
using tevix::algo::f64x2;
using tevix::algo::f64x4;
using tevix::algo::lane_t;
using tevix::algo::load;
using tevix::algo::splat;
using tevix::algo::store;

struct yvv {
    bool on = false;
    double B = 0, b1 = 0, b2 = 0, b3 = 0;  // w[n] = B x[n] + b1 w[n-1] + b2 w[n-2] + b3 w[n-3]
};

yvv _coefficients(double sigma) {
    yvv c;
    if (!(sigma >= 0.5)) return c;
    const double q = sigma >= 2.5 ? 0.98711 * sigma - 0.96330
                                  : 3.97156 - 4.14554 * std::sqrt(1.0 - 0.26891 * sigma);
    const double q2 = q * q, q3 = q2 * q;
    const double b0 = 1.57825 + 2.44413 * q + 1.4281 * q2 + 0.422205 * q3;
    c.b1 = (2.44413 * q + 2.85619 * q2 + 1.26661 * q3) / b0;
    c.b2 = -(1.4281 * q2 + 1.26661 * q3) / b0;
    c.b3 = 0.422205 * q3 / b0;
    c.B = 1.0 - (c.b1 + c.b2 + c.b3);
    c.on = true;
    return c;
}

// Widest kernel (in pixels, both axes) that runs in float.
constexpr double k_float_sigma = 16.0;

template <class T>
struct work {
    T *num, *den;  // width x height each
    T *line;       // 2 x 8 x width: signal and mask of up to 8 rows side by side
};

template <class V>
VX_INLINE V _step(const yvv &k, const V &x, const V &w1, const V &w2, const V &w3) {
    using T = lane_t<V>;
    return splat<V>(T(k.B)) * x +
           ((splat<V>(T(k.b1)) * w1 + splat<V>(T(k.b2)) * w2) + splat<V>(T(k.b3)) * w3);
}

// One sweep in place over interleaved lines of signal and mask; dir +1 runs forward, -1 back.
template <class V, class T = lane_t<V>>
VX_INLINE void _sweep(const yvv &k, T *xs, T *ms, uint32_t w, int dir) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    V x1{}, x2{}, x3{}, m1{}, m2{}, m3{};
    for (uint32_t i = 0; i < w; ++i) {
        const size_t at = size_t(dir > 0 ? i : w - 1 - i) * L;
        const V xn = _step(k, load<V>(xs + at), x1, x2, x3);
        const V mn = _step(k, load<V>(ms + at), m1, m2, m3);
        store(xs + at, xn);
        store(ms + at, mn);
        x3 = x2, x2 = x1, x1 = xn;
        m3 = m2, m2 = m1, m1 = mn;
    }
}

// Horizontal sweeps over L rows side by side (lane l is row r0 + l).
template <class V, class T = lane_t<V>>
VX_INLINE void _rows(const yvv &k, const uint16_t *img, uint32_t w, const work<T> &t, uint32_t r0) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    T *xs = t.line, *ms = xs + size_t(w) * L;
    for (uint32_t l = 0; l < L; ++l) {
        const uint16_t *row = img + size_t(r0 + l) * w;
        for (uint32_t x = 0; x < w; ++x) {
            const bool ok = row[x] != 0 && row[x] != VX_DIST_INVALID;
            xs[x * L + l] = ok ? T(row[x]) : T(0);
            ms[x * L + l] = ok ? T(1) : T(0);
        }
    }
    _sweep<V>(k, xs, ms, w, +1);
    _sweep<V>(k, xs, ms, w, -1);
    for (uint32_t l = 0; l < L; ++l) {
        T *num = t.num + size_t(r0 + l) * w, *den = t.den + size_t(r0 + l) * w;
        for (uint32_t x = 0; x < w; ++x) {
            num[x] = xs[x * L + l];
            den[x] = ms[x * L + l];
        }
    }
}

template <class V, class T>
VX_INLINE V _at(const T *p, uint32_t x) {
    return p ? load<V>(p + x) : V{};
}

// Rounded to the nearest millimetre and kept within 1..65535 by the same operations at every
// level (a library call per pixel would cost more than the filter).
template <class V, class T = lane_t<V>>
VX_INLINE V _rounded(const V &num, const V &den) {
    using tevix::algo::vmax;
    using tevix::algo::vmin;
    return vmin(vmax(V(num / den + splat<V>(T(0.5))), splat<V>(T(1))), splat<V>(T(65535)));
}

// Results stay valid values: never 0 and never the invalid marker.
template <class T>
VX_INLINE void _put(uint16_t *img, const T *den, size_t j, T rounded) {
    const uint16_t c = img[j];
    if (c == 0 || c == VX_DIST_INVALID || !(den[j] > T(1e-12))) return;
    const auto r = uint16_t(rounded);
    img[j] = r == VX_DIST_INVALID ? uint16_t(VX_DIST_INVALID - 1) : r;
}

// One vertical sweep over a whole image in place; dir +1 runs top to bottom, -1 bottom to top.
template <class V, class T = lane_t<V>>
VX_INLINE void _cols(const yvv &k, T *img, uint32_t w, uint32_t h, int dir) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    const std::ptrdiff_t step = dir * std::ptrdiff_t(w);
    for (uint32_t i = 0; i < h; ++i) {
        const uint32_t y = dir > 0 ? i : h - 1 - i;
        T *row = img + size_t(y) * w;
        const T *p1 = i >= 1 ? row - step : nullptr;
        const T *p2 = i >= 2 ? row - 2 * step : nullptr;
        const T *p3 = i >= 3 ? row - 3 * step : nullptr;
        uint32_t x = 0;
        for (; x + L <= w; x += L)
            store(row + x, _step(k, load<V>(row + x), _at<V>(p1, x), _at<V>(p2, x), _at<V>(p3, x)));
        for (; x < w; ++x)
            row[x] = _step(k, row[x], p1 ? p1[x] : T(0), p2 ? p2[x] : T(0), p3 ? p3[x] : T(0));
    }
}

template <class V, class T = lane_t<V>>
VX_INLINE void _filter(uint16_t *img, uint32_t w, uint32_t h, const yvv &kx, const yvv &ky,
                       const work<T> &t) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    uint32_t r = 0;
    for (; r + L <= h; r += L) _rows<V>(kx, img, w, t, r);
    for (; r < h; ++r) _rows<T>(kx, img, w, t, r);
    if (ky.on) {
        for (T *plane : {t.num, t.den}) {
            _cols<V>(ky, plane, w, h, +1);
            _cols<V>(ky, plane, w, h, -1);
        }
    }
    const size_t n = size_t(w) * h;
    size_t i = 0;
    T q[L];
    for (; i + L <= n; i += L) {
        store(q, _rounded<V>(load<V>(t.num + i), load<V>(t.den + i)));
        for (uint32_t l = 0; l < L; ++l) _put(img, t.den, i + l, q[l]);
    }
    for (; i < n; ++i) _put(img, t.den, i, _rounded<T>(t.num[i], t.den[i]));
}

template <class T>
void _run_scalar(uint16_t *img, uint32_t w, uint32_t h, const yvv &kx, const yvv &ky,
                 const work<T> &t) {
    _filter<T>(img, w, h, kx, ky, t);
}
VX_TARGET_SSE41 void _run_sse41(uint16_t *img, uint32_t w, uint32_t h, const yvv &kx, const yvv &ky,
                                const work<double> &t) {
    _filter<f64x2>(img, w, h, kx, ky, t);
}
VX_TARGET_SSE41 void _run_sse41(uint16_t *img, uint32_t w, uint32_t h, const yvv &kx, const yvv &ky,
                                const work<float> &t) {
    _filter<f32x4>(img, w, h, kx, ky, t);
}
VX_TARGET_AVX2 void _run_avx2(uint16_t *img, uint32_t w, uint32_t h, const yvv &kx, const yvv &ky,
                              const work<double> &t) {
    _filter<f64x4>(img, w, h, kx, ky, t);
}
VX_TARGET_AVX2 void _run_avx2(uint16_t *img, uint32_t w, uint32_t h, const yvv &kx, const yvv &ky,
                              const work<float> &t) {
    _filter<f32x8>(img, w, h, kx, ky, t);
}

template <class T>
bool _run(uint16_t *img, uint32_t width, uint32_t height, const yvv &kx, const yvv &ky) noexcept {
    // Kept per thread and reused: steady use allocates nothing.
    thread_local std::vector<T> scratch;
    const size_t n = size_t(width) * height;
    try {
        if (scratch.size() < 2 * n + 16 * size_t(width)) scratch.resize(2 * n + 16 * size_t(width));
    } catch (const std::bad_alloc &) {
        return false;
    }
    const work<T> t{scratch.data(), scratch.data() + n, scratch.data() + 2 * n};
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            _run_avx2(img, width, height, kx, ky, t);
            break;
        case tevix::simd::level::sse41:
            _run_sse41(img, width, height, kx, ky, t);
            break;
        default:
            _run_scalar<T>(img, width, height, kx, ky, t);
            break;
    }
    return true;
}

}  // namespace

extern "C" bool vx_gauss2d_iir_u16(uint16_t *img, uint32_t width, uint32_t height,
                                   float sigma) noexcept {
    if (!img || width == 0 || height == 0) return false;
    yvv kx = _coefficients(double(sigma) * width);
    const yvv ky = _coefficients(double(sigma) * height);
    if (!kx.on && !ky.on) return true;
    if (!kx.on) kx = yvv{true, 1.0, 0.0, 0.0, 0.0};  // identity: the rows only fill the planes
    const bool narrow = double(sigma) * std::max(width, height) <= k_float_sigma;
    return narrow ? _run<float>(img, width, height, kx, ky)
                  : _run<double>(img, width, height, kx, ky);
}
