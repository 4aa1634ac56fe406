// Colour-map context, single-value colours, the two renderers and histogram equalisation.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "algo/palettes.h"
#include "algo/simd.h"
#include "log/log.h"
#include "tevix/vx_cmap.h"

namespace tevix::cmap {
namespace {

constexpr float default_range = 4000.0f;
constexpr int32_t histeq_bins = 256;

std::mutex *lock_of(const vx_cmap_t *ctx) noexcept {
    return static_cast<std::mutex *>(ctx->lock);
}

// Locks the context's mutex when it has one (a context that never went through init has none).
class ctx_guard {
  public:
    explicit ctx_guard(const vx_cmap_t *ctx) noexcept : m_(lock_of(ctx)) {
        if (m_) m_->lock();
    }
    ~ctx_guard() {
        if (m_) m_->unlock();
    }
    ctx_guard(const ctx_guard &) = delete;
    ctx_guard &operator=(const ctx_guard &) = delete;

  private:
    std::mutex *m_;
};

inline uint32_t low_byte(float c) noexcept {
    return static_cast<uint32_t>(static_cast<int32_t>(c)) & 0xFFu;
}

inline uint32_t pack(uint32_t r, uint32_t g, uint32_t b) noexcept {
    return r | (g << 8) | (b << 16);
}

// Entry i of the computed table: three piecewise-linear ramps over x = i / n - 0.25.
uint32_t table_entry(int32_t i, int32_t n) noexcept {
    const float x = static_cast<float>(i) / static_cast<float>(n) - 0.25f;
    const float r = x < 0.125f   ? 0.0f
                    : x < 0.375f ? (x - 0.125f) * 255.0f * 4.0f
                    : x < 0.625f ? 255.0f
                                 : 255.0f - (x - 0.625f) * 510.0f;
    const float g = x < -0.125f  ? 0.0f
                    : x < 0.125f ? (x + 0.125f) * 255.0f * 4.0f
                    : x < 0.375f ? 255.0f
                                 : 255.0f - (x - 0.375f) * 255.0f / 0.375f;
    const float b = x < -0.125f  ? (x + 0.375f) * 255.0f * 4.0f
                    : x < 0.125f ? 255.0f
                    : x < 0.375f ? 255.0f - (x - 0.125f) * 255.0f * 4.0f
                                 : 0.0f;
    return pack(low_byte(r), low_byte(g), low_byte(b));
}

// Colour at v (0..255) of a palette: rows trunc(v) and min(trunc(v), 253) + 1 blended by the
// fraction. v beyond the rows is taken as row 255, a NaN or negative v as row 0.
uint32_t blend(const float *pal, float v) noexcept {
    int k = 0;
    float f = 0.0f;
    if (v >= 256.0f) {
        k = palette_rows - 1;
    } else if (v >= 0.0f) {
        k = static_cast<int>(v);
        f = v - static_cast<float>(k);
    }
    const float *row = pal + k * 3;
    const float *next = pal + (std::min(k, palette_rows - 3) + 1) * 3;
    uint32_t c[3];
    for (int ch = 0; ch < 3; ++ch)
        c[ch] = static_cast<uint32_t>((next[ch] * f + row[ch] * (1.0f - f)) * 255.0f + 0.5f);
    return pack(c[0], c[1], c[2]);
}

const float *current_palette(const vx_cmap_t *ctx) noexcept {
    ctx_guard g(ctx);
    return palette(ctx->palette);
}

inline void put(uint8_t *r, uint8_t *g, uint8_t *b, size_t at, uint32_t c) noexcept {
    r[at] = static_cast<uint8_t>(c);
    g[at] = static_cast<uint8_t>(c >> 8);
    b[at] = static_cast<uint8_t>(c >> 16);
}

constexpr size_t block = 256;

// Destination planes: pixel i's channels go to r[i * stride], g[i * stride] and b[i * stride].
// When the three planes interleave in one buffer (stride 3 or 4, the channels on three
// neighbouring bytes in any order) four pixels are written with one byte shuffle and one store;
// with stride 4 the fourth byte of each pixel is read and written back unchanged.
struct planes {
    uint8_t *r, *g, *b;
    size_t stride;
    size_t total;
    uint8_t *base = nullptr;
    alignas(16) uint8_t shuffle[16];
    alignas(16) uint8_t keep[16];

