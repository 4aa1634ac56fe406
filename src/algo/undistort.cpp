// Lens undistortion through a per-pixel map. For each pixel (u, v) of the undistorted image the
// normalised ray x = (u - cx) / fx, y = (v - cy) / fy is distorted with the Brown-Conrady model
// (radial k1, k2, k3 with the rational k4..k6, tangential p1, p2, thin prism s1..s4) and projected
// back with the same intrinsics: that is where the distorted source image saw the pixel.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "algo/simd.h"
#include "tevix/vx_filter.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace {

void _free_buffers(vx_calib_len_map_t *m) {
    std::free(m->map_x);
    std::free(m->map_y);
    std::free(m->nearest);
    std::free(m->scratch);
    m->map_x = m->map_y = nullptr;
    m->nearest = nullptr;
    m->scratch = nullptr;
}

bool _same_lens(const vx_calib_len_map_t *m, const vx_lens_t *lens, uint32_t w, uint32_t h) {
    if (m->width != w || m->height != h || !m->map_x) return false;
    if (m->lens_cx != lens->cx || m->lens_cy != lens->cy || m->lens_fx != lens->fx ||
        m->lens_fy != lens->fy || m->lens_width != lens->width || m->lens_height != lens->height)
        return false;
    const uint32_t n = std::min<uint32_t>(lens->n_dcoef, 16);
    if (m->n_dcoef != n) return false;
    for (uint32_t i = 0; i < n; ++i)
        if (m->dcoef[i] != lens->dcoef[i]) return false;
    return true;
}

void _build(vx_calib_len_map_t *m) {
    const double *k = m->dcoef;
    const double k1 = k[0], k2 = k[1], p1 = k[2], p2 = k[3], k3 = k[4], k4 = k[5], k5 = k[6],
                 k6 = k[7], s1 = k[8], s2 = k[9], s3 = k[10], s4 = k[11];
    const uint32_t w = m->width, h = m->height;
    for (uint32_t v = 0; v < h; ++v) {
        const double y = (v - m->cy) / m->fy;
        for (uint32_t u = 0; u < w; ++u) {
            const double x = (u - m->cx) / m->fx;
            const double r2 = x * x + y * y, r4 = r2 * r2, r6 = r4 * r2;
            const double radial =
                (1 + k1 * r2 + k2 * r4 + k3 * r6) / (1 + k4 * r2 + k5 * r4 + k6 * r6);
            const double xd =
                x * radial + 2 * p1 * x * y + p2 * (r2 + 2 * x * x) + s1 * r2 + s2 * r4;
            const double yd =
                y * radial + p1 * (r2 + 2 * y * y) + 2 * p2 * x * y + s3 * r2 + s4 * r4;
            const double sx = m->fx * xd + m->cx, sy = m->fy * yd + m->cy;
            const size_t i = size_t(v) * w + u;
            m->map_x[i] = float(sx);
            m->map_y[i] = float(sy);
            const double nx = std::floor(sx + 0.5), ny = std::floor(sy + 0.5);
            const bool inside = nx >= 0 && ny >= 0 && nx < w && ny < h;
            m->nearest[i] = inside ? int32_t(ny * w + nx) : -1;
        }
    }
}

// Bilinear only where all four samples are real values; else the nearest sample.
inline float _bilinear(const vx_calib_len_map_t *m, const float *src, size_t i) {
    const int32_t near = m->nearest[i];
    if (near < 0) return 0.0f;
    const float sx = m->map_x[i], sy = m->map_y[i];
    const uint32_t w = m->width, h = m->height;
    // Only positions with a right and a lower neighbour blend (truncation is the floor there);
    // negative, too large and NaN positions take the nearest sample.
    if (!(sx >= 0.0f && sy >= 0.0f && sx < float(w - 1) && sy < float(h - 1))) return src[near];
    const uint32_t x0 = uint32_t(sx), y0 = uint32_t(sy);
    const float *p = src + size_t(y0) * w + x0;
    const float a = p[0], b = p[1], c = p[w], d = p[w + 1];
    const bool real = a != 0 && b != 0 && c != 0 && d != 0 && std::isfinite(a) &&
                      std::isfinite(b) && std::isfinite(c) && std::isfinite(d);
    if (!real) return src[near];
    const float tx = sx - float(x0), ty = sy - float(y0);
    return (a * (1 - tx) + b * tx) * (1 - ty) + (c * (1 - tx) + d * tx) * ty;
}

