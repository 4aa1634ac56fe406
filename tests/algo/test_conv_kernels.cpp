#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "levels.h"
#include "tevix/vx_cmap.h"

namespace {

using tevix::simd::level;
using tevix::simd::scoped_limit;

constexpr level all_levels[] = {level::scalar, level::sse41, level::avx2};
constexpr float inf = std::numeric_limits<float>::infinity();
const float qnan = std::numeric_limits<float>::quiet_NaN();

// Repeats the edge cases so that they land both in the vector steps and in the scalar tail.
template <class T>
std::vector<T> spread(const std::vector<T> &edges, size_t n = 77) {
    std::vector<T> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = edges[i % edges.size()];
    return v;
}

// Every level must give the expected bits (signed zeros and NaN count).
template <class D, class S, class P>
void expect_edges(int (*conv)(D *, const S *, int32_t, P), P param, const std::vector<S> &in,
                  const std::vector<D> &want) {
    const auto src = spread(in);
    const auto expected = spread(want);
    const auto got = tevix::test::same_at_every_level([&] {
        std::vector<D> dst(src.size());
        EXPECT_EQ(conv(dst.data(), src.data(), static_cast<int32_t>(src.size()), param), 0);
        return dst;
    });
    for (size_t i = 0; i < src.size(); ++i)
        ASSERT_EQ(std::memcmp(&got[i], &expected[i], sizeof(D)), 0)
            << "element " << i << " source " << +src[i] << " gives " << +got[i];
}

TEST(Conv, U16ToU8ShiftsAndSaturates) {
    expect_edges(vx_conv_u16_u8, 0u, {0, 1, 254, 255, 256, 65535}, {0, 1, 254, 255, 255, 255});
    expect_edges(vx_conv_u16_u8, 8u, {0x00FF, 0x0100, 0xFFFF, 0x1234}, {0, 1, 255, 0x12});
    // Only the low five bits of the shift count; 16 and more clears every value.
    expect_edges(vx_conv_u16_u8, 33u, {0x01FE, 0x0002, 0xFFFF}, {0xFF, 1, 255});
    expect_edges(vx_conv_u16_u8, 16u, {0xFFFF, 0x8000}, {0, 0});
}

TEST(Conv, U16ToF32Scales) {
    expect_edges(vx_conv_u16_f32, 0.001f, {0, 1, 1500, 65535},
                 {0.0f, 0.001f, 1500.0f * 0.001f, 65535.0f * 0.001f});
    expect_edges(vx_conv_u16_f32, -2.0f, {0, 3}, {-0.0f, -6.0f});
}

TEST(Conv, U16ToU32TakesFactorTo16Bits) {
    expect_edges(vx_conv_u16_u32, 0xFFFFu, {0, 1, 65535, 0x8000}, {0u, 0u, 65534u, 0x7FFFu});
    expect_edges(vx_conv_u16_u32, 0x18000u, {65535, 2, 3}, {32767u, 1u, 1u});
    expect_edges(vx_conv_u16_u32, 0x10000u, {65535, 1}, {0u, 0u});
}

TEST(Conv, F32ToU8ClampsTruncatesAndZeroesNaN) {
    expect_edges(
        vx_conv_f32_u8, 1.0f,
        {-1.0f, -0.5f, 0.0f, 1.999f, 254.99f, 255.0f, 256.0f, inf, -inf, qnan, 1e30f, -1e30f},
        {0, 0, 0, 1, 254, 255, 255, 255, 0, 0, 255, 0});
    expect_edges(vx_conv_f32_u8, 100.0f, {0.5f, 2.559f, 2.56f, -0.001f}, {50, 255, 255, 0});
}

TEST(Conv, F32ToU16ClampsTruncatesAndZeroesNaN) {
    expect_edges(vx_conv_f32_u16, 1000.0f, {-0.001f, 1.5f, 65.535f, 65.5359f, 70.0f, qnan, inf},
                 {0, 1500, 65535, 65535, 65535, 0, 65535});
    expect_edges(vx_conv_f32_u16, 1.0f, {65534.99f, 32767.5f, 32768.0f, -inf},
                 {65534, 32767, 32768, 0});
}

TEST(Conv, F32ToU32ConvertsAsUnsigned) {
    expect_edges(vx_conv_f32_u32, 1.0f,
                 {-1.0f, 0.99f, 2147483520.0f, 2147483648.0f, 3e9f, 4294967040.0f, 4294967296.0f,
                  1e20f, inf, -inf, qnan, 12345.9f},
                 {0u, 0u, 2147483520u, 2147483648u, 3000000000u, 4294967040u, 4294967295u,
                  4294967295u, 4294967295u, 0u, 0u, 12345u});
    expect_edges(vx_conv_f32_u32, 2.0f, {1.5e9f, 2.5e9f}, {3000000000u, 4294967295u});
}

TEST(Conv, U32ToF32KeepsHighValuesPositive) {
    expect_edges(vx_conv_u32_f32, 1.0f,
                 {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, 3000000000u, 0xFFFFFFFFu,
                  0x00FFFFFFu, 0x01000001u},
                 {0.0f, 1.0f, 2147483648.0f, 2147483648.0f, 2147483648.0f, 3e9f, 4294967296.0f,
                  16777215.0f, 16777216.0f});
    expect_edges(vx_conv_u32_f32, 0.5f, {0xFFFFFFFFu, 3u}, {2147483648.0f, 1.5f});
}

TEST(Conv, RejectsNullAndIgnoresEmptyCounts) {
    uint16_t s16[4] = {1, 2, 3, 4};
    uint8_t d8[4] = {9, 9, 9, 9};
    float f[4] = {1, 2, 3, 4};
    EXPECT_EQ(vx_conv_u16_u8(nullptr, s16, 4, 0), -22);
    EXPECT_EQ(vx_conv_u16_u8(d8, nullptr, 4, 0), -22);
    EXPECT_EQ(vx_conv_u16_f32(nullptr, s16, 4, 1.0f), -22);
    EXPECT_EQ(vx_conv_u16_u32(nullptr, s16, 4, 1), -22);
    EXPECT_EQ(vx_conv_f32_u8(d8, nullptr, 4, 1.0f), -22);
    EXPECT_EQ(vx_conv_f32_u16(s16, nullptr, 4, 1.0f), -22);
    EXPECT_EQ(vx_conv_f32_u32(nullptr, f, 4, 1.0f), -22);
    EXPECT_EQ(vx_conv_u32_f32(f, nullptr, 4, 1.0f), -22);
    EXPECT_EQ(vx_conv_u16_u8(d8, s16, 0, 0), 0);
    EXPECT_EQ(vx_conv_u16_u8(d8, s16, -5, 0), 0);
    for (uint8_t b : d8) EXPECT_EQ(b, 9);
}

// Every level must give the scalar bits on arbitrary data, including NaN, infinities and values
// far outside the destination range, for lengths that leave tails of every size.
class ConvSimd : public ::testing::TestWithParam<int> {
  protected:
    std::mt19937 rng{static_cast<uint32_t>(GetParam()) * 7919u + 1u};

