// Hole filling from the 3x3 neighbourhood; the rule is documented with vx_fhole_u16_k3 in
// vx_filter.h. As in the median, invalid neighbours sort last under the key 0xFFFF.
#include "algo/spatial.h"

namespace {

using namespace tevix::algo;

struct fhole_kernel {
    static constexpr sort_net net = make_sort_net(8, 4);
    uint16_t min_valid;

    // Only pixels of value 0 change: rows without one stay as they are.
    template <class V>
    VX_INLINE bool busy(const uint16_t *row, uint32_t w) const {
        constexpr uint32_t L = sizeof(V) / sizeof(uint16_t);
        uint32_t x = 0;
        if constexpr (L > 1) {
            V any = splat<V>(uint16_t(0));
            for (; x + L <= w; x += L) any |= V(load<V>(row + x) == splat<V>(uint16_t(0)));
            if (!all_zero(any)) return true;
        }
        for (; x < w; ++x)
            if (row[x] == 0) return true;
        return false;
    }

    template <class V>
    VX_INLINE V run(const uint16_t *p, size_t stride) const {
        const V zero = splat<V>(uint16_t(0)), one = splat<V>(uint16_t(1));
        const V none = splat<V>(uint16_t(0xFFFF));
        const V c = load<V>(p);
        if (all_zero(V(c == zero))) return c;
        V key[8], n = zero;
        uint32_t i = 0;
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                if (dx == 0 && dy == 0) continue;
                const V v = load<V>(p + dy * ptrdiff_t(stride) + dx);
                const auto bad = is_invalid(v);
                key[i++] = bad ? none : v;
                n += bad ? zero : one;
            }
        apply_net<net>(key);
        const V med = select_rank(key, V((n - one) >> 1), 3);
        return ((c == zero) & (n >= splat<V>(min_valid))) ? med : c;
    }
};

VX_SPATIAL_VARIANTS(fhole_kernel)

}  // namespace

extern "C" bool vx_fhole_u16_k3(uint16_t *img, uint32_t width, uint32_t height,
                                uint32_t param) noexcept {
    if (!img || width == 0 || height == 0) return false;
    const uint16_t min_valid = param == 0 ? 7 : uint16_t(param > 8 ? 8 : param);
    VX_SPATIAL_DISPATCH(fhole_kernel, img, width, height, 1, min_valid);
    return true;
}
