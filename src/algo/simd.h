// Run-time choice of the instruction set for the pixel kernels. Every kernel has a scalar body
// and wider variants compiled with per-function target attributes; all variants perform the same
// operations in the same order, so their outputs are bit-identical and tests may force any level.
#pragma once

#include <cstdint>

namespace tevix::simd {

enum class level : int { scalar = 0, sse41 = 1, avx2 = 2 };

// The widest level the CPU supports, lowered by limit().
level active() noexcept;

// Caps active() at `max` (tests force the scalar path with level::scalar); returns the old cap.
level limit(level max) noexcept;

// Scoped cap, for tests.
class scoped_limit {
  public:
    explicit scoped_limit(level max) noexcept : old_(limit(max)) {}
    ~scoped_limit() { limit(old_); }
    scoped_limit(const scoped_limit &) = delete;
    scoped_limit &operator=(const scoped_limit &) = delete;

  private:
    level old_;
};

}  // namespace tevix::simd

// Kernel bodies are templates forced inline into thin wrappers that carry the target attribute,
// so one source yields every variant. GCC's vector extensions then lower to the wrapper's ISA.
#define VX_INLINE inline __attribute__((always_inline))
#define VX_TARGET_AVX2 __attribute__((target("avx2")))
#define VX_TARGET_SSE41 __attribute__((target("sse4.1")))
