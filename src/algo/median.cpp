// Rank filter over the valid pixels of a 3x3 or 5x5 window. Invalid pixels count as 0, which
// sorts them before every valid value: with m invalid pixels among the K*K, the lower median of
// the valid ones (entry (K*K - m - 1) / 2 of them) is entry K*K/2 + m/2 of the sorted window.
//
// Rows go in pairs. Each column of the pair's K + 1 rows sorts its K - 1 middle rows once and
// merges in the top row for the first output row and the bottom row for the second, and counts
// its invalid pixels; the K sorted columns of a window then give its entries. Windows with few
// invalid pixels (at most three for 3x3, whose entries 4 and 5 come from the sorted columns
// directly; at most five for 5x5) take a fast path without branches; vectors holding a window
// with more are noted and done again after the row with the network for every entry.
//
// The filter works in place without a copy of the image: rows below the pair are still
// unfiltered, and the rows above it that the windows need are kept in a small ring, with their
// invalid pixels already 0.
#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "algo/spatial.h"

namespace {

using namespace tevix::algo;

template <uint32_t K>
struct nets {
    static constexpr uint32_t mid = K * K / 2;
    // The most invalid pixels of a window on the fast path.
    static constexpr uint32_t few = K == 5 ? 5 : 3;
    static constexpr merge_net all = make_merge_net(K, K, K *K, mid);
    static constexpr sort_net inner = make_sort_net(K - 1, K - 1);
    // 5x5: two neighbouring columns merged whole, and entries 7 .. 14 of two such pairs.
    static constexpr merge_net pair = make_merge_net(2, K, 2 * K);
    static constexpr merge_net quad = make_merge_net(2, 2 * K, 15, 7, 16);
};

// Lane masks (all ones where true) on every path; a scalar comparison gives a bool.
template <class V>
VX_INLINE V _eq(const V &v, uint16_t k) {
    if constexpr (sizeof(V) == sizeof(uint16_t))
        return V(-int(v == k));
    else
        return V(v == splat<V>(k));
}

// The signed form of a 16-bit lane type, for comparisons of small counts in one instruction.
template <class V>
struct signed_form {
    typedef int16_t type __attribute__((vector_size(sizeof(V))));
};
template <>
struct signed_form<uint16_t> {
    typedef int16_t type;
};
template <class V>
using s16_t = typename signed_form<V>::type;

struct buffers {
    uint16_t *col[2];           // the two output rows' sorted columns: K ranks of cw from column -r
    uint16_t *pair;             // 5x5: merged pairs of neighbouring columns, 10 ranks of cw
    uint16_t *count[2];         // invalid pixels per column, from column -r
    const uint16_t *centre[2];  // the two output rows with invalid pixels as 0 (ring)
    size_t cw;                  // width + 2r
    const uint16_t *old[4];     // rows y - r .. y + r - 1 with invalid pixels as 0 (ring or zeros)
    const uint16_t *src[2];     // image rows y + r, y + r + 1 (or zeros)
    uint16_t *dst[2];           // their ring slots
    uint32_t *fix;              // vector positions to do again
};

// The sorted columns of both output rows at x .. x + lanes - 1.
template <uint32_t K, class V>
VX_INLINE void _columns(const buffers &b, uint32_t x) {
    constexpr uint32_t r = K / 2;
    V low[K + 1], z[K + 1];
#pragma GCC unroll 4
    for (uint32_t i = 0; i + 1 < K; ++i) low[i] = load<V>(b.old[i] + x);
#pragma GCC unroll 2
    for (uint32_t i = 0; i < 2; ++i) {
        const V v = load<V>(b.src[i] + x);
        low[K - 1 + i] = V(v & ~_eq(v, VX_DIST_INVALID));
        store(b.dst[i] + x, low[K - 1 + i]);
    }
    V n = splat<V>(uint16_t(0));
#pragma GCC unroll 6
    for (uint32_t i = 0; i <= K; ++i) z[i] = _eq(low[i], 0);
#pragma GCC unroll 4
    for (uint32_t i = 1; i < K; ++i) n = V(n - z[i]);
    V s[K - 1];
#pragma GCC unroll 4
    for (uint32_t i = 0; i + 1 < K; ++i) s[i] = low[i + 1];
    apply_net<nets<K>::inner>(s);
    // Each output row inserts its own outer row into the shared sorted middle.
#pragma GCC unroll 2
    for (uint32_t o = 0; o < 2; ++o) {
        V c = low[o * K];
        uint16_t *col = b.col[o] + x + r;
#pragma GCC unroll 4
        for (uint32_t j = 0; j + 1 < K; ++j) {
            const uint32_t i = K - 2 - j;
            store(col + (i + 1) * b.cw, vmax(s[i], c));
            c = vmin(s[i], c);
        }
        store(col, c);
        store(b.count[o] + x + r, V(n - z[o * K]));
    }
}

// The sorted columns of one output row: rank by rank, and the invalid counts; for 5x5 the
// merged pairs of neighbouring columns too (pair j holds columns j and j + 1, rank by rank).
struct view {
    const uint16_t *rank[5];
    const uint16_t *count;
    uint16_t *pair[10];
};

// 5x5: merges the neighbouring columns j and j + 1 of every lane; each pair serves two windows.
template <class V>
VX_INLINE void _pairs(const view &c, uint32_t j) {
    V v[16];
#pragma GCC unroll 5
    for (uint32_t i = 0; i < 5; ++i) {
        v[i] = load<V>(c.rank[i] + j);
        v[8 + i] = load<V>(c.rank[i] + j + 1);
    }
    for (uint32_t i = 5; i < 8; ++i) v[i] = v[8 + i] = splat<V>(uint16_t(0xFFFF));
    apply_net<nets<5>::pair>(v);
#pragma GCC unroll 10
    for (uint32_t i = 0; i < 10; ++i) store(c.pair[i] + j, v[i]);
}

// Entry k of the union of a sorted 20 (entries 7 .. 14 in x) and a sorted 5 (c): the smallest
// over the splits i of the largest of x[k - i] and c[i - 1], the last of each side's part.
template <class V>
VX_INLINE V _entry(const V *x, const V *c, uint32_t k) {
    V r = x[k];
#pragma GCC unroll 5
    for (uint32_t i = 1; i <= 5; ++i) r = vmin(r, vmax(x[k - i], c[i - 1]));
    return r;
}

// Entry mid + m/2 of every window at x .. x + lanes - 1 for m up to `few`; false when a lane
// has more invalid pixels.
template <uint32_t K, class V>
VX_INLINE bool _fast(const view &c, uint32_t x, V &med) {
    V m = load<V>(c.count + x);
#pragma GCC unroll 4
    for (uint32_t col = 1; col < K; ++col) m += load<V>(c.count + x + col);
    if constexpr (K == 3) {
        // With the columns sorted, sorting the rows of ranks too leaves the nine sorted both
        // ways. Entry 4 is then the median of the anti-diagonal: the largest of the lowest
        // (p), the middle of the middles (q) and the smallest of the highest (u). Entry 5 is
        // the smallest of the largest of those, the largest of the middles (t) and the middle
        // of the highest (v): below t and v lie at least five entries each.
        const uint16_t *r0 = c.rank[0] + x, *r1 = c.rank[1] + x, *r2 = c.rank[2] + x;
        const V p = vmax(vmax(load<V>(r0), load<V>(r0 + 1)), load<V>(r0 + 2));
        const V a1 = load<V>(r1), b1 = load<V>(r1 + 1), c1 = load<V>(r1 + 2);
        const V hi1 = vmax(a1, b1);
        const V q = vmax(vmin(a1, b1), vmin(hi1, c1)), t = vmax(hi1, c1);
        const V a2 = load<V>(r2), b2 = load<V>(r2 + 1), c2 = load<V>(r2 + 2);
        const V lo2 = vmin(a2, b2);
        const V u = vmin(lo2, c2), v = vmax(lo2, vmin(vmax(a2, b2), c2));
        const V lo = vmin(p, q), hi = vmax(p, q);
        const V e4 = vmax(lo, vmin(hi, u)), e5 = vmin(vmin(vmax(hi, u), t), v);
        med = s16_t<V>(m) > splat<s16_t<V>>(int16_t(1)) ? e5 : e4;
        return all_zero(V(m & splat<V>(uint16_t(0xFFFC))));
    } else {
        // Window x is the pair at x (its columns x - 2, x - 1), the pair at x + 2 and column
        // x + 2: entries 7 .. 14 of the two pairs, then entries 12 .. 14 with the column.
        V v[32], col[5];
#pragma GCC unroll 10
        for (uint32_t i = 0; i < 10; ++i) {
            v[i] = load<V>(c.pair[i] + x);
            v[16 + i] = load<V>(c.pair[i] + x + 2);
        }
        for (uint32_t i = 10; i < 16; ++i) v[i] = v[16 + i] = splat<V>(uint16_t(0xFFFF));
        apply_net<nets<K>::quad>(v);
#pragma GCC unroll 5
        for (uint32_t i = 0; i < 5; ++i) col[i] = load<V>(c.rank[i] + x + 4);
        const V e12 = _entry(v, col, 12), e13 = _entry(v, col, 13), e14 = _entry(v, col, 14);
        using S = s16_t<V>;
        med = S(m) > splat<S>(int16_t(3)) ? e14 : S(m) > splat<S>(int16_t(1)) ? e13 : e12;
        return all_zero(V(S(m) > splat<S>(int16_t(nets<K>::few))));
    }
}

// Entry mid + m/2 of the window from the network for every entry.
template <uint32_t K, class V>
VX_INLINE V _full(const view &c, uint32_t x) {
    constexpr uint32_t mid = nets<K>::mid;
    V m = load<V>(c.count + x);
    for (uint32_t col = 1; col < K; ++col) m += load<V>(c.count + x + col);
    V v[K * 8];
    for (uint32_t col = 0; col < K; ++col) {
        for (uint32_t i = 0; i < K; ++i) v[col * 8 + i] = load<V>(c.rank[i] + x + col);
        for (uint32_t i = K; i < 8; ++i) v[col * 8 + i] = splat<V>(uint16_t(0xFFFF));
    }
    apply_net<nets<K>::all>(v);
    return select_rank(v, V(splat<V>(uint16_t(mid)) + (m >> 1)), K * K - 1, mid);
}

// One vector of outputs; a vector that needs the full network is noted in fix.
template <uint32_t K, class V>
VX_INLINE void _step(const view &c, const uint16_t *centre, uint16_t *out, uint32_t x,
                     uint32_t *fix, uint32_t &nfix) {
    V med;
    const bool ok = _fast<K, V>(c, x, med);
    store(out + x, load<V>(centre + x) == splat<V>(uint16_t(0)) ? load<V>(out + x) : med);
    fix[nfix] = x;
    nfix += !ok;
}

// Output row o of the pair: whole vectors of V, the last one overlapping the one before it
// (it reads the sorted columns only, so it writes the same values again), then the noted
// vectors. An invalid pixel keeps its value and a valid one stays valid, so the centre may be
// read after the pixel was written.
template <uint32_t K, class V>
VX_INLINE void _output_pass(const buffers &shared, uint32_t o, uint16_t *out, uint32_t w) {
    constexpr uint32_t L = sizeof(V) / sizeof(uint16_t);
    if constexpr (L > 1) {
        if (w < L) {
            _output_pass<K, uint16_t>(shared, o, out, w);
            return;
        }
    }
    // Local copies, which the stores through the vector helpers cannot alias: the pointers stay
    // in registers.
    view c{};
    for (uint32_t i = 0; i < K; ++i) c.rank[i] = shared.col[o] + i * shared.cw;
    c.count = shared.count[o];
    if constexpr (K == 5) {
        // Pairs at 0 .. w + 1, the last vector overlapping the one before it.
        for (uint32_t i = 0; i < 10; ++i) c.pair[i] = shared.pair + i * shared.cw;
        const uint32_t n = w + 2;
        for (uint32_t j = 0;; j += L) {
            j = std::min(j, n - L);
            _pairs<V>(c, j);
            if (j + L == n) break;
        }
    }
    const uint16_t *centre = shared.centre[o];
    uint32_t *fix = shared.fix, nfix = 0;
#pragma GCC unroll 2
    for (uint32_t x = 0; x + L < w; x += L) _step<K, V>(c, centre, out, x, fix, nfix);
    _step<K, V>(c, centre, out, w - L, fix, nfix);
    for (uint32_t i = 0; i < nfix; ++i) {
        const uint32_t x = fix[i];
        const V med = _full<K, V>(c, x);
        store(out + x, load<V>(centre + x) == splat<V>(uint16_t(0)) ? load<V>(out + x) : med);
    }
}

// The sorted columns of the pair: whole vectors, then lane by lane. The pass may not overlap
// its vectors: it replaces ring rows as it reads them.
template <uint32_t K, class V>
VX_INLINE void _column_pass(const buffers &shared, uint32_t w) {
    constexpr uint32_t L = sizeof(V) / sizeof(uint16_t);
    const buffers b = shared;
    uint32_t x = 0;
    for (; x + L <= w; x += L) _columns<K, V>(b, x);
    for (; x < w; ++x) _columns<K, uint16_t>(b, x);
}

// Each pass of each tier is a function of its own, so that its loop gets the registers.
struct passes {
    void (*columns)(const buffers &, uint32_t);
    void (*outputs)(const buffers &, uint32_t, uint16_t *, uint32_t);
};

#define VX_MEDIAN_PASSES(tier, attr, V)                                                 \
    template <uint32_t K>                                                               \
    attr __attribute__((noinline)) void _columns_##tier(const buffers &b, uint32_t w) { \
        _column_pass<K, V>(b, w);                                                       \
    }                                                                                   \
    template <uint32_t K>                                                               \
    attr __attribute__((noinline)) void _outputs_##tier(const buffers &b, uint32_t o,   \
                                                        uint16_t *out, uint32_t w) {    \
        _output_pass<K, V>(b, o, out, w);                                               \
    }

