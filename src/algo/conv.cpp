// Conversions between pixel sample types. Each routine has a scalar loop and SSE4.1/AVX2 loops
// that give the same bits: the vector code does the same IEEE operations in the same order, and
// its clamps use max/min with the operands placed so that a NaN becomes 0 as in the scalar code.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "algo/simd.h"
#include "tevix/vx_cmap.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace tevix::cmap {
namespace {

// Bounds of the unsigned conversion.
constexpr float two31 = 2147483648.0f;
constexpr float two32 = 4294967296.0f;

// max(x, 0) and min(x, hi) with the operand order of maxps/minps: a NaN x gives 0.
inline float clamp_hi(float x, float hi) noexcept {
    x = x > 0.0f ? x : 0.0f;
    return x < hi ? x : hi;
}

void u16_u8_scalar(uint8_t *dst, const uint16_t *src, size_t n, uint32_t shift) noexcept {
    for (size_t i = 0; i < n; ++i)
        dst[i] = static_cast<uint8_t>(std::min<uint32_t>(src[i] >> shift, 255u));
}
void u16_f32_scalar(float *dst, const uint16_t *src, size_t n, float scale) noexcept {
    for (size_t i = 0; i < n; ++i) dst[i] = static_cast<float>(src[i]) * scale;
}
void u16_u32_scalar(uint32_t *dst, const uint16_t *src, size_t n, uint32_t factor) noexcept {
    for (size_t i = 0; i < n; ++i) dst[i] = (static_cast<uint32_t>(src[i]) * factor) >> 16;
}
void f32_u8_scalar(uint8_t *dst, const float *src, size_t n, float scale) noexcept {
    for (size_t i = 0; i < n; ++i) dst[i] = static_cast<uint8_t>(clamp_hi(src[i] * scale, 255.0f));
}
void f32_u16_scalar(uint16_t *dst, const float *src, size_t n, float scale) noexcept {
    for (size_t i = 0; i < n; ++i)
        dst[i] = static_cast<uint16_t>(clamp_hi(src[i] * scale, 65535.0f));
}
void f32_u32_scalar(uint32_t *dst, const float *src, size_t n, float scale) noexcept {
    for (size_t i = 0; i < n; ++i) {
        const float x = src[i] * scale;
        dst[i] = !(x > 0.0f) ? 0u : x >= two32 ? 0xFFFFFFFFu : static_cast<uint32_t>(x);
    }
}
void u32_f32_scalar(float *dst, const uint32_t *src, size_t n, float scale) noexcept {
    for (size_t i = 0; i < n; ++i) dst[i] = static_cast<float>(src[i]) * scale;
}

#if defined(__x86_64__) || defined(__i386__)

// Each vector loop converts whole steps and answers how many elements it did; every step loads
// all its source before storing, so the in-place layouts documented in the header are safe.

VX_TARGET_SSE41 size_t u16_u8_sse41(uint8_t *dst, const uint16_t *src, size_t n,
                                    uint32_t shift) noexcept {
    const __m128i cnt = _mm_cvtsi32_si128(static_cast<int>(shift));
    const __m128i top = _mm_set1_epi16(255);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i + 8));
        a = _mm_min_epu16(_mm_srl_epi16(a, cnt), top);
        b = _mm_min_epu16(_mm_srl_epi16(b, cnt), top);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), _mm_packus_epi16(a, b));
    }
    return i;
}
VX_TARGET_AVX2 size_t u16_u8_avx2(uint8_t *dst, const uint16_t *src, size_t n,
                                  uint32_t shift) noexcept {
    const __m128i cnt = _mm_cvtsi32_si128(static_cast<int>(shift));
    const __m256i top = _mm256_set1_epi16(255);
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i + 16));
        a = _mm256_min_epu16(_mm256_srl_epi16(a, cnt), top);
        b = _mm256_min_epu16(_mm256_srl_epi16(b, cnt), top);
        const __m256i p = _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), p);
    }
    return i;
}

