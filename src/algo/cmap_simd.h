// Run-time choice of the instruction set for the colour-map, conversion and point-cloud kernels.
// Every kernel has a scalar version giving the same bits; tests lower the limit to compare them.
#pragma once

#if defined(__x86_64__) || defined(__i386__)
#define TEVIX_CMAP_X86 1
#else
#define TEVIX_CMAP_X86 0
#endif

namespace tevix::cmap {

enum class isa : int { scalar = 0, sse41 = 1, avx2 = 2 };

// The best instruction set of this CPU, capped by simd_limit().
isa simd_level() noexcept;

// Caps the instruction set used from now on (for tests and benchmarks); returns the previous cap.
isa simd_limit(isa cap) noexcept;

}  // namespace tevix::cmap