VX_MEDIAN_PASSES(scalar, , uint16_t)
VX_MEDIAN_PASSES(sse41, VX_TARGET_SSE41, u16x8)
VX_MEDIAN_PASSES(avx2, VX_TARGET_AVX2, u16x16)

template <uint32_t K>
void _median(uint16_t *img, uint32_t w, uint32_t h, uint16_t *ring, const uint16_t *zero, buffers b,
             const passes &run) {
    // Rows y - r - 2 .. y + r + 1 of the pair at y: the last two replace the first two.
    constexpr int r = K / 2, slots = K + 1;
    auto slot = [&](int row) { return ring + size_t(row % slots) * w; };
    // The ring starts with rows 0 .. r - 1.
    for (int row = 0; row < r && row < int(h); ++row) {
        const uint16_t *in = img + size_t(row) * w;
        uint16_t *lo = slot(row);
        for (uint32_t x = 0; x < w; ++x) lo[x] = in[x] == VX_DIST_INVALID ? 0 : in[x];
    }
    for (uint32_t y = 0; y < h; y += 2) {
        for (int i = 0; i + 1 < int(K); ++i) {
            const int row = int(y) - r + i;
            b.old[i] = row < 0 || row >= int(h) ? zero : slot(row);
        }
        for (int i = 0; i < 2; ++i) {
            const int row = int(y) + r + i;
            b.src[i] = row < int(h) ? img + size_t(row) * w : zero;
            b.dst[i] = slot(row);
            b.centre[i] = slot(int(y) + i);
        }
        run.columns(b, w);
        run.outputs(b, 0, img + size_t(y) * w, w);
        if (y + 1 < h) run.outputs(b, 1, img + size_t(y + 1) * w, w);
    }
}

