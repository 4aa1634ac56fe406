#include "drivers/epc/epc_kernels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include <immintrin.h>

#include "algo/simd.h"
#include "algo/vec.h"

namespace tevix::epc {

namespace {

using tevix::algo::f32x4;
using tevix::algo::f32x8;
using tevix::simd::level;

using tevix::algo::i32x4;
using tevix::algo::i32x8;
typedef uint32_t u32x4 __attribute__((vector_size(16)));
typedef uint32_t u32x8 __attribute__((vector_size(32)));
typedef uint16_t u16x4 __attribute__((vector_size(8)));
typedef uint16_t u16x8v __attribute__((vector_size(16)));
typedef uint8_t u8x4 __attribute__((vector_size(4)));
typedef uint8_t u8x8 __attribute__((vector_size(8)));

// Companion types of a 32-bit lane vector: its float, unsigned, u16 and u8 forms.
template <class V>
struct lanes;
template <>
struct lanes<i32x4> {
    using f = f32x4;
    using u = u32x4;
    using h = u16x4;
    using b = u8x4;
    static constexpr int n = 4;
};
template <>
struct lanes<i32x8> {
    using f = f32x8;
    using u = u32x8;
    using h = u16x8v;
    using b = u8x8;
    static constexpr int n = 8;
};

// Two entries of padding so that a 32-bit gather at index 4095 stays inside the array.
std::array<uint16_t, 4098> _build_atan_table() {
    std::array<uint16_t, 4098> t{};
    for (uint32_t i = 0; i < 4096; ++i)
        t[i] = static_cast<uint16_t>(std::lround(std::atan(i / 4095.0) * 16384.0 / M_PI));
    return t;
}

const std::array<uint16_t, 4098> g_atan = _build_atan_table();

// Octant reduction shared by both layouts: returns offset + T[index] for y != 0. Written with
// selects instead of branches so that the loops vectorise; the quotient (y * 4096) / x is taken
// in double precision, which is exact here (numerator below 2^27, divisor below 2^15).
inline uint32_t _octant(int32_t x, int32_t y, const uint16_t *t) {
    const bool neg = y < 0;
    x = neg ? -x : x;
    y = neg ? -y : y;
    const int32_t base = neg ? 24576 : 8192;
    int32_t off = neg ? 16384 : 0;
    const bool rot = x < 1;
    const int32_t rx = rot ? y : x;
    const int32_t ry = rot ? -x : y;
    off = rot ? base : off;
    const bool fold = ry >= rx;
    int32_t fx = fold ? rx + ry : rx;
    const int32_t fy = fold ? ry - rx : ry;
    off += fold ? 4096 : 0;
    fx = fx < 1 ? 1 : fx;
    const int32_t idx =
        static_cast<int32_t>(static_cast<double>(fy * 4096) / static_cast<double>(fx));
    return static_cast<uint32_t>(off + t[idx & 4095]);
}

template <bool wide>
inline int32_t _dist(uint32_t phase, uint32_t range, int32_t offset_mm) {
    uint32_t q;
    if constexpr (wide)
        q = static_cast<uint32_t>((static_cast<uint64_t>(phase) * range) >> 15);
    else
        q = (phase * range) >> 15;
    return static_cast<int32_t>(q) + offset_mm;
}

template <bool wide>
inline void _decode_4dcs_body(const uint16_t *__restrict raw, uint32_t stride, uint32_t count,
                              uint32_t range, int32_t offset_mm, int32_t *__restrict dist,
                              uint32_t *__restrict conf) {
    const uint16_t *t = g_atan.data();
    const uint16_t *p0 = raw, *p1 = raw + stride, *p2 = raw + 2 * stride, *p3 = raw + 3 * stride;
    for (uint32_t i = 0; i < count; ++i) {
        const int32_t d0 = p0[i], d1 = p1[i], d2 = p2[i], d3 = p3[i];
        const bool valid = (d0 >= 2) & (d0 <= 4093) & (d1 >= 2) & (d1 <= 4093) & (d2 >= 2) &
                           (d2 <= 4093) & (d3 >= 2) & (d3 <= 4093);
        const int32_t x = static_cast<int16_t>(d2 - d0);
        const int32_t y = static_cast<int16_t>(d3 - d1);
        const uint32_t c = static_cast<uint32_t>(x * x + y * y);
        const uint32_t oct = (_octant(x, y, t) + 16384) & 0x7FFF;
        const uint32_t phase = y == 0 ? (x >= 0 ? 16384u : 0u) : oct;
        dist[i] =
            valid ? _dist<wide>(phase, range, offset_mm) : static_cast<int32_t>(k_dist_invalid);
        conf[i] = valid ? c : 0;
    }
}

template <bool wide>
inline void _decode_pair_body(const uint16_t *__restrict pa, const uint16_t *__restrict pb,
                              const uint16_t *__restrict v0, const uint16_t *__restrict v1,
                              uint32_t n, uint32_t base0, uint32_t base1, uint32_t range,
                              int32_t offset_mm, int32_t *__restrict dist,
                              uint32_t *__restrict conf) {
    const uint16_t *t = g_atan.data();
    for (uint32_t i = 0; i < n; ++i) {
        const bool valid = (v0[i] != 0) & (v1[i] != 0) & (v0[i] != 4095) & (v1[i] != 4095);
        const int32_t a = 2048 - static_cast<int32_t>(pa[i]);
        const int32_t b = 2048 - static_cast<int32_t>(pb[i]);
        const uint32_t c = static_cast<uint32_t>(a * a + b * b) >> 2;
        const uint32_t oct = (base0 + _octant(a, b, t)) & 0x7FFF;
        const uint32_t phase = b == 0 ? (a < 0 ? base1 : base0) : oct;
        dist[i] =
            valid ? _dist<wide>(phase, range, offset_mm) : static_cast<int32_t>(k_dist_invalid);
        conf[i] = valid ? c : 0;
    }
}

// ---- Vector forms over GCC vector types: the SSE4.1 tier (4 lanes) and, where they need no
// gather, the AVX2 tier (8 lanes). They perform the scalar bodies' operations lane by lane; the
// quotient (y * 4096) / x comes from a float division corrected by one step, which is exact
// (see the AVX2 decode), so every tier gives the scalar results bit for bit.

template <class V>
VX_INLINE V _load16(const uint16_t *p) {
    return __builtin_convertvector(tevix::algo::load<typename lanes<V>::h>(p), V);
}

template <class V>
VX_INLINE V _gather(const uint16_t *t, const V &q) {
    V r;
    for (int l = 0; l < lanes<V>::n; ++l) r[l] = t[q[l]];
    return r;
}

// offset + T[index] of the octant reduction, for y != 0 (lanes with y == 0 are overwritten).
template <class V>
VX_INLINE V _octant_v(V x, V y, const uint16_t *t) {
    using F = typename lanes<V>::f;
    const V neg = y < 0;
    x = neg ? -x : x;
    y = neg ? -y : y;
    const V base = neg ? 24576 : 8192;
    V off = neg ? 16384 : 0;
    const V rot = x < 1;
    const V rx = rot ? y : x, ry = rot ? -x : y;
    off = rot ? base : off;
    const V fold = ry >= rx;
    V fx = fold ? rx + ry : rx;
    const V fy = fold ? ry - rx : ry;
    off += fold ? 4096 : 0;
    fx = fx < 1 ? 1 : fx;
    const V num = fy << 12;
    V q = __builtin_convertvector(__builtin_convertvector(num, F) / __builtin_convertvector(fx, F),
                                  V);
    q += q * fx > num;  // a mask of -1 where the float quotient overshot
    return off + _gather(t, q & 4095);
}

template <class V>
VX_INLINE V _dist_v(V phase, uint32_t range, int32_t offset_mm) {
    using U = typename lanes<V>::u;
    return V((U(phase) * range) >> 15) + offset_mm;
}

template <class V>
VX_INLINE void _decode_4dcs_v(const uint16_t *raw, uint32_t n, uint32_t range, int32_t offset_mm,
                              int32_t *dist, uint32_t *conf) {
    constexpr int L = lanes<V>::n;
    const uint16_t *t = g_atan.data();
    const uint16_t *p0 = raw, *p1 = raw + n, *p2 = raw + 2 * n, *p3 = raw + 3 * n;
    uint32_t i = 0;
    for (; i + L <= n; i += L) {
        const V d0 = _load16<V>(p0 + i), d1 = _load16<V>(p1 + i), d2 = _load16<V>(p2 + i),
                d3 = _load16<V>(p3 + i);
        const V ok = (d0 >= 2) & (d0 <= 4093) & (d1 >= 2) & (d1 <= 4093) & (d2 >= 2) &
                     (d2 <= 4093) & (d3 >= 2) & (d3 <= 4093);
        const V x = (d2 - d0) << 16 >> 16, y = (d3 - d1) << 16 >> 16;
        const V c = x * x + y * y;
        const V oct = (_octant_v(x, y, t) + 16384) & 0x7FFF;
        const V phase = y == 0 ? (x >= 0 ? V{} + 16384 : V{}) : oct;
        tevix::algo::store(dist + i, ok ? _dist_v(phase, range, offset_mm) : V{} + 65500);
        tevix::algo::store(conf + i, ok ? c : V{});
    }
    if (i < n) _decode_4dcs_body<false>(raw + i, n, n - i, range, offset_mm, dist + i, conf + i);
}

template <class V>
VX_INLINE void _decode_pair_v(const uint16_t *pa, const uint16_t *pb, const uint16_t *v0,
                              const uint16_t *v1, uint32_t n, uint32_t base0, uint32_t base1,
                              uint32_t range, int32_t offset_mm, int32_t *dist, uint32_t *conf) {
    constexpr int L = lanes<V>::n;
    const uint16_t *t = g_atan.data();
    uint32_t i = 0;
    for (; i + L <= n; i += L) {
        const V s0 = _load16<V>(v0 + i), s1 = _load16<V>(v1 + i);
        const V ok = (s0 != 0) & (s1 != 0) & (s0 != 4095) & (s1 != 4095);
        const V a = 2048 - _load16<V>(pa + i), b = 2048 - _load16<V>(pb + i);
        const V c = (a * a + b * b) >> 2;
        const V oct = (V{} + int32_t(base0) + _octant_v(a, b, t)) & 0x7FFF;
        const V phase = b == 0 ? (a < 0 ? V{} + int32_t(base1) : V{} + int32_t(base0)) : oct;
        tevix::algo::store(dist + i, ok ? _dist_v(phase, range, offset_mm) : V{} + 65500);
        tevix::algo::store(conf + i, ok ? c : V{});
    }
    if (i < n)
        _decode_pair_body<false>(pa + i, pb + i, v0 + i, v1 + i, n - i, base0, base1, range,
                                 offset_mm, dist + i, conf + i);
}

template <class V>
VX_INLINE V _fast_sqrt_v(V v) {
    using F = typename lanes<V>::f;
    V p = V(__builtin_convertvector(v, F));
    p = ((p - 0x800000) >> 1) + 0x20000000;
    return __builtin_convertvector(F(p), V);
}

template <class V>
VX_INLINE void _grey_4dcs_v(const uint16_t *raw, uint32_t n, uint32_t *grey) {
    constexpr int L = lanes<V>::n;
    const uint16_t *p0 = raw, *p1 = raw + n, *p2 = raw + 2 * n, *p3 = raw + 3 * n;
    uint32_t i = 0;
    for (; i + L <= n; i += L) {
        const V d0 = _load16<V>(p0 + i) & 0xFFF, d1 = _load16<V>(p1 + i) & 0xFFF,
                d2 = _load16<V>(p2 + i) & 0xFFF, d3 = _load16<V>(p3 + i) & 0xFFF;
        const V ok = (d0 >= 2) & (d0 <= 4093) & (d1 >= 2) & (d1 <= 4093) & (d2 >= 2) &
                     (d2 <= 4093) & (d3 >= 2) & (d3 <= 4093);
        const V a = d2 - d0, b = d3 - d1;
        tevix::algo::store(grey + i, ok ? _fast_sqrt_v((a * a + b * b) >> 2) : V{});
    }
    for (; i < n; ++i) {
        const uint32_t d0 = p0[i] & 0xFFF, d1 = p1[i] & 0xFFF, d2 = p2[i] & 0xFFF,
                       d3 = p3[i] & 0xFFF;
        const bool ok = (d0 >= 2 && d0 < 4094) & (d1 >= 2 && d1 < 4094) & (d2 >= 2 && d2 < 4094) &
                        (d3 >= 2 && d3 < 4094);
        const int32_t a = static_cast<int32_t>(d2) - static_cast<int32_t>(d0);
        const int32_t b = static_cast<int32_t>(d3) - static_cast<int32_t>(d1);
        grey[i] = ok ? fast_sqrt(static_cast<uint32_t>(a * a + b * b) >> 2) : 0;
    }
}

template <class V>
VX_INLINE void _hdr_merge_v(int32_t *dist, uint32_t *conf, uint32_t w, uint32_t h) {
    using U = typename lanes<V>::u;
    constexpr int L = lanes<V>::n;
    for (uint32_t g = 0; g + 3 < h; g += 4) {
        for (uint32_t k = 0; k < 2; ++k) {
            int32_t *da = dist + (g + k) * w, *db = dist + (g + 2 + k) * w;
            uint32_t *ca = conf + (g + k) * w, *cb = conf + (g + 2 + k) * w;
            uint32_t x = 0;
            for (; x + L <= w; x += L) {
                const U a = tevix::algo::load<U>(ca + x), b = tevix::algo::load<U>(cb + x);
                const U pick = ((a <= b) | (a >= 4000000)) & ((b <= 4000000) | (a == 0));
                const V d = V(pick) ? tevix::algo::load<V>(db + x) : tevix::algo::load<V>(da + x);
                const U c = pick ? b : a;
                tevix::algo::store(da + x, d);
                tevix::algo::store(db + x, d);
                tevix::algo::store(ca + x, c);
                tevix::algo::store(cb + x, c);
            }
            for (; x < w; ++x) {
                const uint32_t a = ca[x], b = cb[x];
                const bool pick_b = (a <= b || a >= 4000000) && (b <= 4000000 || a == 0);
                const int32_t d = pick_b ? db[x] : da[x];
                const uint32_t c = pick_b ? b : a;
                da[x] = db[x] = d;
                ca[x] = cb[x] = c;
            }
        }
    }
}

// Lanes where any of the four samples lies outside lo..hi.
__attribute__((target("avx2"))) inline __m256i _outside4(__m256i d0, __m256i d1, __m256i d2,
                                                         __m256i d3, __m256i lo, __m256i hi) {
    const __m256i m01 =
        _mm256_or_si256(_mm256_or_si256(_mm256_cmpgt_epi32(lo, d0), _mm256_cmpgt_epi32(d0, hi)),
                        _mm256_or_si256(_mm256_cmpgt_epi32(lo, d1), _mm256_cmpgt_epi32(d1, hi)));
    const __m256i m23 =
        _mm256_or_si256(_mm256_or_si256(_mm256_cmpgt_epi32(lo, d2), _mm256_cmpgt_epi32(d2, hi)),
                        _mm256_or_si256(_mm256_cmpgt_epi32(lo, d3), _mm256_cmpgt_epi32(d3, hi)));
    return _mm256_or_si256(m01, m23);
}

// offset + T[index] of the octant reduction for eight lanes (the vector form of _octant).
__attribute__((target("avx2"))) inline __m256i _octant8(__m256i x0, __m256i y0) {
    const auto *table = reinterpret_cast<const int *>(g_atan.data());
    const __m256i one = _mm256_set1_epi32(1), zero = _mm256_setzero_si256();
    const __m256i c4096 = _mm256_set1_epi32(4096), c8192 = _mm256_set1_epi32(8192);
    const __m256i c16384 = _mm256_set1_epi32(16384), mffff = _mm256_set1_epi32(0xFFFF);
    const __m256i neg = _mm256_srai_epi32(y0, 31);
    const __m256i x = _mm256_sub_epi32(_mm256_xor_si256(x0, neg), neg);
    const __m256i y = _mm256_sub_epi32(_mm256_xor_si256(y0, neg), neg);
    const __m256i base = _mm256_add_epi32(c8192, _mm256_and_si256(neg, c16384));
    __m256i off = _mm256_and_si256(neg, c16384);
    const __m256i rot = _mm256_cmpgt_epi32(one, x);
    const __m256i rx = _mm256_blendv_epi8(x, y, rot);
    const __m256i ry = _mm256_blendv_epi8(y, _mm256_sub_epi32(zero, x), rot);
    off = _mm256_blendv_epi8(off, base, rot);
    const __m256i fold = _mm256_xor_si256(_mm256_cmpgt_epi32(rx, ry), _mm256_set1_epi32(-1));
    __m256i fx = _mm256_add_epi32(rx, _mm256_and_si256(fold, ry));
    const __m256i fy = _mm256_sub_epi32(ry, _mm256_and_si256(fold, rx));
    off = _mm256_add_epi32(off, _mm256_and_si256(fold, c4096));
    fx = _mm256_max_epi32(fx, one);
    const __m256i num = _mm256_slli_epi32(fy, 12);
    __m256i q = _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(num), _mm256_cvtepi32_ps(fx)));
    q = _mm256_add_epi32(q, _mm256_cmpgt_epi32(_mm256_mullo_epi32(q, fx), num));
    q = _mm256_and_si256(q, _mm256_set1_epi32(4095));
    return _mm256_add_epi32(off, _mm256_and_si256(_mm256_i32gather_epi32(table, q, 2), mffff));
}

