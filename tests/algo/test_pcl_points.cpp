#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

#include "levels.h"
#include "tevix/vx_pcl.h"

namespace {

constexpr float sentinel = -12345.0f;
const float qnan = std::numeric_limits<float>::quiet_NaN();

struct image {
    int32_t w, h;
    std::vector<float> d;
    float intr[4];  // cx, cy, fx, fy
};

image flat(int32_t w, int32_t h, float d, float cx, float cy, float fx, float fy) {
    return {w, h, std::vector<float>(static_cast<size_t>(w * h), d), {cx, cy, fx, fy}};
}

// The points of metres (float) or millimetres (u16) into a buffer of sentinels, comps floats a
// pixel (1: depth only). Every level must write the same bits; the scalar result is returned.
template <class T>
std::vector<float> run(const T *dist, int32_t w, int32_t h, const float *intr, int comps,
                       bool d_is_z, const float *map = nullptr, const void *fourth = nullptr) {
    return tevix::test::same_at_every_level([&] {
        std::vector<float> out(static_cast<size_t>(w * h * comps), sentinel);
        int rc;
        if constexpr (std::is_same_v<T, uint16_t>)
            rc = vx_pcl_get_xyzd_u16(out.data(), dist, map, w, h, intr, fourth, comps == 1, d_is_z);
        else
            rc = vx_pcl_get_xyzd_f32(out.data(), dist, map, w, h, intr, fourth, comps == 1, d_is_z);
        EXPECT_EQ(rc, 0);
        return out;
    });
}

std::vector<float> run(const image &im, int comps, bool d_is_z, const float *map = nullptr,
                       const void *fourth = nullptr) {
    return run(im.d.data(), im.w, im.h, im.intr, comps, d_is_z, map, fourth);
}

TEST(Pcl, MissingArgumentsWriteNothing) {
    image im = flat(8, 2, 1.0f, 4, 1, 100, 100);
    std::vector<float> out(64, sentinel);
    EXPECT_EQ(vx_pcl_get_xyzd_f32(nullptr, im.d.data(), nullptr, 8, 2, im.intr, nullptr, 0, 0),
              -22);
    EXPECT_EQ(vx_pcl_get_xyzd_f32(out.data(), nullptr, nullptr, 8, 2, im.intr, nullptr, 0, 0), -22);
    EXPECT_EQ(vx_pcl_get_xyzd_f32(out.data(), im.d.data(), nullptr, 8, 2, nullptr, nullptr, 0, 0),
              -22);
    const uint16_t mm[8] = {};
    EXPECT_EQ(vx_pcl_get_xyzd_u16(out.data(), mm, nullptr, 8, 1, nullptr, nullptr, 1, 1), -22);
    EXPECT_EQ(vx_pcl_get_xyzd_u16(out.data(), mm, nullptr, 0, 1, im.intr, nullptr, 1, 1), 0);
    for (float v : out) EXPECT_EQ(v, sentinel);
}

// 60 m and beyond, and NaN, are no measurement: the point is (0, 0, 0) but the fourth value
// still travels.
TEST(Pcl, SixtyMetresAndNaNGiveOrigin) {
    image im = flat(4, 1, 0.0f, 0, 0, 50, 50);
    im.d = {60.0f, 59.999f, qnan, 1e9f};
    const uint32_t fourth[4] = {0x7FC01234u, 7u, 8u, 9u};
    const auto out = run(im, 4, false, nullptr, fourth);
    for (int p : {0, 2, 3}) {
        for (int c = 0; c < 3; ++c) EXPECT_EQ(out[p * 4 + c], 0.0f) << p;
        EXPECT_EQ(std::bit_cast<uint32_t>(out[p * 4 + 3]), fourth[p]);
    }
    EXPECT_GT(out[6], 59.0f);
}

TEST(Pcl, RayDistanceGeometry) {
    const auto out = run(flat(8, 4, 2.5f, 4, 2, 2, 2), 3, false);
    const auto at = [&](int u, int v) { return &out[static_cast<size_t>(v * 8 + u) * 3]; };
    // On the optical axis the distance is the depth, exactly.
    EXPECT_EQ(at(4, 2)[0], 0.0f);
    EXPECT_EQ(at(4, 2)[1], 0.0f);
    EXPECT_EQ(at(4, 2)[2], 2.5f);
    // Off the axis the depth is shorter and the point keeps its distance.
    const float *p = at(5, 3);
    EXPECT_FLOAT_EQ(p[0], 1.25f);
    EXPECT_FLOAT_EQ(p[1], 1.25f);
    EXPECT_LT(p[2], 2.5f);
    EXPECT_NEAR(std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]), 2.5f, 1e-5f);
    // Lateral offsets longer than the distance leave no depth.
    EXPECT_TRUE(std::isnan(at(0, 0)[2]));
    EXPECT_TRUE(std::isnan(at(7, 2)[2]));
}