    planes(uint8_t *r_, uint8_t *g_, uint8_t *b_, size_t stride_, size_t total_) noexcept
        : r(r_), g(g_), b(b_), stride(stride_), total(total_) {
        if ((stride != 3 && stride != 4) || simd::active() == simd::level::scalar) return;
        uint8_t *lo = std::min({r, g, b});
        const size_t off[3] = {static_cast<size_t>(r - lo), static_cast<size_t>(g - lo),
                               static_cast<size_t>(b - lo)};
        if (std::max({off[0], off[1], off[2]}) != 2 || off[0] == off[1] || off[1] == off[2] ||
            off[0] == off[2])
            return;
        std::fill(shuffle, shuffle + 16, 0x80);  // a zero byte
        std::fill(keep, keep + 16, stride == 4 ? 0xFF : 0x00);
        for (size_t j = 0; j < 4; ++j)
            for (size_t ch = 0; ch < 3; ++ch) {
                shuffle[stride * j + off[ch]] = static_cast<uint8_t>(4 * j + ch);
                keep[stride * j + off[ch]] = 0;
            }
        base = lo;
    }
};

#if defined(__x86_64__) || defined(__i386__)
// Writes whole groups of four colours starting at pixel `first`; a group's 16-byte store may
// reach into the next pixels (rewritten later in order) but never past the last pixel's bytes.
VX_TARGET_SSE41 size_t put_interleaved(const planes &pl, size_t first, const uint32_t *c,
                                       size_t len) noexcept {
    const __m128i shuffle = _mm_load_si128(reinterpret_cast<const __m128i *>(pl.shuffle));
    const __m128i keep = _mm_load_si128(reinterpret_cast<const __m128i *>(pl.keep));
    const size_t need = pl.stride == 4 ? 5 : 6;
    size_t j = 0;
    for (; j + 4 <= len && first + j + need <= pl.total; j += 4) {
        auto *o = reinterpret_cast<__m128i *>(pl.base + (first + j) * pl.stride);
        __m128i x =
            _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(c + j)), shuffle);
        if (pl.stride == 4) x = _mm_or_si128(x, _mm_and_si128(_mm_loadu_si128(o), keep));
        _mm_storeu_si128(o, x);
    }
    return j;
}

// The same eight colours a step: each 128-bit lane shuffles four of them and is stored on its own.
VX_TARGET_AVX2 size_t put_interleaved_avx2(const planes &pl, size_t first, const uint32_t *c,
                                           size_t len) noexcept {
    const __m256i shuffle =
        _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(pl.shuffle)));
    const __m256i keep =
        _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(pl.keep)));
    const size_t stride = pl.stride, need = stride == 4 ? 5 : 6;
    uint8_t *const base = pl.base + first * stride;
    const size_t end = pl.total - first;
    size_t j = 0;
    for (; j + 8 <= len && j + 4 + need <= end; j += 8) {
        uint8_t *o = base + j * stride;
        __m256i x = _mm256_shuffle_epi8(
            _mm256_loadu_si256(reinterpret_cast<const __m256i *>(c + j)), shuffle);
        if (stride == 4)
            x = _mm256_or_si256(
                x, _mm256_and_si256(_mm256_loadu2_m128i(reinterpret_cast<__m128i *>(o + 4 * stride),
                                                        reinterpret_cast<__m128i *>(o)),
                                    keep));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(o), _mm256_castsi256_si128(x));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(o + 4 * stride),
                         _mm256_extracti128_si256(x, 1));
    }
    return j;
}
#endif

void write(const planes &pl, size_t first, const uint32_t *c, size_t len) noexcept {
    size_t j = 0;
#if defined(__x86_64__) || defined(__i386__)
    if (pl.base) {
        if (simd::active() == simd::level::avx2) j = put_interleaved_avx2(pl, first, c, len);
        j += put_interleaved(pl, first + j, c + j, len - j);
    }
#endif
    for (; j < len; ++j) put(pl.r, pl.g, pl.b, (first + j) * pl.stride, c[j]);
}

