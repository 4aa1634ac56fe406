// SONY raw formats (see imx_format.h). The expansion of the 12-bit streams has vector forms
// (byte shuffles); the other loops are plain integer code compiled for each instruction-set tier.
// Every tier gives the same values.
#include "drivers/sony/imx_format.h"

#include <algorithm>
#include <cstring>

#include "algo/simd.h"
#include "algo/vec.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace tevix::imx {

namespace {

constexpr int16_t k_none = -32768;

VX_INLINE int16_t _s12(const uint8_t *stream, uint32_t j) {
    const uint8_t *g = stream + size_t{j >> 1} * 3;
    const uint32_t v = (j & 1) ? (uint32_t{g[1]} >> 4) | (uint32_t{g[2]} << 4)
                               : uint32_t{g[0]} | ((uint32_t{g[1]} & 0xF) << 8);
    const auto s = static_cast<int16_t>(int32_t(v << 20) >> 20);
    return s == k_none_s12 ? k_none : s;
}

// Samples j0 .. j0 + count of a packed 12-bit stream as int16 (the marker as -32768); the vector
// forms take eight or sixteen samples from 12 or 24 bytes a step, from an even sample on.
VX_INLINE void _expand12_tail(const uint8_t *stream, uint32_t j0, uint32_t count, int16_t *dst,
                              uint32_t i) {
    for (; i < count; ++i) dst[i] = _s12(stream, j0 + i);
}

#if defined(__x86_64__) || defined(__i386__)
VX_TARGET_SSE41 void _expand12_sse41(const uint8_t *stream, uint32_t j0, uint32_t count,
                                     int16_t *dst) {
    uint32_t i = 0;
    if (j0 & 1) dst[i++] = _s12(stream, j0);
    const uint8_t *s = stream + size_t{(j0 + i) >> 1} * 3;
    const __m128i shuf = _mm_setr_epi8(0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11);
    const __m128i mask = _mm_set1_epi16(0x0FFF), marker = _mm_set1_epi16(k_none_s12);
    const __m128i none = _mm_set1_epi16(k_none);
    // Sixteen bytes are read for twelve: eleven samples must remain.
    for (; i + 11 <= count; i += 8, s += 12) {
        __m128i v = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s)), shuf);
        v = _mm_blend_epi16(_mm_and_si128(v, mask), _mm_srli_epi16(v, 4), 0xAA);
        v = _mm_srai_epi16(_mm_slli_epi16(v, 4), 4);
        v = _mm_blendv_epi8(v, none, _mm_cmpeq_epi16(v, marker));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), v);
    }
    _expand12_tail(stream, j0, count, dst, i);
}

VX_TARGET_AVX2 void _expand12_avx2(const uint8_t *stream, uint32_t j0, uint32_t count,
                                   int16_t *dst) {
    uint32_t i = 0;
    if (j0 & 1) dst[i++] = _s12(stream, j0);
    const uint8_t *s = stream + size_t{(j0 + i) >> 1} * 3;
    const __m256i shuf = _mm256_setr_epi8(0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11, 0, 1,
                                          1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11);
    const __m256i mask = _mm256_set1_epi16(0x0FFF), marker = _mm256_set1_epi16(k_none_s12);
    const __m256i none = _mm256_set1_epi16(k_none);
    // 24 bytes a step in two lanes of 12; the upper load reads 28 bytes in all.
    for (; i + 19 <= count; i += 16, s += 24) {
        const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s));
        const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + 12));
        __m256i v = _mm256_shuffle_epi8(_mm256_set_m128i(hi, lo), shuf);
        v = _mm256_blend_epi16(_mm256_and_si256(v, mask), _mm256_srli_epi16(v, 4), 0xAA);
        v = _mm256_srai_epi16(_mm256_slli_epi16(v, 4), 4);
        v = _mm256_blendv_epi8(v, none, _mm256_cmpeq_epi16(v, marker));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), v);
    }
    _expand12_tail(stream, j0, count, dst, i);
}
#endif

void _expand12(const uint8_t *stream, uint32_t j0, uint32_t count, int16_t *dst,
               tevix::simd::level l) {
#if defined(__x86_64__) || defined(__i386__)
    if (l == tevix::simd::level::avx2) return _expand12_avx2(stream, j0, count, dst);
    if (l == tevix::simd::level::sse41) return _expand12_sse41(stream, j0, count, dst);
#endif
    _expand12_tail(stream, j0, count, dst, 0);
}

