// GCC vector types and unaligned access helpers for the pixel kernels. The helpers also accept
// plain scalars, so one kernel template serves the scalar path and every vector width.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

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
typedef int32_t i32x4 __attribute__((vector_size(16)));
typedef int32_t i32x8 __attribute__((vector_size(32)));

// The lane type of a vector (a scalar is its own), and the 32-bit integer form of a float one.
template <class V>
struct lane {
    using type = std::remove_cvref_t<decltype(V{}[0])>;
};
template <>
struct lane<double> {
    using type = double;
};
template <>
struct lane<float> {
    using type = float;
};
template <class V>
using lane_t = typename lane<V>::type;

template <class V>
struct int_form;
template <>
struct int_form<float> {
    using type = int32_t;
};
template <>
struct int_form<f32x4> {
    using type = i32x4;
};
template <>
struct int_form<f32x8> {
    using type = i32x8;
};

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

// True when every bit of v is zero: one vector test for all lanes. Plain assembly, because the
// intrinsics would need the target attribute on every template between the kernel body and its
// wrapper; 16-byte vectors are the SSE4.1 tier's (the AVX2 tier's are 32 bytes).
template <class V>
VX_INLINE bool all_zero(const V &v) {
#if defined(__x86_64__) || defined(__i386__)
    if constexpr (sizeof(V) == 32) {
        bool z;
        asm("vptest %1, %1" : "=@ccz"(z) : "x"(v));
        return z;
    } else if constexpr (sizeof(V) == 16) {
        bool z;
        asm("ptest %1, %1" : "=@ccz"(z) : "x"(v));
        return z;
    }
#endif
    if constexpr (sizeof(V) <= sizeof(uint64_t)) {
        return v == 0;
    } else {
        uint64_t w[sizeof(V) / 8];
        std::memcpy(w, &v, sizeof w);
        uint64_t any = 0;
        for (uint64_t x : w) any |= x;
        return any == 0;
    }
}

}  // namespace tevix::algo
