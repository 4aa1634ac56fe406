// Spatial filters on u16 distance images against plain per-pixel references, on exact small
// cases, and SIMD against scalar on random images of odd sizes.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "levels.h"
#include "tevix/vx_filter.h"

namespace {

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

// Each pixel replaced by f(x, y, its value).
template <class F>
image per_pixel(const image &in, uint32_t w, uint32_t h, F f) {
    image out = in;
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) out[size_t(y) * w + x] = f(x, y, in[size_t(y) * w + x]);
    return out;
}

image ref_median(const image &in, uint32_t w, uint32_t h, int k) {
    return per_pixel(in, w, h, [&](uint32_t x, uint32_t y, uint16_t v) {
        return valid(v) ? lower_median(window(in, w, h, x, y, k, true)) : v;
    });
}

image ref_flypix(const image &in, uint32_t w, uint32_t h, int k, uint32_t threshold) {
    const int level = 32 - int(std::min(threshold, 31u));
    auto at = [&](int x, int y) -> int {
        if (x < 0 || y < 0 || x >= int(w) || y >= int(h)) return 0;
        return in[size_t(y) * w + x];
    };
    return per_pixel(in, w, h, [&](uint32_t ux, uint32_t uy, uint16_t c) -> uint16_t {
        if (!valid(c)) return c;
        const int x = int(ux), y = int(uy), margin = (c * level) >> 8;
        for (int r = 1; r <= k / 2; ++r)
            for (auto [dx, dy] : {std::pair{1, 0}, {0, 1}, {1, 1}, {-1, 1}}) {
                const int a = at(x - r * dx, y - r * dy), b = at(x + r * dx, y + r * dy);
                if (!valid(uint16_t(a)) || !valid(uint16_t(b))) continue;
                if (c - std::min(a, b) > margin && std::max(a, b) - c > margin) return 0;
            }
        return c;
    });
}

image ref_fhole(const image &in, uint32_t w, uint32_t h, uint32_t param) {
    const size_t m = param == 0 ? 7 : std::min(param, 8u);
    return per_pixel(in, w, h, [&](uint32_t x, uint32_t y, uint16_t v) {
        if (v != 0) return v;
        const auto nb = window(in, w, h, x, y, 3, false);
        return nb.size() >= m ? lower_median(nb) : v;
    });
}

// Runs fn(img, w, h, param) on a copy of img at every level; the levels must agree.
template <class P>
image filtered(bool (*fn)(uint16_t *, uint32_t, uint32_t, P), P param, const image &img, uint32_t w,
               uint32_t h) {
    SCOPED_TRACE(testing::Message() << w << "x" << h << " param " << param);
    return tevix::test::same_at_every_level([&] {
        image out = img;
        EXPECT_TRUE(fn(out.data(), w, h, param));
        return out;
    });
}

const std::pair<uint32_t, uint32_t> sizes[] = {{1, 1}, {3, 2}, {17, 5}, {33, 31}, {641, 479}};

// The references hold every documented rule (lower median, invalid pixels kept, windows larger
// than the image), and the random images hit each one; bad arguments leave the image alone.
TEST(FilterSpatial, MedianMatchesReference) {
    // Sparse holes take the network for high ranks only; frequent ones the full network.
    for (auto [w, h] : sizes)
        for (uint32_t k : {3u, 5u})
            for (double holes : {0.15, 0.02, 0.0}) {
                const image img = random_depth(w, h, w * 7 + h + k, holes);
                EXPECT_EQ(filtered(vx_median2d_u16, k, img, w, h), ref_median(img, w, h, int(k)))
                    << w << "x" << h << " k" << k;
            }
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
            EXPECT_EQ(filtered(vx_flypix_u16_k3, t, img, w, h), ref_flypix(img, w, h, 3, t));
            EXPECT_EQ(filtered(vx_flypix_u16_k5, t, img, w, h), ref_flypix(img, w, h, 5, t));
        }
    EXPECT_FALSE(vx_flypix_u16_k5(nullptr, 4, 4, 1));
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
}

// Holes with 1 to 8 valid neighbours against every m; 65500 pixels are never filled.
TEST(FilterSpatial, FholeMatchesReference) {
    for (auto [w, h] : sizes)
        for (uint32_t p : {0u, 1u, 5u, 8u, 30u}) {
            const image img = random_depth(w, h, w * h + p, 0.2);
            EXPECT_EQ(filtered(vx_fhole_u16_k3, p, img, w, h), ref_fhole(img, w, h, p));
        }
    image img(9, 10);
    EXPECT_FALSE(vx_fhole_u16_k3(img.data(), 0, 3, 0));
}

