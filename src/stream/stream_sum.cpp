#include "stream/stream_sum.h"

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define TEVIX_SUM_X86 1
#endif

namespace tevix::stream {

uint32_t sum_u32le_scalar(const uint8_t *p, uint32_t words) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < words; ++i) {
        uint32_t w;
        std::memcpy(&w, p + size_t{i} * 4, sizeof w);
        sum += w;
    }
    return sum;
}

#ifdef TEVIX_SUM_X86
namespace {

// Four independent accumulators keep the adds from waiting on each other.
__attribute__((target("avx2"))) uint32_t _sum_avx2(const uint8_t *p, uint32_t words) {
    __m256i a0 = _mm256_setzero_si256(), a1 = a0, a2 = a0, a3 = a0;
    uint32_t i = 0;
    for (; i + 32 <= words; i += 32) {
        const auto *q = reinterpret_cast<const __m256i *>(p + size_t{i} * 4);
        a0 = _mm256_add_epi32(a0, _mm256_loadu_si256(q));
        a1 = _mm256_add_epi32(a1, _mm256_loadu_si256(q + 1));
        a2 = _mm256_add_epi32(a2, _mm256_loadu_si256(q + 2));
        a3 = _mm256_add_epi32(a3, _mm256_loadu_si256(q + 3));
    }
    const __m256i a = _mm256_add_epi32(_mm256_add_epi32(a0, a1), _mm256_add_epi32(a2, a3));
    __m128i h = _mm_add_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
    h = _mm_add_epi32(h, _mm_shuffle_epi32(h, 0x4E));
    h = _mm_add_epi32(h, _mm_shuffle_epi32(h, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(h)) +
           sum_u32le_scalar(p + size_t{i} * 4, words - i);
}

using sum_fn = uint32_t (*)(const uint8_t *, uint32_t);

sum_fn _pick() {
    return __builtin_cpu_supports("avx2") ? _sum_avx2 : sum_u32le_scalar;
}

}  // namespace

uint32_t sum_u32le(const uint8_t *p, uint32_t words) {
    static const sum_fn fn = _pick();
    return fn(p, words);
}
#else
uint32_t sum_u32le(const uint8_t *p, uint32_t words) {
    return sum_u32le_scalar(p, words);
}
#endif

}  // namespace tevix::stream
