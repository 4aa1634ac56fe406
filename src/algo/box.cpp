// Box filter over the valid pixels: per-column running sums of values and of valid counts over
// the kernel's rows, then a running sum along each row, so each pixel costs a few additions
// whatever the kernel. Sums of at most 31 x 31 values of 16 bits fit 32 bits.
#include <cstddef>
#include <new>
#include <vector>

#include "tevix/vx_filter.h"

namespace {

bool _valid(uint16_t v) {
    return v != 0 && v != VX_DIST_INVALID;
}

}  // namespace

extern "C" bool vx_box2d_u16(uint16_t *img, uint32_t width, uint32_t height,
                             uint32_t kernel) noexcept {
    if (!img || width == 0 || height == 0 || kernel < 3 || kernel > 31 || kernel % 2 == 0)
        return false;
    const int r = static_cast<int>(kernel / 2);
    const int w = static_cast<int>(width), h = static_cast<int>(height);
    thread_local std::vector<uint32_t> sums, counts;
    thread_local std::vector<uint16_t> src;
    try {
        sums.assign(width, 0);
        counts.assign(width, 0);
        src.assign(img, img + std::size_t(width) * height);
    } catch (const std::bad_alloc &) {
        return false;
    }
    auto add_row = [&](int y, int sign) {
        if (y < 0 || y >= h) return;
        const uint16_t *row = src.data() + std::size_t(y) * width;
        for (int x = 0; x < w; ++x)
            if (_valid(row[x])) {
                sums[std::size_t(x)] += sign > 0 ? row[x] : -uint32_t{row[x]};
                counts[std::size_t(x)] += sign > 0 ? 1u : -1u;
            }
    };
    for (int y = -r; y < r; ++y) add_row(y, +1);
    for (int y = 0; y < h; ++y) {
        add_row(y + r, +1);
        uint32_t s = 0, c = 0;
        for (int x = -r; x < r; ++x)
            if (x >= 0 && x < w) s += sums[std::size_t(x)], c += counts[std::size_t(x)];
        uint16_t *out = img + std::size_t(y) * width;
        const uint16_t *in = src.data() + std::size_t(y) * width;
        for (int x = 0; x < w; ++x) {
            if (x + r < w) s += sums[std::size_t(x + r)], c += counts[std::size_t(x + r)];
            if (_valid(in[x])) out[x] = static_cast<uint16_t>((s + c / 2) / c);
            if (x - r >= 0) s -= sums[std::size_t(x - r)], c -= counts[std::size_t(x - r)];
        }
        add_row(y - r, -1);
    }
    return true;
}
