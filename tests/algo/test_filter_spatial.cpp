// Spatial filters on u16 distance images against plain per-pixel references, on exact small
// cases, and SIMD against scalar on random images of odd sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "algo/simd.h"
#include "tevix/vx_filter.h"

namespace {

using tevix::simd::level;
using tevix::simd::scoped_limit;
using image = std::vector<uint16_t>;

bool valid(uint16_t v) {
    return v != 0 && v != VX_DIST_INVALID;
}

// Distances around 1500 with noise, a few surfaces and holes of both kinds.
image random_depth(uint32_t w, uint32_t h, uint32_t seed, double invalid = 0.15) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> noise(-40, 40);
    std::uniform_real_distribution<double> u(0, 1);
    image img(size_t(w) * h);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            const int base = (x * 3 / std::max(w, 1u)) * 700 + 800 + int(y);
            uint16_t v = uint16_t(base + noise(rng));
            const double r = u(rng);
            if (r < invalid / 2)
                v = 0;
            else if (r < invalid)
                v = VX_DIST_INVALID;
            img[size_t(y) * w + x] = v;
        }
    return img;
}

// The valid values of the k x k window around (x, y), the centre included or not.
std::vector<uint16_t> window(const image &img, uint32_t w, uint32_t h, int x, int y, int k,
                             bool centre) {
    std::vector<uint16_t> v;
    for (int dy = -k / 2; dy <= k / 2; ++dy)
        for (int dx = -k / 2; dx <= k / 2; ++dx) {
            if (!centre && dx == 0 && dy == 0) continue;
            const int xx = x + dx, yy = y + dy;
            if (xx < 0 || yy < 0 || xx >= int(w) || yy >= int(h)) continue;
            const uint16_t q = img[size_t(yy) * w + xx];
            if (valid(q)) v.push_back(q);
        }
    return v;
}

uint16_t lower_median(std::vector<uint16_t> v) {
    std::sort(v.begin(), v.end());
    return v[(v.size() - 1) / 2];
}

image ref_median(const image &in, uint32_t w, uint32_t h, int k) {
    image out = in;
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            if (valid(in[size_t(y) * w + x]))
                out[size_t(y) * w + x] = lower_median(window(in, w, h, x, y, k, true));
    return out;
}

image ref_flypix(const image &in, uint32_t w, uint32_t h, int k, uint32_t threshold) {
    image out = in;
    const int level = 32 - int(std::min(threshold, 31u));
    auto at = [&](int x, int y) -> int {
        if (x < 0 || y < 0 || x >= int(w) || y >= int(h)) return 0;
        return in[size_t(y) * w + x];
    };
    for (int y = 0; y < int(h); ++y)
        for (int x = 0; x < int(w); ++x) {
            const int c = at(x, y);
            if (!valid(uint16_t(c))) continue;
            const int margin = (c * level) >> 8;
            bool flying = false;
            for (int r = 1; r <= k / 2; ++r)
                for (auto [dx, dy] : {std::pair{1, 0}, {0, 1}, {1, 1}, {-1, 1}}) {
                    const int a = at(x - r * dx, y - r * dy), b = at(x + r * dx, y + r * dy);
                    if (!valid(uint16_t(a)) || !valid(uint16_t(b))) continue;
                    const int lo = std::min(a, b), hi = std::max(a, b);
                    if (c - lo > margin && hi - c > margin) flying = true;
                }
            if (flying) out[size_t(y) * w + x] = 0;
        }
    return out;
}

image ref_fhole(const image &in, uint32_t w, uint32_t h, uint32_t param) {
    image out = in;
    const size_t m = param == 0 ? 7 : std::min(param, 8u);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            if (in[size_t(y) * w + x] != 0) continue;
            const auto nb = window(in, w, h, x, y, 3, false);
            if (nb.size() >= m) out[size_t(y) * w + x] = lower_median(nb);
        }
    return out;
}

using filter_fn = std::function<bool(uint16_t *, uint32_t, uint32_t)>;

// Runs fn at every SIMD level on copies of img; all results must be identical.
image run_all_levels(const filter_fn &fn, const image &img, uint32_t w, uint32_t h) {
    image want = img;
    {
        scoped_limit cap(level::scalar);
        EXPECT_TRUE(fn(want.data(), w, h));
    }
    for (level l : {level::sse41, level::avx2}) {
        scoped_limit cap(l);
        image out = img;
        EXPECT_TRUE(fn(out.data(), w, h));
        EXPECT_EQ(out, want) << w << "x" << h << " level " << int(l);
    }
    return want;
}

const std::pair<uint32_t, uint32_t> sizes[] = {{1, 1}, {3, 2}, {17, 5}, {33, 31}, {641, 479}};

