// Flying-pixel removal; the rule is documented with vx_flypix_u16_k3 in vx_filter.h.
#include "algo/spatial.h"

namespace {

using namespace tevix::algo;

template <uint32_t K>
struct flypix_kernel {
    uint16_t level;  // 32 - min(threshold, 31): the margin in 1/256 of the distance

    template <class V>
    VX_INLINE bool busy(const uint16_t *, uint32_t) const {
        return true;
    }

    // Mask of the lanes where c lies strictly between a and b with a gap above the margin on
    // both sides. The wrapping differences only count where the comparison before them holds.
    template <class V>
    VX_INLINE static auto _between(const V &c, const V &a, const V &b, const V &margin) {
        const auto a_near = (a < c) & (V(c - a) > margin);
        const auto a_far = (a > c) & (V(a - c) > margin);
        const auto b_near = (b < c) & (V(c - b) > margin);
        const auto b_far = (b > c) & (V(b - c) > margin);
        return ~(is_invalid(a) | is_invalid(b)) & ((a_near & b_far) | (a_far & b_near));
    }

    template <class V>
    VX_INLINE V run(const uint16_t *p, size_t stride) const {
        const ptrdiff_t s = ptrdiff_t(stride);
        const V c = load<V>(p);
        const V m = splat<V>(level);
        // (c * m) >> 8 split at the low byte so every product fits in 16 bits.
        const V margin = V((c >> 8) * m + (((c & 255) * m) >> 8));
        auto flying = c != c;
        for (ptrdiff_t r = 1; r <= ptrdiff_t(K / 2); ++r) {
            const ptrdiff_t step[4] = {r, r * s, r * s + r, r * s - r};
            for (ptrdiff_t d : step)
                flying = flying | _between(c, load<V>(p - d), load<V>(p + d), margin);
        }
        return (~is_invalid(c) & flying) ? splat<V>(uint16_t(0)) : c;
    }
};

VX_SPATIAL_VARIANTS(flypix_kernel<3>)
VX_SPATIAL_VARIANTS(flypix_kernel<5>)

uint16_t _level(uint32_t threshold) {
    return uint16_t(32 - (threshold < 31 ? threshold : 31));
}

}  // namespace

extern "C" bool vx_flypix_u16_k3(uint16_t *img, uint32_t width, uint32_t height,
                                 uint32_t threshold) noexcept {
    if (!img || width == 0 || height == 0) return false;
    VX_SPATIAL_DISPATCH(flypix_kernel<3>, img, width, height, 1, _level(threshold));
    return true;
}

extern "C" bool vx_flypix_u16_k5(uint16_t *img, uint32_t width, uint32_t height,
                                 uint32_t threshold) noexcept {
    if (!img || width == 0 || height == 0) return false;
    VX_SPATIAL_DISPATCH(flypix_kernel<5>, img, width, height, 2, _level(threshold));
    return true;
}
