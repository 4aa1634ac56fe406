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

// Vectors of L lanes of other widths, for conversions between lane types (L > 1). A typedef with
// a size that depends on a template parameter has to live in a class template.
template <uint32_t L>
struct lanes_of {
    typedef uint16_t u16 __attribute__((vector_size(2 * L)));
    typedef int16_t i16 __attribute__((vector_size(2 * L)));
    typedef int32_t i32 __attribute__((vector_size(4 * L)));
};

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

// Transposes a square block of vectors in place: lane j of r[i] swaps with lane i of r[j]. The
// shuffles are generic, so each tier lowers them to its own unpack and permute instructions.
VX_INLINE void transpose(float (&)[1]) {}
VX_INLINE void transpose(double (&)[1]) {}

VX_INLINE void transpose(f64x2 (&r)[2]) {
    const f64x2 a = __builtin_shufflevector(r[0], r[1], 0, 2);
    r[1] = __builtin_shufflevector(r[0], r[1], 1, 3);
    r[0] = a;
}

VX_INLINE void transpose(f32x4 (&r)[4]) {
    const f32x4 t0 = __builtin_shufflevector(r[0], r[1], 0, 4, 1, 5);
    const f32x4 t1 = __builtin_shufflevector(r[0], r[1], 2, 6, 3, 7);
    const f32x4 t2 = __builtin_shufflevector(r[2], r[3], 0, 4, 1, 5);
    const f32x4 t3 = __builtin_shufflevector(r[2], r[3], 2, 6, 3, 7);
    r[0] = __builtin_shufflevector(t0, t2, 0, 1, 4, 5);
    r[1] = __builtin_shufflevector(t0, t2, 2, 3, 6, 7);
    r[2] = __builtin_shufflevector(t1, t3, 0, 1, 4, 5);
    r[3] = __builtin_shufflevector(t1, t3, 2, 3, 6, 7);
}

VX_INLINE void transpose(f64x4 (&r)[4]) {
    const f64x4 t0 = __builtin_shufflevector(r[0], r[1], 0, 4, 2, 6);
    const f64x4 t1 = __builtin_shufflevector(r[0], r[1], 1, 5, 3, 7);
    const f64x4 t2 = __builtin_shufflevector(r[2], r[3], 0, 4, 2, 6);
    const f64x4 t3 = __builtin_shufflevector(r[2], r[3], 1, 5, 3, 7);
    r[0] = __builtin_shufflevector(t0, t2, 0, 1, 4, 5);
    r[1] = __builtin_shufflevector(t1, t3, 0, 1, 4, 5);
    r[2] = __builtin_shufflevector(t0, t2, 2, 3, 6, 7);
    r[3] = __builtin_shufflevector(t1, t3, 2, 3, 6, 7);
}

VX_INLINE void transpose(f32x8 (&r)[8]) {
    f32x8 t[8], u[8];
#pragma GCC unroll 4
    for (int i = 0; i < 8; i += 2) {
        t[i] = __builtin_shufflevector(r[i], r[i + 1], 0, 8, 1, 9, 4, 12, 5, 13);
        t[i + 1] = __builtin_shufflevector(r[i], r[i + 1], 2, 10, 3, 11, 6, 14, 7, 15);
    }
#pragma GCC unroll 2
    for (int i = 0; i < 8; i += 4) {
        u[i] = __builtin_shufflevector(t[i], t[i + 2], 0, 1, 8, 9, 4, 5, 12, 13);
        u[i + 1] = __builtin_shufflevector(t[i], t[i + 2], 2, 3, 10, 11, 6, 7, 14, 15);
        u[i + 2] = __builtin_shufflevector(t[i + 1], t[i + 3], 0, 1, 8, 9, 4, 5, 12, 13);
        u[i + 3] = __builtin_shufflevector(t[i + 1], t[i + 3], 2, 3, 10, 11, 6, 7, 14, 15);
    }
#pragma GCC unroll 4
    for (int i = 0; i < 4; ++i) {
        r[i] = __builtin_shufflevector(u[i], u[i + 4], 0, 1, 2, 3, 8, 9, 10, 11);
        r[i + 4] = __builtin_shufflevector(u[i], u[i + 4], 4, 5, 6, 7, 12, 13, 14, 15);
    }
}

// Rows of L vectors to and from lines of L lanes a step (row l is lane l): store_columns puts lane
// j of every row at line + (x + j) L, load_columns reads them back as rows.
template <class V, size_t L>
VX_INLINE void store_columns(V (&r)[L], lane_t<V> *line, size_t x) {
    transpose(r);
#pragma GCC unroll 8
    for (size_t j = 0; j < L; ++j) store(line + (x + j) * L, r[j]);
}

template <class V, size_t L>
VX_INLINE void load_columns(V (&r)[L], const lane_t<V> *line, size_t x) {
#pragma GCC unroll 8
    for (size_t j = 0; j < L; ++j) r[j] = load<V>(line + (x + j) * L);
    transpose(r);
}

// True when every bit of v is zero: one vector test for all lanes. Plain assembly, because the
// intrinsics would need the target attribute on every template between the kernel body and its
// wrapper; 16-byte vectors are the SSE4.1 tier's (the AVX2 tier's are 32 bytes).
template <class V>
VX_INLINE bool all_zero(const V &v) {
    // Clang checks the operand against the enclosing function's target, which a template called
    // from a target-attributed kernel does not carry: it takes the portable test below.
#if (defined(__x86_64__) || defined(__i386__)) && !defined(__clang__)
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
