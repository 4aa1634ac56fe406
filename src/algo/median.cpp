// Rank filter over the valid pixels of a 3x3 or 5x5 window: invalid pixels get the key 0xFFFF,
// which sorts them behind every valid value, so the lower median of the n valid values is entry
// (n - 1) / 2 of the sorted window. Only the first K*K/2 + 1 entries need sorting.
#include "algo/spatial.h"

namespace {

using namespace tevix::algo;

template <uint32_t K>
struct median_kernel {
    static constexpr uint32_t taps = K * K;
    static constexpr sort_net net = make_sort_net(taps, taps / 2 + 1);

    template <class V>
    VX_INLINE V run(const uint16_t *p, size_t stride) const {
        constexpr int r = K / 2;
        const V one = splat<V>(uint16_t(1)), none = splat<V>(uint16_t(0xFFFF));
        V key[taps], n = splat<V>(uint16_t(0));
        uint32_t i = 0;
        for (int dy = -r; dy <= r; ++dy)
            for (int dx = -r; dx <= r; ++dx, ++i) {
                const V v = load<V>(p + dy * ptrdiff_t(stride) + dx);
                const auto bad = is_invalid(v);
                key[i] = bad ? none : v;
                n += bad ? splat<V>(uint16_t(0)) : one;
            }
        const V c = load<V>(p);
        apply_net<net>(key);
        const V med = select_rank(key, V((n - one) >> 1), taps / 2);
        return is_invalid(c) ? c : med;
    }
};

VX_SPATIAL_VARIANTS(median_kernel<3>)
VX_SPATIAL_VARIANTS(median_kernel<5>)

}  // namespace

extern "C" bool vx_median2d_u16(uint16_t *img, uint32_t width, uint32_t height,
                                uint32_t kernel) noexcept {
    if (!img || width == 0 || height == 0) return false;
    if (kernel == 3) {
        VX_SPATIAL_DISPATCH(median_kernel<3>, img, width, height, 1);
    } else if (kernel == 5) {
        VX_SPATIAL_DISPATCH(median_kernel<5>, img, width, height, 2);
    } else {
        return false;
    }
    return true;
}