// Colours pixels first..n-1 through colour_of(i), a block at a time.
template <class F>
void emit(const planes &pl, size_t first, size_t n, F &&colour_of) noexcept {
    uint32_t colours[block];
    for (size_t i = first; i < n; i += block) {
        const size_t len = std::min(block, n - i);
        for (size_t j = 0; j < len; ++j) colours[j] = colour_of(i + j);
        write(pl, i, colours, len);
    }
}

// Per-thread table of the colours of every u16 value of a range, so that large images compute
// each colour once. Null when it cannot be allocated; the caller then colours pixel by pixel.
uint32_t *u16_lut() noexcept {
    thread_local std::unique_ptr<uint32_t[]> lut;
    if (!lut) lut.reset(new (std::nothrow) uint32_t[65536]);
    return lut.get();
}

uint32_t colour_f32(const float *pal, float p, bool flat, float min, float max,
                    float scale) noexcept {
    if (!(p > min)) return 0;
    return blend(pal, flat ? 255.0f : (std::min(p, max) - min) * scale);
}

#if defined(__x86_64__) || defined(__i386__)
// Row index and fraction as in blend(), eight pixels at a time, for a block of pixels: the
// table offset of the row (8k; an unlit pixel takes the table's zero row, which blends to
// black), the fraction f and 1 - f.
struct blend_terms {
    alignas(32) int32_t at[block];
    alignas(32) float f[block], g[block];
};

VX_TARGET_AVX2 void terms_avx2(const float *src, size_t n, float min, float max, float scale,
                               blend_terms &t) noexcept {
    const __m256 vmin = _mm256_set1_ps(min), vmax = _mm256_set1_ps(max);
    const __m256 vscale = _mm256_set1_ps(scale), zero = _mm256_setzero_ps();
    const __m256 one = _mm256_set1_ps(1.0f), top = _mm256_set1_ps(256.0f);
    const __m256i dark = _mm256_set1_epi32(8 * palette_rows);
    for (size_t i = 0; i < n; i += 8) {
        const __m256 p = _mm256_loadu_ps(src + i);
        const __m256 lit = _mm256_cmp_ps(p, vmin, _CMP_GT_OQ);
        // std::min(p, max) keeps p unless max < p.
        const __m256 pc = _mm256_blendv_ps(p, vmax, _mm256_cmp_ps(vmax, p, _CMP_LT_OQ));
        const __m256 v = _mm256_mul_ps(_mm256_sub_ps(pc, vmin), vscale);
        const __m256 big = _mm256_cmp_ps(v, top, _CMP_GE_OQ);
        const __m256 mid = _mm256_andnot_ps(big, _mm256_cmp_ps(v, zero, _CMP_GE_OQ));
        __m256i k = _mm256_cvttps_epi32(_mm256_and_ps(v, mid));
        k = _mm256_blendv_epi8(k, _mm256_set1_epi32(255), _mm256_castps_si256(big));
        const __m256 f = _mm256_and_ps(_mm256_sub_ps(v, _mm256_cvtepi32_ps(k)), mid);
        _mm256_store_si256(
            reinterpret_cast<__m256i *>(t.at + i),
            _mm256_blendv_epi8(dark, _mm256_slli_epi32(k, 3), _mm256_castps_si256(lit)));
        _mm256_store_ps(t.f + i, f);
        _mm256_store_ps(t.g + i, _mm256_sub_ps(one, f));
    }
}

