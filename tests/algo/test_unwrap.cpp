// Dual-frequency unwrapping against known distances: the whole combined range without noise,
// noise that never produces a wrong wrap, disagreeing phases marked invalid, and every
// instruction-set level giving the same bits.

#include <cmath>
#include <random>
#include <vector>

#include "algo/unwrap.h"
#include "levels.h"

namespace {

using tevix::algo::dual_freq;
constexpr uint16_t k_invalid = 65500;

// The distance seen at one frequency: the true one modulo its range, plus noise, in mm.
uint16_t wrapped(double mm, double range, double noise) {
    double d = std::fmod(mm + noise, range);
    if (d < 0) d += range;
    return uint16_t(std::lround(d) >= std::lround(range) ? 0 : std::lround(d));
}

// Error modulo the combined range (a distance just below R may come out just above 0).
double wrap_error(double got, double want, double range) {
    double e = std::fmod(got - want, range);
    if (e > range / 2) e -= range;
    if (e < -range / 2) e += range;
    return std::abs(e);
}

// Each true distance unwrapped from its two wrapped views, noise() added to each.
template <class Noise>
std::vector<uint16_t> unwrap(const dual_freq &u, const std::vector<double> &truth, Noise noise) {
    const size_t n = truth.size();
    std::vector<uint16_t> d0(n), d1(n), out(n);
    for (size_t i = 0; i < n; ++i) {
        d0[i] = wrapped(truth[i], u.r0_mm, noise());
        d1[i] = wrapped(truth[i], u.r1_mm, noise());
    }
    tevix::algo::dual_freq_unwrap(u, d0.data(), d1.data(), out.data(), n);
    return out;
}

TEST(Unwrap, RangesOfFrequencyPairs) {
    dual_freq u;
    ASSERT_TRUE(tevix::algo::dual_freq_init(u, 100000000, 80000000));
    EXPECT_EQ(u.n0, 5u);
    EXPECT_EQ(u.n1, 4u);
    EXPECT_NEAR(u.r0_mm, 1498.96, 0.01);
    EXPECT_NEAR(u.r1_mm, 1873.70, 0.01);
    EXPECT_NEAR(u.range_mm, 7494.81, 0.01);
    EXPECT_NEAR(u.max_residual_mm, 7494.81 / 20 / 4, 0.01);
    EXPECT_TRUE(tevix::algo::dual_freq_init(u, 12000000, 8000000));     // 37.5 m
    EXPECT_FALSE(tevix::algo::dual_freq_init(u, 100000000, 99000000));  // 100 wraps
    EXPECT_FALSE(tevix::algo::dual_freq_init(u, 3000000, 2000000));     // 150 m
    EXPECT_FALSE(tevix::algo::dual_freq_init(u, 80000000, 80000000));
    EXPECT_FALSE(tevix::algo::dual_freq_init(u, 0, 80000000));
    EXPECT_EQ(u.n0, 0u);  // a refused pair leaves nothing to run
}

TEST(Unwrap, KnownDistancesOverTheWholeRange) {
    for (auto [f0, f1] : {std::pair{100000000u, 80000000u}, {60000000u, 40000000u}}) {
        dual_freq u;
        ASSERT_TRUE(tevix::algo::dual_freq_init(u, f0, f1));
        std::vector<double> truth;
        for (double mm = 0; mm < u.range_mm; mm += 0.7) truth.push_back(mm);
        const auto out = unwrap(u, truth, [] { return 0.0; });
        double worst = 0;
        for (size_t i = 0; i < truth.size(); ++i) {
            ASSERT_NE(out[i], k_invalid) << truth[i] << " mm at " << f0 << "/" << f1;
            worst = std::max(worst, wrap_error(out[i], truth[i], u.range_mm));
        }
        EXPECT_LE(worst, 1.0) << f0 << "/" << f1;
    }
}

TEST(Unwrap, NoiseIsMarkedNeverMiswrapped) {
    dual_freq u;
    ASSERT_TRUE(tevix::algo::dual_freq_init(u, 100000000, 80000000));
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> where(0, u.range_mm);
    // Noise of each measurement; their difference decides (sqrt 2 larger). A wrong wrap needs a
    // difference of three quarters of the 375 mm separation: 5 of those deviations at 40 mm.
    for (double sigma : {10.0, 25.0, 40.0}) {
        std::normal_distribution<double> noise(0, sigma);
        const size_t n = 20000;
        std::vector<double> truth(n);
        for (double &t : truth) t = where(rng);
        const auto out = unwrap(u, truth, [&] { return noise(rng); });
        size_t valid = 0;
        for (size_t i = 0; i < n; ++i) {
            if (out[i] == k_invalid) continue;
            ++valid;
            // A wrong wrap would be off by hundreds of millimetres.
            ASSERT_LT(wrap_error(out[i], truth[i], u.range_mm), 6 * sigma) << sigma;
        }
        // Little noise keeps nearly every pixel; more marks many and still wraps none wrongly.
        if (sigma == 10.0) {
            EXPECT_GT(valid, n * 999 / 1000);
        } else if (sigma == 40.0) {
            EXPECT_LT(valid, n * 95 / 100);
        }
    }
    // Phases that cannot belong to one distance, and invalid inputs.
    std::vector<uint16_t> d0 = {100, 1400, 700, k_invalid, 500};
    std::vector<uint16_t> d1 = {uint16_t(100 + 937), uint16_t(1400 + 937 - 1874), 65535, 500,
                                k_invalid};
    std::vector<uint16_t> out(5);
    tevix::algo::dual_freq_unwrap(u, d0.data(), d1.data(), out.data(), 5);
    EXPECT_EQ(out, std::vector<uint16_t>(5, k_invalid));
}

TEST(Unwrap, EveryLevelGivesTheSameBits) {
    dual_freq u;
    ASSERT_TRUE(tevix::algo::dual_freq_init(u, 100000000, 80000000));
    std::mt19937 rng(9);
    const size_t n = 1003;
    std::vector<uint16_t> d0(n), d1(n);
    for (size_t i = 0; i < n; ++i) {
        d0[i] = uint16_t(rng() % 1600);
        d1[i] = uint16_t(rng() % 2000);
        if (i % 97 == 0) d0[i] = k_invalid;
        if (i % 89 == 0) d1[i] = 65535;
    }
    tevix::test::same_at_every_level([&] {
        std::vector<uint16_t> out(n);
        tevix::algo::dual_freq_unwrap(u, d0.data(), d1.data(), out.data(), n);
        return out;
    });
}

}  // namespace
