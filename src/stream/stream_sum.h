// Data checksum shared by the assembler and the header maker.
#pragma once

#include <cstdint>
#include <cstring>

namespace tevix::stream {

// Wrapping sum of `words` little-endian u32 words starting at p (any alignment). Four running
// sums let the compiler vectorise the loop.
inline uint32_t sum_u32le(const uint8_t *p, uint32_t words) {
    uint32_t acc[4] = {0, 0, 0, 0};
    uint32_t i = 0;
    for (; i + 4 <= words; i += 4) {
        uint32_t w[4];
        std::memcpy(w, p + size_t{i} * 4, sizeof w);
        acc[0] += w[0];
        acc[1] += w[1];
        acc[2] += w[2];
        acc[3] += w[3];
    }
    uint32_t sum = acc[0] + acc[1] + acc[2] + acc[3];
    for (; i < words; ++i) {
        uint32_t w;
        std::memcpy(&w, p + size_t{i} * 4, sizeof w);
        sum += w;
    }
    return sum;
}

}  // namespace tevix::stream