// 8-bit samples (component c of `comps`, plane by plane or each pixel's together) times 16.
VX_INLINE void _expand8_body(const int8_t *s, uint32_t n, uint32_t comps, uint32_t c,
                             bool interleaved, int16_t *dst) {
    if (interleaved) {
        for (uint32_t i = 0; i < n; ++i) {
            const int8_t v = s[size_t{i} * comps + c];
            dst[i] = v == k_none_s8 ? k_none : static_cast<int16_t>(v * 16);
        }
        return;
    }
    const int8_t *p = s + size_t{c} * n;
    for (uint32_t i = 0; i < n; ++i)
        dst[i] = p[i] == k_none_s8 ? k_none : static_cast<int16_t>(p[i] * 16);
}

void _expand8_scalar(const int8_t *s, uint32_t n, uint32_t comps, uint32_t c, bool interleaved,
                     int16_t *dst) {
    _expand8_body(s, n, comps, c, interleaved, dst);
}
VX_TARGET_AVX2 void _expand8_avx2(const int8_t *s, uint32_t n, uint32_t comps, uint32_t c,
                                  bool interleaved, int16_t *dst) {
    _expand8_body(s, n, comps, c, interleaved, dst);
}
VX_TARGET_SSE41 void _expand8_sse41(const int8_t *s, uint32_t n, uint32_t comps, uint32_t c,
                                    bool interleaved, int16_t *dst) {
    _expand8_body(s, n, comps, c, interleaved, dst);
}

void _expand(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set, int16_t *x, int16_t *y,
             int16_t *scratch, tevix::simd::level tier) {
    const uint32_t comps = 2u * l.sets, c0 = 2 * set;
    switch (l.type) {
        case sample::iq16:
            std::memcpy(x, raw, size_t{n} * 2);
            std::memcpy(y, raw + size_t{n} * 2, size_t{n} * 2);
            break;
        case sample::iq8: {
            const auto *s = reinterpret_cast<const int8_t *>(raw);
            auto *fn = tier == tevix::simd::level::avx2    ? _expand8_avx2
                       : tier == tevix::simd::level::sse41 ? _expand8_sse41
                                                           : _expand8_scalar;
            fn(s, n, comps, c0, l.interleaved, x);
            fn(s, n, comps, c0 + 1, l.interleaved, y);
            break;
        }
        case sample::iq12:
            if (!l.interleaved) {
                _expand12(raw, c0 * n, n, x, tier);
                _expand12(raw, (c0 + 1) * n, n, y, tier);
                break;
            }
            // Each pixel's samples together: the whole stream, then this pair's.
            _expand12(raw, 0, comps * n, scratch, tier);
            for (uint32_t i = 0; i < n; ++i) {
                x[i] = scratch[size_t{i} * comps + c0];
                y[i] = scratch[size_t{i} * comps + c0 + 1];
            }
            break;
        default:
            std::memset(x, 0, size_t{n} * 2);
            std::memset(y, 0, size_t{n} * 2);
            break;
    }
}

VX_INLINE void _phase_body(const uint16_t *words, uint32_t n, uint32_t range, int32_t offset_mm,
                           int32_t *dist, uint32_t *conf) {
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t w = words[i];
        const int32_t d = int32_t(((w & 0x7FFF) * range) >> 15) + offset_mm;
        dist[i] = (w & k_phase_none) ? 65500 : d;
        conf[i] = 0;
    }
}

VX_TARGET_AVX2 void _phase_avx2(const uint16_t *words, uint32_t n, uint32_t range,
                                int32_t offset_mm, int32_t *dist, uint32_t *conf) {
    _phase_body(words, n, range, offset_mm, dist, conf);
}

// Phase to millimetres for L pixels at a time (L 1: a scalar); invalid phases pass as they are.
template <class V, class F>
VX_INLINE V _to_mm(const V &ph, float k, int32_t offset_mm) {
    V d;
    if constexpr (sizeof(V) == sizeof(int32_t))
        d = static_cast<int32_t>(static_cast<float>(ph) * k + 0.5f) + offset_mm;
    else
        d = __builtin_convertvector(__builtin_convertvector(ph, F) * k + 0.5f, V) + offset_mm;
    d = d < 0 ? V{} : d;
    d = d > 65499 ? V{} + 65499 : d;
    return ((ph >= 0) & (ph < 32768)) ? d : ph;
}

template <class V, class F>
VX_INLINE void _to_mm_run(const int32_t *phase, uint32_t n, float k, int32_t offset_mm,
                          uint16_t *out) {
    uint32_t i = 0;
    if constexpr (sizeof(V) > sizeof(int32_t)) {
        constexpr uint32_t L = sizeof(V) / sizeof(int32_t);
        typedef uint16_t h __attribute__((vector_size(2 * L)));
        for (; i + L <= n; i += L) {
            const V d = _to_mm<V, F>(tevix::algo::load<V>(phase + i), k, offset_mm);
            const h r = __builtin_convertvector(d, h);
            std::memcpy(out + i, &r, sizeof r);
        }
    }
    for (; i < n; ++i)
        out[i] = static_cast<uint16_t>(_to_mm<int32_t, float>(phase[i], k, offset_mm));
}