// AVX2 form of the 4-plane loop, eight pixels per step. The quotient (y * 4096) / x comes from
// a correctly rounded float division, which can only overshoot the integer quotient by one
// (both operands are exact in float); one correction step makes it exact. Requires range below
// 131072 so that phase * range fits in 32 bits.
__attribute__((target("avx2"))) void _decode_4dcs_avx2(const uint16_t *raw, uint32_t n,
                                                       uint32_t range, int32_t offset_mm,
                                                       int32_t *dist, uint32_t *conf) {
    const uint16_t *p0 = raw, *p1 = raw + n, *p2 = raw + 2 * n, *p3 = raw + 3 * n;
    const __m256i lo = _mm256_set1_epi32(2), hi = _mm256_set1_epi32(4093);
    const __m256i zero = _mm256_setzero_si256();
    const __m256i c16384 = _mm256_set1_epi32(16384), m7fff = _mm256_set1_epi32(0x7FFF);
    const __m256i vr = _mm256_set1_epi32(static_cast<int>(range));
    const __m256i voff = _mm256_set1_epi32(offset_mm);
    const __m256i vinv = _mm256_set1_epi32(static_cast<int>(k_dist_invalid));
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
#define EPC_LD(p) _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>((p) + i)))
        const __m256i d0 = EPC_LD(p0), d1 = EPC_LD(p1), d2 = EPC_LD(p2), d3 = EPC_LD(p3);
#undef EPC_LD
        const __m256i bad = _outside4(d0, d1, d2, d3, lo, hi);
        // Signed 16-bit differences, widened.
        const __m256i x0 = _mm256_srai_epi32(_mm256_slli_epi32(_mm256_sub_epi32(d2, d0), 16), 16);
        const __m256i y0 = _mm256_srai_epi32(_mm256_slli_epi32(_mm256_sub_epi32(d3, d1), 16), 16);
        const __m256i c = _mm256_add_epi32(_mm256_mullo_epi32(x0, x0), _mm256_mullo_epi32(y0, y0));
        __m256i phase = _mm256_and_si256(_mm256_add_epi32(_octant8(x0, y0), c16384), m7fff);
        const __m256i yz = _mm256_cmpeq_epi32(y0, zero);
        const __m256i axis = _mm256_andnot_si256(_mm256_cmpgt_epi32(zero, x0), c16384);
        phase = _mm256_blendv_epi8(phase, axis, yz);
        __m256i d = _mm256_add_epi32(_mm256_srli_epi32(_mm256_mullo_epi32(phase, vr), 15), voff);
        d = _mm256_blendv_epi8(d, vinv, bad);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dist + i), d);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(conf + i), _mm256_andnot_si256(bad, c));
    }
    if (i < n) _decode_4dcs_body<false>(raw + i, n, n - i, range, offset_mm, dist + i, conf + i);
}

