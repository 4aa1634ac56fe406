// Recursive bilateral filter. The common factor (1 - alpha) of the sums phi and their normalisers
// psi cancels in every ratio and is left out: phi(x) = I(x) + a(x) phi(x-1) and
// psi(x) = 1 + a(x) psi(x-1), starting with phi = I and psi = 1 at the first pixel. The sums are
// carried in normalised form, m = phi / psi, which follows m(x) = m(x-1) + (I(x) - m(x-1)) /
// psi(x); the result (phi_c + phi_a) / (psi_c + psi_a) is m_c + (m_a - m_c) * psi_a / (psi_c +
// psi_a). The quantities are the same, but in this form a flat run, a step of weight 0 and equal
// causal and anti-causal means are reproduced exactly, so truncation cannot lower a flat image by
// one.
//
// Each step waits for a division of the one before it. The horizontal pass therefore runs over
// blocks of rows transposed side by side (one row a lane), four blocks at once so that their
// recursions overlap; the vertical pass steps a whole row at a time. The range weights come from
// tables already multiplied by each pass's alpha, a row at a time (with gathers on AVX2). Every
// value sees the same operations in the same order as in a plain sweep per row and per column.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "algo/simd.h"
#include "algo/vec.h"
#include "log/log.h"
#include "tevix/vx_filter.h"

namespace {

using tevix::algo::f32x4;
using tevix::algo::f32x8;
using tevix::algo::load;
using tevix::algo::splat;
using tevix::algo::store;

// Blocks of rows the horizontal pass sweeps at once, and the longest range table used.
constexpr uint32_t k_blocks = 4, k_lanes = 8, k_table = 4096;

// The context's scratch: planes of width x height and the line block (see init).
struct layout {
    float *hres, *ay, *pc, *qc;  // horizontal result, vertical weights, vertical forward sums
    float *tx, *ty;              // range tables times alpha_x and alpha_y
    float *ax;                   // horizontal weights of k_blocks x k_lanes rows
    float *lines;                // per block: values, weights, sums and normalisers, x lanes
    float *m, *psi;              // the vertical backward sums of the row below
};

size_t _line_floats(uint32_t w) {
    return size_t(w) * k_blocks * k_lanes * 5 + 2 * size_t(w);
}

layout _layout(const vx_bpf2d_iir_t *c) {
    const size_t n = size_t(c->width) * c->height, w = c->width;
    layout s{};
    s.hres = c->work[0];
    s.ay = c->work[0] + n;
    s.pc = c->work[1];
    s.qc = c->work[1] + n;
    s.tx = c->line[0];
    s.ty = s.tx + k_table;
    s.ax = s.ty + k_table;
    s.lines = s.ax + w * k_blocks * k_lanes;
    s.m = s.lines + w * k_blocks * k_lanes * 4;
    s.psi = s.m + w;
    return s;
}

// Weights of n pixel pairs: tab[clamp(|a - b|, lo, hi) - lo].
void _weights_scalar(const uint16_t *a, const uint16_t *b, uint32_t n, const float *tab, int lo,
                     int hi, float *out) {
    for (uint32_t i = 0; i < n; ++i) {
        const int d = std::max(std::min(std::abs(int(a[i]) - int(b[i])), hi), lo);
        out[i] = tab[d - lo];
    }
}

#if defined(__x86_64__) || defined(__i386__)
VX_TARGET_AVX2 void _weights_avx2(const uint16_t *a, const uint16_t *b, uint32_t n,
                                  const float *tab, int lo, int hi, float *out) {
    const __m256i vlo = _mm256_set1_epi32(lo), vhi = _mm256_set1_epi32(hi);
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i *>(a + i));
        const __m128i q = _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + i));
        const __m128i d16 = _mm_or_si128(_mm_subs_epu16(p, q), _mm_subs_epu16(q, p));
        const __m256i d = _mm256_max_epi32(_mm256_min_epi32(_mm256_cvtepu16_epi32(d16), vhi), vlo);
        _mm256_storeu_ps(out + i, _mm256_i32gather_ps(tab, _mm256_sub_epi32(d, vlo), 4));
    }
    _weights_scalar(a + i, b + i, n - i, tab, lo, hi, out + i);
}
#endif

struct weigher {
    bool gather;
    int lo, hi;
    void operator()(const uint16_t *a, const uint16_t *b, uint32_t n, const float *tab,
                    float *out) const {
#if defined(__x86_64__) || defined(__i386__)
        if (gather) return _weights_avx2(a, b, n, tab, lo, hi, out);
#endif
        _weights_scalar(a, b, n, tab, lo, hi, out);
    }
};

// One recursive step of the normalised sum m towards the pixel value i.
template <class V>
VX_INLINE V _advance(const V &m, const V &i, const V &psi) {
    return m + (i - m) / psi;
}

