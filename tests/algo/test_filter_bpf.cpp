// Recursive bilateral filter: init rules, range table, call checks, exact behaviour on flat,
// stepped and weight-0 images, a plain reference of the recurrences, and SIMD/scalar identity.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "levels.h"
#include "test_util.h"
#include "tevix/vx_filter.h"

namespace {

std::vector<uint16_t> random_image(uint32_t w, uint32_t h, uint32_t seed, uint16_t lo = 500,
                                   uint16_t hi = 3000) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> d(lo, hi);
    std::vector<uint16_t> img(size_t(w) * h);
    for (auto &v : img) v = uint16_t(d(rng));
    return img;
}

struct bpf {
    vx_bpf2d_iir_t ctx{};
    ~bpf() { vx_bpf2d_iir_uninit(&ctx); }
};

// The recurrences exactly as described, (1 - alpha) factors included, in double precision:
// phi(x) = (1 - a) I(x) + a w phi(x-1), psi(x) = (1 - a) + a w psi(x-1), starting at
// phi = (1 - a) I and psi = 1 - a. Returns the ratios before truncation.
std::vector<double> reference(const vx_bpf2d_iir_t &c, const std::vector<uint16_t> &src) {
    const uint32_t w = c.width, h = c.height;
    const int lo = int(c.range_lo), hi = int(c.range_hi);
    auto weight = [&](int p, int q) {
        const int d = std::clamp(std::abs(p - q), lo, hi);
        return double(c.range_table[d - lo]);
    };
    auto pass = [&](uint32_t n, double alpha, auto value, auto pixel) {
        std::vector<double> pc(n), qc(n), out(n);
        const double k = 1 - alpha;
        pc[0] = k * value(0);
        qc[0] = k;
        for (uint32_t i = 1; i < n; ++i) {
            const double a = alpha * weight(pixel(i), pixel(i - 1));
            pc[i] = k * value(i) + a * pc[i - 1];
            qc[i] = k + a * qc[i - 1];
        }
        double pa = k * value(n - 1), qa = k;
        out[n - 1] = (pc[n - 1] + pa) / (qc[n - 1] + qa);
        for (uint32_t i = n - 1; i-- > 0;) {
            const double a = alpha * weight(pixel(i + 1), pixel(i));
            pa = k * value(i) + a * pa;
            qa = k + a * qa;
            out[i] = (pc[i] + pa) / (qc[i] + qa);
        }
        return out;
    };
    std::vector<double> hres(size_t(w) * h), res(size_t(w) * h);
    for (uint32_t y = 0; y < h; ++y) {
        const uint16_t *s = &src[size_t(y) * w];
        auto px = [&](uint32_t x) { return int(s[x]); };
        const auto r = pass(w, c.alpha_x, px, px);
        std::copy(r.begin(), r.end(), hres.begin() + size_t(y) * w);
    }
    for (uint32_t x = 0; x < w; ++x) {
        auto val = [&](uint32_t y) { return hres[size_t(y) * w + x]; };
        auto px = [&](uint32_t y) { return int(src[size_t(y) * w + x]); };
        const auto r = pass(h, c.alpha_y, val, px);
        for (uint32_t y = 0; y < h; ++y) res[size_t(y) * w + x] = r[y];
    }
    return res;
}

// The filter's output for src at every level; the levels must agree, in place as well.
std::vector<uint16_t> filtered(vx_bpf2d_iir_t &ctx, const std::vector<uint16_t> &src) {
    return tevix::test::same_at_every_level([&] {
        std::vector<uint16_t> out(src.size()), in_place = src;
        vx_bpf2d_iir(&ctx, out.data(), src.data(), ctx.width, ctx.height);
        vx_bpf2d_iir(&ctx, in_place.data(), in_place.data(), ctx.width, ctx.height);
        EXPECT_EQ(in_place, out) << "in place";
        return out;
    });
}

TEST(FilterBpf, InitSizesRangeTableAndBounds) {
    bpf f;
    for (auto [w, h] : {std::pair{40960u, 1u}, {1u, 40960u}, {40961u, 1u}, {1u, 40961u}}) {
        const bool fits = w <= 40960 && h <= 40960;
        EXPECT_EQ(vx_bpf2d_iir_init(&f.ctx, w, h, 0.01f, 0.02f, 0, 256), fits) << w << "x" << h;
        EXPECT_EQ(f.ctx.range_table == nullptr, !fits);
        EXPECT_EQ(f.ctx.work[0] == nullptr, !fits);
        EXPECT_EQ(f.ctx.width, fits ? w : 0u);
        vx_bpf2d_iir_uninit(&f.ctx);
    }

    ASSERT_TRUE(vx_bpf2d_iir_init(&f.ctx, 640, 480, 0.01f, 0.02f, 0, 256));
    EXPECT_EQ(f.ctx.n, 257u);
    EXPECT_EQ(f.ctx.range_lo, 0.0f);
    EXPECT_EQ(f.ctx.range_hi, 256.0f);
    EXPECT_EQ(f.ctx.range_table[0], 1.0f);
    EXPECT_FLOAT_EQ(f.ctx.range_table[100], std::exp(-100.0f / (257 * 0.02f)));
    EXPECT_EQ(f.ctx.range_table[256], 0.0f);
    EXPECT_FLOAT_EQ(f.ctx.alpha_x, std::exp(-std::sqrt(2.0f) / (640 * 0.01f)));
    EXPECT_FLOAT_EQ(f.ctx.alpha_y, std::exp(-std::sqrt(2.0f) / (480 * 0.01f)));
    vx_bpf2d_iir_uninit(&f.ctx);

    // A long table keeps its length but the upper bound stops 4095 above the lower one.
    ASSERT_TRUE(vx_bpf2d_iir_init(&f.ctx, 8, 8, 0.01f, 0.02f, 100, 5100));
    EXPECT_EQ(f.ctx.n, 5001u);
    EXPECT_EQ(f.ctx.range_lo, 100.0f);
    EXPECT_EQ(f.ctx.range_hi, 4195.0f);
    EXPECT_GT(f.ctx.range_table[4095], 0.0f);
    EXPECT_EQ(f.ctx.range_table[5000], 0.0f);
    vx_bpf2d_iir_uninit(&f.ctx);

    // A reversed pair stores ordered bounds but cannot allocate its table.
    EXPECT_FALSE(vx_bpf2d_iir_init(&f.ctx, 8, 8, 0.01f, 0.02f, 300, 200));
    EXPECT_EQ(f.ctx.range_table, nullptr);
    EXPECT_EQ(f.ctx.n, 0u);
}

