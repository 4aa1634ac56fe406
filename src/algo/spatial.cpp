#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "algo/spatial.h"

namespace tevix::algo {

bool make_ring(uint32_t width, uint32_t pad, row_ring &out) noexcept {
    // Grows to the widest image seen by the thread and is reused, so steady use allocates nothing.
    thread_local std::vector<uint16_t> scratch;
    const size_t stride = size_t(width) + 2 * pad;
    const uint32_t slots = 2 * pad + 1;
    try {
        if (scratch.size() < 2 * slots * stride) scratch.resize(2 * slots * stride);
    } catch (const std::bad_alloc &) {
        return false;
    }
    out.buf = scratch.data();
    out.stride = stride;
    out.slots = slots;
    return true;
}

void ring_put(const row_ring &r, const uint16_t *img, uint32_t width, uint32_t height, uint32_t pad,
              int row) noexcept {
    const size_t slot = size_t((row % int(r.slots) + int(r.slots)) % int(r.slots));
    uint16_t *a = r.buf + slot * r.stride, *b = r.buf + (slot + r.slots) * r.stride;
    if (row < 0 || row >= int(height)) {
        std::fill_n(a, r.stride, uint16_t(0));
    } else {
        std::fill_n(a, pad, uint16_t(0));
        std::memcpy(a + pad, img + size_t(row) * width, size_t(width) * sizeof(uint16_t));
        std::fill_n(a + pad + width, pad, uint16_t(0));
    }
    std::memcpy(b, a, r.stride * sizeof(uint16_t));
}

}  // namespace tevix::algo
