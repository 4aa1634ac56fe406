// Exact values of the EPC per-pixel kernels.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "algo/simd.h"
#include "drivers/epc/epc_kernels.h"

using namespace tevix::epc;

namespace {

TEST(EpcPhase, AtanTableEnds) {
    const uint16_t *t = atan_table();
    EXPECT_EQ(t[0], 0);
    EXPECT_EQ(t[4095], 4096);
    EXPECT_EQ(t[2048], static_cast<uint16_t>(std::lround(std::atan(2048 / 4095.0) * 16384 / M_PI)));
    for (int i = 1; i < 4096; ++i) EXPECT_GE(t[i], t[i - 1]);
}

// On the axes and diagonals the phase is exact, of four planes and of a plane pair alike.
TEST(EpcPhase, ExactOnTheAxes) {
    EXPECT_EQ(phase_4dcs(100, 0), 16384u);
    EXPECT_EQ(phase_4dcs(-100, 0), 0u);
    EXPECT_EQ(phase_4dcs(0, 0), 16384u);
    EXPECT_EQ(phase_4dcs(0, 100), 24576u);
    EXPECT_EQ(phase_4dcs(0, -100), 8192u);
    EXPECT_EQ(phase_4dcs(100, 100), 16384u + 4096u);
    EXPECT_EQ(phase_4dcs(-100, -100), 4096u);
    EXPECT_EQ(phase_pair(100, 0, 16384, 0), 16384u);
    EXPECT_EQ(phase_pair(-100, 0, 16384, 0), 0u);
    EXPECT_EQ(phase_pair(0, 100, 0, 16384), 8192u);
    EXPECT_EQ(phase_pair(100, 100, 24576, 8192), (24576u + 4096u) & 0x7FFF);
}

TEST(EpcPhase, FollowsTheAngleEverywhere) {
    for (int x = -4091; x <= 4091; x += 37) {
        for (int y = -4091; y <= 4091; y += 41) {
            if (y == 0) continue;
            const double ref = std::fmod((std::atan2(y, x) + M_PI) / (2 * M_PI) * 32768, 32768);
            double diff = std::fabs(phase_4dcs(x, y) - ref);
            diff = std::min(diff, 32768 - diff);
            ASSERT_LE(diff, 2.0) << x << "," << y;
        }
    }
}

// The frequency picks the reduced layout's plane pair and its phase bases, and the range.
TEST(EpcPhase, FrequencyPicksThePairAndTheRange) {
    const struct {
        uint32_t f;
        int p0, p1;
        uint32_t base0, base1;
    } cases[] = {{12000000, 1, 2, 24576, 8192},
                 {12000001, 2, 3, 0, 16384},
                 {24000000, 2, 3, 0, 16384},
                 {24000001, 0, 1, 16384, 0}};
    for (const auto &c : cases) {
        const plane_pair p = reduced_pair(c.f);
        EXPECT_EQ(p.p0, c.p0) << c.f;
        EXPECT_EQ(p.p1, c.p1) << c.f;
        EXPECT_EQ(p.base0, c.base0) << c.f;
        EXPECT_EQ(p.base1, c.base1) << c.f;
    }
    EXPECT_EQ(range_mm(20000000), 7494u);
    EXPECT_EQ(range_mm(12000000), 12491u);
    EXPECT_EQ(range_mm(0), 0u);
}

TEST(EpcGrey, FastSqrtBitPatterns) {
    EXPECT_EQ(fast_sqrt(0), 0u);
    EXPECT_EQ(fast_sqrt(1), 1u);                // 0x3F800000 -> 0x3F800000
    EXPECT_EQ(fast_sqrt(2), 1u);                // 0x40000000 -> 0x3FC00000 = 1.5
    EXPECT_EQ(fast_sqrt(3), 1u);                // 0x40400000 -> 0x3FE00000 = 1.75
    EXPECT_EQ(fast_sqrt(4), 2u);                // 0x40800000 -> 0x40000000
    EXPECT_EQ(fast_sqrt(100), 10u);             // 0x42C80000 -> 0x41240000 = 10.25
    EXPECT_EQ(fast_sqrt(3400), 58u);            // 0x45548000 -> 0x426A4000 = 58.5625
    EXPECT_EQ(fast_sqrt(13600), 117u);          // 0x46548000 -> 0x42EA4000 = 117.125
    EXPECT_EQ(fast_sqrt(1000000), 1000u);       // 0x49742400 -> 0x447A1200 = 1000.28
    EXPECT_EQ(fast_sqrt(0xFFFFFFFFu), 65536u);  // 0x4F800000 -> 0x47800000
    uint32_t c[2] = {0xFFFFFFFFu, 13600};
    uint16_t g[2];
    grey_from_conf(c, 2, g);
    EXPECT_EQ(g[0], 65535);
    EXPECT_EQ(g[1], 117);
}

// Four planes of n pixels with one pixel's samples set.
std::vector<uint16_t> _planes(uint32_t n, uint16_t d0, uint16_t d1, uint16_t d2, uint16_t d3) {
    std::vector<uint16_t> v;
    for (uint16_t d : {d0, d1, d2, d3}) v.insert(v.end(), n, d);
    return v;
}

// One pixel's distance, confidence and the offset; a sample at or beyond the limits (below 2,
// above 4093) leaves the pixel invalid.
TEST(EpcDecode, FourPlanePixelAndSampleLimits) {
    auto raw = _planes(1, 1998, 2048, 2098, 2048);  // x = 100, y = 0
    int32_t d;
    uint32_t c;
    decode_4dcs(raw.data(), 1, 7494, 0, &d, &c);
    EXPECT_EQ(d, 3747);  // (16384 * 7494) >> 15
    EXPECT_EQ(c, 10000u);
    decode_4dcs(raw.data(), 1, 7494, -47, &d, &c);
    EXPECT_EQ(d, 3700);
    for (uint16_t bad : {0, 1, 4094, 4095, 5000}) {
        raw = _planes(1, 2000, 2000, bad, 2000);
        decode_4dcs(raw.data(), 1, 7494, 0, &d, &c);
        EXPECT_EQ(d, 65500) << bad;
        EXPECT_EQ(c, 0u) << bad;
    }
    raw = _planes(1, 2, 4093, 2, 4093);
    decode_4dcs(raw.data(), 1, 7494, 0, &d, &c);
    EXPECT_NE(d, 65500);
}

TEST(EpcDecode, ScalarDecodeFollowsThePhase) {
    const uint32_t n = 320 * 24 + 7;
    std::vector<uint16_t> raw(4 * n);
    std::mt19937 rng(5);
    for (auto &s : raw) s = static_cast<uint16_t>(rng() % 4200);
    for (uint32_t range : {7494u, 149896u}) {
        std::vector<int32_t> d(n);
        std::vector<uint32_t> c(n);
        decode_4dcs_scalar(raw.data(), n, range, 3, d.data(), c.data());
        for (uint32_t i = 0; i < n; ++i) {
            const int32_t x = static_cast<int16_t>(raw[2 * n + i] - raw[i]);
            const int32_t y = static_cast<int16_t>(raw[3 * n + i] - raw[n + i]);
            if (d[i] == 65500) continue;
            ASSERT_EQ(d[i], static_cast<int32_t>((uint64_t{phase_4dcs(x, y)} * range) >> 15) + 3);
        }
    }
}

// Every kernel at every tier the machine has gives the scalar tier's results bit for bit, on
// samples that cover the octants, the axes, invalid samples and the thresholds.
struct tier_run {
    std::vector<int32_t> d4, dp[3];
    std::vector<uint32_t> c4, cp[3], g4, g2, hc;
    std::vector<uint16_t> gc, nw, rg, ma, mh;
    std::vector<int32_t> hd;
    std::vector<uint8_t> marks;
    bool consistent[2];
    bool operator==(const tier_run &) const = default;
};

tier_run _run_tier(tevix::simd::level l) {
    tevix::simd::scoped_limit cap(l);
    constexpr uint32_t w = 41, h = 12, n = w * h;  // odd sizes leave vector tails
    std::mt19937 rng(17);
    std::vector<uint16_t> raw(4 * n), v(2 * n), src(n);
    for (auto &s : raw) s = static_cast<uint16_t>(rng() % 4200);
    for (uint32_t i = 0; i < n; i += 7) raw[n + i] = raw[3 * n + i];  // y == 0
    for (auto &s : v) s = static_cast<uint16_t>(rng() % 8 == 0 ? (rng() % 2) * 4095 : rng() % 4096);
    for (auto &s : src) s = static_cast<uint16_t>(rng());
    std::vector<uint32_t> conf(n);
    std::vector<int32_t> wide(n);
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t k = rng() % 4;
        conf[i] = k == 0   ? 0
                  : k == 1 ? 4000000 + rng() % 3 - 1
                  : k == 2 ? rng()
                           : 700 + rng() % 400;
        wide[i] = static_cast<int32_t>(rng() % 140000) - 4000;
    }
    tier_run r;
    r.d4.resize(n), r.c4.resize(n);
    decode_4dcs(raw.data(), n, 7494, -7, r.d4.data(), r.c4.data());
    const uint32_t freqs[3] = {30000000, 20000000, 10000000};
    for (int k = 0; k < 3; ++k) {
        r.dp[k].resize(n), r.cp[k].resize(n);
        decode_pair(raw.data(), raw.data() + n, v.data(), v.data() + n, n, reduced_pair(freqs[k]),
                    range_mm(freqs[k]), 5, r.dp[k].data(), r.cp[k].data());
    }
    r.g4.resize(n), r.g2.resize(n), r.gc.resize(n), r.nw.resize(n), r.rg.resize(n);
    grey_4dcs(raw.data(), n, r.g4.data());
    grey_2dcs(raw.data(), raw.data() + n, n, r.g2.data());
    grey_from_conf(conf.data(), n, r.gc.data());
    narrow_u16(wide.data(), r.nw.data(), n);
    range_gate(src.data(), r.rg.data(), n, 7494);
    r.hd = wide, r.hc = conf;
    hdr_merge(r.hd.data(), r.hc.data(), w, h);
    r.ma.resize(n), r.mh.resize(n), r.marks.assign(n, 0);
    minamp(src.data(), r.ma.data(), conf.data(), n, 30, nullptr, 10);
    for (int round = 0; round < 2; ++round)  // the marks carry over
        minamp(src.data(), r.mh.data(), conf.data(), n, 30, r.marks.data(), 10);
    r.consistent[0] = frame_consistent(raw.data(), n, 4 * n);
    std::vector<uint16_t> good(4 * n, 2048);
    r.consistent[1] = frame_consistent(good.data(), n, 4 * n);
    return r;
}