// AVX2 form of the reduced-layout loop, eight pixels per step; range below 131072.
__attribute__((target("avx2"))) void _decode_pair_avx2(const uint16_t *pa, const uint16_t *pb,
                                                       const uint16_t *v0, const uint16_t *v1,
                                                       uint32_t n, uint32_t base0, uint32_t base1,
                                                       uint32_t range, int32_t offset_mm,
                                                       int32_t *dist, uint32_t *conf) {
    const __m256i zero = _mm256_setzero_si256(), c2048 = _mm256_set1_epi32(2048);
    const __m256i c4095 = _mm256_set1_epi32(4095), m7fff = _mm256_set1_epi32(0x7FFF);
    const __m256i vb0 = _mm256_set1_epi32(static_cast<int>(base0));
    const __m256i vb1 = _mm256_set1_epi32(static_cast<int>(base1));
    const __m256i vr = _mm256_set1_epi32(static_cast<int>(range));
    const __m256i voff = _mm256_set1_epi32(offset_mm);
    const __m256i vinv = _mm256_set1_epi32(static_cast<int>(k_dist_invalid));
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
#define EPC_LD(p) _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>((p) + i)))
        const __m256i s0 = EPC_LD(v0), s1 = EPC_LD(v1);
        const __m256i a = _mm256_sub_epi32(c2048, EPC_LD(pa)),
                      b = _mm256_sub_epi32(c2048, EPC_LD(pb));
#undef EPC_LD
        const __m256i bad = _mm256_or_si256(
            _mm256_or_si256(_mm256_cmpeq_epi32(s0, zero), _mm256_cmpeq_epi32(s1, zero)),
            _mm256_or_si256(_mm256_cmpeq_epi32(s0, c4095), _mm256_cmpeq_epi32(s1, c4095)));
        const __m256i c = _mm256_srai_epi32(
            _mm256_add_epi32(_mm256_mullo_epi32(a, a), _mm256_mullo_epi32(b, b)), 2);
        __m256i phase = _mm256_and_si256(_mm256_add_epi32(vb0, _octant8(a, b)), m7fff);
        const __m256i axis = _mm256_blendv_epi8(vb0, vb1, _mm256_cmpgt_epi32(zero, a));
        phase = _mm256_blendv_epi8(phase, axis, _mm256_cmpeq_epi32(b, zero));
        __m256i d = _mm256_add_epi32(_mm256_srli_epi32(_mm256_mullo_epi32(phase, vr), 15), voff);
        d = _mm256_blendv_epi8(d, vinv, bad);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dist + i), d);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(conf + i), _mm256_andnot_si256(bad, c));
    }
    if (i < n)
        _decode_pair_body<false>(pa + i, pb + i, v0 + i, v1 + i, n - i, base0, base1, range,
                                 offset_mm, dist + i, conf + i);
}

