// Data checksum shared by the assembler and the header maker.
#pragma once

#include <cstdint>

namespace tevix::stream {

// Wrapping sum of `words` little-endian u32 words starting at p (any alignment). Uses AVX2 when
// the processor has it; every path gives the same sum.
uint32_t sum_u32le(const uint8_t *p, uint32_t words);

// The portable loop, kept callable so tests can compare the paths.
uint32_t sum_u32le_scalar(const uint8_t *p, uint32_t words);

}  // namespace tevix::stream