TEST(EpcTiers, EveryKernelGivesTheScalarResultsAtEveryTier) {
    using tevix::simd::level;
    const tier_run scalar = _run_tier(level::scalar);
    EXPECT_FALSE(scalar.consistent[0]);
    EXPECT_TRUE(scalar.consistent[1]);
    for (level l : {level::sse41, level::avx2}) {
        {
            tevix::simd::scoped_limit cap(l);
            if (tevix::simd::active() != l) continue;  // the machine lacks it
        }
        SCOPED_TRACE(static_cast<int>(l));
        EXPECT_TRUE(_run_tier(l) == scalar);
    }
}

// Grey of four planes is fast_sqrt of a quarter of x^2 + y^2 over the 12 sample bits, 0 where a
// sample is at a limit; of a plane pair the same of its two differences.
TEST(EpcGrey, FromPlanesMatchesTheFormula) {
    const uint32_t n = 1003;
    std::vector<uint16_t> raw(4 * n);
    std::mt19937 rng(9);
    for (auto &s : raw) s = static_cast<uint16_t>(rng() % 0x2000);
    std::vector<uint32_t> g(n);
    grey_4dcs(raw.data(), n, g.data());
    for (uint32_t i = 0; i < n; ++i) {
        const int32_t d0 = raw[i] & 0xFFF, d1 = raw[n + i] & 0xFFF, d2 = raw[2 * n + i] & 0xFFF,
                      d3 = raw[3 * n + i] & 0xFFF;
        const bool ok = d0 >= 2 && d0 < 4094 && d1 >= 2 && d1 < 4094 && d2 >= 2 && d2 < 4094 &&
                        d3 >= 2 && d3 < 4094;
        const uint32_t v =
            static_cast<uint32_t>((d2 - d0) * (d2 - d0) + (d3 - d1) * (d3 - d1)) >> 2;
        ASSERT_EQ(g[i], ok ? fast_sqrt(v) : 0u) << i;
    }
    uint16_t p0 = 1948, p1 = 2108;  // (100^2 + 60^2) >> 2
    grey_2dcs(&p0, &p1, 1, g.data());
    EXPECT_EQ(g[0], 58u);
    p1 = 1;
    grey_2dcs(&p0, &p1, 1, g.data());
    EXPECT_EQ(g[0], 0u);
}