// The tier of a call: the shared run-time choice, which tests cap to force the narrower ones.
level _tier() {
    return tevix::simd::active();
}

}  // namespace

const uint16_t *atan_table() {
    return g_atan.data();
}

uint32_t phase_4dcs(int32_t x, int32_t y) {
    if (y == 0) return x >= 0 ? 16384 : 0;
    return (_octant(x, y, g_atan.data()) + 16384) & 0x7FFF;
}

uint32_t phase_pair(int32_t a, int32_t b, uint32_t base0, uint32_t base1) {
    if (b == 0) return a < 0 ? base1 : base0;
    return (base0 + _octant(a, b, g_atan.data())) & 0x7FFF;
}

uint32_t range_mm(uint32_t freq_hz) {
    if (freq_hz == 0) return 0;
    return static_cast<uint32_t>(k_half_c_mm / static_cast<float>(freq_hz));
}

plane_pair reduced_pair(uint32_t freq_hz) {
    if (freq_hz > 24000000) return {0, 1, 16384, 0};
    if (freq_hz <= 12000000) return {1, 2, 24576, 8192};
    return {2, 3, 0, 16384};
}

void decode_4dcs_scalar(const uint16_t *raw, uint32_t n, uint32_t range, int32_t offset_mm,
                        int32_t *dist, uint32_t *conf) {
    if (range < 131072)
        _decode_4dcs_body<false>(raw, n, n, range, offset_mm, dist, conf);
    else
        _decode_4dcs_body<true>(raw, n, n, range, offset_mm, dist, conf);
}