TEST(Pcl, DepthInputUsesCorrectionMap) {
    image im = flat(4, 2, 2.0f, 1, 0, 4, 8);
    std::vector<float> map = {0.0f, 0.5f, -0.25f, 1.0f, 0.0f, 0.0f, 0.0f, 0.1f};
    const auto out = run(im, 3, true, map.data());
    for (int i = 0; i < 8; ++i) {
        const int u = i % 4, v = i / 4;
        EXPECT_FLOAT_EQ(out[i * 3], (u - 1) / 4.0f * 2.0f);
        EXPECT_FLOAT_EQ(out[i * 3 + 1], v / 8.0f * 2.0f);
        EXPECT_EQ(out[i * 3 + 2], 2.0f * map[i] + 2.0f);
    }
    const auto z = run(im, 1, false, map.data());
    EXPECT_FLOAT_EQ(z[1], 2.0f * 0.5f + std::sqrt(4.0f - 0.0f - 0.0f));
}

TEST(Pcl, DepthOnlyWithoutMapEqualsMaskedInput) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> dist(-1.0f, 80.0f);
    image im = flat(64, 5, 0.0f, 31.5f, 2, 200, 200);
    for (float &d : im.d) d = dist(rng);
    im.d[7] = qnan;
    const auto out = run(im, 1, true);
    for (size_t i = 0; i < im.d.size(); ++i)
        ASSERT_EQ(out[i], im.d[i] < 60.0f ? im.d[i] : 0.0f) << i;
}

// Width 322: the columns 320 and 321 form a partial group and stay untouched in every layout.
TEST(Pcl, TrailingPartialGroupUntouched) {
    const uint32_t fourth[322 * 3] = {};
    const image im = flat(322, 3, 1.0f, 160, 1, 300, 300);
    for (int comps : {1, 3, 4})
        for (bool dz : {false, true}) {
            const auto out = run(im, comps, dz, nullptr, comps == 4 ? fourth : nullptr);
            for (size_t i = 0; i < out.size(); ++i) {
                const size_t u = i / size_t(comps) % 322;
                ASSERT_EQ(out[i] == sentinel, u >= 320) << "pixel " << i / size_t(comps);
            }
        }
}

TEST(Pcl, MillimetreInputInMetres) {
    const uint16_t mm[8] = {1500, 0, 59999, 60000, 65500, 65535, 1000, 2000};
    const float intr[4] = {0, 0, 1000, 1000};
    const auto out = run(mm, 8, 1, intr, 1, true);
    EXPECT_EQ(out[0], 1500.0f * 0.001f);
    EXPECT_GT(out[2], 59.99f);
    for (int i : {1, 3, 4, 5}) EXPECT_EQ(out[i], 0.0f) << i;
    const auto xyz = run(mm, 8, 1, intr, 3, false);
    EXPECT_FLOAT_EQ(xyz[6 * 3], 0.006f);  // (6 - 0) / 1000 * 1 m
    EXPECT_EQ(xyz[4 * 3 + 2], 0.0f);
}

// The vector and scalar paths agree bit for bit on noisy images of odd widths, in every layout,
// for both input types, with and without a map.
TEST(Pcl, SimdMatchesScalarBitForBit) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> metres(-2.0f, 70.0f);
    std::uniform_real_distribution<float> corr(-0.1f, 0.1f);
    for (int32_t w : {5, 37, 322, 641}) {
        const int32_t h = 7;
        const size_t n = static_cast<size_t>(w * h);
        std::vector<float> d(n), map(n);
        std::vector<uint16_t> mm(n);
        std::vector<uint32_t> fourth(n);
        for (size_t i = 0; i < n; ++i) {
            d[i] = rng() % 17 == 0 ? qnan : metres(rng);
            map[i] = corr(rng);
            mm[i] = static_cast<uint16_t>(rng());
            fourth[i] = static_cast<uint32_t>(rng());
        }
        const float intr[4] = {w / 2.0f - 0.3f, 3.2f, 0.9f * w, 0.8f * w};
        for (int comps : {1, 3, 4})
            for (bool dz : {false, true})
                for (const float *m :
                     {static_cast<const float *>(nullptr), std::as_const(map).data()}) {
                    SCOPED_TRACE(testing::Message() << "w " << w << " comps " << comps << " dz "
                                                    << dz << " map " << (m != nullptr));
                    const void *f4 = comps == 4 ? fourth.data() : nullptr;
                    run(mm.data(), w, h, intr, comps, dz, m, f4);
                    run(d.data(), w, h, intr, comps, dz, m, f4);
                }
    }
}

}  // namespace
