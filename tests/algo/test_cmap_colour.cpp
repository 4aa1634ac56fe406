#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "algo/palettes.h"
#include "levels.h"
#include "tevix/vx_cmap.h"

namespace {

const float qnan = std::numeric_limits<float>::quiet_NaN();

struct CmapCtx : ::testing::Test {
    vx_cmap_t ctx{};
    void SetUp() override { ASSERT_EQ(vx_cmap_init(&ctx, 1024), 0); }
    void TearDown() override { vx_cmap_uninit(&ctx); }
};

// Renders pixels into an interleaved RGB buffer (stride 3) and returns the packed colours.
template <class T>
std::vector<uint32_t> render(vx_cmap_t *ctx, const std::vector<T> &src, T min, T max,
                             int histeq = 0) {
    std::vector<uint8_t> rgb(src.size() * 3, 0xEE);
    int rc;
    if constexpr (std::is_same_v<T, uint16_t>)
        rc = vx_cmap_u16_to_rgb(ctx, src.data(), static_cast<int32_t>(src.size()), &rgb[0], &rgb[1],
                                &rgb[2], 3, min, max, histeq);
    else
        rc = vx_cmap_f32_to_rgb(ctx, src.data(), static_cast<int32_t>(src.size()), &rgb[0], &rgb[1],
                                &rgb[2], 3, min, max, histeq);
    EXPECT_EQ(rc, 0);
    std::vector<uint32_t> out(src.size());
    for (size_t i = 0; i < src.size(); ++i)
        out[i] = rgb[i * 3] | (rgb[i * 3 + 1] << 8) | (rgb[i * 3 + 2] << 16);
    return out;
}

// The colour of palette row k on its own (f = 0).
uint32_t row_colour(uint32_t id, int k) {
    const float *row = tevix::cmap::palette(id) + k * 3;
    uint32_t c = 0;
    for (int ch = 0; ch < 3; ++ch) c |= static_cast<uint32_t>(row[ch] * 255.0f + 0.5f) << (8 * ch);
    return c;
}

TEST_F(CmapCtx, InitDefaultsComputedTableAndRanges) {
    EXPECT_EQ(ctx.range_min, 0.0f);
    EXPECT_EQ(ctx.range_max, 4000.0f);
    EXPECT_EQ(ctx.table_scale, 1024.0f / 4000.0f);
    EXPECT_FLOAT_EQ(ctx.color_scale, 0.06375f);
    EXPECT_EQ(ctx.lookup_scale, ctx.color_scale);
    EXPECT_EQ(ctx.n, 1024);
    EXPECT_EQ(vx_cmap_get_palette(&ctx), 0u);
    ASSERT_NE(ctx.table, nullptr);
    // Mid blue, blue-cyan, cyan-green mix, orange, and the darkened red of the last entry.
    for (auto [i, c] : {std::pair{0, 0x7F0000u},
                        {256, 0xFF7F00u},
                        {512, 0x7FFF7Fu},
                        {768, 0x00AAFFu},
                        {1023, 0x0000BFu}})
        EXPECT_EQ(ctx.table[i], c) << i;
    // Reversed bounds are swapped.
    vx_cmap_set_range(&ctx, 3000.0f, 1000.0f);
    EXPECT_EQ(ctx.range_min, 1000.0f);
    EXPECT_EQ(ctx.range_max, 3000.0f);
    EXPECT_EQ(ctx.color_scale, 255.0f / 2000.0f);
    EXPECT_EQ(ctx.table_scale, 1024.0f / 2000.0f);
    // An empty range keeps the old one and makes one value a whole palette.
    vx_cmap_set_range(&ctx, 1000.0f, 1000.0f);
    EXPECT_EQ(ctx.range_min, 1000.0f);
    EXPECT_EQ(ctx.range_max, 3000.0f);
    EXPECT_EQ(ctx.color_scale, 255.0f);
    EXPECT_EQ(ctx.lookup_scale, 255.0f);
    EXPECT_EQ(ctx.table_scale, 1024.0f);
    // Values far past row 255 then stay on the last row.
    vx_cmap_set_palette(&ctx, 35);
    EXPECT_EQ(vx_cmap_get_color(&ctx, 2999), 0xFFFFFFu);
    vx_cmap_set_palette(&ctx, 0);
    EXPECT_EQ(vx_cmap_get_color(&ctx, 2999), ctx.table[0]);
    vx_cmap_set_range(&ctx, qnan, 5.0f);
    EXPECT_EQ(ctx.range_min, 1000.0f);
}

// Null and empty contexts, palette ids past the last, bad render arguments: refused, and nothing
// is written.
TEST_F(CmapCtx, BadArgumentsAndEmptyContexts) {
    EXPECT_EQ(vx_cmap_init(nullptr, 16), -22);
    vx_cmap_uninit(nullptr);
    vx_cmap_t empty{};
    ASSERT_EQ(vx_cmap_init(&empty, 0), 0);
    EXPECT_EQ(empty.table, nullptr);
    EXPECT_EQ(vx_cmap_get_color(&empty, 100), 0u);  // palette 0 with an empty table
    vx_cmap_uninit(&empty);
    EXPECT_EQ(empty.lock, nullptr);
    EXPECT_EQ(empty.table, nullptr);
    vx_cmap_uninit(&empty);

    EXPECT_TRUE(vx_cmap_set_palette(&ctx, 5));
    EXPECT_FALSE(vx_cmap_set_palette(&ctx, 64));
    EXPECT_FALSE(vx_cmap_set_palette(&ctx, 0xFFFFFFFFu));
    EXPECT_EQ(vx_cmap_get_palette(&ctx), 5u);
    EXPECT_TRUE(vx_cmap_set_palette(&ctx, 63));
    EXPECT_EQ(vx_cmap_get_palette(&ctx), 63u);
    EXPECT_FALSE(vx_cmap_set_palette(nullptr, 1));

    uint16_t s[2] = {1, 2};
    float f[2] = {1, 2};
    uint8_t p[8] = {7, 7, 7, 7, 7, 7, 7, 7};
    EXPECT_EQ(vx_cmap_u16_to_rgb(nullptr, s, 2, p, p, p, 1, 0, 9, 0), -22);
    EXPECT_EQ(vx_cmap_u16_to_rgb(&ctx, nullptr, 2, p, p, p, 1, 0, 9, 0), -22);
    EXPECT_EQ(vx_cmap_u16_to_rgb(&ctx, s, 2, nullptr, p, p, 1, 0, 9, 0), -22);
    EXPECT_EQ(vx_cmap_u16_to_rgb(&ctx, s, 2, p, p, p, 0, 0, 9, 0), -22);
    EXPECT_EQ(vx_cmap_f32_to_rgb(&ctx, f, 2, p, nullptr, p, 1, 0, 9, 0), -22);
    EXPECT_EQ(vx_cmap_f32_to_rgb(&ctx, f, 2, p, p, nullptr, 1, 0, 9, 1), -22);
    EXPECT_EQ(vx_cmap_f32_to_rgb(&ctx, f, 0, p, p, p, 1, 0, 9, 1), 0);
    for (uint8_t b : p) EXPECT_EQ(b, 7);
}

TEST_F(CmapCtx, SingleValuesMarkersTableAndPalettes) {
    for (auto [a, b] : {std::pair{0.0f, 4000.0f}, {70000.0f, 80000.0f}, {-5.0f, -1.0f}}) {
        vx_cmap_set_range(&ctx, a, b);
        for (uint32_t id : {0u, 3u}) {
            vx_cmap_set_palette(&ctx, id);
            EXPECT_EQ(vx_cmap_get_color(&ctx, 65400), 0x8000FFu);
            EXPECT_EQ(vx_cmap_get_color(&ctx, 65300), 0x000000u);
            EXPECT_EQ(vx_cmap_get_color(&ctx, 65500), 0xFF0EA9u);
        }
    }
    EXPECT_EQ(vx_cmap_get_color(nullptr, 65400), 0x8000FFu);
    vx_cmap_set_range(&ctx, 0.0f, 4000.0f);
    vx_cmap_set_palette(&ctx, 0);
    // Outside (min, max] is black.
    for (int v : {0, -3, 4001}) EXPECT_EQ(vx_cmap_get_color(&ctx, v), 0u) << v;
    // Palette 0 reads the table backwards: the top of the range takes entry 0.
    EXPECT_EQ(vx_cmap_get_color(&ctx, 4000), ctx.table[0]);
    EXPECT_EQ(vx_cmap_get_color(&ctx, 2000), ctx.table[512]);
    EXPECT_EQ(vx_cmap_get_color(&ctx, 1), ctx.table[1023]);
    // A range of 255 makes one value one palette row.
    vx_cmap_set_range(&ctx, 0.0f, 255.0f);
    vx_cmap_set_palette(&ctx, 35);
    EXPECT_EQ(vx_cmap_get_color(&ctx, 100), 0x646464u);
    EXPECT_EQ(vx_cmap_get_color(&ctx, 255), 0xFFFFFFu);
    vx_cmap_set_palette(&ctx, 2);
    EXPECT_EQ(vx_cmap_get_color(&ctx, 128), row_colour(2, 128));
    EXPECT_EQ(vx_cmap_get_color(&ctx, 255), 0x0000FFu);
}

// Rows 0, 64, 128, 192 and 255 of palettes 0-2 are fixed; 35 is grey; every row is a colour.
TEST(CmapPalettes, FixedRowsAndRanges) {
    const float fixed[3][5][3] = {
        {{0.5f, 0, 0}, {1.0f, 0.596f, 0}, {0.478f, 1.0f, 0.490f}, {0, 0.488f, 1.0f}, {0, 0, 0.5f}},
        {{1.0f, 0, 0}, {0.518f, 1.0f, 0}, {0, 1.0f, 0.965f}, {0.447f, 0, 1.0f}, {1.0f, 0, 0.094f}},
        {{0, 0, 1.0f},
         {0.502f, 0.502f, 1.0f},
         {1.0f, 0.996f, 0.996f},
         {1.0f, 0.494f, 0.494f},
         {1.0f, 0, 0}}};
    const int rows[5] = {0, 64, 128, 192, 255};
    for (uint32_t id = 0; id < 3; ++id)
        for (int r = 0; r < 5; ++r)
            for (int ch = 0; ch < 3; ++ch)
                EXPECT_EQ(tevix::cmap::palette(id)[rows[r] * 3 + ch], fixed[id][r][ch])
                    << "palette " << id << " row " << rows[r];
    const float *grey = tevix::cmap::palette(35);
    for (int k = 0; k < 256; ++k) {
        EXPECT_FLOAT_EQ(grey[k * 3], k / 255.0f);
        EXPECT_EQ(grey[k * 3], grey[k * 3 + 1]);
        EXPECT_EQ(grey[k * 3], grey[k * 3 + 2]);
    }
    for (uint32_t id = 0; id < tevix::cmap::palette_count; ++id) {
        const float *p = tevix::cmap::palette(id);
        float spread = 0.0f;
        for (int i = 0; i < 256 * 3; ++i) {
            ASSERT_GE(p[i], 0.0f) << id;
            ASSERT_LE(p[i], 1.0f) << id;
            spread = std::max(spread, std::fabs(p[i] - p[i % 3]));
        }
        EXPECT_GT(spread, 0.2f) << "palette " << id << " is nearly constant";
        for (uint32_t other = 0; other < id; ++other)
            EXPECT_NE(std::memcmp(p, tevix::cmap::palette(other), 256 * 3 * sizeof(float)), 0)
                << "palettes " << other << " and " << id << " are the same";
    }
}

TEST_F(CmapCtx, U16RenderEdges) {
    vx_cmap_set_palette(&ctx, 1);
    const std::vector<uint16_t> px = {0, 100, 101, 354, 355, 356, 65535, 228};
    const auto c = render<uint16_t>(&ctx, px, 100, 355);
    // min is black; max takes the last row, never past it, and above max renders as max.
    const uint32_t top = row_colour(1, 255);
    EXPECT_EQ(c, (std::vector<uint32_t>{0u, 0u, row_colour(1, 1), row_colour(1, 254), top, top, top,
                                        row_colour(1, 128)}));
    // The equalisation flag changes nothing for 16-bit images.
    EXPECT_EQ(render<uint16_t>(&ctx, px, 100, 355, 1), c);
    // An empty range: every pixel above min takes the last row.
    EXPECT_EQ(render<uint16_t>(&ctx, {5, 6, 9000}, 5, 5), (std::vector<uint32_t>{0u, top, top}));
}

// Rows 254 and 255 blend at most with row 255, for every palette (ASan checks the reads).
TEST_F(CmapCtx, TopRowsStayInsidePalette) {
    for (uint32_t id = 0; id < tevix::cmap::palette_count; ++id) {
        vx_cmap_set_palette(&ctx, id);
        EXPECT_EQ(render<uint16_t>(&ctx, {508, 509, 510}, 0, 510)[2], row_colour(id, 255)) << id;
        EXPECT_EQ(render<float>(&ctx, {254.5f, 255.0f}, 0.0f, 255.0f)[1], row_colour(id, 255))
            << id;
    }
}

// Large images go through a per-range table; single pixels are coloured directly. Same colours.
TEST_F(CmapCtx, U16LargeAndSmallImagesAgree) {
    std::mt19937 rng(5);
    std::vector<uint16_t> px(20000);
    for (auto &p : px) p = static_cast<uint16_t>(rng() % 7000);
    vx_cmap_set_palette(&ctx, 8);
    const auto big = render<uint16_t>(&ctx, px, 300, 6000);
    for (size_t i = 0; i < px.size(); i += 97)
        ASSERT_EQ(render<uint16_t>(&ctx, {px[i]}, 300, 6000)[0], big[i]) << px[i];
}

TEST_F(CmapCtx, F32RenderEdges) {
    vx_cmap_set_palette(&ctx, 3);
    const auto c = render<float>(&ctx, {0.5f, 0.4f, qnan, 1.5f, 2.0f, 1e9f, 1.0f}, 0.5f, 1.5f);
    // min, below it and NaN are black; max and above take the last row.
    const uint32_t top = row_colour(3, 255);
    EXPECT_EQ(std::vector(c.begin(), c.begin() + 6),
              (std::vector<uint32_t>{0, 0, 0, top, top, top}));
    // Half way blends rows 127 and 128 evenly.
    for (int ch = 0; ch < 3; ++ch) {
        const int got = (c[6] >> (8 * ch)) & 0xFF;
        const int a = (row_colour(3, 127) >> (8 * ch)) & 0xFF;
        const int b = (row_colour(3, 128) >> (8 * ch)) & 0xFF;
        EXPECT_GE(got, std::min(a, b)) << ch;
        EXPECT_LE(got, std::max(a, b)) << ch;
    }
}

// Ten bins of width 1 over [0, 10): four pixels in bins 0-3 and four outliers.
TEST(CmapHisteq, F32LevelsAndInterpolation) {
    const std::vector<float> src = {0.5f, 1.5f, 2.5f, 3.5f, 0.0f, 10.0f, qnan, -4.0f};
    const float norm = 4.0f + 0.001f;
    std::vector<float> dst(src.size(), 99.0f);
    ASSERT_EQ(vx_cmap_histeq_f32(dst.data(), src.data(), 8, 0.0f, 10.0f, 10, 0), 0);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(dst[i], (i + 1) * 10.0f / norm, 1e-4f) << i;
    for (int i = 4; i < 8; ++i) EXPECT_EQ(dst[i], 0.0f) << i;
    ASSERT_EQ(vx_cmap_histeq_f32(dst.data(), src.data(), 8, 0.0f, 10.0f, 10, 1), 0);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(dst[i], (i + 1.5f) * 10.0f / norm, 1e-4f) << i;
    EXPECT_NEAR(dst[3], 40.0f / norm, 1e-4f);  // bin 4 is empty: same level as bin 3
    // The last bin interpolates with itself; a flat range makes every pixel an outlier.
    const std::vector<float> top = {9.9f};
    ASSERT_EQ(vx_cmap_histeq_f32(dst.data(), top.data(), 1, 0.0f, 10.0f, 10, 1), 0);
    EXPECT_NEAR(dst[0], 10.0f / 1.001f, 1e-4f);
    ASSERT_EQ(vx_cmap_histeq_f32(dst.data(), src.data(), 8, 3.0f, 3.0f, 10, 1), 0);
    for (float v : dst) EXPECT_EQ(v, 0.0f);
    EXPECT_EQ(vx_cmap_histeq_f32(dst.data(), src.data(), 8, 0.0f, 1.0f, 0, 1), -22);
    EXPECT_EQ(vx_cmap_histeq_f32(nullptr, src.data(), 8, 0.0f, 1.0f, 4, 1), -22);
}

TEST(CmapHisteq, U16InPlaceTruncates) {
    std::vector<uint16_t> px = {1000, 1000, 3000, 0, 5000, 4999};
    // Bins of 1000 over [0, 5000): bins 1, 1, 3, outlier, outlier, 4.
    ASSERT_EQ(vx_cmap_histeq_u16(px.data(), px.data(), 6, 0, 5000, 5, 0), 0);
    const auto level = [](int k) { return static_cast<uint16_t>(k * 5000.0f / 4.001f); };
    EXPECT_EQ(px, (std::vector<uint16_t>{level(2), level(2), level(3), 0, 0, level(4)}));
    EXPECT_EQ(vx_cmap_histeq_u16(px.data(), nullptr, 6, 0, 5000, 5, 0), -22);
}

// With equalisation the f32 renderer colours the equalised values.
TEST_F(CmapCtx, F32HisteqColoursEqualisedValues) {
    std::mt19937 rng(9);
    std::exponential_distribution<float> skew(3.0f);
    std::vector<float> src(5000);
    for (auto &v : src) v = skew(rng);
    vx_cmap_set_palette(&ctx, 4);
    std::vector<float> eq(src.size());
    ASSERT_EQ(vx_cmap_histeq_f32(eq.data(), src.data(), 5000, 0.0f, 2.0f, 256, 1), 0);
    const auto direct = render<float>(&ctx, eq, 0.0f, 2.0f);
    EXPECT_EQ(render<float>(&ctx, src, 0.0f, 2.0f, 1), direct);
    EXPECT_NE(render<float>(&ctx, src, 0.0f, 2.0f, 0), direct);
}

// The vector renderer gives the scalar colours on noisy images of odd sizes, for ranges from
// tiny to overflowing, with NaN, infinities and values on both sides of the range.
TEST_F(CmapCtx, F32VectorRenderMatchesScalar) {
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> val(-2.0f, 12.0f);
    const std::pair<float, float> ranges[] = {
        {0.0f, 10.0f}, {1.0f, 1.0000001f}, {-3e38f, 3e38f}, {2.5f, 7.25f}, {5.0f, 1.0f}};
    for (size_t n : {255u, 256u, 777u, 4099u}) {
        std::vector<float> px(n);
        for (auto &p : px) {
            const uint32_t pick = static_cast<uint32_t>(rng() % 16);
            p = pick == 0 ? qnan : pick == 1 ? std::numeric_limits<float>::infinity() : val(rng);
        }
        for (uint32_t id : {0u, 8u, 35u, 63u}) {
            vx_cmap_set_palette(&ctx, id);
            for (auto [lo, hi] : ranges) {
                SCOPED_TRACE(testing::Message()
                             << "n " << n << " palette " << id << " range " << lo << ".." << hi);
                tevix::test::same_at_every_level([&] { return render<float>(&ctx, px, lo, hi); });
            }
        }
    }
}

// Interleaved destinations (3 or 4 bytes a pixel, channels in any order) are written four
// pixels a store: the same bytes as pixel by pixel, the fourth byte and the bytes past the image
// untouched.
TEST_F(CmapCtx, InterleavedLayoutsMatchPlainWrites) {
    std::mt19937 rng(4);
    vx_cmap_set_palette(&ctx, 6);
    struct layout {
        int stride, r, g, b;
    };
    const layout layouts[] = {{3, 0, 1, 2}, {3, 2, 1, 0}, {4, 0, 1, 2}, {4, 2, 1, 0},
                              {4, 1, 2, 3}, {4, 3, 2, 1}, {4, 0, 2, 1}, {3, 1, 0, 2}};
    for (size_t n : {5u, 6u, 7u, 258u, 1031u}) {
        std::vector<uint16_t> u16(n);
        std::vector<float> f32(n);
        for (size_t i = 0; i < n; ++i) {
            u16[i] = static_cast<uint16_t>(rng() % 5000);
            f32[i] = static_cast<float>(u16[i]) * 0.001f;
        }
        for (const layout &l : layouts) {
            SCOPED_TRACE(testing::Message()
                         << "n " << n << " stride " << l.stride << " r at " << l.r);
            const auto out = tevix::test::same_at_every_level([&] {
                std::vector<uint8_t> d(n * l.stride + 16, 0x5A);
                EXPECT_EQ(vx_cmap_u16_to_rgb(&ctx, u16.data(), static_cast<int32_t>(n), &d[l.r],
                                             &d[l.g], &d[l.b], l.stride, 100, 4000, 0),
                          0);
                EXPECT_EQ(vx_cmap_f32_to_rgb(&ctx, f32.data(), static_cast<int32_t>(n / 2), &d[l.r],
                                             &d[l.g], &d[l.b], l.stride, 0.1f, 4.0f, 0),
                          0);
                return d;
            });
            const int spare = 6 - l.r - l.g - l.b;  // the byte no channel uses, stride 4
            for (size_t i = 0; l.stride == 4 && i < n; ++i)
                ASSERT_EQ(out[i * 4 + spare], 0x5A) << i;
            const size_t end = (n - 1) * l.stride + std::max({l.r, l.g, l.b}) + 1;
            for (size_t i = end; i < out.size(); ++i)
                ASSERT_EQ(out[i], 0x5A) << "past the image at " << i;
        }
    }
}

// The palette id is the one shared value: writers and renderers on other threads.
TEST_F(CmapCtx, PaletteSwitchesWhileRendering) {
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (uint32_t i = 0; !stop; ++i) vx_cmap_set_palette(&ctx, i % 64);
    });
    std::vector<uint16_t> px(640, 1234);
    for (int i = 0; i < 200; ++i) {
        const auto c = render<uint16_t>(&ctx, px, 0, 4000);
        ASSERT_EQ(c.front(), c.back());
        EXPECT_LT(vx_cmap_get_palette(&ctx), 64u);
        (void)vx_cmap_get_color(&ctx, 1234);
    }
    stop = true;
    writer.join();
}

}  // namespace
