// Point clouds from distance images. Four pixels are processed at a time (one 128-bit vector of
// floats); the scalar path does the same operations in the same order, so both give equal bits.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "algo/simd.h"
#include "tevix/vx_pcl.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace tevix::cmap {
namespace {

// Output layouts: z only (from a distance that is already z, or along the ray), x y z, x y z w.
enum class layout { z_only, xyz, xyzw };

struct frame {
    float *out;
    const void *dist;
    const float *map;
    const uint32_t *fourth;
    size_t width;
    size_t height;
    float cx, rfx, cy, rfy;
};

constexpr float max_distance = 60.0f;
constexpr float mm_to_m = 0.001f;

inline float metres(float d) noexcept {
    return d;
}
inline float metres(uint16_t d) noexcept {
    return static_cast<float>(d) * mm_to_m;
}

inline float root(float r) noexcept {
#if defined(__x86_64__) || defined(__i386__)
    // sqrtss gives the same NaN as sqrtps for a negative argument.
    return _mm_cvtss_f32(_mm_sqrt_ss(_mm_set_ss(r)));
#else
    return __builtin_sqrtf(r);
#endif
}

template <class T, layout L, bool DZ>
void rows_scalar(const frame &f) noexcept {
    const T *dist = static_cast<const T *>(f.dist);
    const size_t groups = f.width / 4 * 4;
    for (size_t v = 0; v < f.height; ++v) {
        const float ry = (static_cast<float>(v) - f.cy) * f.rfy;
        for (size_t u = 0; u < groups; ++u) {
            const size_t i = v * f.width + u;
            float d = metres(dist[i]);
            d = d < max_distance ? d : 0.0f;
            const float m = f.map ? f.map[i] : 0.0f;
            if constexpr (L == layout::z_only && DZ) {
                f.out[i] = d * m + d;
            } else {
                const float x = ((static_cast<float>(u) - f.cx) * f.rfx) * d;
                const float y = ry * d;
                const float z = DZ ? d * m + d : d * m + root((d * d - x * x) - y * y);
                if constexpr (L == layout::z_only) {
                    f.out[i] = z;
                } else if constexpr (L == layout::xyz) {
                    f.out[i * 3] = x;
                    f.out[i * 3 + 1] = y;
                    f.out[i * 3 + 2] = z;
                } else {
                    f.out[i * 4] = x;
                    f.out[i * 4 + 1] = y;
                    f.out[i * 4 + 2] = z;
                    std::memcpy(&f.out[i * 4 + 3], &f.fourth[i], sizeof(float));
                }
            }
        }
    }
}

#if defined(__x86_64__) || defined(__i386__)

inline __m128 load4(const float *p) noexcept {
    return _mm_loadu_ps(p);
}
inline __m128 load4(const uint16_t *p) noexcept {
    const __m128i w = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p));
    const __m128 d = _mm_cvtepi32_ps(_mm_unpacklo_epi16(w, _mm_setzero_si128()));
    return _mm_mul_ps(d, _mm_set1_ps(mm_to_m));
}

// Stores four points (x, y, z) as twelve consecutive floats.
inline void store_xyz(float *out, __m128 x, __m128 y, __m128 z) noexcept {
    const __m128 t0 = _mm_unpacklo_ps(x, y);  // x0 y0 x1 y1
    const __m128 t1 = _mm_unpackhi_ps(x, y);  // x2 y2 x3 y3
    const __m128 a =
        _mm_shuffle_ps(t0, _mm_shuffle_ps(z, t0, _MM_SHUFFLE(2, 2, 0, 0)), _MM_SHUFFLE(2, 0, 1, 0));
    const __m128 b =
        _mm_shuffle_ps(_mm_shuffle_ps(t0, z, _MM_SHUFFLE(1, 1, 3, 3)), t1, _MM_SHUFFLE(1, 0, 2, 0));
    const __m128 c =
        _mm_shuffle_ps(_mm_shuffle_ps(z, t1, _MM_SHUFFLE(2, 2, 2, 2)),
                       _mm_shuffle_ps(t1, z, _MM_SHUFFLE(3, 3, 3, 3)), _MM_SHUFFLE(2, 0, 2, 0));
    _mm_storeu_ps(out, a);
    _mm_storeu_ps(out + 4, b);
    _mm_storeu_ps(out + 8, c);
}