VX_TARGET_AVX2 void _to_mm_avx2(const int32_t *phase, uint32_t n, float k, int32_t offset_mm,
                                uint16_t *out) {
    _to_mm_run<tevix::algo::i32x8, tevix::algo::f32x8>(phase, n, k, offset_mm, out);
}
VX_TARGET_SSE41 void _to_mm_sse41(const int32_t *phase, uint32_t n, float k, int32_t offset_mm,
                                  uint16_t *out) {
    _to_mm_run<tevix::algo::i32x4, tevix::algo::f32x4>(phase, n, k, offset_mm, out);
}

}  // namespace

void phase_to_mm_scalar(const int32_t *phase, uint32_t n, float mm_per_turn, int32_t offset_mm,
                        uint16_t *out) {
    _to_mm_run<int32_t, float>(phase, n, mm_per_turn / 32768.0f, offset_mm, out);
}

void phase_to_mm(const int32_t *phase, uint32_t n, float mm_per_turn, int32_t offset_mm,
                 uint16_t *out) {
    const float k = mm_per_turn / 32768.0f;
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            _to_mm_avx2(phase, n, k, offset_mm, out);
            break;
        case tevix::simd::level::sse41:
            _to_mm_sse41(phase, n, k, offset_mm, out);
            break;
        default:
            _to_mm_run<int32_t, float>(phase, n, k, offset_mm, out);
            break;
    }
}

double exact_range_mm(uint32_t f) {
    return f ? 299792458.0e3 / (2.0 * f) : 0.0;
}

layout layout_of(uint16_t format) {
    const bool flag = format & 0x80;
    switch (format & 0x7F) {
        case 14:
            return {flag ? 1028u : 1284u, 4, sample::iq8, 2, flag};
        case 17:
            return {flag ? 1796u : 2052u, 6, sample::iq12, 2, flag};
        default:
            break;
    }
    if (format == 2) return {4, 8, sample::dcs16, 1, false};
    if ((format & 0x77) == 2) return {769, 2, sample::phase16, 1, false};
    switch (format) {
        case 13:
            return {514, 4, sample::iq16, 1, false};
        case 15:
            return {8, 4, sample::iq8, 2, false};
        case 16:
            return {1538, 3, sample::iq12, 1, false};
        default:
            return {};
    }
}

void expand_iq_scalar(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set, int16_t *x,
                      int16_t *y, int16_t *scratch) {
    _expand(l, raw, n, set, x, y, scratch, tevix::simd::level::scalar);
}

void expand_iq(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set, int16_t *x,
               int16_t *y, int16_t *scratch) {
    _expand(l, raw, n, set, x, y, scratch, tevix::simd::active());
}

bool iq_planes(const layout &l, const uint8_t *raw, uint32_t n, const int16_t **x,
               const int16_t **y) {
    if (l.type != sample::iq16 || (reinterpret_cast<uintptr_t>(raw) & 1)) return false;
    *x = reinterpret_cast<const int16_t *>(raw);
    *y = *x + n;
    return true;
}

void decode_phase_words(const uint16_t *words, uint32_t n, uint32_t range, int32_t offset_mm,
                        int32_t *dist, uint32_t *conf) {
    if (tevix::simd::active() == tevix::simd::level::avx2)
        _phase_avx2(words, n, range, offset_mm, dist, conf);
    else
        _phase_body(words, n, range, offset_mm, dist, conf);
}

void hdr_pick(int32_t *dist_a, uint32_t *conf_a, const int32_t *dist_b, const uint32_t *conf_b,
              uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        const bool b = conf_b[i] >= conf_a[i];
        dist_a[i] = b ? dist_b[i] : dist_a[i];
        conf_a[i] = b ? conf_b[i] : conf_a[i];
    }
}

void pack12(const int16_t *samples, uint32_t count, uint8_t *out) {
    for (uint32_t j = 0; j < count; j += 2) {
        const uint32_t a = uint32_t(samples[j]) & 0xFFF;
        const uint32_t b = j + 1 < count ? uint32_t(samples[j + 1]) & 0xFFF : 0;
        uint8_t *g = out + size_t{j / 2} * 3;
        g[0] = uint8_t(a);
        g[1] = uint8_t((a >> 8) | (b << 4));
        g[2] = uint8_t(b >> 4);
    }
}

}  // namespace tevix::imx