namespace {

VX_TARGET_SSE41 void _decode_4dcs_sse41(const uint16_t *raw, uint32_t n, uint32_t range,
                                        int32_t offset_mm, int32_t *dist, uint32_t *conf) {
    _decode_4dcs_v<i32x4>(raw, n, range, offset_mm, dist, conf);
}

void _decode_pair_scalar(const uint16_t *pa, const uint16_t *pb, const uint16_t *v0,
                         const uint16_t *v1, uint32_t n, uint32_t base0, uint32_t base1,
                         uint32_t range, int32_t offset_mm, int32_t *dist, uint32_t *conf) {
    if (range < 131072)
        _decode_pair_body<false>(pa, pb, v0, v1, n, base0, base1, range, offset_mm, dist, conf);
    else
        _decode_pair_body<true>(pa, pb, v0, v1, n, base0, base1, range, offset_mm, dist, conf);
}
VX_TARGET_SSE41 void _decode_pair_sse41(const uint16_t *pa, const uint16_t *pb, const uint16_t *v0,
                                        const uint16_t *v1, uint32_t n, uint32_t base0,
                                        uint32_t base1, uint32_t range, int32_t offset_mm,
                                        int32_t *dist, uint32_t *conf) {
    _decode_pair_v<i32x4>(pa, pb, v0, v1, n, base0, base1, range, offset_mm, dist, conf);
}

}  // namespace

// The vector forms multiply phase by range in 32 bits: ranges from 131072 mm (below 1.2 MHz)
// take the scalar form.
void decode_4dcs(const uint16_t *raw, uint32_t n, uint32_t range, int32_t offset_mm, int32_t *dist,
                 uint32_t *conf) {
    const level l = range < 131072 ? _tier() : level::scalar;
    if (l == level::avx2)
        _decode_4dcs_avx2(raw, n, range, offset_mm, dist, conf);
    else if (l == level::sse41)
        _decode_4dcs_sse41(raw, n, range, offset_mm, dist, conf);
    else
        decode_4dcs_scalar(raw, n, range, offset_mm, dist, conf);
}

void decode_pair(const uint16_t *pa, const uint16_t *pb, const uint16_t *v0, const uint16_t *v1,
                 uint32_t n, const plane_pair &pp, uint32_t range, int32_t offset_mm, int32_t *dist,
                 uint32_t *conf) {
    const level l = range < 131072 ? _tier() : level::scalar;
    auto *fn = l == level::avx2    ? _decode_pair_avx2
               : l == level::sse41 ? _decode_pair_sse41
                                   : _decode_pair_scalar;
    fn(pa, pb, v0, v1, n, pp.base0, pp.base1, range, offset_mm, dist, conf);
}

bool one_plane_rows(uint32_t r, uint32_t h, uint32_t *first, uint32_t *second) {
    if (h < 4 || r + 2 >= h) return false;
    const bool swap = ((r / 2) & 1) != 0;
    *first = swap ? r + 2 : r;
    *second = swap ? r : r + 2;
    return true;
}

namespace {

inline uint32_t _ok12(uint32_t s) {
    return s >= 2 && s < 4094;
}

}  // namespace

namespace {

void _grey_4dcs_scalar(const uint16_t *raw, uint32_t stride, uint32_t count, uint32_t *grey) {
    const uint16_t *p0 = raw, *p1 = raw + stride, *p2 = raw + 2 * stride, *p3 = raw + 3 * stride;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t d0 = p0[i] & 0xFFF, d1 = p1[i] & 0xFFF, d2 = p2[i] & 0xFFF,
                       d3 = p3[i] & 0xFFF;
        const bool ok = _ok12(d0) & _ok12(d1) & _ok12(d2) & _ok12(d3);
        const int32_t a = static_cast<int16_t>(d2 - d0), b = static_cast<int16_t>(d3 - d1);
        grey[i] = ok ? fast_sqrt(static_cast<uint32_t>(a * a + b * b) >> 2) : 0;
    }
}

// fast_sqrt of eight values below 2^31.
__attribute__((target("avx2"))) inline __m256i _fast_sqrt8(__m256i v) {
    __m256i p = _mm256_castps_si256(_mm256_cvtepi32_ps(v));
    p = _mm256_add_epi32(_mm256_srai_epi32(_mm256_sub_epi32(p, _mm256_set1_epi32(0x800000)), 1),
                         _mm256_set1_epi32(0x20000000));
    return _mm256_cvttps_epi32(_mm256_castsi256_ps(p));
}

__attribute__((target("avx2"))) void _grey_4dcs_avx2(const uint16_t *raw, uint32_t n,
                                                     uint32_t *grey) {
    const uint16_t *p0 = raw, *p1 = raw + n, *p2 = raw + 2 * n, *p3 = raw + 3 * n;
    const __m256i m = _mm256_set1_epi32(0xFFF), lo = _mm256_set1_epi32(2),
                  hi = _mm256_set1_epi32(4093);
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
#define EPC_LD(p)     \
    _mm256_and_si256( \
        _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>((p) + i))), m)
        const __m256i d0 = EPC_LD(p0), d1 = EPC_LD(p1), d2 = EPC_LD(p2), d3 = EPC_LD(p3);
#undef EPC_LD
        const __m256i bad = _outside4(d0, d1, d2, d3, lo, hi);
        const __m256i a = _mm256_sub_epi32(d2, d0), b = _mm256_sub_epi32(d3, d1);
        const __m256i v = _mm256_srli_epi32(
            _mm256_add_epi32(_mm256_mullo_epi32(a, a), _mm256_mullo_epi32(b, b)), 2);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(grey + i),
                            _mm256_andnot_si256(bad, _fast_sqrt8(v)));
    }
    if (i < n) _grey_4dcs_scalar(raw + i, n, n - i, grey + i);
}

}  // namespace