// (phi_c + phi_a) / (psi_c + psi_a) from the normalised sums.
template <class V>
VX_INLINE V _combine(const V &mc, const V &psic, const V &ma, const V &psia) {
    return mc + (ma - mc) * (psia / (psic + psia));
}

// The lines of one block: values, weights, causal sums and normalisers, x-major with L lanes.
template <class V>
struct block_lines {
    float *in, *a, *pc, *qc;
};

// Values and weights of L rows from r0 into a block, lane l for row l.
template <class V>
VX_INLINE void _pack(const uint16_t *src, const float *ax, uint32_t w, uint32_t r0,
                     const block_lines<V> &b) {
    constexpr uint32_t L = sizeof(V) / sizeof(float);
    uint32_t x = 0;
    if constexpr (L > 1) {
        using U = typename tevix::algo::lanes_of<L>::u16;
        for (; x + L <= w; x += L) {
            V v[L], a[L];
#pragma GCC unroll 8
            for (uint32_t l = 0; l < L; ++l) {
                v[l] = __builtin_convertvector(load<U>(src + size_t(r0 + l) * w + x), V);
                a[l] = load<V>(ax + size_t(l) * w + x);
            }
            tevix::algo::store_columns(v, b.in, x);
            tevix::algo::store_columns(a, b.a, x);
        }
    }
    for (; x < w; ++x)
        for (uint32_t l = 0; l < L; ++l) {
            b.in[x * L + l] = src[size_t(r0 + l) * w + x];
            b.a[x * L + l] = ax[size_t(l) * w + x];
        }
}

// A block's results (left in its value lines) into L rows of the horizontal result from r0.
template <class V>
VX_INLINE void _unpack(const block_lines<V> &b, uint32_t w, float *out) {
    constexpr uint32_t L = sizeof(V) / sizeof(float);
    uint32_t x = 0;
    if constexpr (L > 1) {
        for (; x + L <= w; x += L) {
            V v[L];
            tevix::algo::load_columns(v, b.in, x);
#pragma GCC unroll 8
            for (uint32_t l = 0; l < L; ++l) store(out + size_t(l) * w + x, v[l]);
        }
    }
    for (; x < w; ++x)
        for (uint32_t l = 0; l < L; ++l) out[size_t(l) * w + x] = b.in[x * L + l];
}

// Horizontal pass over N blocks of L rows from r0, their recursions interleaved.
template <class V, uint32_t N>
VX_INLINE void _hpass(const vx_bpf2d_iir_t *c, const layout &s, const weigher &weights,
                      const uint16_t *src, uint32_t r0) {
    constexpr uint32_t L = sizeof(V) / sizeof(float);
    const uint32_t w = c->width;
    for (uint32_t r = 0; r < N * L; ++r) {
        const uint16_t *row = src + size_t(r0 + r) * w;
        s.ax[size_t(r) * w] = 0.0f;  // no weight before the first pixel
        weights(row + 1, row, w - 1, s.tx, s.ax + size_t(r) * w + 1);
    }
    block_lines<V> b[N];
    for (uint32_t k = 0; k < N; ++k) {
        float *base = s.lines + size_t(k) * 4 * w * L;
        b[k] = {base, base + size_t(w) * L, base + 2 * size_t(w) * L, base + 3 * size_t(w) * L};
        _pack<V>(src, s.ax + size_t(k) * L * w, w, r0 + k * L, b[k]);
    }
    const V one = splat<V>(1.0f);
    V m[N], psi[N];
#pragma GCC unroll 4
    for (uint32_t k = 0; k < N; ++k) {
        m[k] = load<V>(b[k].in);
        psi[k] = one;
        store(b[k].pc, m[k]);
        store(b[k].qc, psi[k]);
    }
    for (uint32_t x = 1; x < w; ++x) {
        const size_t at = size_t(x) * L;
#pragma GCC unroll 4
        for (uint32_t k = 0; k < N; ++k) {
            psi[k] = one + load<V>(b[k].a + at) * psi[k];
            m[k] = _advance(m[k], load<V>(b[k].in + at), psi[k]);
            store(b[k].pc + at, m[k]);
            store(b[k].qc + at, psi[k]);
        }
    }
    // Backwards; each result replaces the value it was made from, which nothing reads again.
    const size_t last = size_t(w - 1) * L;
#pragma GCC unroll 4
    for (uint32_t k = 0; k < N; ++k) {
        m[k] = load<V>(b[k].in + last);
        psi[k] = one;
        store(b[k].in + last,
              _combine(load<V>(b[k].pc + last), load<V>(b[k].qc + last), m[k], psi[k]));
    }
    for (uint32_t x = w - 1; x-- > 0;) {
        const size_t at = size_t(x) * L;
#pragma GCC unroll 4
        for (uint32_t k = 0; k < N; ++k) {
            psi[k] = one + load<V>(b[k].a + at + L) * psi[k];
            m[k] = _advance(m[k], load<V>(b[k].in + at), psi[k]);
            store(b[k].in + at,
                  _combine(load<V>(b[k].pc + at), load<V>(b[k].qc + at), m[k], psi[k]));
        }
    }
    for (uint32_t k = 0; k < N; ++k) _unpack<V>(b[k], w, s.hres + size_t(r0 + k * L) * w);
}