VX_TARGET_SSE41 size_t u16_f32_sse41(float *dst, const uint16_t *src, size_t n,
                                     float scale) noexcept {
    const __m128 s = _mm_set1_ps(scale);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        const __m128 lo = _mm_cvtepi32_ps(_mm_cvtepu16_epi32(v));
        const __m128 hi = _mm_cvtepi32_ps(_mm_cvtepu16_epi32(_mm_srli_si128(v, 8)));
        _mm_storeu_ps(dst + i, _mm_mul_ps(lo, s));
        _mm_storeu_ps(dst + i + 4, _mm_mul_ps(hi, s));
    }
    return i;
}
VX_TARGET_AVX2 size_t u16_f32_avx2(float *dst, const uint16_t *src, size_t n,
                                   float scale) noexcept {
    const __m256 s = _mm256_set1_ps(scale);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        const __m256 lo = _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm256_castsi256_si128(v)));
        const __m256 hi = _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm256_extracti128_si256(v, 1)));
        _mm256_storeu_ps(dst + i, _mm256_mul_ps(lo, s));
        _mm256_storeu_ps(dst + i + 8, _mm256_mul_ps(hi, s));
    }
    return i;
}

// (src * factor) >> 16 is the high half of the 16 x 16-bit product.
VX_TARGET_SSE41 size_t u16_u32_sse41(uint32_t *dst, const uint16_t *src, size_t n,
                                     uint32_t factor) noexcept {
    const __m128i f = _mm_set1_epi16(static_cast<short>(factor));
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        const __m128i h = _mm_mulhi_epu16(v, f);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), _mm_cvtepu16_epi32(h));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i + 4),
                         _mm_cvtepu16_epi32(_mm_srli_si128(h, 8)));
    }
    return i;
}
VX_TARGET_AVX2 size_t u16_u32_avx2(uint32_t *dst, const uint16_t *src, size_t n,
                                   uint32_t factor) noexcept {
    const __m256i f = _mm256_set1_epi16(static_cast<short>(factor));
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        const __m256i h = _mm256_mulhi_epu16(v, f);
        const __m256i lo = _mm256_cvtepu16_epi32(_mm256_castsi256_si128(h));
        const __m256i hi = _mm256_cvtepu16_epi32(_mm256_extracti128_si256(h, 1));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), lo);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i + 8), hi);
    }
    return i;
}

VX_TARGET_SSE41 inline __m128i clamp_cvt(__m128 x, __m128 s, __m128 hi) noexcept {
    return _mm_cvttps_epi32(_mm_min_ps(_mm_max_ps(_mm_mul_ps(x, s), _mm_setzero_ps()), hi));
}
VX_TARGET_AVX2 inline __m256i clamp_cvt(__m256 x, __m256 s, __m256 hi) noexcept {
    return _mm256_cvttps_epi32(
        _mm256_min_ps(_mm256_max_ps(_mm256_mul_ps(x, s), _mm256_setzero_ps()), hi));
}

VX_TARGET_SSE41 size_t f32_u8_sse41(uint8_t *dst, const float *src, size_t n,
                                    float scale) noexcept {
    const __m128 s = _mm_set1_ps(scale);
    const __m128 hi = _mm_set1_ps(255.0f);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i a = clamp_cvt(_mm_loadu_ps(src + i), s, hi);
        const __m128i b = clamp_cvt(_mm_loadu_ps(src + i + 4), s, hi);
        const __m128i c = clamp_cvt(_mm_loadu_ps(src + i + 8), s, hi);
        const __m128i d = clamp_cvt(_mm_loadu_ps(src + i + 12), s, hi);
        const __m128i p = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), p);
    }
    return i;
}
VX_TARGET_AVX2 size_t f32_u8_avx2(uint8_t *dst, const float *src, size_t n, float scale) noexcept {
    const __m256 s = _mm256_set1_ps(scale);
    const __m256 hi = _mm256_set1_ps(255.0f);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i a = clamp_cvt(_mm256_loadu_ps(src + i), s, hi);
        const __m256i b = clamp_cvt(_mm256_loadu_ps(src + i + 8), s, hi);
        const __m256i c = clamp_cvt(_mm256_loadu_ps(src + i + 16), s, hi);
        const __m256i d = clamp_cvt(_mm256_loadu_ps(src + i + 24), s, hi);
        // The in-lane packs interleave the four sources by 4-element groups; one permute
        // restores the order.
        const __m256i p = _mm256_packus_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(c, d));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i),
                            _mm256_permutevar8x32_epi32(p, order));
    }
    return i;
}

