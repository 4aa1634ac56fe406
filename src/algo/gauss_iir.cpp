// Recursive Gaussian after Young and van Vliet (third order, one forward and one backward sweep
// per axis) applied as normalised convolution: the same filter smooths the image with invalid
// pixels set to 0 and the validity mask, and their ratio is the result. Sums are kept in double
// for wide kernels, whose poles approach 1; narrow ones (up to 16 pixels) run in float, twice the
// lanes, well inside a millimetre. The sweeps start from zero state, which the normalisation
// turns into a correct weighting at the borders.
//
// The horizontal sweeps run over blocks of rows transposed side by side (one row a lane), four
// blocks at once so that their recursions overlap. Each group of rows goes through the vertical
// forward sweep while it is in cache; the backward sweep then runs bottom up and writes each row
// as soon as it is done. Every value sees the same operations in the same order as in a plain
// sweep per row and per column.
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

// Blocks of rows swept side by side, so that their recursions overlap, and the zero steps
// before and after each line (the sweeps' start state).
constexpr uint32_t k_blocks = 4, k_pad = 3;

template <class T>
struct work {
    T *num, *den;  // width x height each
    T *line;       // signal and mask lines of k_blocks blocks: (width + 2 k_pad) x lanes each
    T *zero;       // width zeros: the rows beyond the image
};

// The coefficients in the lane type, made once per loop: loaded from the yvv inside a loop they
// would be read again after every store.
template <class V>
struct coef {
    V B, b1, b2, b3;
    explicit coef(const yvv &k) {
        using T = lane_t<V>;
        B = splat<V>(T(k.B)), b1 = splat<V>(T(k.b1)), b2 = splat<V>(T(k.b2));
        b3 = splat<V>(T(k.b3));
    }
};

template <class V>
VX_INLINE V _step(const coef<V> &k, const V &x, const V &w1, const V &w2, const V &w3) {
    return k.B * x + ((k.b1 * w1 + k.b2 * w2) + k.b3 * w3);
}

// One sweep in place over n interleaved lines; dir +1 runs forward, -1 back. The last value of
// each line stays in a register, the two before it are read back (the pads give the zeros).
template <class V, uint32_t N, class T = lane_t<V>>
VX_INLINE void _sweep(const yvv &ky, T *const *lines, uint32_t w, int dir) {
    constexpr std::ptrdiff_t L = sizeof(V) / sizeof(T);
    const coef<V> k(ky);
    const std::ptrdiff_t d = dir * L;
    T *p[N];
    V w1[N];
#pragma GCC unroll 8
    for (uint32_t j = 0; j < N; ++j) {
        p[j] = lines[j] + (dir > 0 ? 0 : std::ptrdiff_t(w - 1) * L);
        w1[j] = V{};
    }
    for (uint32_t i = 0; i < w; ++i) {
#pragma GCC unroll 8
        for (uint32_t j = 0; j < N; ++j) {
            w1[j] = _step(k, load<V>(p[j]), w1[j], load<V>(p[j] - 2 * d), load<V>(p[j] - 3 * d));
            store(p[j], w1[j]);
            p[j] += d;
        }
    }
}

// Signal (invalid pixels 0) and mask of L rows from r0 into a block's lines, lane l for row l.
template <class V, class T = lane_t<V>>
VX_INLINE void _pack(const uint16_t *img, uint32_t w, uint32_t r0, T *sig, T *msk) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    uint32_t x = 0;
    if constexpr (L > 1) {
        using U = typename tevix::algo::lanes_of<L>::u16;
        for (; x + L <= w; x += L) {
            V s[L], m[L];
#pragma GCC unroll 8
            for (uint32_t l = 0; l < L; ++l) {
                const U u = load<U>(img + size_t(r0 + l) * w + x);
                const U ok =
                    U((u != splat<U>(uint16_t(0))) & (u != splat<U>(uint16_t(VX_DIST_INVALID))));
                s[l] = __builtin_convertvector(U(u & ok), V);
                m[l] = __builtin_convertvector(U(ok & splat<U>(uint16_t(1))), V);
            }
            tevix::algo::store_columns(s, sig, x);
            tevix::algo::store_columns(m, msk, x);
        }
    }
    for (; x < w; ++x)
        for (uint32_t l = 0; l < L; ++l) {
            const uint16_t v = img[size_t(r0 + l) * w + x];
            const bool ok = v != 0 && v != VX_DIST_INVALID;
            sig[x * L + l] = ok ? T(v) : T(0);
            msk[x * L + l] = ok ? T(1) : T(0);
        }
}

// A block's lines back into L rows of the planes from r0.
template <class V, class T = lane_t<V>>
VX_INLINE void _unpack(const T *sig, const T *msk, uint32_t w, uint32_t r0, const work<T> &t) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    T *num = t.num + size_t(r0) * w, *den = t.den + size_t(r0) * w;
    uint32_t x = 0;
    if constexpr (L > 1) {
        for (; x + L <= w; x += L) {
            V s[L], m[L];
            tevix::algo::load_columns(s, sig, x);
            tevix::algo::load_columns(m, msk, x);
#pragma GCC unroll 8
            for (uint32_t l = 0; l < L; ++l) {
                store(num + size_t(l) * w + x, s[l]);
                store(den + size_t(l) * w + x, m[l]);
            }
        }
    }
    for (; x < w; ++x)
        for (uint32_t l = 0; l < L; ++l) {
            num[size_t(l) * w + x] = sig[x * L + l];
            den[size_t(l) * w + x] = msk[x * L + l];
        }
}