// Colours of the block from its terms, two pixels a register: rows k of a and b in one register,
// their next rows in another, each weighted by its own pixel's fraction. Reading the terms back
// from memory keeps the shuffle port free: the loads and broadcasts go to the load ports.
VX_TARGET_AVX2 void colours_avx2(const float *tab, const blend_terms &t, size_t n,
                                 uint32_t *out) noexcept {
    const __m256 c255 = _mm256_set1_ps(255.0f), half = _mm256_set1_ps(0.5f);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    for (size_t i = 0; i < n; i += 8) {
        __m256i c[4];
        for (int j = 0; j < 4; ++j) {
            const size_t a = i + 2 * j, b = a + 1;
            const float *ra = tab + t.at[a], *rb = tab + t.at[b];
            const __m256 row =
                _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_load_ps(ra)), _mm_load_ps(rb), 1);
            const __m256 next = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_load_ps(ra + 4)),
                                                     _mm_load_ps(rb + 4), 1);
            const __m256 f =
                _mm256_blend_ps(_mm256_broadcast_ss(t.f + a), _mm256_broadcast_ss(t.f + b), 0xF0);
            const __m256 g =
                _mm256_blend_ps(_mm256_broadcast_ss(t.g + a), _mm256_broadcast_ss(t.g + b), 0xF0);
            const __m256 mix = _mm256_add_ps(_mm256_mul_ps(next, f), _mm256_mul_ps(row, g));
            c[j] = _mm256_cvttps_epi32(_mm256_add_ps(_mm256_mul_ps(mix, c255), half));
        }
        // Lanes hold pixels (0, 2, 4, 6) and (1, 3, 5, 7) after packing; the permute restores
        // their order.
        const __m256i bytes =
            _mm256_packus_epi16(_mm256_packus_epi32(c[0], c[1]), _mm256_packus_epi32(c[2], c[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i),
                            _mm256_permutevar8x32_epi32(bytes, order));
    }
}

// Four pixels at a time with SSE4.1: the same terms, each pixel's rows in two registers.
VX_TARGET_SSE41 void colours_f32_sse41(const float *tab, const float *src, size_t n, float min,
                                       float max, float scale, uint32_t *out) noexcept {
    const __m128 vmin = _mm_set1_ps(min), vmax = _mm_set1_ps(max);
    const __m128 vscale = _mm_set1_ps(scale), zero = _mm_setzero_ps();
    const __m128 one = _mm_set1_ps(1.0f), c255 = _mm_set1_ps(255.0f);
    const __m128 half = _mm_set1_ps(0.5f), top = _mm_set1_ps(256.0f);
    for (size_t i = 0; i < n; i += 4) {
        const __m128 p = _mm_loadu_ps(src + i);
        const __m128 lit = _mm_cmpgt_ps(p, vmin);
        const __m128 pc = _mm_blendv_ps(p, vmax, _mm_cmplt_ps(vmax, p));
        const __m128 v = _mm_mul_ps(_mm_sub_ps(pc, vmin), vscale);
        const __m128 big = _mm_cmpge_ps(v, top);
        const __m128 mid = _mm_andnot_ps(big, _mm_cmpge_ps(v, zero));
        __m128i k = _mm_cvttps_epi32(_mm_and_ps(v, mid));
        k = _mm_blendv_epi8(k, _mm_set1_epi32(255), _mm_castps_si128(big));
        const __m128 f = _mm_and_ps(_mm_sub_ps(v, _mm_cvtepi32_ps(k)), mid);
        alignas(16) int32_t ks[4], on[4];
        alignas(16) float fs[4];
        _mm_store_si128(reinterpret_cast<__m128i *>(ks), k);
        _mm_store_si128(reinterpret_cast<__m128i *>(on), _mm_castps_si128(lit));
        _mm_store_ps(fs, f);
        for (int j = 0; j < 4; ++j) {
            const __m128 fj = _mm_set1_ps(fs[j]);
            const float *r = tab + ks[j] * 8;
            const __m128 c =
                _mm_add_ps(_mm_mul_ps(_mm_add_ps(_mm_mul_ps(_mm_load_ps(r + 4), fj),
                                                 _mm_mul_ps(_mm_load_ps(r), _mm_sub_ps(one, fj))),
                                      c255),
                           half);
            const __m128i w = _mm_packus_epi32(_mm_cvttps_epi32(c), _mm_setzero_si128());
            out[i + j] = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_packus_epi16(w, w))) &
                         static_cast<uint32_t>(on[j]);
        }
    }
}
#endif

// A palette as a table of eight floats a row for the vector kernels, made once per call: row k
// and the row blended with it (min(k, 253) + 1), each padded to four floats; then a row of zeros.
class vector_palette {
  public:
    explicit vector_palette(const float *pal) noexcept {
        for (int k = 0; k < palette_rows; ++k) {
            const int next = std::min(k, palette_rows - 3) + 1;
            for (int ch = 0; ch < 3; ++ch) {
                tab_[k * 8 + ch] = pal[k * 3 + ch];
                tab_[k * 8 + 4 + ch] = pal[next * 3 + ch];
            }
            tab_[k * 8 + 3] = tab_[k * 8 + 7] = 0.0f;
        }
        std::fill_n(tab_ + palette_rows * 8, 8, 0.0f);
    }

