// Recursive bilateral filter. The common factor (1 - alpha) of the sums phi and their normalisers
// psi cancels in every ratio and is left out: phi(x) = I(x) + a(x) phi(x-1) and
// psi(x) = 1 + a(x) psi(x-1), starting with phi = I and psi = 1 at the first pixel. The sums are
// carried in normalised form, m = phi / psi, which follows m(x) = m(x-1) + (I(x) - m(x-1)) /
// psi(x); the result (phi_c + phi_a) / (psi_c + psi_a) is m_c + (m_a - m_c) * psi_a / (psi_c +
// psi_a). The quantities are the same, but in this form a flat run, a step of weight 0 and equal
// causal and anti-causal means are reproduced exactly, so truncation cannot lower a flat image by
// one.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

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

// Columns per strip of the vertical pass: three strips of sums (phi, psi, a) of this width fill
// the six line buffers of max(width, height) x 8 floats.
constexpr uint32_t strip = 16;

struct range_lut {
    const float *table;
    int lo, hi;
    float alpha;
    // alpha x weight of the step between pixel values p and q.
    VX_INLINE float operator()(int p, int q) const {
        int d = std::abs(p - q);
        d = std::min(d, hi);
        d = std::max(d, lo);
        return alpha * table[d - lo];
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

// Horizontal pass over L rows side by side (lane l of every vector is row r0 + l), into out.
template <class V>
VX_INLINE void _hpass_rows(const vx_bpf2d_iir_t *c, const range_lut &lut, const uint16_t *src,
                           float *out, uint32_t r0) {
    constexpr uint32_t L = sizeof(V) / sizeof(float);
    const uint32_t w = c->width;
    float *in = c->line[0], *a = c->line[1], *pc = c->line[2], *qc = c->line[3], *o = c->line[4];
    for (uint32_t l = 0; l < L; ++l) {
        const uint16_t *row = src + size_t(r0 + l) * w;
        in[l] = row[0];
        a[l] = 0.0f;
        for (uint32_t x = 1; x < w; ++x) {
            in[x * L + l] = row[x];
            a[x * L + l] = lut(row[x], row[x - 1]);
        }
    }
    const V one = splat<V>(1.0f);
    V m = load<V>(in), psi = one;
    store(pc, m);
    store(qc, psi);
    for (uint32_t x = 1; x < w; ++x) {
        psi = one + load<V>(a + x * L) * psi;
        m = _advance(m, load<V>(in + x * L), psi);
        store(pc + x * L, m);
        store(qc + x * L, psi);
    }
    m = load<V>(in + (w - 1) * L);
    psi = one;
    store(o + (w - 1) * L, _combine(load<V>(pc + (w - 1) * L), load<V>(qc + (w - 1) * L), m, psi));
    for (uint32_t x = w - 1; x-- > 0;) {
        psi = one + load<V>(a + (x + 1) * L) * psi;
        m = _advance(m, load<V>(in + x * L), psi);
        store(o + x * L, _combine(load<V>(pc + x * L), load<V>(qc + x * L), m, psi));
    }
    for (uint32_t l = 0; l < L; ++l) {
        float *row = out + size_t(r0 + l) * w;
        for (uint32_t x = 0; x < w; ++x) row[x] = o[x * L + l];
    }
}

// Vertical pass over the N x L columns from c0 of the horizontal result.
template <class V, uint32_t N>
VX_INLINE void _vpass_strip(const vx_bpf2d_iir_t *c, const range_lut &lut, const uint16_t *src,
                            const float *hres, uint16_t *dst, uint32_t c0) {
    constexpr uint32_t L = sizeof(V) / sizeof(float);
    constexpr uint32_t n = N * L;
    const uint32_t w = c->width, h = c->height;
    float *pc = c->line[0], *qc = c->line[2], *a = c->line[4];
    const V one = splat<V>(1.0f);
    V m[N], psi[N];
    for (uint32_t k = 0; k < N; ++k) {
        m[k] = load<V>(hres + c0 + k * L);
        psi[k] = one;
        store(pc + k * L, m[k]);
        store(qc + k * L, psi[k]);
    }
    for (uint32_t y = 1; y < h; ++y) {
        const uint16_t *s1 = src + size_t(y) * w + c0, *s0 = s1 - w;
        float *ay = a + y * strip;
        for (uint32_t j = 0; j < n; ++j) ay[j] = lut(s1[j], s0[j]);
        const float *hy = hres + size_t(y) * w + c0;
        for (uint32_t k = 0; k < N; ++k) {
            psi[k] = one + load<V>(ay + k * L) * psi[k];
            m[k] = _advance(m[k], load<V>(hy + k * L), psi[k]);
            store(pc + y * strip + k * L, m[k]);
            store(qc + y * strip + k * L, psi[k]);
        }
    }
    float res[n];
    for (uint32_t y = h; y-- > 0;) {
        const float *hy = hres + size_t(y) * w + c0;
        for (uint32_t k = 0; k < N; ++k) {
            if (y == h - 1) {
                m[k] = load<V>(hy + k * L);
                psi[k] = one;
            } else {
                psi[k] = one + load<V>(a + (y + 1) * strip + k * L) * psi[k];
                m[k] = _advance(m[k], load<V>(hy + k * L), psi[k]);
            }
            store(res + k * L, _combine(load<V>(pc + y * strip + k * L),
                                        load<V>(qc + y * strip + k * L), m[k], psi[k]));
        }
        uint16_t *d = dst + size_t(y) * w + c0;
        for (uint32_t j = 0; j < n; ++j) {
            // Truncation, clamped to 0 .. 65535; a NaN from degenerate sigmas gives 0.
            const float r = res[j];
            d[j] = r >= 0.0f ? (r < 65535.0f ? static_cast<uint16_t>(r) : uint16_t(65535)) : 0;
        }
    }
}

// Full-width strips use vectors of V; the last, narrower strip runs lane by lane.
template <class V>
VX_INLINE void _filter(vx_bpf2d_iir_t *c, const uint16_t *src) {
    constexpr uint32_t L = sizeof(V) / sizeof(float);
    const uint32_t w = c->width, h = c->height;
    const int lo = static_cast<int>(c->range_lo), hi = static_cast<int>(c->range_hi);
    const range_lut lx{c->range_table, lo, hi, c->alpha_x};
    const range_lut ly{c->range_table, lo, hi, c->alpha_y};
    float *hres = c->work[0];
    uint32_t r = 0;
    for (; r + L <= h; r += L) _hpass_rows<V>(c, lx, src, hres, r);
    for (; r < h; ++r) _hpass_rows<float>(c, lx, src, hres, r);
    // The vertical pass reads src while writing dst; an in-place call filters a copy of src.
    uint16_t *dst = c->dst;
    if (dst == src) {
        std::memcpy(c->work[1], src, size_t(w) * h * sizeof(uint16_t));
        src = reinterpret_cast<const uint16_t *>(c->work[1]);
    }
    uint32_t c0 = 0;
    for (; c0 + strip <= w; c0 += strip) _vpass_strip<V, strip / L>(c, ly, src, hres, dst, c0);
    for (; c0 < w; ++c0) _vpass_strip<float, 1>(c, ly, src, hres, dst, c0);
}

void _filter_scalar(vx_bpf2d_iir_t *c, const uint16_t *src) {
    _filter<float>(c, src);
}
VX_TARGET_SSE41 void _filter_sse41(vx_bpf2d_iir_t *c, const uint16_t *src) {
    _filter<f32x4>(c, src);
}
VX_TARGET_AVX2 void _filter_avx2(vx_bpf2d_iir_t *c, const uint16_t *src) {
    _filter<f32x8>(c, src);
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
    if (hi >= lo + 4096) hi = lo + 4095;
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
    const size_t pixels = size_t(width) * height;
    const size_t line = size_t(std::max(width, height)) * 8;
    ctx->work[0] = static_cast<float *>(std::malloc(std::max<size_t>(pixels, 1) * sizeof(float)));
    ctx->work[1] = static_cast<float *>(std::malloc(std::max<size_t>(pixels, 1) * sizeof(float)));
    float *lines = static_cast<float *>(std::malloc(std::max<size_t>(line, 1) * 6 * sizeof(float)));
    for (int i = 0; i < 6; ++i) ctx->line[i] = lines ? lines + i * line : nullptr;
    if (!ctx->work[0] || !ctx->work[1] || !lines) {
        VX_ERR("[%s]cannot malloc buffers for BPF\n");
        vx_bpf2d_iir_uninit(ctx);
        return false;
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
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            _filter_avx2(ctx, src);
            break;
        case tevix::simd::level::sse41:
            _filter_sse41(ctx, src);
            break;
        default:
            _filter_scalar(ctx, src);
            break;
    }
}