namespace {

VX_TARGET_SSE41 void _grey_4dcs_sse41(const uint16_t *raw, uint32_t n, uint32_t *grey) {
    _grey_4dcs_v<i32x4>(raw, n, grey);
}

// Loops the compiler vectorises by itself: one body, built for each tier.
VX_INLINE void _grey_2dcs_body(const uint16_t *p0, const uint16_t *p1, uint32_t n, uint32_t *grey) {
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t d0 = p0[i] & 0xFFF, d1 = p1[i] & 0xFFF;
        const int32_t a = 2048 - static_cast<int32_t>(d0), b = 2048 - static_cast<int32_t>(d1);
        grey[i] =
            (_ok12(d0) & _ok12(d1)) ? fast_sqrt(static_cast<uint32_t>(a * a + b * b) >> 2) : 0;
    }
}
VX_INLINE void _grey_from_conf_body(const uint32_t *conf, uint32_t n, uint16_t *grey) {
    for (uint32_t i = 0; i < n; ++i)
        grey[i] = static_cast<uint16_t>(std::min(fast_sqrt(conf[i]), 65535u));
}
VX_INLINE void _narrow_body(const int32_t *src, uint16_t *dst, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) dst[i] = static_cast<uint16_t>(std::clamp(src[i], 0, 65535));
}
VX_INLINE void _range_gate_body(const uint16_t *src, uint16_t *dst, uint32_t n, uint32_t range) {
    const int32_t hi = static_cast<int32_t>(range) - 100;
    for (uint32_t i = 0; i < n; ++i) {
        const int32_t d = src[i];
        dst[i] = (d < 60001 && (d > hi || d < 101)) ? 0 : src[i];
    }
}
VX_INLINE bool _consistent_body(const uint16_t *raw, uint32_t n) {
    uint32_t c02 = 0, c13 = 0;
    const uint16_t *p0 = raw, *p1 = raw + n, *p2 = raw + 2 * n, *p3 = raw + 3 * n;
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t s02 = (p0[i] & 0xFFF) + (p2[i] & 0xFFF);
        const uint32_t s13 = (p1[i] & 0xFFF) + (p3[i] & 0xFFF);
        c02 += (s02 >= 4017) & (s02 <= 4175);
        c13 += (s13 >= 4017) & (s13 <= 4175);
    }
    const uint64_t need = static_cast<uint64_t>(n) * 60;
    return static_cast<uint64_t>(c02) * 100 > need && static_cast<uint64_t>(c13) * 100 > need;
}

// f_scalar, f_sse41 and f_avx2 around a body, and the pick among them by tier.
#define EPC_TIERS(name, ret, params, args)                                                        \
    ret name##_scalar params {                                                                    \
        return name##_body args;                                                                  \
    }                                                                                             \
    VX_TARGET_SSE41 ret name##_sse41 params {                                                     \
        return name##_body args;                                                                  \
    }                                                                                             \
    VX_TARGET_AVX2 ret name##_avx2 params {                                                       \
        return name##_body args;                                                                  \
    }                                                                                             \
    auto *name##_pick() {                                                                         \
        const level l = _tier();                                                                  \
        return l == level::avx2 ? name##_avx2 : l == level::sse41 ? name##_sse41 : name##_scalar; \
    }
EPC_TIERS(_grey_2dcs, void, (const uint16_t *p0, const uint16_t *p1, uint32_t n, uint32_t *grey),
          (p0, p1, n, grey))
EPC_TIERS(_grey_from_conf, void, (const uint32_t *conf, uint32_t n, uint16_t *grey),
          (conf, n, grey))
EPC_TIERS(_narrow, void, (const int32_t *src, uint16_t *dst, uint32_t n), (src, dst, n))
EPC_TIERS(_range_gate, void, (const uint16_t *src, uint16_t *dst, uint32_t n, uint32_t range),
          (src, dst, n, range))
EPC_TIERS(_consistent, bool, (const uint16_t *raw, uint32_t n), (raw, n))
#undef EPC_TIERS

VX_TARGET_SSE41 void _hdr_merge_sse41(int32_t *dist, uint32_t *conf, uint32_t w, uint32_t h) {
    _hdr_merge_v<i32x4>(dist, conf, w, h);
}
VX_TARGET_AVX2 void _hdr_merge_avx2(int32_t *dist, uint32_t *conf, uint32_t w, uint32_t h) {
    _hdr_merge_v<i32x8>(dist, conf, w, h);
}

}  // namespace

void grey_4dcs(const uint16_t *raw, uint32_t n, uint32_t *grey) {
    const level l = _tier();
    if (l == level::avx2)
        _grey_4dcs_avx2(raw, n, grey);
    else if (l == level::sse41)
        _grey_4dcs_sse41(raw, n, grey);
    else
        _grey_4dcs_scalar(raw, n, n, grey);
}

void grey_2dcs(const uint16_t *p0, const uint16_t *p1, uint32_t n, uint32_t *grey) {
    _grey_2dcs_pick()(p0, p1, n, grey);
}

void grey_1plane(const uint16_t *raw, uint32_t w, uint32_t h, uint32_t *grey) {
    for (uint32_t r = 0; r < h; ++r) {
        uint32_t r0, r1;
        if (one_plane_rows(r, h, &r0, &r1))
            grey_2dcs(raw + r0 * w, raw + r1 * w, w, grey + r * w);
        else if (r >= 2)
            std::memcpy(grey + r * w, grey + (r - 2) * w, w * sizeof(uint32_t));
        else
            std::memset(grey + r * w, 0, w * sizeof(uint32_t));
    }
}

void grey_from_conf(const uint32_t *conf, uint32_t n, uint16_t *grey) {
    _grey_from_conf_pick()(conf, n, grey);
}

void hdr_merge(int32_t *dist, uint32_t *conf, uint32_t w, uint32_t h) {
    const level l = _tier();
    if (l == level::avx2)
        _hdr_merge_avx2(dist, conf, w, h);
    else if (l == level::sse41)
        _hdr_merge_sse41(dist, conf, w, h);
    else
        hdr_merge_scalar(dist, conf, w, h);
}

void hdr_merge_scalar(int32_t *dist, uint32_t *conf, uint32_t w, uint32_t h) {
    for (uint32_t g = 0; g + 3 < h; g += 4) {
        for (uint32_t k = 0; k < 2; ++k) {
            int32_t *da = dist + (g + k) * w, *db = dist + (g + 2 + k) * w;
            uint32_t *ca = conf + (g + k) * w, *cb = conf + (g + 2 + k) * w;
            for (uint32_t x = 0; x < w; ++x) {
                const uint32_t a = ca[x], b = cb[x];
                const bool pick_b = (a <= b || a >= 4000000) && (b <= 4000000 || a == 0);
                const int32_t d = pick_b ? db[x] : da[x];
                const uint32_t c = pick_b ? b : a;
                da[x] = db[x] = d;
                ca[x] = cb[x] = c;
            }
        }
    }
}

void rows_reorder(const uint32_t *src, uint32_t *dst, uint32_t w, uint32_t h) {
    const uint32_t half = h / 2;
    for (uint32_t k = 0; k < half; ++k) {
        std::memcpy(dst + (half - 1 - k) * w, src + 2 * k * w, w * 4);
        std::memcpy(dst + (half + k) * w, src + (2 * k + 1) * w, w * 4);
    }
    if (h & 1) std::memcpy(dst + (h - 1) * w, src + (h - 1) * w, w * 4);
}