    // Colours of the whole steps of eight float pixels, at most `block` of them (none without
    // SSE4.1); answers how many pixels it did.
    size_t colours(const float *src, size_t n, float min, float max, float scale,
                   uint32_t *out) const noexcept {
#if defined(__x86_64__) || defined(__i386__)
        if (level_ == simd::level::scalar) return 0;
        const size_t done = n / 8 * 8;
        if (level_ == simd::level::avx2) {
            blend_terms t;
            terms_avx2(src, done, min, max, scale, t);
            colours_avx2(tab_, t, done, out);
        } else {
            colours_f32_sse41(tab_, src, done, min, max, scale, out);
        }
        return done;
#else
        (void)src, (void)n, (void)min, (void)max, (void)scale, (void)out;
        return 0;
#endif
    }

  private:
    simd::level level_ = simd::active();
    alignas(32) float tab_[(palette_rows + 1) * 8];
};

void render_f32(const float *pal, const float *src, const planes &pl, float min,
                float max) noexcept {
    const size_t n = pl.total;
    const bool flat = !(max > min);
    const float scale = 255.0f / (max - min);
    size_t i = 0;
    if (!flat && n >= block && simd::active() != simd::level::scalar) {
        const vector_palette vp(pal);
        uint32_t colours[block] = {};
        for (; i + block <= n; i += block) {
            vp.colours(src + i, block, min, max, scale, colours);
            write(pl, i, colours, block);
        }
    }
    emit(pl, i, n, [&](size_t k) { return colour_f32(pal, src[k], flat, min, max, scale); });
}

void render_u16(const float *pal, const uint16_t *src, const planes &pl, uint16_t min,
                uint16_t max) noexcept {
    const size_t n = pl.total;
    if (max <= min) {
        const uint32_t top = blend(pal, 255.0f);
        emit(pl, 0, n, [&](size_t i) { return src[i] <= min ? 0u : top; });
        return;
    }
    const uint32_t span = static_cast<uint32_t>(max - min);
    const float scale = 255.0f / static_cast<float>(span);
    auto colour = [&](uint32_t q) { return blend(pal, static_cast<float>(q) * scale); };
    uint32_t *lut = span < n ? u16_lut() : nullptr;
    if (!lut) {
        emit(pl, 0, n, [&](size_t i) {
            const uint16_t p = src[i];
            return p <= min ? 0u : colour(static_cast<uint32_t>(std::min(p, max) - min));
        });
        return;
    }
    // Entry q is the colour of min + q: the float kernels give the same bits for the value q
    // over the range 0..span.
    lut[0] = 0;
    const vector_palette vp(pal);
    uint32_t q = 1;
    float values[block];
    while (q <= span) {
        const uint32_t len = std::min<uint32_t>(static_cast<uint32_t>(block), span + 1 - q);
        for (uint32_t j = 0; j < len; ++j) values[j] = static_cast<float>(q + j);
        const size_t done = vp.colours(values, len, 0.0f, static_cast<float>(span), scale, lut + q);
        for (size_t j = done; j < len; ++j) lut[q + j] = colour(q + static_cast<uint32_t>(j));
        q += len;
    }
    emit(pl, 0, n, [&](size_t i) {
        const uint16_t p = src[i];
        return lut[p <= min ? 0 : std::min(p, max) - min];
    });
}

bool planes_ok(const vx_cmap_t *ctx, const void *src, const uint8_t *r, const uint8_t *g,
               const uint8_t *b, int32_t stride) noexcept {
    return ctx && src && r && g && b && stride >= 1;
}