template <class T, layout L, bool DZ>
void rows_sse(const frame &f) noexcept {
    const T *dist = static_cast<const T *>(f.dist);
    const size_t groups = f.width / 4 * 4;
    const __m128 limit = _mm_set1_ps(max_distance);
    const __m128 cx = _mm_set1_ps(f.cx);
    const __m128 rfx = _mm_set1_ps(f.rfx);
    const __m128i lane = _mm_setr_epi32(0, 1, 2, 3);
    for (size_t v = 0; v < f.height; ++v) {
        const __m128 ry = _mm_set1_ps((static_cast<float>(v) - f.cy) * f.rfy);
        for (size_t u = 0; u < groups; u += 4) {
            const size_t i = v * f.width + u;
            __m128 d = load4(dist + i);
            d = _mm_and_ps(d, _mm_cmplt_ps(d, limit));
            const __m128 m = f.map ? _mm_loadu_ps(f.map + i) : _mm_setzero_ps();
            const __m128 dm = _mm_mul_ps(d, m);
            if constexpr (L == layout::z_only && DZ) {
                _mm_storeu_ps(f.out + i, _mm_add_ps(dm, d));
            } else {
                const __m128 col =
                    _mm_cvtepi32_ps(_mm_add_epi32(_mm_set1_epi32(static_cast<int>(u)), lane));
                const __m128 x = _mm_mul_ps(_mm_mul_ps(_mm_sub_ps(col, cx), rfx), d);
                const __m128 y = _mm_mul_ps(ry, d);
                __m128 z;
                if constexpr (DZ) {
                    z = _mm_add_ps(dm, d);
                } else {
                    const __m128 r = _mm_sub_ps(_mm_sub_ps(_mm_mul_ps(d, d), _mm_mul_ps(x, x)),
                                                _mm_mul_ps(y, y));
                    z = _mm_add_ps(dm, _mm_sqrt_ps(r));
                }
                if constexpr (L == layout::z_only) {
                    _mm_storeu_ps(f.out + i, z);
                } else if constexpr (L == layout::xyz) {
                    store_xyz(f.out + i * 3, x, y, z);
                } else {
                    __m128 x4 = x, y4 = y, z4 = z;
                    __m128 w4 = _mm_castsi128_ps(
                        _mm_loadu_si128(reinterpret_cast<const __m128i *>(f.fourth + i)));
                    _MM_TRANSPOSE4_PS(x4, y4, z4, w4);
                    _mm_storeu_ps(f.out + i * 4, x4);
                    _mm_storeu_ps(f.out + i * 4 + 4, y4);
                    _mm_storeu_ps(f.out + i * 4 + 8, z4);
                    _mm_storeu_ps(f.out + i * 4 + 12, w4);
                }
            }
        }
    }
}

#endif

template <class T, layout L, bool DZ>
void rows(const frame &f) noexcept {
#if defined(__x86_64__) || defined(__i386__)
    if (simd::active() != simd::level::scalar) return rows_sse<T, L, DZ>(f);
#endif
    rows_scalar<T, L, DZ>(f);
}

template <class T, bool DZ>
void dispatch_layout(const frame &f, bool one_value) noexcept {
    if (one_value) return rows<T, layout::z_only, DZ>(f);
    if (f.fourth) return rows<T, layout::xyzw, DZ>(f);
    rows<T, layout::xyz, DZ>(f);
}

// A missing map is a map of zeros: the term d * 0 is still evaluated, so the points equal those
// computed with an explicit zero map, without allocating one per call.
template <class T>
int pcl(float *out, const T *dist, const float *map, int32_t width, int32_t height,
        const float *intrinsics, const void *fourth, int one_value, int d_is_z) noexcept {
    if (!out || !dist || !intrinsics) return -22;
    if (width < 1 || height < 1) return 0;
    const frame f{out,
                  dist,
                  map,
                  static_cast<const uint32_t *>(fourth),
                  static_cast<size_t>(width),
                  static_cast<size_t>(height),
                  intrinsics[0],
                  1.0f / intrinsics[2],
                  intrinsics[1],
                  1.0f / intrinsics[3]};
    if (d_is_z)
        dispatch_layout<T, true>(f, one_value != 0);
    else
        dispatch_layout<T, false>(f, one_value != 0);
    return 0;
}

}  // namespace
}  // namespace tevix::cmap

extern "C" int vx_pcl_get_xyzd_f32(float *out, const float *dist, const float *map, int32_t width,
                                   int32_t height, const float *intrinsics, const void *fourth,
                                   int one_value, int d_is_z) noexcept {
    return tevix::cmap::pcl(out, dist, map, width, height, intrinsics, fourth, one_value, d_is_z);
}

extern "C" int vx_pcl_get_xyzd_u16(float *out, const uint16_t *dist, const float *map,
                                   int32_t width, int32_t height, const float *intrinsics,
                                   const void *fourth, int one_value, int d_is_z) noexcept {
    return tevix::cmap::pcl(out, dist, map, width, height, intrinsics, fourth, one_value, d_is_z);
}
