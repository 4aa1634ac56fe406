// Flying-pixel removal; the rule is documented with vx_flypix_u16_k3 in vx_filter.h.
#include "algo/spatial.h"

namespace {

using namespace tevix::algo;

template <uint32_t K>
struct flypix_kernel {
    uint16_t level;  // 32 - min(threshold, 31): the margin in 1/256 of the distance

    template <class V>
    VX_INLINE V run(const uint16_t *p, size_t stride) const {
        constexpr int r = K / 2;
        constexpr uint16_t support = K == 3 ? 2 : 4;
        const V zero = splat<V>(uint16_t(0)), one = splat<V>(uint16_t(1));
        const V c = load<V>(p);
        const V m = splat<V>(level);
        // (c * m) >> 8 split at the low byte so every product fits in 16 bits.
        const V margin = V((c >> 8) * m + (((c & 255) * m) >> 8));
        V nvalid = zero, nsup = zero;
        for (int dy = -r; dy <= r; ++dy)
            for (int dx = -r; dx <= r; ++dx) {
                if (dx == 0 && dy == 0) continue;
                const V q = load<V>(p + dy * ptrdiff_t(stride) + dx);
                const auto good = ~is_invalid(q);
                const V diff = V(vmax(c, q) - vmin(c, q));
                nvalid += good ? one : zero;
                nsup += (good & (diff <= margin)) ? one : zero;
            }
        const auto flying = ~is_invalid(c) & (nsup < vmin(nvalid, splat<V>(support)));
        return flying ? zero : c;
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
