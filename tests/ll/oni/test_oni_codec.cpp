#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "ll/oni/oni.h"

namespace oni = tevix::oni;

namespace {

using bytes = std::vector<uint8_t>;
using pixels = std::vector<uint16_t>;

pixels _decode16z(const bytes &b, size_t n) {
    pixels out(n);
    const int64_t got = oni::z16_decode(b, out);
    out.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return out;
}

pixels _decode16zt(const bytes &b, size_t n) {
    pixels out(n);
    const int64_t got = oni::z16t_decode(b, out);
    out.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return out;
}

struct worked {
    pixels px;
    bytes z16;
    bytes z16t;
};

const worked k_examples[] = {
    {{1000, 1001, 1003, 990, 0, 0, 0, 5000},
     {0xe8, 0x03, 0x54, 0xff, 0xcd, 0xff, 0x00, 0x00, 0xe1, 0xff, 0x13, 0x88},
     {0x06, 0x00, 0x00, 0x00, 0xde, 0x03, 0xe8, 0x03, 0xe9, 0x03,
      0xeb, 0x03, 0x88, 0x13, 0x02, 0x00, 0x55, 0x97, 0xe1, 0x1d}},
    {{100, 106, 106, 43, 20000, 20001, 19995, 19995},
     {0x64, 0x00, 0x06, 0xff, 0xff, 0xff, 0x4e, 0x20, 0x5c, 0x6d},
     {}},
    {{1000, 1001, 1100, 1090, 1153, 1217},
     {0xe8, 0x03, 0x5f, 0x04, 0x4c, 0xff, 0xca, 0xff, 0x81, 0xff, 0x04, 0xc1},
     {}},
    {pixels(41, 7), {0x07, 0x00, 0xef, 0xe5}, {0x01, 0x00, 0x07, 0x00, 0x00, 0x00, 0xef, 0xe5}},
};

TEST(OniCodec, WorkedExamplesEncodeToTheExactBytes) {
    for (const worked &w : k_examples) {
        bytes z;
        ASSERT_TRUE(oni::z16_encode(w.px, z));
        EXPECT_EQ(z, w.z16);
        EXPECT_EQ(_decode16z(w.z16, w.px.size()), w.px);
        if (w.z16t.empty()) continue;
        ASSERT_TRUE(oni::z16t_encode(w.px, z));
        EXPECT_EQ(z, w.z16t);
        EXPECT_EQ(_decode16zt(w.z16t, w.px.size()), w.px);
    }
}

TEST(OniCodec, DecoderAcceptsTheWrongEndOrderAndBoundsOutput) {
    // Padding before the run, as OpenNI2's encoder writes it: the run's pixels still come first.
    const bytes odd = {0x06, 0x00, 0x00, 0x00, 0xde, 0x03, 0xe8, 0x03, 0xe9, 0x03,
                       0xeb, 0x03, 0x88, 0x13, 0x02, 0x00, 0x55, 0x97, 0x1d, 0xe1};
    EXPECT_EQ(_decode16zt(odd, 8), (pixels{1000, 1001, 1003, 990, 0, 0, 0, 5000}));
    // Padding followed by anything but runs is not that order: decoded as it stands.
    EXPECT_EQ(_decode16z({0x07, 0x00, 0x5d, 0x66}, 4), (pixels{7, 8, 8, 8}));
    // A long run never writes past the output.
    EXPECT_EQ(_decode16z({0x07, 0x00, 0xef, 0xef, 0xef}, 5), pixels(5, 7));
    // Tolerated nibbles 13/14 in the high half and escape byte 0x80 (+64).
    EXPECT_EQ(_decode16z({0x0a, 0x00, 0xdd, 0xff, 0x80}, 3), (pixels{10, 3, 67}));
}

TEST(OniCodec, DecoderRejectsCutEscapesAndIndicesOutsideTheTable) {
    pixels out(16);
    EXPECT_EQ(oni::z16_decode(bytes{0x01, 0x00, 0xff}, out), -1);
    EXPECT_EQ(oni::z16_decode(bytes{0x01, 0x00, 0xff, 0x10}, out), -1);
    EXPECT_EQ(oni::z16_decode(bytes{0x01, 0x00, 0x6f}, out), -1);
    EXPECT_EQ(oni::z16t_decode(bytes{0x05, 0x00, 0x01, 0x00}, out), -1);  // short table
    EXPECT_EQ(oni::z16t_decode(bytes{0x01, 0x00, 0x07, 0x00, 0x03, 0x00}, out), -1);
    EXPECT_EQ(oni::z16t_decode(bytes{}, out), -1);
    EXPECT_EQ(oni::z16_decode(bytes{0x01}, out), 0);
    EXPECT_EQ(oni::z16t_decode(bytes{0x00, 0x00}, out), 0);
}

// Values above 32767 need 16zT; 16zT takes at most 32768 distinct values.
TEST(OniCodec, EncoderLimits) {
    bytes z;
    EXPECT_FALSE(oni::z16_encode(pixels{0, 40000}, z));
    ASSERT_TRUE(oni::z16t_encode(pixels{0, 40000, 65535}, z));
    EXPECT_EQ(_decode16zt(z, 3), (pixels{0, 40000, 65535}));
    pixels px(40000);
    for (size_t i = 0; i < px.size(); ++i) px[i] = static_cast<uint16_t>(i);
    EXPECT_FALSE(oni::z16t_encode(px, z));
    px.resize(32768);
    ASSERT_TRUE(oni::z16t_encode(px, z));
    EXPECT_EQ(_decode16zt(z, px.size()), px);
}

class OniRoundTrip : public testing::TestWithParam<int> {};

pixels _image(int kind, size_t w, size_t h) {
    std::mt19937 rng(1234u + static_cast<unsigned>(kind));
    pixels px(w * h);
    for (size_t y = 0; y < h; ++y)
        for (size_t x = 0; x < w; ++x) {
            uint16_t v = 0;
            if (kind == 0) v = static_cast<uint16_t>(rng() & 0x7FFF);
            if (kind == 1) v = static_cast<uint16_t>(1500 + x * 3 + y * 2 + (rng() % 5));
            if (kind == 2) v = 4321;
            if (kind == 3) v = (rng() % 7 == 0) ? 0 : static_cast<uint16_t>(800 + (x / 8) * 40);
            px[y * w + x] = v;
        }
    return px;
}

TEST_P(OniRoundTrip, BothCodecsReturnTheImage) {
    const pixels px = _image(GetParam(), 160, 120);
    bytes z;
    ASSERT_TRUE(oni::z16_encode(px, z));
    EXPECT_LE(z.size(), px.size() * 2 * 3 / 2 + 2);  // 1.5 x the input bytes
    EXPECT_EQ(_decode16z(z, px.size()), px);
    ASSERT_TRUE(oni::z16t_encode(px, z));
    EXPECT_EQ(_decode16zt(z, px.size()), px);
    if (GetParam() == 2) {
        EXPECT_EQ(z.size(), 2u + 2u + 2u + 640u + 1u);  // 639 x 0xEF, 0xEE, the last nibble
    }
}

INSTANTIATE_TEST_SUITE_P(Images, OniRoundTrip, testing::Values(0, 1, 2, 3));

}  // namespace
