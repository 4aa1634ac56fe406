// Shared pieces of the in-place spatial filters on u16 distance images: validity, a padded
// per-thread copy of the input, a row driver that runs a kernel over vectors and a scalar tail,
// and compile-time sorting networks for the rank filters.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "algo/simd.h"
#include "algo/vec.h"
#include "tevix/vx_filter.h"

namespace tevix::algo {

// 0 and the invalid marker mean "no measurement". The result is a lane mask (all ones or zero),
// for scalars too, so ~, & and | combine masks alike on every path.
template <class V>
VX_INLINE auto is_invalid(const V &v) {
    return (v == splat<V>(uint16_t(0))) | (v == splat<V>(uint16_t(VX_DIST_INVALID)));
}
VX_INLINE int is_invalid(uint16_t v) {
    return -int(v == 0 || v == VX_DIST_INVALID);
}

// The unfiltered rows around the current one, each with `pad` invalid (0) pixels on every side,
// so that a filter can work in place and still decide every pixel on the input image. Slot i
// holds its row twice (at i and i + slots), so the 2 pad + 1 rows of a window always lie one
// stride apart. Kept per thread.
struct row_ring {
    uint16_t *buf = nullptr;
    size_t stride = 0;   // width + 2 pad
    uint32_t slots = 0;  // 2 pad + 1
};

// The calling thread's ring for rows of `width`; false when it cannot be allocated.
bool make_ring(uint32_t width, uint32_t pad, row_ring &out) noexcept;

// Copies image row `row` (0 beyond the image) into its ring slots.
void ring_put(const row_ring &r, const uint16_t *img, uint32_t width, uint32_t height, uint32_t pad,
              int row) noexcept;

// Runs kernel over the image in place, row by row: each row's whole vectors of V from the left,
// the remainder pixel by pixel as scalars. kernel.run reads the ring at the pixel (rows one
// stride apart) and returns the new value; rows for which kernel.busy(row, width) is false
// (the unfiltered row, without padding) are left as they are.
template <class V, class K>
VX_INLINE void for_each_pixel(uint16_t *img, uint32_t width, uint32_t height, uint32_t pad,
                              const row_ring &r, const K &kernel) {
    constexpr uint32_t L = sizeof(V) / sizeof(uint16_t);
    for (int row = -int(pad); row < int(pad); ++row) ring_put(r, img, width, height, pad, row);
    for (uint32_t y = 0; y < height; ++y) {
        ring_put(r, img, width, height, pad, int(y + pad));
        const size_t first = (y + r.slots - pad) % r.slots;  // the window's top row
        const uint16_t *row = r.buf + (first + pad) * r.stride + pad;
        if (!kernel.template busy<V>(row, width)) continue;
        uint16_t *out = img + size_t(y) * width;
        uint32_t x = 0;
        if constexpr (L > 1) {
            for (; x + L <= width; x += L)
                store(out + x, kernel.template run<V>(row + x, r.stride));
        }
        for (; x < width; ++x) out[x] = kernel.template run<uint16_t>(row + x, r.stride);
    }
}

// Dispatches a kernel to the widest enabled variant; each variant is one instantiation of
// for_each_pixel inside a function carrying the target attribute.
#define VX_SPATIAL_DISPATCH(kernel_type, img, width, height, pad_px, ...) \
    do {                                                                  \
        ::tevix::algo::row_ring r_;                                       \
        if (!::tevix::algo::make_ring(width, pad_px, r_)) return false;   \
        const kernel_type k_{__VA_ARGS__};                                \
        switch (::tevix::simd::active()) {                                \
            case ::tevix::simd::level::avx2:                              \
                _run_avx2(img, width, height, pad_px, r_, k_);            \
                break;                                                    \
            case ::tevix::simd::level::sse41:                             \
                _run_sse41(img, width, height, pad_px, r_, k_);           \
                break;                                                    \
            default:                                                      \
                _run_scalar(img, width, height, pad_px, r_, k_);          \
                break;                                                    \
        }                                                                 \
    } while (0)

#define VX_SPATIAL_VARIANTS(kernel_type)                                                      \
    void _run_scalar(uint16_t *img, uint32_t w, uint32_t h, uint32_t pad,                     \
                     const ::tevix::algo::row_ring &r, const kernel_type &k) {                \
        ::tevix::algo::for_each_pixel<uint16_t>(img, w, h, pad, r, k);                        \
    }                                                                                         \
    VX_TARGET_SSE41 void _run_sse41(uint16_t *img, uint32_t w, uint32_t h, uint32_t pad,      \
                                    const ::tevix::algo::row_ring &r, const kernel_type &k) { \
        ::tevix::algo::for_each_pixel<::tevix::algo::u16x8>(img, w, h, pad, r, k);            \
    }                                                                                         \
    VX_TARGET_AVX2 void _run_avx2(uint16_t *img, uint32_t w, uint32_t h, uint32_t pad,        \
                                  const ::tevix::algo::row_ring &r, const kernel_type &k) {   \
        ::tevix::algo::for_each_pixel<::tevix::algo::u16x16>(img, w, h, pad, r, k);           \
    }

// Comparator list of Batcher's odd-even merge sort for n inputs, reduced to the comparators that
// influence the first m outputs (inputs beyond n act as +infinity and never move).
struct sort_net {
    std::array<std::pair<uint8_t, uint8_t>, 256> cmp{};
    size_t count = 0;
};

constexpr sort_net make_sort_net(uint32_t n, uint32_t m) {
    sort_net all;
    uint32_t p2 = 1;
    while (p2 < n) p2 <<= 1;
    for (uint32_t p = 1; p < p2; p <<= 1)
        for (uint32_t k = p; k >= 1; k >>= 1)
            for (uint32_t j = k % p; j + k < p2; j += 2 * k)
                for (uint32_t i = 0; i < k && i + j + k < p2; ++i)
                    if ((i + j) / (2 * p) == (i + j + k) / (2 * p) && i + j + k < n)
                        all.cmp[all.count++] = {uint8_t(i + j), uint8_t(i + j + k)};
    bool need[64] = {};
    for (uint32_t i = 0; i < m; ++i) need[i] = true;
    bool keep[256] = {};
    for (size_t c = all.count; c-- > 0;) {
        const auto [a, b] = all.cmp[c];
        if (need[a] || need[b]) keep[c] = need[a] = need[b] = true;
    }
    sort_net net;
    for (size_t c = 0; c < all.count; ++c)
        if (keep[c]) net.cmp[net.count++] = all.cmp[c];
    return net;
}

template <class V>
VX_INLINE void _cmpx(V &a, V &b) {
    const V lo = vmin(a, b);
    b = vmax(a, b);
    a = lo;
}

template <const sort_net &Net, class V, size_t... I>
VX_INLINE void _apply_net(V *v, std::index_sequence<I...>) {
    (_cmpx(v[Net.cmp[I].first], v[Net.cmp[I].second]), ...);
}

// Sorts v so that its first m entries are the m smallest in ascending order.
template <const sort_net &Net, class V>
VX_INLINE void apply_net(V *v) {
    _apply_net<Net>(v, std::make_index_sequence<Net.count>{});
}

// Network for values first .. m - 1 (in ascending order) of `blocks` sorted columns of `len`
// values. Column c sits at inputs blk c .. blk c + len - 1, and the other inputs hold +infinity.
// Starting from Batcher's network over the padded inputs, comparators that never exchange on any
// such input are dropped; those that exchange whenever their values differ become plain swaps
// (free renames). Both are decided by the 0-1 principle over every input of sorted 0-1 columns.
struct merge_net {
    struct op {
        uint8_t a, b, swap;
    };
    std::array<op, 1024> ops{};
    size_t count = 0;
};

constexpr merge_net make_merge_net(uint32_t blocks, uint32_t len, uint32_t m, uint32_t first = 0,
                                   uint32_t blk = 8) {
    const uint32_t n = blocks * blk;
    uint32_t p2 = 1;
    while (p2 < n) p2 <<= 1;
    merge_net all;
    for (uint32_t p = 1; p < p2; p <<= 1)
        for (uint32_t k = p; k >= 1; k >>= 1)
            for (uint32_t j = k % p; j + k < p2; j += 2 * k)
                for (uint32_t i = 0; i < k && i + j + k < p2; ++i)
                    if ((i + j) / (2 * p) == (i + j + k) / (2 * p) && i + j + k < n)
                        all.ops[all.count++] = {uint8_t(i + j), uint8_t(i + j + k), 0};
    uint32_t cases = 1;
    for (uint32_t c = 0; c < blocks; ++c) cases *= len + 1;
    const uint32_t words = (cases + 63) / 64;  // at most 128: 6^5 cases for the 5x5 window
    uint64_t v[40][128] = {};
    for (uint32_t t = 0, code = 0; t < cases; ++t, code = t) {
        for (uint32_t c = 0; c < blocks; ++c, code /= len + 1)
            for (uint32_t r = code % (len + 1); r < blk; ++r)
                v[c * blk + r][t / 64] |= uint64_t(1) << (t % 64);
    }
    const uint64_t last_live = cases % 64 ? (uint64_t(1) << (cases % 64)) - 1 : ~uint64_t(0);
    merge_net used;
    for (size_t o = 0; o < all.count; ++o) {
        const uint32_t a = all.ops[o].a, b = all.ops[o].b;
        uint64_t *va = v[a], *vb = v[b];
        bool exchanges = false, always = true;
        for (uint32_t w = 0; w < words; ++w) {
            const uint64_t live = w + 1 == words ? last_live : ~uint64_t(0);
            const uint64_t x = va[w] & ~vb[w] & live;
            exchanges = exchanges || x;
            always = always && x == ((va[w] ^ vb[w]) & live);
        }
        if (!exchanges) continue;
        for (uint32_t w = 0; w < words; ++w) {
            const uint64_t lo = va[w] & vb[w];
            vb[w] |= va[w];
            va[w] = lo;
        }
        used.ops[used.count++] = {uint8_t(a), uint8_t(b), uint8_t(always)};
    }
    bool need[64] = {};
    for (uint32_t i = first; i < m; ++i) need[i] = true;
    bool keep[1024] = {};
    for (size_t o = used.count; o-- > 0;) {
        const auto &x = used.ops[o];
        if (need[x.a] || need[x.b]) keep[o] = need[x.a] = need[x.b] = true;
    }
    merge_net net;
    for (size_t o = 0; o < used.count; ++o)
        if (keep[o]) net.ops[net.count++] = used.ops[o];
    return net;
}

template <const merge_net &Net, class V, size_t I>
VX_INLINE void _merge_op(V *v) {
    constexpr auto op = Net.ops[I];
    if constexpr (op.swap) {
        const V t = v[op.a];
        v[op.a] = v[op.b];
        v[op.b] = t;
    } else {
        _cmpx(v[op.a], v[op.b]);
    }
}

template <const merge_net &Net, class V, size_t... I>
VX_INLINE void _apply_merge(V *v, std::index_sequence<I...>) {
    (_merge_op<Net, V, I>(v), ...);
}

template <const merge_net &Net, class V>
VX_INLINE void apply_net(V *v) {
    _apply_merge<Net>(v, std::make_index_sequence<Net.count>{});
}

// v[idx] per lane for idx in first .. last (other lanes get v[first]).
template <class V>
VX_INLINE V select_rank(const V *v, const V &idx, uint32_t last, uint32_t first = 0) {
    V r = v[first];
    for (uint32_t k = first + 1; k <= last; ++k) r = idx == splat<V>(uint16_t(k)) ? v[k] : r;
    return r;
}

// Lane-wise minimum over all lanes of v, as a scalar.
template <class V>
VX_INLINE uint16_t lane_min(const V &v) {
    if constexpr (sizeof(V) == sizeof(uint16_t)) {
        return v;
    } else {
        uint16_t m = v[0];
        for (size_t l = 1; l < sizeof(V) / sizeof(uint16_t); ++l) m = m < v[l] ? m : v[l];
        return m;
    }
}

}  // namespace tevix::algo