// One forward step of the vertical pass at x of the row starting at `row`.
template <class T>
VX_INLINE void _vforward(const layout &s, size_t row, uint32_t w, uint32_t x) {
    const T psi = splat<T>(1.0f) + load<T>(s.ay + row + x) * load<T>(s.qc + row - w + x);
    store(s.qc + row + x, psi);
    store(s.pc + row + x, _advance(load<T>(s.pc + row - w + x), load<T>(s.hres + row + x), psi));
}

// One backward step at x (from the row below when there is one) and the combined result.
template <class T>
VX_INLINE T _vbackward(const layout &s, size_t row, uint32_t w, uint32_t x, bool below) {
    T m = load<T>(s.hres + row + x), psi = splat<T>(1.0f);
    if (below) {
        psi = splat<T>(1.0f) + load<T>(s.ay + row + w + x) * load<T>(s.psi + x);
        m = _advance(load<T>(s.m + x), m, psi);
    }
    store(s.m + x, m);
    store(s.psi + x, psi);
    return _combine(load<T>(s.pc + row + x), load<T>(s.qc + row + x), m, psi);
}

// Truncation, clamped to 0 .. 65535; a NaN from degenerate sigmas gives 0.
VX_INLINE uint16_t _to_u16(float r) {
    return r >= 0.0f ? (r < 65535.0f ? static_cast<uint16_t>(r) : uint16_t(65535)) : 0;
}

// Vertical pass a row at a time over the whole width. The weights are read from src before dst
// is written, so the two may be the same image.
template <class V>
VX_INLINE void _vpass(const vx_bpf2d_iir_t *c, const layout &s, const weigher &weights,
                      const uint16_t *src, uint16_t *dst) {
    constexpr uint32_t L = sizeof(V) / sizeof(float);
    const uint32_t w = c->width, h = c->height;
    std::memcpy(s.pc, s.hres, size_t(w) * sizeof(float));
    std::fill_n(s.qc, w, 1.0f);
    for (uint32_t y = 1; y < h; ++y) {
        const size_t row = size_t(y) * w;
        weights(src + row, src + row - w, w, s.ty, s.ay + row);
        uint32_t x = 0;
        if constexpr (L > 1)
            for (; x + L <= w; x += L) _vforward<V>(s, row, w, x);
        for (; x < w; ++x) _vforward<float>(s, row, w, x);
    }
    for (uint32_t y = h; y-- > 0;) {
        const size_t row = size_t(y) * w;
        const bool below = y + 1 < h;
        uint16_t *d = dst + row;
        uint32_t x = 0;
        if constexpr (L > 1) {
            using I = typename tevix::algo::lanes_of<L>::i32;
            using U = typename tevix::algo::lanes_of<L>::u16;
            for (; x + L <= w; x += L) {
                const V r = _vbackward<V>(s, row, w, x, below);
                const I t = __builtin_convertvector(tevix::algo::vmin(r, splat<V>(65535.0f)), I);
                store<U>(d + x, __builtin_convertvector(r >= splat<V>(0.0f) ? t : I{}, U));
            }
        }
        for (; x < w; ++x) d[x] = _to_u16(_vbackward<float>(s, row, w, x, below));
    }
}

// Full groups of k_blocks blocks, then single blocks, then the last rows one lane each.
template <class V>
VX_INLINE void _filter(vx_bpf2d_iir_t *c, const uint16_t *src, const weigher &weights) {
    constexpr uint32_t L = sizeof(V) / sizeof(float);
    const layout s = _layout(c);
    const uint32_t h = c->height;
    uint32_t r = 0;
    for (; r + k_blocks * L <= h; r += k_blocks * L) _hpass<V, k_blocks>(c, s, weights, src, r);
    for (; r + L <= h; r += L) _hpass<V, 1>(c, s, weights, src, r);
    for (; r < h; ++r) _hpass<float, 1>(c, s, weights, src, r);
    _vpass<V>(c, s, weights, src, c->dst);
}