// Horizontal sweeps of N blocks of L rows from r0 into the planes.
template <class V, uint32_t N, class T = lane_t<V>>
VX_INLINE void _rows(const yvv &k, const uint16_t *img, uint32_t w, const work<T> &t, uint32_t r0) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    const size_t stride = (size_t(w) + 2 * k_pad) * L;
    T *lines[2 * N];
    for (uint32_t j = 0; j < 2 * N; ++j) {
        T *base = t.line + j * stride;
        std::fill_n(base, k_pad * L, T(0));
        std::fill_n(base + stride - k_pad * L, k_pad * L, T(0));
        lines[j] = base + k_pad * L;
    }
    for (uint32_t b = 0; b < N; ++b) _pack<V>(img, w, r0 + b * L, lines[2 * b], lines[2 * b + 1]);
    _sweep<V, 2 * N>(k, lines, w, +1);
    _sweep<V, 2 * N>(k, lines, w, -1);
    for (uint32_t b = 0; b < N; ++b) _unpack<V>(lines[2 * b], lines[2 * b + 1], w, r0 + b * L, t);
}

// One step of a vertical sweep on row `row` of a plane from the rows before it in the sweep.
template <class V, class T = lane_t<V>>
VX_INLINE void _vstep(const yvv &ky, T *row, const T *p1, const T *p2, const T *p3, uint32_t w) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    const coef<V> k(ky);
    const coef<T> ks(ky);
    uint32_t x = 0;
    if constexpr (L > 1)
        for (; x + L <= w; x += L)
            store(row + x,
                  _step(k, load<V>(row + x), load<V>(p1 + x), load<V>(p2 + x), load<V>(p3 + x)));
    for (; x < w; ++x) row[x] = _step(ks, row[x], p1[x], p2[x], p3[x]);
}

template <class V, class T = lane_t<V>>
VX_INLINE void _vsteps(const yvv &k, const work<T> &t, uint32_t w, uint32_t h, uint32_t y,
                       int dir) {
    auto at = [&](const T *plane, std::ptrdiff_t back) -> const T * {
        const std::ptrdiff_t yy = std::ptrdiff_t(y) - dir * back;
        return yy < 0 || yy >= std::ptrdiff_t(h) ? t.zero : plane + size_t(yy) * w;
    };
    for (T *plane : {t.num, t.den})
        _vstep<V>(k, plane + size_t(y) * w, at(plane, 1), at(plane, 2), at(plane, 3), w);
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

// Row y of the result into the image.
template <class V, class T = lane_t<V>>
VX_INLINE void _output(uint16_t *img, const work<T> &t, uint32_t w, uint32_t y) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    uint16_t *out = img + size_t(y) * w;
    const T *num = t.num + size_t(y) * w, *den = t.den + size_t(y) * w;
    uint32_t x = 0;
    if constexpr (L > 1) {
        using U = typename tevix::algo::lanes_of<L>::u16;
        using I = typename tevix::algo::lanes_of<L>::i32;
        using S = typename tevix::algo::lanes_of<L>::i16;
        for (; x + L <= w; x += L) {
            const V d = load<V>(den + x);
            const U r = __builtin_convertvector(
                __builtin_convertvector(_rounded<V>(load<V>(num + x), d), I), U);
            const U c = load<U>(out + x);
            const S use =
                S((c != splat<U>(uint16_t(0))) & (c != splat<U>(uint16_t(VX_DIST_INVALID)))) &
                __builtin_convertvector(d > splat<V>(T(1e-12)), S);
            const U kept = U(r + U(r == splat<U>(uint16_t(VX_DIST_INVALID))));
            store(out + x, use ? kept : c);
        }
    }
    for (; x < w; ++x) _put(out, den, x, _rounded<T>(num[x], den[x]));
}

// Top to bottom: the horizontal sweeps of a group of rows, then the vertical forward sweep over
// them while they are in cache. Bottom to top: the vertical backward sweep, each row finished
// and written as soon as it is done.
template <class V, class T = lane_t<V>>
VX_INLINE void _filter(uint16_t *img, uint32_t w, uint32_t h, const yvv &kx, const yvv &ky,
                       const work<T> &t) {
    constexpr uint32_t L = sizeof(V) / sizeof(T);
    for (uint32_t r = 0; r < h;) {
        uint32_t rows = 1;
        if (r + k_blocks * L <= h) {
            rows = k_blocks * L;
            _rows<V, k_blocks>(kx, img, w, t, r);
        } else if (r + L <= h) {
            rows = L;
            _rows<V, 1>(kx, img, w, t, r);
        } else {
            _rows<T, 1>(kx, img, w, t, r);
        }
        if (ky.on)
            for (uint32_t y = r; y < r + rows; ++y) _vsteps<V>(ky, t, w, h, y, +1);
        r += rows;
    }
    for (uint32_t y = h; y-- > 0;) {
        if (ky.on) _vsteps<V>(ky, t, w, h, y, -1);
        _output<V>(img, t, w, y);
    }
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
    const size_t lines = 2 * k_blocks * (size_t(width) + 2 * k_pad) * 8;
    try {
        if (scratch.size() < 2 * n + lines + width) scratch.resize(2 * n + lines + width);
    } catch (const std::bad_alloc &) {
        return false;
    }
    T *zero = scratch.data() + 2 * n + lines;
    std::fill_n(zero, width, T(0));
    const work<T> t{scratch.data(), scratch.data() + n, scratch.data() + 2 * n, zero};
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