// Histogram equalisation shared by both sample types; the levels are floats, truncated on
// storing into integer pixels. `fatal` selects the process end on a failed histogram allocation.
template <class T>
int histeq(T *dst, const T *src, int32_t count, float min, float max, int32_t bins, bool interp,
           const char *name, bool fatal) noexcept {
    if (!dst || !src || bins < 1) return -22;
    if (count < 1) return 0;
    const size_t n = static_cast<size_t>(count);
    const size_t nb = static_cast<size_t>(bins);
    const float range = max - min;
    const float per_value = static_cast<float>(bins) / range;
    auto in_range = [&](float p) { return p > min && p < max; };
    auto position = [&](float p) { return (p - min) * per_value; };
    auto bin_of = [&](float pos) {
        return pos < static_cast<float>(nb) ? std::min(static_cast<size_t>(pos), nb - 1) : nb - 1;
    };

    // Counts of the bins, then their levels, in one block.
    void *block = std::malloc(nb * (sizeof(uint32_t) + sizeof(float)));
    if (!block) {
        VX_LOG_AS(VX_LOG_ERR, name, "[%s]malloc failed\n");
        if (fatal) std::exit(0);
        return -12;
    }
    auto *hist = static_cast<uint32_t *>(block);
    auto *level = reinterpret_cast<float *>(hist + nb);
    std::fill(hist, hist + nb, 0u);
    size_t outliers = 0;
    for (size_t i = 0; i < n; ++i) {
        const float p = static_cast<float>(src[i]);
        if (in_range(p))
            ++hist[bin_of(position(p))];
        else
            ++outliers;
    }
    const float norm = static_cast<float>(n - outliers) + 0.001f;
    size_t running = 0;
    for (size_t k = 0; k < nb; ++k) {
        running += hist[k];
        level[k] = static_cast<float>(running) * range / norm + min;
    }
    for (size_t i = 0; i < n; ++i) {
        const float p = static_cast<float>(src[i]);
        float out = 0.0f;
        if (in_range(p)) {
            const float pos = position(p);
            const size_t k = bin_of(pos);
            out = level[k];
            if (interp) {
                const float f = std::min(pos - static_cast<float>(k), 1.0f);
                out += (level[std::min(k + 1, nb - 1)] - level[k]) * f;
            }
        }
        dst[i] = static_cast<T>(out);
    }
    std::free(block);
    return 0;
}

}  // namespace
}  // namespace tevix::cmap

using namespace tevix::cmap;

extern "C" int vx_cmap_init(vx_cmap_t *ctx, int32_t n) noexcept {
    if (!ctx) return -22;
    *ctx = vx_cmap_t{};
    auto *lock = new (std::nothrow) std::mutex;
    uint32_t *table = nullptr;
    if (lock && n >= 1) table = static_cast<uint32_t *>(std::malloc(static_cast<size_t>(n) * 4));
    if (!lock || (n >= 1 && !table)) {
        VX_ERR("[%s]malloc failed\n");
        delete lock;
        return -12;
    }
    for (int32_t i = 0; i < n; ++i) table[i] = table_entry(i, n);
    ctx->range_min = 0.0f;
    ctx->range_max = default_range;
    ctx->table_scale = static_cast<float>(n) / default_range;
    ctx->color_scale = 255.0f / default_range;
    ctx->lookup_scale = ctx->color_scale;
    ctx->table = table;
    ctx->n = n;
    ctx->palette = 0;
    ctx->lock = lock;
    return 0;
}

extern "C" void vx_cmap_uninit(vx_cmap_t *ctx) noexcept {
    if (!ctx) return;
    std::free(ctx->table);
    delete lock_of(ctx);
    *ctx = vx_cmap_t{};
}

extern "C" void vx_cmap_set_range(vx_cmap_t *ctx, float a, float b) noexcept {
    if (!ctx || std::isnan(a) || std::isnan(b)) return;
    const float d = b - a;
    if (d == 0.0f) {
        ctx->color_scale = 255.0f;
        ctx->lookup_scale = 255.0f;
        ctx->table_scale = static_cast<float>(ctx->n);
        return;
    }
    ctx->range_min = std::min(a, b);
    ctx->range_max = std::max(a, b);
    ctx->color_scale = 255.0f / std::fabs(d);
    ctx->lookup_scale = ctx->color_scale;
    ctx->table_scale = static_cast<float>(ctx->n) / std::fabs(d);
}