void _filter_scalar(vx_bpf2d_iir_t *c, const uint16_t *src, const weigher &weights) {
    _filter<float>(c, src, weights);
}
VX_TARGET_SSE41 void _filter_sse41(vx_bpf2d_iir_t *c, const uint16_t *src, const weigher &weights) {
    _filter<f32x4>(c, src, weights);
}
VX_TARGET_AVX2 void _filter_avx2(vx_bpf2d_iir_t *c, const uint16_t *src, const weigher &weights) {
    _filter<f32x8>(c, src, weights);
}

}  // namespace

extern "C" void vx_bpf2d_iir_uninit(vx_bpf2d_iir_t *ctx) noexcept {
    if (!ctx) return;
    std::free(ctx->range_table);
    std::free(ctx->work[0]);
    std::free(ctx->work[1]);
    std::free(ctx->line[0]);
    std::memset(ctx, 0, sizeof(*ctx));
}

extern "C" bool vx_bpf2d_iir_init(vx_bpf2d_iir_t *ctx, uint32_t width, uint32_t height,
                                  float sigma_spatial, float sigma_range, uint16_t range_min,
                                  uint16_t range_max) noexcept {
    if (!ctx) return false;
    std::memset(ctx, 0, sizeof(*ctx));
    if (width > VX_BPF2D_MAX_SIZE || height > VX_BPF2D_MAX_SIZE) {
        VX_ERR("[%s]wrong image width or height: w=%u, h=%u\n", width, height);
        return false;
    }
    ctx->width = width;
    ctx->height = height;
    ctx->sigma_spatial = sigma_spatial;
    ctx->sigma_range = sigma_range;
    const uint32_t lo = std::min(range_min, range_max);
    uint32_t hi = std::max(range_min, range_max);
    if (hi >= lo + k_table) hi = lo + k_table - 1;
    ctx->range_lo = static_cast<float>(lo);
    ctx->range_hi = static_cast<float>(hi);
    // A reversed pair wraps to a length near 2^32: an allocation that cannot be made.
    const uint32_t n = uint32_t(range_max) - uint32_t(range_min) + 1u;
    ctx->range_table =
        n <= 65536 ? static_cast<float *>(std::malloc(size_t(n) * sizeof(float))) : nullptr;
    if (!ctx->range_table) {
        VX_ERR("[%s]cannot malloc buffers for BPF\n");
        vx_bpf2d_iir_uninit(ctx);
        return false;
    }
    ctx->n = n;
    for (uint32_t i = 0; i + 1 < n; ++i)
        ctx->range_table[i] = std::exp(-float(i) / (float(n) * sigma_range));
    ctx->range_table[n - 1] = 0.0f;
    const float sqrt2 = std::sqrt(2.0f);
    ctx->alpha_x = std::exp(-sqrt2 / (float(width) * sigma_spatial));
    ctx->alpha_y = std::exp(-sqrt2 / (float(height) * sigma_spatial));
    const size_t pixels = std::max<size_t>(size_t(width) * height, 1);
    ctx->work[0] = static_cast<float *>(std::malloc(2 * pixels * sizeof(float)));
    ctx->work[1] = static_cast<float *>(std::malloc(2 * pixels * sizeof(float)));
    ctx->line[0] =
        static_cast<float *>(std::malloc((2 * k_table + _line_floats(width)) * sizeof(float)));
    if (!ctx->work[0] || !ctx->work[1] || !ctx->line[0]) {
        VX_ERR("[%s]cannot malloc buffers for BPF\n");
        vx_bpf2d_iir_uninit(ctx);
        return false;
    }
    // The weight tables of both passes, the same products the recurrences would form.
    const layout s = _layout(ctx);
    for (uint32_t i = 0; i <= hi - lo; ++i) {
        s.tx[i] = ctx->alpha_x * ctx->range_table[i];
        s.ty[i] = ctx->alpha_y * ctx->range_table[i];
    }
    return true;
}

extern "C" void vx_bpf2d_iir(vx_bpf2d_iir_t *ctx, uint16_t *dst, const uint16_t *src,
                             uint32_t width, uint32_t height) noexcept {
    if (!ctx || !ctx->range_table || !src || !dst || width != ctx->width || height != ctx->height) {
        VX_ERR("[%s]wrong parameters: init=%ux%u, cur=%ux%u\n", ctx ? ctx->width : 0u,
               ctx ? ctx->height : 0u, width, height);
        return;
    }
    if (width == 0 || height == 0) return;
    ctx->dst = dst;
    weigher weights{false, static_cast<int>(ctx->range_lo), static_cast<int>(ctx->range_hi)};
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            weights.gather = true;
            _filter_avx2(ctx, src, weights);
            break;
        case tevix::simd::level::sse41:
            _filter_sse41(ctx, src, weights);
            break;
        default:
            _filter_scalar(ctx, src, weights);
            break;
    }
}