TEST(FilterSpatial, MedianMatchesReference) {
    // Sparse holes take the network for high ranks only; frequent ones the full network.
    for (auto [w, h] : sizes)
        for (uint32_t k : {3u, 5u})
            for (double holes : {0.15, 0.02, 0.0}) {
                const image img = random_depth(w, h, w * 7 + h + k, holes);
                const image got =
                    run_all_levels([k](uint16_t *p, uint32_t w,
                                       uint32_t h) { return vx_median2d_u16(p, w, h, k); },
                                   img, w, h);
                EXPECT_EQ(got, ref_median(img, w, h, int(k))) << w << "x" << h << " k" << k;
            }
}

TEST(FilterSpatial, MedianExactCases) {
    // A valid spike among equal values disappears; invalid pixels stay; the lower median of an
    // even count is taken.
    image img = {100, 100, 100, 100, 9000, 100, 100, 100, 100};
    EXPECT_TRUE(vx_median2d_u16(img.data(), 3, 3, 3));
    EXPECT_EQ(img, image(9, 100));
    img = {0, 0, 0, 0, 500, 0, 0, 0, 700};
    EXPECT_TRUE(vx_median2d_u16(img.data(), 3, 3, 3));
    EXPECT_EQ(img, (image{0, 0, 0, 0, 500, 0, 0, 0, 500}));
    img = {VX_DIST_INVALID, 7, 3, 0};
    EXPECT_TRUE(vx_median2d_u16(img.data(), 2, 2, 5));
    EXPECT_EQ(img, (image{VX_DIST_INVALID, 3, 3, 0}));

    // Bad arguments leave the image as it was.
    image keep = {1, 2, 3, 4};
    EXPECT_FALSE(vx_median2d_u16(keep.data(), 2, 2, 4));
    EXPECT_FALSE(vx_median2d_u16(keep.data(), 0, 2, 3));
    EXPECT_FALSE(vx_median2d_u16(nullptr, 2, 2, 3));
    EXPECT_EQ(keep, (image{1, 2, 3, 4}));
}

TEST(FilterSpatial, FlypixMatchesReference) {
    for (auto [w, h] : sizes)
        for (uint32_t t : {0u, 20u, 29u, 31u, 100u}) {
            const image img = random_depth(w, h, w + h * 3 + t, 0.1);
            auto k3 = [t](uint16_t *p, uint32_t w, uint32_t h) {
                return vx_flypix_u16_k3(p, w, h, t);
            };
            auto k5 = [t](uint16_t *p, uint32_t w, uint32_t h) {
                return vx_flypix_u16_k5(p, w, h, t);
            };
            EXPECT_EQ(run_all_levels(k3, img, w, h), ref_flypix(img, w, h, 3, t)) << w << "x" << h;
            EXPECT_EQ(run_all_levels(k5, img, w, h), ref_flypix(img, w, h, 5, t)) << w << "x" << h;
        }
}

TEST(FilterSpatial, FlypixRemovesPixelsBetweenSurfaces) {
    // Two surfaces at 1000 and 2000 mm with a column of mixed pixels at 1500 between them.
    const uint32_t w = 9, h = 7;
    image img(w * h);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) img[y * w + x] = x < 4 ? 1000 : x == 4 ? 1500 : 2000;
    for (auto fn : {vx_flypix_u16_k3, vx_flypix_u16_k5}) {
        image out = img;
        EXPECT_TRUE(fn(out.data(), w, h, 20));
        for (uint32_t y = 0; y < h; ++y)
            for (uint32_t x = 0; x < w; ++x)
                EXPECT_EQ(out[y * w + x], x == 4 ? 0 : img[y * w + x]) << x << "," << y;
    }
    // A higher threshold is stricter: it never keeps a pixel that a lower one removes.
    const image noisy = random_depth(64, 48, 5, 0.05);
    size_t removed_prev = 0;
    for (uint32_t t = 0; t <= 31; ++t) {
        image out = noisy;
        EXPECT_TRUE(vx_flypix_u16_k3(out.data(), 64, 48, t));
        const size_t removed = size_t(std::count(out.begin(), out.end(), 0));
        EXPECT_GE(removed, removed_prev) << t;
        removed_prev = removed;
    }
    EXPECT_FALSE(vx_flypix_u16_k5(nullptr, 4, 4, 1));
}

TEST(FilterSpatial, FholeMatchesReference) {
    for (auto [w, h] : sizes)
        for (uint32_t p : {0u, 1u, 5u, 8u, 30u}) {
            const image img = random_depth(w, h, w * h + p, 0.2);
            auto fn = [p](uint16_t *q, uint32_t w, uint32_t h) {
                return vx_fhole_u16_k3(q, w, h, p);
            };
            EXPECT_EQ(run_all_levels(fn, img, w, h), ref_fhole(img, w, h, p)) << w << "x" << h;
        }
}