#if defined(__x86_64__) || defined(__i386__)
// Eight pixels a step with gathers; the same decisions and the same operations in the same order
// as _bilinear(), so the results are the same bits. Answers how many pixels it did. Needs w, h >= 2
// (every gather then stays inside the image: out-of-range lanes read pixel 0 and its neighbours).
// All ones where v is a real value: finite and not 0.
VX_TARGET_AVX2 inline __m256 _real_avx2(__m256 v) noexcept {
    const __m256 abs = _mm256_and_ps(v, _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF)));
    return _mm256_and_ps(_mm256_cmp_ps(v, _mm256_setzero_ps(), _CMP_NEQ_OQ),
                         _mm256_cmp_ps(abs, _mm256_set1_ps(INFINITY), _CMP_LT_OQ));
}

VX_TARGET_AVX2 size_t _bilinear_avx2(const vx_calib_len_map_t *m, const float *src, float *dst,
                                     size_t n) noexcept {
    const int w = int(m->width);
    const __m256i vw = _mm256_set1_epi32(w), zero_i = _mm256_setzero_si256();
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
    const __m256 xmax = _mm256_set1_ps(float(w - 1)), ymax = _mm256_set1_ps(float(m->height - 1));
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256i near = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(m->nearest + i));
        const __m256 sx = _mm256_loadu_ps(m->map_x + i), sy = _mm256_loadu_ps(m->map_y + i);
        const __m256 inside = _mm256_castsi256_ps(_mm256_cmpgt_epi32(near, _mm256_set1_epi32(-1)));
        // x0 + 1 < w with x0 = trunc(sx) >= 0 is sx < w - 1 (exact in float for these sizes).
        const __m256 in_range = _mm256_and_ps(
            _mm256_and_ps(_mm256_cmp_ps(sx, zero, _CMP_GE_OQ), _mm256_cmp_ps(sy, zero, _CMP_GE_OQ)),
            _mm256_and_ps(_mm256_cmp_ps(sx, xmax, _CMP_LT_OQ),
                          _mm256_cmp_ps(sy, ymax, _CMP_LT_OQ)));
        const __m256i x0 = _mm256_cvttps_epi32(sx), y0 = _mm256_cvttps_epi32(sy);
        const __m256i at = _mm256_and_si256(_mm256_add_epi32(_mm256_mullo_epi32(y0, vw), x0),
                                            _mm256_castps_si256(in_range));
        const __m256 a = _mm256_i32gather_ps(src, at, 4), b = _mm256_i32gather_ps(src + 1, at, 4);
        const __m256 c = _mm256_i32gather_ps(src + w, at, 4);
        const __m256 d = _mm256_i32gather_ps(src + w + 1, at, 4);
        const __m256 nearest = _mm256_i32gather_ps(src, _mm256_max_epi32(near, zero_i), 4);
        const __m256 tx = _mm256_sub_ps(sx, _mm256_cvtepi32_ps(x0));
        const __m256 ty = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(y0));
        const __m256 ux = _mm256_sub_ps(one, tx);
        const __m256 top = _mm256_add_ps(_mm256_mul_ps(a, ux), _mm256_mul_ps(b, tx));
        const __m256 bottom = _mm256_add_ps(_mm256_mul_ps(c, ux), _mm256_mul_ps(d, tx));
        const __m256 mix =
            _mm256_add_ps(_mm256_mul_ps(top, _mm256_sub_ps(one, ty)), _mm256_mul_ps(bottom, ty));
        const __m256 blend =
            _mm256_and_ps(in_range, _mm256_and_ps(_mm256_and_ps(_real_avx2(a), _real_avx2(b)),
                                                  _mm256_and_ps(_real_avx2(c), _real_avx2(d))));
        _mm256_storeu_ps(dst + i, _mm256_and_ps(_mm256_blendv_ps(nearest, mix, blend), inside));
    }
    return i;
}
#endif

}  // namespace

