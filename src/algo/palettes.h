// The 64 fixed colour palettes: 256 rows of red, green, blue in 0.0..1.0 each.
#pragma once

#include <cstdint>

namespace tevix::cmap {

inline constexpr uint32_t palette_count = 64;
inline constexpr int palette_rows = 256;

// Row-major rows of palette `id` (id < palette_count): row k is at [3 * k .. 3 * k + 2].
const float *palette(uint32_t id) noexcept;

}  // namespace tevix::cmap
