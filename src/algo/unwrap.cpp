// Dual-frequency unwrapping (the method is described in unwrap.h), eight pixels a step in float
// with the same operations in the same order at every instruction-set level.
#include "algo/unwrap.h"

#include <cmath>
#include <cstring>
#include <numeric>

#include "algo/simd.h"
#include "algo/vec.h"
#include "tevix/vx_filter.h"

namespace tevix::algo {

namespace {

constexpr double k_c_mm_per_s = 299792458.0e3;
constexpr uint32_t k_max_wraps = 16;
constexpr float k_invalid = 65500.0f;

typedef uint16_t u16x4 __attribute__((vector_size(8)));
template <class V>
struct u16_form;
template <>
struct u16_form<f32x4> {
    using type = u16x4;
};
template <>
struct u16_form<f32x8> {
    using type = u16x8;
};

template <class V>
VX_INLINE V _trunc(const V &x) {
    using I = typename int_form<V>::type;
    if constexpr (sizeof(V) == sizeof(float))
        return float(int32_t(x));
    else
        return __builtin_convertvector(__builtin_convertvector(x, I), V);
}

template <class V>
VX_INLINE V _abs(const V &x) {
    return x < splat<V>(0.0f) ? -x : x;
}

// One step of L pixels (L 1 for the scalar tail).
template <class V>
VX_INLINE V _pixels(const dual_freq &u, const V &d0, const V &d1) {
    const V zero = splat<V>(0.0f), n0 = splat<V>(float(u.n0));
    // t lies in (-n0, n1), so t + 17 is positive and truncation rounds it.
    const V t = d0 * splat<V>(u.t0) - d1 * splat<V>(u.t1);
    const V m = _trunc(V(t + splat<V>(17.5f))) - splat<V>(17.0f);
    // k0 = (a0 - m) inv modulo n0; a0 - m is positive, the product a whole number below 2^13.
    const V a = (splat<V>(u.a0) - m) * splat<V>(u.inv);
    const V k0 = a - _trunc(V((a + splat<V>(0.5f)) * splat<V>(u.inv_n0))) * n0;
    const V r = t - m;
    const V d0u = d0 + k0 * splat<V>(u.r0_mm);
    const V range = splat<V>(u.range_mm);
    V d = d0u - splat<V>(u.w1 * u.sep_mm) * r;
    d = d < zero ? d + range : d;
    d = d >= range ? d - range : d;
    const V rounded = vmin(_trunc(V(d + splat<V>(0.5f))), splat<V>(k_invalid - 1.0f));
    const auto consistent = _abs(r) <= splat<V>(u.max_t);
    const auto known = d0 < splat<V>(k_invalid);
    const auto known1 = d1 < splat<V>(k_invalid);
    if constexpr (sizeof(V) == sizeof(float))
        return consistent && known && known1 ? rounded : k_invalid;
    else
        return (consistent & known & known1) ? rounded : splat<V>(k_invalid);
}

template <class V>
VX_INLINE void _run(const dual_freq &u, const uint16_t *d0, const uint16_t *d1, uint16_t *out,
                    size_t n) {
    constexpr size_t L = sizeof(V) / sizeof(float);
    size_t i = 0;
    if constexpr (L > 1) {
        // Whole vectors in and out: u16 lanes widened to float and narrowed back.
        using h = typename u16_form<V>::type;
        using I = typename int_form<V>::type;
        for (; i + L <= n; i += L) {
            const V a = __builtin_convertvector(load<h>(d0 + i), V);
            const V b = __builtin_convertvector(load<h>(d1 + i), V);
            const h r = __builtin_convertvector(__builtin_convertvector(_pixels<V>(u, a, b), I), h);
            std::memcpy(out + i, &r, sizeof r);
        }
    }
    for (; i < n; ++i) out[i] = uint16_t(_pixels<float>(u, float(d0[i]), float(d1[i])));
}

void _run_scalar(const dual_freq &u, const uint16_t *d0, const uint16_t *d1, uint16_t *out,
                 size_t n) {
    _run<float>(u, d0, d1, out, n);
}
VX_TARGET_SSE41 void _run_sse41(const dual_freq &u, const uint16_t *d0, const uint16_t *d1,
                                uint16_t *out, size_t n) {
    _run<f32x4>(u, d0, d1, out, n);
}
VX_TARGET_AVX2 void _run_avx2(const dual_freq &u, const uint16_t *d0, const uint16_t *d1,
                              uint16_t *out, size_t n) {
    _run<f32x8>(u, d0, d1, out, n);
}

}  // namespace

bool dual_freq_init(dual_freq &u, uint32_t f0, uint32_t f1, float max_residual_mm) {
    u = dual_freq{};
    if (f0 == 0 || f1 == 0 || f0 == f1 || !(max_residual_mm >= 0)) return false;
    const uint32_t g = std::gcd(f0, f1);
    const uint32_t n0 = f0 / g, n1 = f1 / g;
    const double range = k_c_mm_per_s / (2.0 * g);
    if (n0 > k_max_wraps || n1 > k_max_wraps || range >= k_invalid) return false;
    u.f0 = f0, u.f1 = f1, u.n0 = n0, u.n1 = n1;
    u.r0_mm = float(k_c_mm_per_s / (2.0 * f0));
    u.r1_mm = float(k_c_mm_per_s / (2.0 * f1));
    u.range_mm = float(range);
    u.max_residual_mm = max_residual_mm > 0 ? max_residual_mm : float(range / (n0 * n1) / 4.0);
    const double q0 = double(f0) * f0, q1 = double(f1) * f1;
    u.w0 = float(q0 / (q0 + q1));
    u.w1 = float(q1 / (q0 + q1));
    u.t0 = float(n1 / (k_c_mm_per_s / (2.0 * f0)));
    u.t1 = float(n0 / (k_c_mm_per_s / (2.0 * f1)));
    u.a0 = float(17 * n0);
    uint32_t inv = 0;  // n1 inv = 1 modulo n0 (n0 1: any, 0)
    while (n0 > 1 && inv * n1 % n0 != 1) ++inv;
    u.inv = float(inv);
    u.inv_n0 = float(1.0 / n0);
    u.sep_mm = float(range / (n0 * n1));
    u.max_t = u.max_residual_mm / u.sep_mm;
    return true;
}

void dual_freq_unwrap(const dual_freq &u, const uint16_t *d0, const uint16_t *d1, uint16_t *out,
                      size_t n) noexcept {
    if (!d0 || !d1 || !out || u.n0 == 0) return;
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            _run_avx2(u, d0, d1, out, n);
            break;
        case tevix::simd::level::sse41:
            _run_sse41(u, d0, d1, out, n);
            break;
        default:
            _run_scalar(u, d0, d1, out, n);
            break;
    }
}

}  // namespace tevix::algo