TEST(FilterBpf, WrongCallLeavesDstAlone) {
    bpf f;
    ASSERT_TRUE(vx_bpf2d_iir_init(&f.ctx, 320, 240, 0.01f, 0.02f, 0, 256));
    const auto src = random_image(640, 480, 1);
    const std::vector<uint16_t> untouched(640 * 480, 0x1234);
    auto dst = untouched;
    {
        tevix::test::log_capture log;
        vx_bpf2d_iir(&f.ctx, dst.data(), src.data(), 640, 480);
        EXPECT_TRUE(log.has("wrong parameters: init=320x240, cur=640x480")) << log.text();
    }
    vx_bpf2d_iir(&f.ctx, nullptr, src.data(), 320, 240);
    vx_bpf2d_iir(&f.ctx, dst.data(), nullptr, 320, 240);
    vx_bpf2d_iir(nullptr, dst.data(), src.data(), 320, 240);
    // An emptied context refuses every call.
    vx_bpf2d_iir_uninit(&f.ctx);
    vx_bpf2d_iir_uninit(&f.ctx);
    vx_bpf2d_iir_uninit(nullptr);
    vx_bpf2d_iir(&f.ctx, dst.data(), src.data(), 0, 0);
    EXPECT_EQ(dst, untouched);
}

TEST(FilterBpf, FlatStepsAndEqualBoundsStayAsTheyAre) {
    bpf f;
    ASSERT_TRUE(vx_bpf2d_iir_init(&f.ctx, 640, 480, 0.01f, 0.02f, 0, 256));
    EXPECT_EQ(filtered(f.ctx, std::vector<uint16_t>(640 * 480, 1234)),
              std::vector<uint16_t>(640 * 480, 1234));
    // A vertical and a horizontal step larger than the upper bound carry nothing across.
    std::vector<uint16_t> step(640 * 480);
    for (uint32_t y = 0; y < 480; ++y)
        for (uint32_t x = 0; x < 640; ++x)
            step[y * 640 + x] = uint16_t((x < 300 ? 1000 : 3000) + (y < 200 ? 0 : 500));
    EXPECT_EQ(filtered(f.ctx, step), step);
    vx_bpf2d_iir_uninit(&f.ctx);

    // Equal bounds make a one-entry table of weight 0: nothing is blended.
    ASSERT_TRUE(vx_bpf2d_iir_init(&f.ctx, 97, 61, 0.05f, 0.02f, 40, 40));
    EXPECT_EQ(f.ctx.n, 1u);
    EXPECT_EQ(f.ctx.range_table[0], 0.0f);
    const auto src = random_image(97, 61, 2, 0, 65535);
    EXPECT_EQ(filtered(f.ctx, src), src);
}

// Differences below the lower bound (8) and above the upper one (256) both occur in the images.
TEST(FilterBpf, MatchesPlainRecurrencesAtEveryLevel) {
    bpf f;
    for (auto [w, h] :
         {std::pair{37u, 23u}, {641u, 479u}, {5u, 3u}, {1u, 9u}, {16u, 1u}, {17u, 1u}})
        for (auto [ss, sr, lo, hi] : {std::tuple{0.02f, 0.05f, 8, 600}, {0.01f, 0.02f, 0, 256}}) {
            SCOPED_TRACE(testing::Message() << w << "x" << h << " range " << lo << ".." << hi);
            ASSERT_TRUE(vx_bpf2d_iir_init(&f.ctx, w, h, ss, sr, uint16_t(lo), uint16_t(hi)));
            const auto src = random_image(w, h, w * h + lo, 1000, 1400);
            const auto want = reference(f.ctx, src);
            const auto out = filtered(f.ctx, src);
            // Float sums against double ones: equal up to truncation where the ratio is near an
            // integer.
            for (size_t i = 0; i < out.size(); ++i) {
                ASSERT_NEAR(out[i], want[i], 1.0 + 1e-3) << " pixel " << i;
                if (std::abs(want[i] - std::round(want[i])) > 1e-3) {
                    ASSERT_EQ(out[i], uint16_t(want[i])) << " pixel " << i;
                }
            }
            vx_bpf2d_iir_uninit(&f.ctx);
        }
}

TEST(FilterBpf, DegenerateSigmasStayInRange) {
    // sigma_range 0 makes table[0] = exp(-0 / 0), a NaN; the output is still defined.
    bpf f;
    ASSERT_TRUE(vx_bpf2d_iir_init(&f.ctx, 19, 7, 0.0f, 0.0f, 0, 10));
    for (uint16_t v : filtered(f.ctx, random_image(19, 7, 4)))
        EXPECT_TRUE(v == 0 || (v >= 500 && v <= 3000)) << v;
}

}  // namespace