VX_TARGET_SSE41 size_t f32_u16_sse41(uint16_t *dst, const float *src, size_t n,
                                     float scale) noexcept {
    const __m128 s = _mm_set1_ps(scale);
    const __m128 hi = _mm_set1_ps(65535.0f);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i a = clamp_cvt(_mm_loadu_ps(src + i), s, hi);
        const __m128i b = clamp_cvt(_mm_loadu_ps(src + i + 4), s, hi);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), _mm_packus_epi32(a, b));
    }
    return i;
}
VX_TARGET_AVX2 size_t f32_u16_avx2(uint16_t *dst, const float *src, size_t n,
                                   float scale) noexcept {
    const __m256 s = _mm256_set1_ps(scale);
    const __m256 hi = _mm256_set1_ps(65535.0f);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i a = clamp_cvt(_mm256_loadu_ps(src + i), s, hi);
        const __m256i b = clamp_cvt(_mm256_loadu_ps(src + i + 8), s, hi);
        const __m256i p = _mm256_permute4x64_epi64(_mm256_packus_epi32(a, b), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), p);
    }
    return i;
}

// Values of 2^31 and above are converted after subtracting 2^31, which the top bit then adds
// back; values of 2^32 and above saturate.
VX_TARGET_SSE41 inline __m128i cvt_u32(__m128 x) noexcept {
    x = _mm_max_ps(x, _mm_setzero_ps());
    const __m128 big = _mm_cmpge_ps(x, _mm_set1_ps(two32));
    const __m128 high = _mm_cmpge_ps(x, _mm_set1_ps(two31));
    const __m128i i = _mm_cvttps_epi32(_mm_sub_ps(x, _mm_and_ps(high, _mm_set1_ps(two31))));
    const __m128i top = _mm_slli_epi32(_mm_castps_si128(high), 31);
    return _mm_or_si128(_mm_xor_si128(i, top), _mm_castps_si128(big));
}
VX_TARGET_AVX2 inline __m256i cvt_u32(__m256 x) noexcept {
    x = _mm256_max_ps(x, _mm256_setzero_ps());
    const __m256 big = _mm256_cmp_ps(x, _mm256_set1_ps(two32), _CMP_GE_OQ);
    const __m256 high = _mm256_cmp_ps(x, _mm256_set1_ps(two31), _CMP_GE_OQ);
    const __m256i i =
        _mm256_cvttps_epi32(_mm256_sub_ps(x, _mm256_and_ps(high, _mm256_set1_ps(two31))));
    const __m256i top = _mm256_slli_epi32(_mm256_castps_si256(high), 31);
    return _mm256_or_si256(_mm256_xor_si256(i, top), _mm256_castps_si256(big));
}

VX_TARGET_SSE41 size_t f32_u32_sse41(uint32_t *dst, const float *src, size_t n,
                                     float scale) noexcept {
    const __m128 s = _mm_set1_ps(scale);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i a = cvt_u32(_mm_mul_ps(_mm_loadu_ps(src + i), s));
        const __m128i b = cvt_u32(_mm_mul_ps(_mm_loadu_ps(src + i + 4), s));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), a);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i + 4), b);
    }
    return i;
}
VX_TARGET_AVX2 size_t f32_u32_avx2(uint32_t *dst, const float *src, size_t n,
                                   float scale) noexcept {
    const __m256 s = _mm256_set1_ps(scale);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i a = cvt_u32(_mm256_mul_ps(_mm256_loadu_ps(src + i), s));
        const __m256i b = cvt_u32(_mm256_mul_ps(_mm256_loadu_ps(src + i + 8), s));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), a);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i + 8), b);
    }
    return i;
}

// hi * 65536 and lo are exact floats, so their sum is rounded once, like the scalar conversion.
VX_TARGET_SSE41 inline __m128 cvt_f32(__m128i v) noexcept {
    const __m128 hi = _mm_cvtepi32_ps(_mm_srli_epi32(v, 16));
    const __m128 lo = _mm_cvtepi32_ps(_mm_and_si128(v, _mm_set1_epi32(0xFFFF)));
    return _mm_add_ps(_mm_mul_ps(hi, _mm_set1_ps(65536.0f)), lo);
}
VX_TARGET_AVX2 inline __m256 cvt_f32(__m256i v) noexcept {
    const __m256 hi = _mm256_cvtepi32_ps(_mm256_srli_epi32(v, 16));
    const __m256 lo = _mm256_cvtepi32_ps(_mm256_and_si256(v, _mm256_set1_epi32(0xFFFF)));
    return _mm256_add_ps(_mm256_mul_ps(hi, _mm256_set1_ps(65536.0f)), lo);
}

