#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "algo/spatial.h"

namespace tevix::algo {

bool make_padded(const uint16_t *img, uint32_t width, uint32_t height, uint32_t pad,
                 padded &out) noexcept {
    // Grows to the largest image seen by the thread and is reused, so steady use allocates nothing.
    thread_local std::vector<uint16_t> scratch;
    const size_t stride = size_t(width) + 2 * pad;
    const size_t rows = size_t(height) + 2 * pad;
    try {
        if (scratch.size() < stride * rows) scratch.resize(stride * rows);
    } catch (const std::bad_alloc &) {
        return false;
    }
    uint16_t *base = scratch.data();
    std::fill_n(base, stride * pad, uint16_t(0));
    for (uint32_t y = 0; y < height; ++y) {
        uint16_t *row = base + (y + pad) * stride;
        std::fill_n(row, pad, uint16_t(0));
        std::memcpy(row + pad, img + size_t(y) * width, size_t(width) * sizeof(uint16_t));
        std::fill_n(row + pad + width, pad, uint16_t(0));
    }
    std::fill_n(base + (height + pad) * stride, stride * pad, uint16_t(0));
    out.origin = base + pad * stride + pad;
    out.stride = stride;
    return true;
}

}  // namespace tevix::algo
