#include "algo/simd.h"

#include <atomic>

namespace tevix::simd {

namespace {

level _detect() noexcept {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2")) return level::avx2;
    if (__builtin_cpu_supports("sse4.1")) return level::sse41;
    return level::scalar;
}

std::atomic<int> _cap{static_cast<int>(level::avx2)};

}  // namespace

level active() noexcept {
    static const level cpu = _detect();
    const int cap = _cap.load(std::memory_order_relaxed);
    return static_cast<int>(cpu) < cap ? cpu : static_cast<level>(cap);
}

level limit(level max) noexcept {
    return static_cast<level>(_cap.exchange(static_cast<int>(max), std::memory_order_relaxed));
}

}  // namespace tevix::simd