void narrow_u16(const int32_t *src, uint16_t *dst, uint32_t n) {
    _narrow_pick()(src, dst, n);
}

void rows_reorder_u16(const int32_t *src, uint16_t *dst, uint32_t w, uint32_t h) {
    const uint32_t half = h / 2;
    for (uint32_t k = 0; k < half; ++k) {
        narrow_u16(src + 2 * k * w, dst + (half - 1 - k) * w, w);
        narrow_u16(src + (2 * k + 1) * w, dst + (half + k) * w, w);
    }
    if (h & 1) narrow_u16(src + (h - 1) * w, dst + (h - 1) * w, w);
}

uint32_t info_hash(const tevix_frame_info_t &info) {
    uint8_t bytes[sizeof info];
    std::memcpy(bytes, &info, sizeof info);
    uint32_t s1 = 0, s2 = 0;
    for (size_t i = 0; i < sizeof bytes; i += 2) {
        s1 = (s1 + (bytes[i] | (static_cast<uint32_t>(bytes[i + 1]) << 8))) % 65535;
        s2 = (s2 + s1) % 65535;
    }
    return (s2 << 16) | s1;
}

void range_gate(const uint16_t *src, uint16_t *dst, uint32_t n, uint32_t range) {
    _range_gate_pick()(src, dst, n, range);
}

namespace {

struct minamp_limits {
    uint32_t lo, hi, lo_h, hi_h;
    bool hi_open;  // hi + h^2 beyond 32 bits: no upper clearing
};

void _minamp_hyst_scalar(const uint16_t *src, uint16_t *dst, const uint32_t *conf, uint32_t n,
                         const minamp_limits &l, uint8_t *marks) {
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t c = conf[i];
        const bool set = (c >= l.lo) & (c <= l.hi);
        const bool clear = (c < l.lo_h) | ((c > l.hi_h) & !l.hi_open);
        const uint8_t m = set ? 1 : (clear ? 0 : marks[i]);
        marks[i] = m;
        dst[i] = m ? src[i] : 0;
    }
}

__attribute__((target("avx2"))) void _minamp_hyst_avx2(const uint16_t *src, uint16_t *dst,
                                                       const uint32_t *conf, uint32_t n,
                                                       const minamp_limits &l, uint8_t *marks) {
    const __m256i lo = _mm256_set1_epi32(static_cast<int>(l.lo));
    const __m256i hi = _mm256_set1_epi32(static_cast<int>(l.hi));
    const __m256i lo_h = _mm256_set1_epi32(static_cast<int>(l.lo_h));
    const __m256i hi_h = _mm256_set1_epi32(static_cast<int>(l.hi_open ? UINT32_MAX : l.hi_h));
    const __m256i one = _mm256_set1_epi32(1), zero = _mm256_setzero_si256();
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(conf + i));
        const __m256i ge_lo = _mm256_cmpeq_epi32(_mm256_max_epu32(c, lo), c);
        const __m256i le_hi = _mm256_cmpeq_epi32(_mm256_min_epu32(c, hi), c);
        const __m256i ge_lo_h = _mm256_cmpeq_epi32(_mm256_max_epu32(c, lo_h), c);
        const __m256i le_hi_h = _mm256_cmpeq_epi32(_mm256_min_epu32(c, hi_h), c);
        const __m256i set = _mm256_and_si256(ge_lo, le_hi);
        const __m256i keep = _mm256_and_si256(ge_lo_h, le_hi_h);
        int64_t old8;
        std::memcpy(&old8, marks + i, 8);
        const __m256i old = _mm256_cvtepu8_epi32(_mm_cvtsi64_si128(old8));
        const __m256i m = _mm256_or_si256(_mm256_and_si256(set, one), _mm256_and_si256(keep, old));
        const __m256i s =
            _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i)));
        const __m256i d = _mm256_andnot_si256(_mm256_cmpeq_epi32(m, zero), s);
        const __m256i d16 = _mm256_permute4x64_epi64(_mm256_packus_epi32(d, d), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), _mm256_castsi256_si128(d16));
        const __m256i m16 = _mm256_permute4x64_epi64(_mm256_packus_epi32(m, m), 0x08);
        const __m128i m8 =
            _mm_packus_epi16(_mm256_castsi256_si128(m16), _mm256_castsi256_si128(m16));
        const int64_t new8 = _mm_cvtsi128_si64(m8);
        std::memcpy(marks + i, &new8, 8);
    }
    if (i < n) _minamp_hyst_scalar(src + i, dst + i, conf + i, n - i, l, marks + i);
}

template <class V>
VX_INLINE void _minamp_hyst_v(const uint16_t *src, uint16_t *dst, const uint32_t *conf, uint32_t n,
                              const minamp_limits &l, uint8_t *marks) {
    using U = typename lanes<V>::u;
    using H = typename lanes<V>::h;
    using B = typename lanes<V>::b;
    constexpr int L = lanes<V>::n;
    const U hi_h = U{} + (l.hi_open ? UINT32_MAX : l.hi_h);
    uint32_t i = 0;
    for (; i + L <= n; i += L) {
        const U c = tevix::algo::load<U>(conf + i);
        const U set = (c >= l.lo) & (c <= l.hi);
        const U keep = (c >= l.lo_h) & (c <= hi_h);
        const U old = __builtin_convertvector(tevix::algo::load<B>(marks + i), U);
        const U m = (set & 1) | (keep & old);
        const U s = __builtin_convertvector(tevix::algo::load<H>(src + i), U);
        tevix::algo::store(dst + i, __builtin_convertvector(m != 0 ? s : U{}, H));
        tevix::algo::store(marks + i, __builtin_convertvector(m, B));
    }
    if (i < n) _minamp_hyst_scalar(src + i, dst + i, conf + i, n - i, l, marks + i);
}

VX_TARGET_SSE41 void _minamp_hyst_sse41(const uint16_t *src, uint16_t *dst, const uint32_t *conf,
                                        uint32_t n, const minamp_limits &l, uint8_t *marks) {
    _minamp_hyst_v<i32x4>(src, dst, conf, n, l, marks);
}

}  // namespace