TEST(EpcDecode, ReducedLayoutValidityAndConfidence) {
    const plane_pair pp = reduced_pair(20000000);
    uint16_t a[3] = {2048 - 100, 2048 - 100, 2048}, b[3] = {2048, 0, 4095};
    int32_t d[3];
    uint32_t c[3];
    decode_pair(a, b, a, b, 3, pp, 7494, 0, d, c);
    EXPECT_EQ(d[0], 0);  // a = 100, b = 0: the first base, 0
    EXPECT_EQ(c[0], 2500u);
    EXPECT_EQ(d[1], 65500);
    EXPECT_EQ(c[1], 0u);
    EXPECT_EQ(d[2], 65500);
}

TEST(EpcGrey, OnePlaneLayoutCopiesTheLastRows) {
    const uint32_t w = 2, h = 8;
    std::vector<uint16_t> raw(w * h);
    for (uint32_t r = 0; r < h; ++r)
        for (uint32_t x = 0; x < w; ++x)
            raw[r * w + x] = static_cast<uint16_t>(2048 - 10 * (r + 1));
    std::vector<uint32_t> g(w * h);
    grey_1plane(raw.data(), w, h, g.data());
    for (uint32_t r = 0; r + 2 < h; ++r) {
        const int32_t a = 10 * (r + 1), b = 10 * (r + 3);
        EXPECT_EQ(g[r * w], fast_sqrt(static_cast<uint32_t>(a * a + b * b) >> 2)) << r;
    }
    EXPECT_EQ(g[6 * w], g[4 * w]);
    EXPECT_EQ(g[7 * w + 1], g[5 * w + 1]);
    uint32_t r0, r1;
    ASSERT_TRUE(one_plane_rows(0, h, &r0, &r1));
    EXPECT_EQ(r0, 0u);
    EXPECT_EQ(r1, 2u);
    ASSERT_TRUE(one_plane_rows(2, h, &r0, &r1));
    EXPECT_EQ(r0, 4u);
    EXPECT_EQ(r1, 2u);
    EXPECT_FALSE(one_plane_rows(6, h, &r0, &r1));
}

