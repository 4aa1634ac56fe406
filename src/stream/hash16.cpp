// Fletcher-16 (mod 255) over the stream header and calibration blocks.
#include <algorithm>

#include "tevix/vx_stream.h"

extern "C" uint16_t vx_stream_hash16(const uint8_t *data, uint32_t len, uint16_t seed) noexcept {
    if (!data || len == 0) return seed;
    uint32_t s1 = seed & 0xFFu;
    uint32_t s2 = seed >> 8;
    // The reduction can wait: after 4096 bytes s1 < 2^20 and s2 < 2^32 starting from values
    // below 255, so each block is summed without a modulo per byte.
    while (len) {
        const uint32_t n = std::min<uint32_t>(len, 4096);
        for (uint32_t i = 0; i < n; ++i) {
            s1 += data[i];
            s2 += s1;
        }
        s1 %= 255;
        s2 %= 255;
        data += n;
        len -= n;
    }
    return static_cast<uint16_t>(s1 | s2 << 8);
}