extern "C" bool vx_cmap_set_palette(vx_cmap_t *ctx, uint32_t id) noexcept {
    if (!ctx || id >= palette_count) return false;
    ctx_guard g(ctx);
    ctx->palette = id;
    return true;
}

extern "C" uint32_t vx_cmap_get_palette(vx_cmap_t *ctx) noexcept {
    if (!ctx) return 0;
    ctx_guard g(ctx);
    return ctx->palette;
}

extern "C" uint32_t vx_cmap_get_color(vx_cmap_t *ctx, int32_t value) noexcept {
    if (value == static_cast<int32_t>(VX_CMAP_MARK_BLACK)) return 0x000000u;
    if (value == static_cast<int32_t>(VX_CMAP_MARK_PURPLE)) return 0x8000FFu;
    if (value == static_cast<int32_t>(VX_CMAP_MARK_INVALID)) return 0xFF0EA9u;
    if (!ctx) return 0;
    ctx_guard g(ctx);
    const float v = static_cast<float>(value);
    if (v <= ctx->range_min || v > ctx->range_max) return 0;
    if (ctx->palette == 0) {
        if (!ctx->table || ctx->n < 1) return 0;
        const double step = std::trunc(std::trunc(v - ctx->range_min) * ctx->table_scale);
        const double index = static_cast<double>(ctx->n) - step;
        if (!(index > 0.0)) return ctx->table[0];
        return ctx->table[index >= ctx->n - 1 ? ctx->n - 1 : static_cast<int32_t>(index)];
    }
    return blend(palette(ctx->palette), (v - ctx->range_min) * ctx->lookup_scale);
}

extern "C" int vx_cmap_u16_to_rgb(vx_cmap_t *ctx, const uint16_t *src, int32_t count, uint8_t *r,
                                  uint8_t *g, uint8_t *b, int32_t stride, uint16_t min,
                                  uint16_t max, int histeq) noexcept {
    if (!planes_ok(ctx, src, r, g, b, stride)) return -22;
    if (count < 1) return 0;
    const float *pal = current_palette(ctx);
    if (histeq) {
        // The equalised copy is made but, as the colours come from the original pixels, unused.
        auto *tmp = static_cast<uint16_t *>(std::malloc(static_cast<size_t>(count) * 2));
        if (!tmp) {
            VX_ERR("[%s]malloc failed\n");
        } else {
            vx_cmap_histeq_u16(tmp, src, count, min, max, histeq_bins, 1);
            std::free(tmp);
        }
    }
    render_u16(pal, src, planes(r, g, b, static_cast<size_t>(stride), static_cast<size_t>(count)),
               min, max);
    return 0;
}

extern "C" int vx_cmap_f32_to_rgb(vx_cmap_t *ctx, const float *src, int32_t count, uint8_t *r,
                                  uint8_t *g, uint8_t *b, int32_t stride, float min, float max,
                                  int histeq) noexcept {
    if (!planes_ok(ctx, src, r, g, b, stride)) return -22;
    if (count < 1) return 0;
    const float *pal = current_palette(ctx);
    std::unique_ptr<float, decltype(&std::free)> tmp(nullptr, &std::free);
    if (histeq) {
        tmp.reset(static_cast<float *>(std::malloc(static_cast<size_t>(count) * sizeof(float))));
        if (!tmp) {
            VX_ERR("[%s]malloc failed\n");
            return -12;
        }
        vx_cmap_histeq_f32(tmp.get(), src, count, min, max, histeq_bins, 1);
        src = tmp.get();
    }
    render_f32(pal, src, planes(r, g, b, static_cast<size_t>(stride), static_cast<size_t>(count)),
               min, max);
    return 0;
}

extern "C" int vx_cmap_histeq_u16(uint16_t *dst, const uint16_t *src, int32_t count, uint16_t min,
                                  uint16_t max, int32_t bins, int interp) noexcept {
    return histeq(dst, src, count, static_cast<float>(min), static_cast<float>(max), bins,
                  interp != 0, "vx_cmap_histeq_u16", false);
}

extern "C" int vx_cmap_histeq_f32(float *dst, const float *src, int32_t count, float min, float max,
                                  int32_t bins, int interp) noexcept {
    return histeq(dst, src, count, min, max, bins, interp != 0, "vx_cmap_histeq_f32", true);
}