    template <class T>
    std::vector<T> ints(size_t n) {
        std::vector<T> v(n);
        for (auto &x : v) x = static_cast<T>(rng());
        return v;
    }
    // One in eight any bits (NaN, infinities, tiny values), one in eight far below zero.
    std::vector<float> f32s(size_t n) {
        std::vector<float> v(n);
        std::uniform_real_distribution<float> wide(-100000.0f, 5e9f);
        for (auto &x : v) {
            const uint32_t pick = rng() % 8;
            x = pick == 0   ? std::bit_cast<float>(static_cast<uint32_t>(rng()))
                : pick == 1 ? -wide(rng)
                            : wide(rng) / static_cast<float>(1u << (rng() % 24));
        }
        return v;
    }

    template <class D, class S, class P>
    void compare(int (*conv)(D *, const S *, int32_t, P), const std::vector<S> &src, P param) {
        SCOPED_TRACE(testing::Message() << "length " << src.size());
        tevix::test::same_at_every_level([&] {
            std::vector<D> out(src.size());
            conv(out.data(), src.data(), static_cast<int32_t>(src.size()), param);
            return out;
        });
    }
};

TEST_P(ConvSimd, BitIdenticalToScalar) {
    for (size_t n : {1u, 7u, 15u, 17u, 31u, 33u, 63u, 1001u, 4099u}) {
        compare(vx_conv_u16_u8, ints<uint16_t>(n), static_cast<uint32_t>(rng() % 40));
        compare(vx_conv_u16_f32, ints<uint16_t>(n), 0.001f * static_cast<float>(rng() % 5000));
        compare(vx_conv_u16_u32, ints<uint16_t>(n), static_cast<uint32_t>(rng()));
        compare(vx_conv_f32_u8, f32s(n), 0.37f);
        compare(vx_conv_f32_u16, f32s(n), 1000.0f);
        compare(vx_conv_f32_u32, f32s(n), 3.3f);
        compare(vx_conv_u32_f32, ints<uint32_t>(n), 0.001f);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ConvSimd, ::testing::Range(0, 4));

// The frame getters decode 16-bit values into the upper half of a float buffer and widen them in
// place; the narrowing conversions run with dst == src.
TEST(Conv, InPlaceLayouts) {
    for (level l : all_levels) {
        scoped_limit cap(l);
        constexpr size_t n = 301;
        std::vector<float> buf(n);
        auto *half = reinterpret_cast<uint16_t *>(buf.data()) + n;
        for (size_t i = 0; i < n; ++i) half[i] = static_cast<uint16_t>(i * 200);
        ASSERT_EQ(vx_conv_u16_f32(buf.data(), half, n, 0.001f), 0);
        for (size_t i = 0; i < n; ++i) ASSERT_EQ(buf[i], static_cast<float>(i * 200) * 0.001f) << i;

        ASSERT_EQ(vx_conv_f32_u16(reinterpret_cast<uint16_t *>(buf.data()), buf.data(), n, 1000.0f),
                  0);
        const auto *u = reinterpret_cast<const uint16_t *>(buf.data());
        for (size_t i = 0; i < n; ++i) {
            const uint16_t want =
                static_cast<uint16_t>(static_cast<float>(i * 200) * 0.001f * 1000.0f);
            ASSERT_EQ(u[i], want) << i;
        }
    }
}

}  // namespace
