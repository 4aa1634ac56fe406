// Rank filter over the valid pixels of a 3x3 or 5x5 window. Invalid pixels get the key 0xFFFF,
// which sorts them behind every valid value, so the lower median of the n valid values is entry
// (n - 1) / 2 of the sorted window. Each row first sorts every column of the window once (shared
// by the K windows that contain it); a merge network then yields the first K*K/2 + 1 entries of
// each window from its K sorted columns. For 3x3 the columns are also kept sorted with invalid
// pixels as 0: where no window of a vector holds more than one invalid pixel (most of an image),
// the classic median of nine from sorted columns gives the result without the rank selection.
#include <cstring>
#include <new>
#include <vector>

#include "algo/spatial.h"

namespace {

using namespace tevix::algo;

template <uint32_t K>
struct nets {
    static constexpr sort_net column = make_sort_net(K, K);
    static constexpr merge_net window = make_merge_net(K, K, K *K / 2 + 1);
    // With at most `few` invalid pixels in every window of a vector, only the ranks from
    // (K*K - few - 1) / 2 up are needed, and a smaller network gives them.
    static constexpr uint32_t few = K == 5 ? 4 : 2;
    static constexpr uint32_t low_rank = (K * K - few - 1) / 2;
    static constexpr merge_net dense = make_merge_net(K, K, K *K / 2 + 1, low_rank);
};

struct columns {
    uint16_t *key[5];  // sorted keys of each window column, by rank
    uint16_t *count;   // valid pixels per window column
    uint16_t *low[3];  // 3x3: the column sorted with invalid pixels as 0, by rank
};

// True when every lane of a comparison result is set.
template <class V>
VX_INLINE bool _all(const V &mask) {
    if constexpr (sizeof(V) == sizeof(uint16_t)) {
        return mask != 0;
    } else {
        uint64_t w[sizeof(V) / 8];
        std::memcpy(w, &mask, sizeof w);
        uint64_t all = ~uint64_t{0};
        for (uint64_t x : w) all &= x;
        return all == ~uint64_t{0};
    }
}

template <class V>
VX_INLINE void _sort3(V *v) {
    const V lo = vmin(v[0], v[1]), hi = vmax(v[0], v[1]);
    const V mid = vmin(hi, v[2]);
    v[2] = vmax(hi, v[2]);
    v[0] = vmin(lo, mid);
    v[1] = vmax(lo, mid);
}

template <class V>
VX_INLINE V _med3(const V &a, const V &b, const V &c) {
    return vmax(vmin(a, b), vmin(vmax(a, b), c));
}

template <uint32_t K, class V>
VX_INLINE void _column(const padded p, uint32_t y, const columns c, uint32_t xx) {
    constexpr int r = K / 2;
    // The invalid mask is all ones: or-ing it gives the key 0xFFFF, adding it counts down.
    V key[K], low[K], n = splat<V>(uint16_t(K));
    for (int i = 0; i < int(K); ++i) {
        const V v = load<V>(p.origin + (int(y) + i - r) * std::ptrdiff_t(p.stride) + int(xx) - r);
        const V bad = V(is_invalid(v));
        key[i] = V(v | bad);
        low[i] = V(v & ~bad);
        n = V(n + bad);
    }
    if constexpr (K == 3) {
        // Invalid pixels as 0 instead: with at most one in a window, the plain median of nine
        // is then the lower median of the valid ones.
        _sort3(low);
        _sort3(key);
        store(c.low[0] + xx, low[0]);
        store(c.low[1] + xx, low[1]);
        store(c.low[2] + xx, low[2]);
        store(c.key[0] + xx, key[0]);
        store(c.key[1] + xx, key[1]);
        store(c.key[2] + xx, key[2]);
        store(c.count + xx, n);
        return;
    }
    apply_net<nets<K>::column>(key);
    for (uint32_t i = 0; i < K; ++i) store(c.key[i] + xx, key[i]);
    store(c.count + xx, n);
}

template <uint32_t K, class V>
VX_INLINE V _window(const padded p, uint32_t y, const columns c, uint32_t x) {
    const V one = splat<V>(uint16_t(1)), none = splat<V>(uint16_t(0xFFFF));
    const V centre = load<V>(p.origin + y * p.stride + x);
    V n = splat<V>(uint16_t(0));
    for (uint32_t col = 0; col < K; ++col) n += load<V>(c.count + x + col);
    if constexpr (K == 3) {
        // At most one invalid pixel in every window: the median of the three column ranks.
        if (_all(V(n >= splat<V>(uint16_t(8))))) {
            V r[3][3];
            for (uint32_t col = 0; col < 3; ++col)
                for (uint32_t i = 0; i < 3; ++i) r[i][col] = load<V>(c.low[i] + x + col);
            const V lows = vmax(vmax(r[0][0], r[0][1]), r[0][2]);
            const V highs = vmin(vmin(r[2][0], r[2][1]), r[2][2]);
            const V med = _med3(lows, _med3(r[1][0], r[1][1], r[1][2]), highs);
            return is_invalid(centre) ? centre : med;
        }
    }
    V v[K * 8];
    for (uint32_t col = 0; col < K; ++col) {
        for (uint32_t i = 0; i < K; ++i) v[col * 8 + i] = load<V>(c.key[i] + x + col);
        for (uint32_t i = K; i < 8; ++i) v[col * 8 + i] = none;
    }
    V med;
    if (_all(V(n >= splat<V>(uint16_t(K * K - nets<K>::few))))) {
        apply_net<nets<K>::dense>(v);
        med = select_rank(v, V((n - one) >> 1), K * K / 2, nets<K>::low_rank);
    } else {
        apply_net<nets<K>::window>(v);
        med = select_rank(v, V((n - one) >> 1), K * K / 2);
    }
    return is_invalid(centre) ? centre : med;
}

template <uint32_t K, class V>
VX_INLINE void _median(uint16_t *img, uint32_t w, uint32_t h, const padded p, const columns c) {
    constexpr uint32_t L = sizeof(V) / sizeof(uint16_t);
    const uint32_t cw = w + K - 1;
    for (uint32_t y = 0; y < h; ++y) {
        uint32_t x = 0;
        if constexpr (L > 1)
            for (; x + L <= cw; x += L) _column<K, V>(p, y, c, x);
        for (; x < cw; ++x) _column<K, uint16_t>(p, y, c, x);
        uint16_t *out = img + size_t(y) * w;
        x = 0;
        if constexpr (L > 1)
            for (; x + L <= w; x += L) store(out + x, _window<K, V>(p, y, c, x));
        for (; x < w; ++x) out[x] = _window<K, uint16_t>(p, y, c, x);
    }
}

template <uint32_t K>
void _run_scalar(uint16_t *img, uint32_t w, uint32_t h, const padded &p, const columns &c) {
    _median<K, uint16_t>(img, w, h, p, c);
}
template <uint32_t K>
VX_TARGET_SSE41 void _run_sse41(uint16_t *img, uint32_t w, uint32_t h, const padded &p,
                                const columns &c) {
    _median<K, u16x8>(img, w, h, p, c);
}
template <uint32_t K>
VX_TARGET_AVX2 void _run_avx2(uint16_t *img, uint32_t w, uint32_t h, const padded &p,
                              const columns &c) {
    _median<K, u16x16>(img, w, h, p, c);
}

template <uint32_t K>
bool _filter(uint16_t *img, uint32_t w, uint32_t h) noexcept {
    padded p;
    if (!make_padded(img, w, h, K / 2, p)) return false;
    // Column keys and counts of one row, kept per thread like the padded copy.
    thread_local std::vector<uint16_t> scratch;
    const size_t cw = size_t(w) + K - 1, rows = K == 3 ? K + 4 : K + 1;
    try {
        if (scratch.size() < rows * cw) scratch.resize(rows * cw);
    } catch (const std::bad_alloc &) {
        return false;
    }
    columns c{};
    for (uint32_t i = 0; i < K; ++i) c.key[i] = scratch.data() + i * cw;
    c.count = scratch.data() + K * cw;
    if constexpr (K == 3)
        for (uint32_t i = 0; i < 3; ++i) c.low[i] = scratch.data() + (K + 1 + i) * cw;
    switch (tevix::simd::active()) {
        case tevix::simd::level::avx2:
            _run_avx2<K>(img, w, h, p, c);
            break;
        case tevix::simd::level::sse41:
            _run_sse41<K>(img, w, h, p, c);
            break;
        default:
            _run_scalar<K>(img, w, h, p, c);
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