TEST(EpcHdr, MergeRules) {
    // One column, four rows: rows 0/1 first integration time, rows 2/3 second.
    struct tc {
        uint32_t ca, cb;
        bool pick_b;
    } cases[] = {
        {100, 200, true},         {200, 100, false},        {4000000, 100, true},
        {100, 4000001, false},    {0, 5000000, true},       {4500000, 4000001, false},
        {4000000, 4000000, true}, {4000001, 4000000, true},
    };
    for (const tc &t : cases) {
        int32_t d[4] = {10, 11, 20, 21};
        uint32_t c[4] = {t.ca, t.ca, t.cb, t.cb};
        hdr_merge(d, c, 1, 4);
        SCOPED_TRACE(testing::Message() << t.ca << " " << t.cb);
        const int32_t w = t.pick_b ? 20 : 10;
        EXPECT_EQ(std::vector<int32_t>(d, d + 4), (std::vector<int32_t>{w, w + 1, w, w + 1}));
        EXPECT_EQ(c[0], t.pick_b ? t.cb : t.ca);
        EXPECT_EQ(c[2], c[0]);
    }
}

TEST(EpcRows, SensorOrderToImageOrder) {
    const uint32_t h = 6;
    uint32_t src[h] = {0, 1, 2, 3, 4, 5};
    uint32_t dst[h];
    rows_reorder(src, dst, 1, h);
    EXPECT_EQ(std::vector<uint32_t>(dst, dst + h), (std::vector<uint32_t>{4, 2, 0, 1, 3, 5}));
    int32_t s16[h] = {-5, 1, 70000, 3, 4, 5};
    uint16_t d16[h];
    rows_reorder_u16(s16, d16, 1, h);
    EXPECT_EQ(d16[2], 0);
    EXPECT_EQ(d16[1], 65535);
    EXPECT_EQ(d16[3], 1);
}

TEST(EpcHash, Fletcher32OverTheInfoRecord) {
    tevix_frame_info_t info{};
    EXPECT_EQ(info_hash(info), 0u);
    info.size = 1;
    EXPECT_EQ(info_hash(info), (50u << 16) | 1u);
    info.size = 0xFFFF;
    EXPECT_EQ(info_hash(info), 0u);
    info.size = 0x00020001;  // words 1, 2
    EXPECT_EQ(info_hash(info), ((1u + 49u * 3u) << 16) | 3u);
    tevix_frame_info_t other = info;
    other.reserved[67] = 1;
    EXPECT_NE(info_hash(other), info_hash(info));
}

