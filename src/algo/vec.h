// GCC vector types and unaligned access helpers for the pixel kernels. The helpers also accept
// plain scalars, so one kernel template serves the scalar path and every vector width.
#pragma once

#include <cstdint>
#include <cstring>

#include "algo/simd.h"

// The helpers pass 32-byte vectors by value; they are always inlined, so no call ABI is involved.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace tevix::algo {

typedef float f32x4 __attribute__((vector_size(16)));
typedef float f32x8 __attribute__((vector_size(32)));
typedef double f64x2 __attribute__((vector_size(16)));
typedef double f64x4 __attribute__((vector_size(32)));
typedef uint16_t u16x8 __attribute__((vector_size(16)));
typedef uint16_t u16x16 __attribute__((vector_size(32)));

template <class V>
VX_INLINE V load(const void *p) {
    V v;
    std::memcpy(&v, p, sizeof(V));
    return v;
}

template <class V>
VX_INLINE void store(void *p, const V &v) {
    std::memcpy(p, &v, sizeof(V));
}

template <class V, class T>
VX_INLINE V splat(T x) {
    return V{} + x;
}

// Lane-wise minimum and maximum (vector comparisons give all-ones masks, scalars give bool).
template <class V>
VX_INLINE V vmin(const V &a, const V &b) {
    return a < b ? a : b;
}
template <class V>
VX_INLINE V vmax(const V &a, const V &b) {
    return a < b ? b : a;
}

}  // namespace tevix::algo