TEST(FilterSpatial, FholeFillsIsolatedHolesOnly) {
    image img = {10, 20, 30, 40, 0, 60, 70, 80, 90};
    EXPECT_TRUE(vx_fhole_u16_k3(img.data(), 3, 3, 0));
    EXPECT_EQ(img[4], 40);  // lower median of the eight neighbours
    img = {10, 0, 30, 40, 0, 60, 70, 80, 90};
    EXPECT_TRUE(vx_fhole_u16_k3(img.data(), 3, 3, 0));
    EXPECT_EQ(img[4], 60);  // seven valid neighbours; the hole at 1 has only four
    EXPECT_EQ(img[1], 0);
    img = {10, VX_DIST_INVALID, 30, 40, 0, 60, 70, 80, 90};
    EXPECT_TRUE(vx_fhole_u16_k3(img.data(), 3, 3, 0));
    EXPECT_EQ(img[4], 60);
    EXPECT_EQ(img[1], VX_DIST_INVALID);  // sensor-invalid pixels are never filled
    EXPECT_FALSE(vx_fhole_u16_k3(img.data(), 0, 3, 0));
}

// Normalised Gaussian convolution by brute force, in double.
image ref_gauss(const image &in, uint32_t w, uint32_t h, double sx, double sy) {
    image out = in;
    const int rx = int(std::ceil(4 * sx)), ry = int(std::ceil(4 * sy));
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            if (!valid(in[size_t(y) * w + x])) continue;
            double num = 0, den = 0;
            for (int dy = -ry; dy <= ry; ++dy)
                for (int dx = -rx; dx <= rx; ++dx) {
                    const int xx = int(x) + dx, yy = int(y) + dy;
                    if (xx < 0 || yy < 0 || xx >= int(w) || yy >= int(h)) continue;
                    const uint16_t q = in[size_t(yy) * w + xx];
                    if (!valid(q)) continue;
                    const double g = std::exp(-0.5 * (dx * dx / (sx * sx) + dy * dy / (sy * sy)));
                    num += g * q;
                    den += g;
                }
            out[size_t(y) * w + x] = uint16_t(std::lround(num / den));
        }
    return out;
}

TEST(FilterSpatial, GaussMatchesConvolution) {
    const uint32_t w = 97, h = 61;
    const float sigma = 0.04f;  // 3.88 x 2.44 pixels
    const image img = random_depth(w, h, 11, 0.1);
    const image got = run_all_levels(
        [sigma](uint16_t *p, uint32_t w, uint32_t h) { return vx_gauss2d_iir_u16(p, w, h, sigma); },
        img, w, h);
    const image want = ref_gauss(img, w, h, sigma * w, sigma * h);
    // The recursive filter approximates the Gaussian to about 1% of the local contrast.
    int worst = 0;
    for (size_t i = 0; i < img.size(); ++i) {
        if (!valid(img[i])) {
            EXPECT_EQ(got[i], img[i]);
            continue;
        }
        worst = std::max(worst, std::abs(int(got[i]) - int(want[i])));
    }
    EXPECT_LE(worst, 15);
}

TEST(FilterSpatial, GaussKeepsFlatAndInvalid) {
    const uint32_t w = 67, h = 45;
    image img(w * h, 1700);
    img[10] = 0;
    img[500] = VX_DIST_INVALID;
    image out = img;
    EXPECT_TRUE(vx_gauss2d_iir_u16(out.data(), w, h, 0.1f));
    EXPECT_EQ(out, img);
    // The default 0.1 of a 640x480 image is a wide kernel; other sizes run at every level.
    for (auto [w, h] : sizes) {
        const image r = random_depth(w, h, w + h);
        run_all_levels(
            [](uint16_t *p, uint32_t w, uint32_t h) { return vx_gauss2d_iir_u16(p, w, h, 0.1f); },
            r, w, h);
    }
    // Deviations below half a pixel leave the image as it is.
    out = random_depth(w, h, 3);
    const image before = out;
    EXPECT_TRUE(vx_gauss2d_iir_u16(out.data(), w, h, 0.005f));
    EXPECT_EQ(out, before);
    EXPECT_FALSE(vx_gauss2d_iir_u16(nullptr, w, h, 0.1f));
}

TEST(FilterSpatial, ThreadsKeepTheirOwnScratch) {
    // Each thread filters its own images of its own size; the results equal a lone run.
    const std::pair<uint32_t, uint32_t> dims[2] = {{641, 479}, {97, 33}};
    image want[2];
    for (int t = 0; t < 2; ++t) {
        want[t] = random_depth(dims[t].first, dims[t].second, 40 + t);
        vx_median2d_u16(want[t].data(), dims[t].first, dims[t].second, 5);
        vx_fhole_u16_k3(want[t].data(), dims[t].first, dims[t].second, 0);
    }
    image got[2];
    std::thread threads[2];
    for (int t = 0; t < 2; ++t)
        threads[t] = std::thread([&, t] {
            for (int round = 0; round < 5; ++round) {
                got[t] = random_depth(dims[t].first, dims[t].second, 40 + t);
                vx_median2d_u16(got[t].data(), dims[t].first, dims[t].second, 5);
                vx_fhole_u16_k3(got[t].data(), dims[t].first, dims[t].second, 0);
            }
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(got[0], want[0]);
    EXPECT_EQ(got[1], want[1]);
}

}  // namespace