TEST(EpcGate, RangeLimits) {
    const uint16_t in[] = {0, 100, 101, 7394, 7395, 60000, 60001, 65500};
    const uint16_t want[] = {0, 0, 101, 7394, 0, 0, 60001, 65500};
    uint16_t out[8];
    range_gate(in, out, 8, 7494);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(out[i], want[i]) << in[i];
}

// Pixels outside the confidence window are cleared; with hysteresis a kept pixel is kept down to a
// lower bound and a cleared one needs the window again; a run gives what each pixel alone would.
TEST(EpcMinAmp, WindowHysteresisAndLongRuns) {
    const uint16_t d = 1234;
    uint16_t out;
    uint32_t c = 899;
    minamp(&d, &out, &c, 1, 30, nullptr, 10);
    EXPECT_EQ(out, 0);
    c = 900;
    minamp(&d, &out, &c, 1, 30, nullptr, 10);
    EXPECT_EQ(out, d);
    c = 2018u * 2018u + 1;
    minamp(&d, &out, &c, 1, 30, nullptr, 10);
    EXPECT_EQ(out, 0);

    uint8_t mark = 0;
    const uint32_t seq[] = {850, 1000, 850, 801, 799, 850, 900};
    const uint16_t want[] = {0, d, d, d, 0, 0, d};
    for (int i = 0; i < 7; ++i) {
        c = seq[i];
        minamp(&d, &out, &c, 1, 30, &mark, 10);
        EXPECT_EQ(out, want[i]) << i;
    }

    const uint32_t n = 1001;
    std::vector<uint16_t> src(n), dst(n), one(1);
    std::vector<uint32_t> conf(n);
    std::vector<uint8_t> marks(n, 0), marks1(n, 0);
    std::mt19937 rng(3);
    for (int round = 0; round < 3; ++round) {
        for (uint32_t i = 0; i < n; ++i) {
            src[i] = static_cast<uint16_t>(rng());
            conf[i] = round == 2 ? rng() : 700 + rng() % 400;
        }
        minamp(src.data(), dst.data(), conf.data(), n, 30, marks.data(), 10);
        for (uint32_t i = 0; i < n; ++i) {
            minamp(&src[i], one.data(), &conf[i], 1, 30, &marks1[i], 10);
            ASSERT_EQ(dst[i], one[0]) << round << " " << i;
            ASSERT_EQ(marks[i], marks1[i]);
        }
    }
}

TEST(EpcAutoIntg, Steps) {
    std::vector<uint16_t> s(1000, 2048);
    EXPECT_EQ(auto_intg_step(classify_samples(s.data(), 1000), 10), 50);
    for (int i = 0; i < 25; ++i) s[i] = 4095;  // 25 per mille bad
    sample_stats st = classify_samples(s.data(), 1000);
    EXPECT_EQ(st.bad, 25u);
    EXPECT_EQ(auto_intg_step(st, 10), -20);
    EXPECT_EQ(auto_intg_step(st, 26), 50);
    std::fill(s.begin(), s.end(), 3600);
    s[0] = 0;
    s[1] = 1;  // 2 per mille bad, many high
    st = classify_samples(s.data(), 1000);
    EXPECT_EQ(st.high, 998u);
    EXPECT_EQ(auto_intg_step(st, 2), -10);
    EXPECT_EQ(auto_intg_step(st, 3), 0);
    std::fill(s.begin(), s.end(), 100);
    EXPECT_EQ(auto_intg_step(classify_samples(s.data(), 1000), 10), 0);
    EXPECT_EQ(auto_intg_step(classify_samples(s.data(), 0), 10), 50);
    EXPECT_EQ(auto_intg_step(classify_samples(s.data(), 512), 10), 50);
    EXPECT_EQ(auto_intg_step(classify_samples(s.data(), 513), 10), 0);
}

TEST(EpcConsistency, SixtyPercent) {
    const uint32_t n = 10;
    auto raw = _planes(n, 2000, 2000, 2050, 2100);  // 4050 and 4100
    EXPECT_TRUE(frame_consistent(raw.data(), n, 4 * n));
    for (uint32_t i = 0; i < 4; ++i) raw[i] = 100;  // 6 of 10 left: not above 60 %
    EXPECT_FALSE(frame_consistent(raw.data(), n, 4 * n));
    raw[3] = 2000;
    EXPECT_TRUE(frame_consistent(raw.data(), n, 4 * n));
    EXPECT_FALSE(frame_consistent(raw.data(), 1, 7));
}

}  // namespace
