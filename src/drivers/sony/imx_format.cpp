// SONY raw formats (see imx_format.h). The unpacking loops are plain integer code written once and
// compiled for each instruction-set tier, so every tier gives the same planes.
#include "drivers/sony/imx_format.h"

#include <algorithm>
#include <cstring>

#include "algo/simd.h"

namespace tevix::imx {

namespace {

// I and Q of the pseudo planes stay within what a 12-bit sample pair can carry.
constexpr int32_t k_lim = 4090;

VX_INLINE int32_t _s12(const uint8_t *stream, uint32_t j) {
    const uint8_t *g = stream + size_t{j >> 1} * 3;
    const uint32_t v = (j & 1) ? (uint32_t{g[1]} >> 4) | (uint32_t{g[2]} << 4)
                               : uint32_t{g[0]} | ((uint32_t{g[1]} & 0xF) << 8);
    return int32_t(v << 20) >> 20;
}

VX_INLINE int32_t _s16(const uint8_t *p, uint32_t i) {
    int16_t v;
    std::memcpy(&v, p + size_t{i} * 2, 2);
    return v;
}

// Writes pixel i of the four planes from its I and Q.
VX_INLINE void _put(uint16_t *planes, uint32_t n, uint32_t i, int32_t I, int32_t Q, bool ok) {
    I = std::clamp(I, -k_lim, k_lim);
    Q = std::clamp(Q, -k_lim, k_lim);
    const int32_t d0 = 2048 - (I >> 1), d1 = 2048 - (Q >> 1);
    planes[i] = ok ? uint16_t(d0) : uint16_t(0);
    planes[n + i] = uint16_t(d1);
    planes[2 * size_t{n} + i] = uint16_t(d0 + I);
    planes[3 * size_t{n} + i] = uint16_t(d1 + Q);
}

VX_INLINE void _unpack_body(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set,
                            uint16_t *planes) {
    const uint32_t c0 = 2 * set;  // component of I; Q follows
    switch (l.type) {
        case sample::iq16:
            for (uint32_t i = 0; i < n; ++i) {
                const int32_t I = _s16(raw, i), Q = _s16(raw, n + i);
                _put(planes, n, i, I, Q, I != k_none_s16 && Q != k_none_s16);
            }
            break;
        case sample::iq8: {
            const auto *s = reinterpret_cast<const int8_t *>(raw);
            const uint32_t spp = 2u * l.sets;
            for (uint32_t i = 0; i < n; ++i) {
                const int32_t I = l.interleaved ? s[size_t{i} * spp + c0] : s[size_t{c0} * n + i];
                const int32_t Q =
                    l.interleaved ? s[size_t{i} * spp + c0 + 1] : s[size_t{c0 + 1} * n + i];
                _put(planes, n, i, I * 16, Q * 16, I != k_none_s8 && Q != k_none_s8);
            }
            break;
        }
        case sample::iq12: {
            const uint32_t spp = 2u * l.sets;
            for (uint32_t i = 0; i < n; ++i) {
                const uint32_t ji = l.interleaved ? i * spp + c0 : c0 * n + i;
                const uint32_t jq = l.interleaved ? ji + 1 : ji + n;
                const int32_t I = _s12(raw, ji), Q = _s12(raw, jq);
                _put(planes, n, i, I, Q, I != k_none_s12 && Q != k_none_s12);
            }
            break;
        }
        default:
            std::memset(planes, 0, size_t{n} * 8);
            break;
    }
}

VX_TARGET_AVX2 void _unpack_avx2(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set,
                                 uint16_t *planes) {
    _unpack_body(l, raw, n, set, planes);
}
VX_TARGET_SSE41 void _unpack_sse41(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set,
                                   uint16_t *planes) {
    _unpack_body(l, raw, n, set, planes);
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

VX_INLINE void _to_mm_body(int32_t *dist, uint32_t n, float k, int32_t offset_mm) {
    for (uint32_t i = 0; i < n; ++i) {
        const int32_t ph = dist[i];
        const int32_t d = static_cast<int32_t>(static_cast<float>(ph) * k + 0.5f) + offset_mm;
        dist[i] = uint32_t(ph) < 32768u ? d : ph;
    }
}

VX_TARGET_AVX2 void _to_mm_avx2(int32_t *dist, uint32_t n, float k, int32_t offset_mm) {
    _to_mm_body(dist, n, k, offset_mm);
}
VX_TARGET_SSE41 void _to_mm_sse41(int32_t *dist, uint32_t n, float k, int32_t offset_mm) {
    _to_mm_body(dist, n, k, offset_mm);
}

}  // namespace

void phase_to_mm_scalar(int32_t *dist, uint32_t n, float mm_per_turn, int32_t offset_mm) {
    _to_mm_body(dist, n, mm_per_turn / 32768.0f, offset_mm);
}

void phase_to_mm(int32_t *dist, uint32_t n, float mm_per_turn, int32_t offset_mm) {
    const float k = mm_per_turn / 32768.0f;
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            _to_mm_avx2(dist, n, k, offset_mm);
            break;
        case tevix::simd::level::sse41:
            _to_mm_sse41(dist, n, k, offset_mm);
            break;
        default:
            _to_mm_body(dist, n, k, offset_mm);
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

void unpack_iq_scalar(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set,
                      uint16_t *planes) {
    _unpack_body(l, raw, n, set, planes);
}

void unpack_iq(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set, uint16_t *planes) {
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            _unpack_avx2(l, raw, n, set, planes);
            break;
        case tevix::simd::level::sse41:
            _unpack_sse41(l, raw, n, set, planes);
            break;
        default:
            unpack_iq_scalar(l, raw, n, set, planes);
            break;
    }
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