// Rounded mean of the valid pixels of each valid pixel's window.
image ref_box(const image &in, uint32_t w, uint32_t h, int k) {
    return per_pixel(in, w, h, [&](uint32_t x, uint32_t y, uint16_t v) {
        if (!valid(v)) return v;
        const auto win = window(in, w, h, x, y, k, true);
        const uint64_t sum = std::accumulate(win.begin(), win.end(), uint64_t{0});
        return uint16_t((sum + win.size() / 2) / win.size());
    });
}

// Values over the whole 16-bit range, so that 31 x 31 windows need every bit of the sums.
TEST(FilterSpatial, BoxMatchesReference) {
    std::mt19937 rng(3);
    for (auto [w, h] : {std::pair{1u, 1u}, {3u, 2u}, {37u, 23u}, {33u, 31u}}) {
        image img(size_t(w) * h);
        for (auto &v : img) {
            const uint32_t r = rng() % 100;
            v = r < 5 ? 0 : r < 10 ? VX_DIST_INVALID : static_cast<uint16_t>(500 + rng() % 65000);
        }
        for (uint32_t k : {3u, 5u, 9u, 31u}) {
            image got = img;
            ASSERT_TRUE(vx_box2d_u16(got.data(), w, h, k));
            ASSERT_EQ(got, ref_box(img, w, h, int(k))) << w << "x" << h << " k" << k;
        }
    }
    image img = random_depth(37, 23, 3);
    EXPECT_FALSE(vx_box2d_u16(img.data(), 37, 23, 4));
    EXPECT_FALSE(vx_box2d_u16(img.data(), 37, 23, 33));
    EXPECT_FALSE(vx_box2d_u16(nullptr, 37, 23, 3));
    EXPECT_FALSE(vx_box2d_u16(img.data(), 0, 23, 3));
    EXPECT_EQ(img, random_depth(37, 23, 3));
}

// Normalised Gaussian convolution by brute force, in double.
image ref_gauss(const image &in, uint32_t w, uint32_t h, double sx, double sy) {
    const int rx = int(std::ceil(4 * sx)), ry = int(std::ceil(4 * sy));
    return per_pixel(in, w, h, [&](uint32_t x, uint32_t y, uint16_t v) {
        if (!valid(v)) return v;
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
        return uint16_t(std::lround(num / den));
    });
}

TEST(FilterSpatial, GaussMatchesConvolution) {
    const uint32_t w = 97, h = 61;
    const float sigma = 0.04f;  // 3.88 x 2.44 pixels
    const image img = random_depth(w, h, 11, 0.1);
    const image got = filtered(vx_gauss2d_iir_u16, sigma, img, w, h);
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

    // A flat image stays exactly flat around its holes.
    image flat(w * h, 1700);
    flat[10] = 0;
    flat[500] = VX_DIST_INVALID;
    EXPECT_EQ(filtered(vx_gauss2d_iir_u16, 0.1f, flat, w, h), flat);
    // The default 0.1 of a 640x480 image is a wide kernel; other sizes run at every level.
    for (auto [w, h] : sizes) filtered(vx_gauss2d_iir_u16, 0.1f, random_depth(w, h, w + h), w, h);
    // Deviations below half a pixel leave the image as it is.
    EXPECT_EQ(filtered(vx_gauss2d_iir_u16, 0.005f, img, w, h), img);
    EXPECT_FALSE(vx_gauss2d_iir_u16(nullptr, w, h, 0.1f));
}

TEST(FilterSpatial, ThreadsKeepTheirOwnScratch) {
    // Each thread filters its own images of its own size; the results equal a lone run.
    const std::pair<uint32_t, uint32_t> dims[2] = {{641, 479}, {97, 33}};
    auto filter = [&](int t) {
        auto [w, h] = dims[t];
        image img = random_depth(w, h, 40 + t);
        vx_median2d_u16(img.data(), w, h, 5);
        vx_fhole_u16_k3(img.data(), w, h, 0);
        return img;
    };
    const image want[2] = {filter(0), filter(1)};
    image got[2];
    std::thread threads[2];
    for (int t = 0; t < 2; ++t)
        threads[t] = std::thread([&, t] {
            for (int round = 0; round < 5; ++round) got[t] = filter(t);
        });
    for (auto &th : threads) th.join();
    EXPECT_EQ(got[0], want[0]);
    EXPECT_EQ(got[1], want[1]);
}

}  // namespace