void minamp(const uint16_t *src, uint16_t *dst, const uint32_t *conf, uint32_t n, uint32_t t,
            uint8_t *marks, uint32_t h) {
    const int64_t lo = static_cast<int64_t>(t) * t;
    const int64_t hi = (2048 - static_cast<int64_t>(t)) * (2048 - static_cast<int64_t>(t));
    if (!marks) {
        for (uint32_t i = 0; i < n; ++i) dst[i] = (conf[i] < lo || conf[i] > hi) ? 0 : src[i];
        return;
    }
    const int64_t h2 = static_cast<int64_t>(h) * h;
    // Thresholds as 32-bit values (saturated) for the vector compares.
    minamp_limits l;
    l.lo = static_cast<uint32_t>(std::min<int64_t>(lo, UINT32_MAX));
    l.hi = static_cast<uint32_t>(std::min<int64_t>(hi, UINT32_MAX));
    l.lo_h = static_cast<uint32_t>(std::max<int64_t>(lo - h2, 0));
    l.hi_h = static_cast<uint32_t>(std::min<int64_t>(hi + h2, UINT32_MAX));
    l.hi_open = hi + h2 >= UINT32_MAX;
    const level tier = _tier();
    if (tier == level::avx2)
        _minamp_hyst_avx2(src, dst, conf, n, l, marks);
    else if (tier == level::sse41)
        _minamp_hyst_sse41(src, dst, conf, n, l, marks);
    else
        _minamp_hyst_scalar(src, dst, conf, n, l, marks);
}

sample_stats classify_samples(const uint16_t *raw, uint32_t count) {
    sample_stats s{0, 0, 0, count};
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t v = raw[i];
        s.low += (v >= 2) & (v <= 511);
        s.high += (v >= 3585) & (v <= 4094);
        s.bad += (v < 2) | (v >= 4095);
    }
    return s;
}

int32_t auto_intg_step(const sample_stats &s, uint32_t threshold) {
    if (s.samples == 0) return 50;
    const uint32_t bad_pct = static_cast<uint32_t>(static_cast<uint64_t>(s.bad) * 1000 / s.samples);
    if (bad_pct >= threshold && bad_pct > 9) return -static_cast<int32_t>(bad_pct / 10) * 10;
    if (bad_pct >= threshold && bad_pct >= 1 && s.high >= 513) return -10;
    return (s.low < 513 && s.high < 11) ? 50 : 0;
}

bool frame_consistent(const uint16_t *raw, uint32_t n, uint32_t samples) {
    if (samples < 8 || n == 0) return false;
    return _consistent_pick()(raw, n);
}

// ---- Phase of (x, y) pairs given directly, as sensors that deliver the tap differences do.

namespace {

template <class V>
VX_INLINE void _phase_xy_v(const int16_t *xs, const int16_t *ys, uint32_t n, int32_t *phase,
                           uint32_t *conf, uint32_t &i) {
    constexpr int L = lanes<V>::n;
    using H = typename lanes<V>::h;
    const uint16_t *t = g_atan.data();
    for (; i + L <= n; i += L) {
        const V x = __builtin_convertvector(tevix::algo::load<H>(xs + i), V) << 16 >> 16;
        const V y = __builtin_convertvector(tevix::algo::load<H>(ys + i), V) << 16 >> 16;
        const V bad = (x == -32768) | (y == -32768);
        const V oct = (_octant_v(x, y, t) + 16384) & 0x7FFF;
        const V ph = y == 0 ? (x >= 0 ? V{} + 16384 : V{}) : oct;
        tevix::algo::store(phase + i, bad ? V{} + 65500 : ph);
        tevix::algo::store(conf + i, bad ? V{} : x * x + y * y);
    }
}

void _phase_xy_tail(const int16_t *xs, const int16_t *ys, uint32_t n, int32_t *phase,
                    uint32_t *conf, uint32_t i) {
    for (; i < n; ++i) {
        const int32_t x = xs[i], y = ys[i];
        const bool bad = x == -32768 || y == -32768;
        phase[i] = bad ? 65500 : int32_t(phase_4dcs(x, y));
        conf[i] = bad ? 0 : uint32_t(x * x + y * y);
    }
}

VX_TARGET_SSE41 void _phase_xy_sse41(const int16_t *xs, const int16_t *ys, uint32_t n,
                                     int32_t *phase, uint32_t *conf) {
    uint32_t i = 0;
    _phase_xy_v<i32x4>(xs, ys, n, phase, conf, i);
    _phase_xy_tail(xs, ys, n, phase, conf, i);
}

__attribute__((target("avx2"))) void _phase_xy_avx2(const int16_t *xs, const int16_t *ys,
                                                    uint32_t n, int32_t *phase, uint32_t *conf) {
    const __m256i zero = _mm256_setzero_si256(), none = _mm256_set1_epi32(-32768);
    const __m256i c16384 = _mm256_set1_epi32(16384), m7fff = _mm256_set1_epi32(0x7FFF);
    const __m256i vinv = _mm256_set1_epi32(static_cast<int>(k_dist_invalid));
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256i x =
            _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(xs + i)));
        const __m256i y =
            _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(ys + i)));
        const __m256i bad =
            _mm256_or_si256(_mm256_cmpeq_epi32(x, none), _mm256_cmpeq_epi32(y, none));
        const __m256i c = _mm256_add_epi32(_mm256_mullo_epi32(x, x), _mm256_mullo_epi32(y, y));
        __m256i ph = _mm256_and_si256(_mm256_add_epi32(_octant8(x, y), c16384), m7fff);
        const __m256i axis = _mm256_andnot_si256(_mm256_cmpgt_epi32(zero, x), c16384);
        ph = _mm256_blendv_epi8(ph, axis, _mm256_cmpeq_epi32(y, zero));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(phase + i),
                            _mm256_blendv_epi8(ph, vinv, bad));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(conf + i), _mm256_andnot_si256(bad, c));
    }
    _phase_xy_tail(xs, ys, n, phase, conf, i);
}

}  // namespace

void phase_xy_scalar(const int16_t *x, const int16_t *y, uint32_t n, int32_t *phase,
                     uint32_t *conf) {
    _phase_xy_tail(x, y, n, phase, conf, 0);
}

void phase_xy(const int16_t *x, const int16_t *y, uint32_t n, int32_t *phase, uint32_t *conf) {
    switch (_tier()) {
        case level::avx2:
            _phase_xy_avx2(x, y, n, phase, conf);
            break;
        case level::sse41:
            _phase_xy_sse41(x, y, n, phase, conf);
            break;
        default:
            phase_xy_scalar(x, y, n, phase, conf);
            break;
    }
}

}  // namespace tevix::epc