template <uint32_t K>
bool _filter(uint16_t *img, uint32_t w, uint32_t h) noexcept {
    constexpr uint32_t r = K / 2;
    // Per thread: sorted columns and counts of the two output rows (from column -r), the ring,
    // a row of zeros for the rows outside the image and the list of vectors to do again.
    thread_local std::vector<uint16_t> scratch;
    thread_local std::vector<uint32_t> fix;
    const size_t cw = size_t(w) + 2 * r;
    const size_t need = (2 * (K + 1) + (K == 5 ? 10 : 0)) * cw + (K + 2) * size_t(w);
    try {
        if (scratch.size() < need) scratch.resize(need);
        if (fix.size() < w) fix.resize(w);
    } catch (const std::bad_alloc &) {
        return false;
    }
    buffers b{};
    b.cw = cw;
    uint16_t *p = scratch.data();
    for (uint32_t o = 0; o < 2; ++o) {
        b.col[o] = p;
        b.count[o] = p + K * cw;
        p += (K + 1) * cw;
        // The columns outside the image are all invalid.
        for (uint32_t i = 0; i < r; ++i) {
            for (uint32_t k = 0; k < K; ++k)
                b.col[o][k * cw + i] = b.col[o][k * cw + cw - 1 - i] = 0;
            b.count[o][i] = b.count[o][cw - 1 - i] = K;
        }
    }
    b.pair = p;
    if (K == 5) p += 10 * cw;
    uint16_t *ring = p;
    uint16_t *zero = ring + (K + 1) * size_t(w);
    std::fill_n(zero, w, uint16_t(0));
    b.fix = fix.data();
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            _median<K>(img, w, h, ring, zero, b, {_columns_avx2<K>, _outputs_avx2<K>});
            break;
        case tevix::simd::level::sse41:
            _median<K>(img, w, h, ring, zero, b, {_columns_sse41<K>, _outputs_sse41<K>});
            break;
        default:
            _median<K>(img, w, h, ring, zero, b, {_columns_scalar<K>, _outputs_scalar<K>});
            break;
    }
    return true;
}

}  // namespace

extern "C" bool vx_median2d_u16(uint16_t *img, uint32_t width, uint32_t height,
                                uint32_t kernel) noexcept {
    if (!img || width == 0 || height == 0) return false;
    if (kernel == 3) return _filter<3>(img, width, height);
    if (kernel == 5) return _filter<5>(img, width, height);
    return false;
}
