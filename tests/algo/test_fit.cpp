// Least-squares fits against closed-form answers and degenerate samples.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "tevix/vx_fit.h"

namespace {

const double nan_ = std::nan("");

TEST(fit, linear_exact_noisy_and_degenerate) {
    const std::vector<double> x = {1e6, 1e6 + 1, 1e6 + 2, 1e6 + 3, nan_};
    std::vector<double> y;
    for (double v : x) y.push_back(2.0 * v + 3.0);
    y[4] = 7.0;  // its x is NaN: the pair is left out
    double s = 0, o = 0, r = 0;
    ASSERT_EQ(vx_fit_linear(x.data(), y.data(), 5, &s, &o, &r), 0);
    EXPECT_NEAR(s, 2.0, 1e-9);
    EXPECT_NEAR(o, 3.0, 1e-3);  // far from the origin: the offset is an extrapolation
    EXPECT_DOUBLE_EQ(r, 1.0);
    // Symmetric noise around a line leaves the line; a falling line correlates negatively.
    const double xs[4] = {0, 1, 2, 3}, ys[4] = {1.1, 2.9, 5.1, 6.9};
    ASSERT_EQ(vx_fit_linear(xs, ys, 4, &s, &o, &r), 0);
    EXPECT_NEAR(s, 1.96, 1e-12);
    EXPECT_NEAR(o, 1.06, 1e-12);
    const double down[4] = {5, 4, 3, 2};
    ASSERT_EQ(vx_fit_linear(xs, down, 4, &s, &o, &r), 0);
    EXPECT_DOUBLE_EQ(r, -1.0);
    // Every x the same, one finite sample, nothing at all: no line, outputs untouched.
    const double same[3] = {4, 4, 4};
    s = o = 42;
    EXPECT_EQ(vx_fit_linear(same, ys, 3, &s, &o, nullptr), VX_FIT_ESINGULAR);
    EXPECT_EQ(vx_fit_linear(x.data() + 3, y.data() + 3, 2, &s, &o, nullptr), VX_FIT_EDATA);
    EXPECT_EQ(vx_fit_linear(xs, ys, 0, &s, &o, nullptr), VX_FIT_EDATA);
    EXPECT_EQ(s, 42);
    EXPECT_EQ(vx_fit_linear(nullptr, ys, 4, &s, &o, nullptr), VX_FIT_EINVAL);
    EXPECT_EQ(vx_fit_linear(xs, ys, -1, &s, &o, nullptr), VX_FIT_EINVAL);
}

TEST(fit, polynomial_recovers_coefficients_and_stays_accurate_far_from_the_origin) {
    const double want[4] = {1.0, -2.0, 0.5, -1e-1};
    auto cubic = [&](double v) {
        return want[0] + want[1] * v + want[2] * v * v + want[3] * v * v * v;
    };
    std::vector<double> x, y;
    for (int i = 0; i < 40; ++i) {
        x.push_back(-3.0 + 0.15 * i);
        y.push_back(cubic(x.back()));
    }
    double c[4], rms = -1;
    ASSERT_EQ(vx_fit_poly(x.data(), y.data(), 40, 3, c, &rms), 0);
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(c[j], want[j], 1e-10) << j;
    EXPECT_LT(rms, 1e-12);
    // Samples 1000 units out, 10 wide: the fit still reproduces them to rounding (monomials of
    // raw x would lose some seven digits there).
    for (double &v : x) v = 1000.0 + (v + 3.0) * 10.0 / 6.0;
    for (size_t i = 0; i < x.size(); ++i) y[i] = cubic(x[i]);
    ASSERT_EQ(vx_fit_poly(x.data(), y.data(), 40, 3, c, &rms), 0);
    EXPECT_LT(rms, 1e-8 * std::fabs(y[0]));
    for (size_t i = 0; i < x.size(); i += 13)
        EXPECT_NEAR(c[0] + x[i] * (c[1] + x[i] * (c[2] + x[i] * c[3])), y[i],
                    1e-6 * std::fabs(y[i]));
    // Order 0 is the mean; more unknowns than samples, or one x for a line, fail.
    ASSERT_EQ(vx_fit_poly(x.data(), x.data(), 3, 0, c, nullptr), 0);
    EXPECT_NEAR(c[0], (x[0] + x[1] + x[2]) / 3.0, 1e-9);
    EXPECT_EQ(vx_fit_poly(x.data(), y.data(), 3, 3, c, nullptr), VX_FIT_EDATA);
    const double same[5] = {2, 2, 2, 2, 2};
    EXPECT_EQ(vx_fit_poly(same, y.data(), 5, 1, c, nullptr), VX_FIT_ESINGULAR);
    EXPECT_EQ(vx_fit_poly(x.data(), y.data(), 40, 9, c, nullptr), VX_FIT_EINVAL);
}

// y = 1.5 a - 2 b + 4 over a grid, with five gross outliers.
struct plane_samples {
    std::vector<double> x, y;
    std::vector<int> outliers = {3, 17, 40, 41, 77};
    plane_samples() {
        for (int i = 0; i < 100; ++i) {
            const double a = i % 10, b = i / 10;
            x.insert(x.end(), {a, b, 1.0});
            y.push_back(1.5 * a - 2.0 * b + 4.0 + 0.01 * ((i * 7) % 5 - 2));
        }
        for (int i : outliers) y[size_t(i)] += (i % 2 ? 300.0 : -250.0);
    }
};

TEST(fit, multiple_linear_fit_drops_the_outliers) {
    plane_samples s;
    double c[3];
    std::vector<uint8_t> keep(100);
    int32_t used = 0;
    ASSERT_EQ(vx_fit_mlf(s.x.data(), s.y.data(), 100, 3, c, 3.0, 10, keep.data(), &used), 0);
    EXPECT_NEAR(c[0], 1.5, 5e-3);  // the samples carry +-0.02 of noise
    EXPECT_NEAR(c[1], -2.0, 5e-3);
    EXPECT_NEAR(c[2], 4.0, 5e-2);
    EXPECT_EQ(used, 95);
    for (int i : s.outliers) EXPECT_EQ(keep[size_t(i)], 0) << i;
    // Without rejection the outliers pull the fit away.
    ASSERT_EQ(vx_fit_mlf(s.x.data(), s.y.data(), 100, 3, c, 0.0, 10, nullptr, &used), 0);
    EXPECT_EQ(used, 100);
    EXPECT_GT(std::fabs(c[2] - 4.0), 0.5);
    // A threshold that calls everything an outlier ends with too few samples, not a fit of two.
    c[0] = 42;
    EXPECT_EQ(vx_fit_mlf(s.x.data(), s.y.data(), 100, 3, c, 0.01, 100, nullptr, nullptr),
              VX_FIT_EDATA);
    EXPECT_EQ(c[0], 42);
    // Collinear regressors (b = 2 a) determine no unique fit; NaN samples are left out.
    std::vector<double> col;
    for (int i = 0; i < 20; ++i) col.insert(col.end(), {double(i), 2.0 * i, 1.0});
    EXPECT_EQ(vx_fit_mlf(col.data(), s.y.data(), 20, 3, c, 3.0, 5, nullptr, nullptr),
              VX_FIT_ESINGULAR);
    s.x[3 * 50] = nan_;
    ASSERT_EQ(vx_fit_mlf(s.x.data(), s.y.data(), 100, 3, c, 3.0, 10, keep.data(), &used), 0);
    EXPECT_EQ(used, 94);
    EXPECT_EQ(keep[50], 0);
    EXPECT_EQ(vx_fit_mlf(s.x.data(), s.y.data(), 100, 33, c, 3.0, 10, nullptr, nullptr),
              VX_FIT_EINVAL);
}

TEST(fit, mahalanobis_distances) {
    // Four samples on the axes: covariance diag(2/3, 8/3), each sample at sqrt(1.5).
    const double x[10] = {-1, 0, 1, 0, 0, -2, 0, 2, nan_, 1};
    double d[5];
    ASSERT_EQ(vx_mahalanobis(x, 5, 2, d), 0);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(d[i], std::sqrt(1.5), 1e-12) << i;
    EXPECT_TRUE(std::isnan(d[4]));
    // Samples on a line have a covariance without inverse; too few samples for the dimensions.
    const double line[8] = {0, 0, 1, 2, 2, 4, 3, 6};
    EXPECT_EQ(vx_mahalanobis(line, 4, 2, d), VX_FIT_ESINGULAR);
    EXPECT_EQ(vx_mahalanobis(x, 2, 2, d), VX_FIT_EDATA);
    EXPECT_EQ(vx_mahalanobis(x, 4, 0, d), VX_FIT_EINVAL);
}

}  // namespace