extern "C" void vx_calib_len_uninit_map(vx_calib_len_map_t *map) noexcept {
    if (!map) return;
    _free_buffers(map);
    std::memset(map, 0, sizeof(*map));
}

extern "C" bool vx_calib_len_init_map(vx_calib_len_map_t *map, const vx_lens_t *lens,
                                      uint32_t width, uint32_t height) noexcept {
    if (!map) return false;
    std::memset(map, 0, sizeof(*map));
    if (!lens || width == 0 || height == 0 || (lens->n_dcoef && !lens->dcoef)) return false;
    // A binned image sees the lens through whole-number factors; other sizes do not match it.
    if (lens->width == 0 || lens->height == 0 || lens->width % width || lens->height % height)
        return false;
    const double dx = lens->width / width, dy = lens->height / height;
    if (!(lens->fx > 0) || !(lens->fy > 0)) return false;
    map->width = width;
    map->height = height;
    map->cx = lens->cx / dx;
    map->cy = lens->cy / dy;
    map->fx = lens->fx / dx;
    map->fy = lens->fy / dy;
    map->n_dcoef = std::min<uint32_t>(lens->n_dcoef, 16);
    for (uint32_t i = 0; i < map->n_dcoef; ++i) map->dcoef[i] = lens->dcoef[i];
    map->lens_cx = lens->cx;
    map->lens_cy = lens->cy;
    map->lens_fx = lens->fx;
    map->lens_fy = lens->fy;
    map->lens_width = lens->width;
    map->lens_height = lens->height;
    const size_t n = size_t(width) * height;
    map->map_x = static_cast<float *>(std::malloc(n * sizeof(float)));
    map->map_y = static_cast<float *>(std::malloc(n * sizeof(float)));
    map->nearest = static_cast<int32_t *>(std::malloc(n * sizeof(int32_t)));
    map->scratch = std::malloc(n * sizeof(float));
    if (!map->map_x || !map->map_y || !map->nearest || !map->scratch) {
        vx_calib_len_uninit_map(map);
        return false;
    }
    _build(map);
    return true;
}

extern "C" bool vx_calib_len_update_map(vx_calib_len_map_t *map, const vx_lens_t *lens,
                                        uint32_t width, uint32_t height) noexcept {
    if (!map || !lens) return false;
    if ((lens->n_dcoef == 0 || lens->dcoef) && _same_lens(map, lens, width, height)) return true;
    vx_calib_len_uninit_map(map);
    return vx_calib_len_init_map(map, lens, width, height);
}

extern "C" bool vx_calib_len_undistort_u16(vx_calib_len_map_t *map, uint16_t *dst,
                                           const uint16_t *src, uint32_t width,
                                           uint32_t height) noexcept {
    if (!map || !map->nearest || !dst || !src || width != map->width || height != map->height)
        return false;
    const size_t n = size_t(width) * height;
    if (dst == src) {
        std::memcpy(map->scratch, src, n * sizeof(uint16_t));
        src = static_cast<const uint16_t *>(map->scratch);
    }
    const int32_t *near = map->nearest;
    for (size_t i = 0; i < n; ++i) dst[i] = near[i] >= 0 ? src[near[i]] : 0;
    return true;
}

extern "C" bool vx_calib_len_undistort_f32(vx_calib_len_map_t *map, float *dst, const float *src,
                                           uint32_t width, uint32_t height, int bilinear) noexcept {
    if (!map || !map->nearest || !dst || !src || width != map->width || height != map->height)
        return false;
    const size_t n = size_t(width) * height;
    if (dst == src) {
        std::memcpy(map->scratch, src, n * sizeof(float));
        src = static_cast<const float *>(map->scratch);
    }
    if (bilinear) {
        size_t i = 0;
#if defined(__x86_64__) || defined(__i386__)
        if (width >= 2 && height >= 2 && tevix::simd::active() == tevix::simd::level::avx2)
            i = _bilinear_avx2(map, src, dst, n);
#endif
        for (; i < n; ++i) dst[i] = _bilinear(map, src, i);
    } else {
        const int32_t *near = map->nearest;
        for (size_t i = 0; i < n; ++i) dst[i] = near[i] >= 0 ? src[near[i]] : 0.0f;
    }
    return true;
}