VX_TARGET_SSE41 size_t u32_f32_sse41(float *dst, const uint32_t *src, size_t n,
                                     float scale) noexcept {
    const __m128 s = _mm_set1_ps(scale);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i + 4));
        _mm_storeu_ps(dst + i, _mm_mul_ps(cvt_f32(a), s));
        _mm_storeu_ps(dst + i + 4, _mm_mul_ps(cvt_f32(b), s));
    }
    return i;
}
VX_TARGET_AVX2 size_t u32_f32_avx2(float *dst, const uint32_t *src, size_t n,
                                   float scale) noexcept {
    const __m256 s = _mm256_set1_ps(scale);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i + 8));
        _mm256_storeu_ps(dst + i, _mm256_mul_ps(cvt_f32(a), s));
        _mm256_storeu_ps(dst + i + 8, _mm256_mul_ps(cvt_f32(b), s));
    }
    return i;
}

#endif

template <class D, class S, class P>
struct kernels {
    void (*scalar)(D *, const S *, size_t, P) noexcept;
    size_t (*sse41)(D *, const S *, size_t, P) noexcept;
    size_t (*avx2)(D *, const S *, size_t, P) noexcept;
};

template <class D, class S, class P>
int run(const kernels<D, S, P> &k, D *dst, const S *src, int32_t count, P param) noexcept {
    if (!dst || !src) return -22;
    if (count < 1) return 0;
    const size_t n = static_cast<size_t>(count);
    size_t done = 0;
    switch (simd::active()) {
        case simd::level::avx2:
            if (k.avx2) done = k.avx2(dst, src, n, param);
            break;
        case simd::level::sse41:
            if (k.sse41) done = k.sse41(dst, src, n, param);
            break;
        case simd::level::scalar:
            break;
    }
    k.scalar(dst + done, src + done, n - done, param);
    return 0;
}

#if defined(__x86_64__) || defined(__i386__)
#define KERNELS(name) \
    { name##_scalar, name##_sse41, name##_avx2 }
#else
#define KERNELS(name) \
    { name##_scalar, nullptr, nullptr }
#endif

constexpr kernels<uint8_t, uint16_t, uint32_t> k_u16_u8 = KERNELS(u16_u8);
constexpr kernels<float, uint16_t, float> k_u16_f32 = KERNELS(u16_f32);
constexpr kernels<uint32_t, uint16_t, uint32_t> k_u16_u32 = KERNELS(u16_u32);
constexpr kernels<uint8_t, float, float> k_f32_u8 = KERNELS(f32_u8);
constexpr kernels<uint16_t, float, float> k_f32_u16 = KERNELS(f32_u16);
constexpr kernels<uint32_t, float, float> k_f32_u32 = KERNELS(f32_u32);
constexpr kernels<float, uint32_t, float> k_u32_f32 = KERNELS(u32_f32);

}  // namespace
}  // namespace tevix::cmap

using namespace tevix::cmap;

extern "C" int vx_conv_u16_u8(uint8_t *dst, const uint16_t *src, int32_t count,
                              uint32_t shift) noexcept {
    return run(k_u16_u8, dst, src, count, shift & 31u);
}

extern "C" int vx_conv_u16_f32(float *dst, const uint16_t *src, int32_t count,
                               float scale) noexcept {
    return run(k_u16_f32, dst, src, count, scale);
}

extern "C" int vx_conv_u16_u32(uint32_t *dst, const uint16_t *src, int32_t count,
                               uint32_t factor) noexcept {
    return run(k_u16_u32, dst, src, count, factor & 0xFFFFu);
}

extern "C" int vx_conv_f32_u8(uint8_t *dst, const float *src, int32_t count, float scale) noexcept {
    return run(k_f32_u8, dst, src, count, scale);
}

extern "C" int vx_conv_f32_u16(uint16_t *dst, const float *src, int32_t count,
                               float scale) noexcept {
    return run(k_f32_u16, dst, src, count, scale);
}

extern "C" int vx_conv_f32_u32(uint32_t *dst, const float *src, int32_t count,
                               float scale) noexcept {
    return run(k_f32_u32, dst, src, count, scale);
}

extern "C" int vx_conv_u32_f32(float *dst, const uint32_t *src, int32_t count,
                               float scale) noexcept {
    return run(k_u32_f32, dst, src, count, scale);
}
