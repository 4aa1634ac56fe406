// Lens undistortion maps against OpenCV's initUndistortRectifyMap on the default EPC and SONY
// lenses, binned sizes, map rebuilding, and resampling of u16 and float images.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <vector>

#include "levels.h"
#include "tevix/vx_filter.h"

namespace {

const double epc_k[5] = {-0.378924, 0.145035, -0.000970854, 6.20728e-05, -0.0133954};
const vx_lens_t epc = {157.262, 122.083, 210.783, 204.817, epc_k, 5, 320, 240};
const double sony_k[5] = {0.079031, 3.44739, -0.000478177, -0.00588696, -33.6074};
const vx_lens_t sony = {335.591, 256.24, 1378.12, 1377.11, sony_k, 5, 640, 480};

struct map_guard {
    vx_calib_len_map_t m{};
    ~map_guard() { vx_calib_len_uninit_map(&m); }
};

struct cv_maps {
    cv::Mat x, y;
};

// OpenCV's maps for the lens scaled to w x h, as the filter scales it.
cv_maps opencv_maps(const vx_lens_t &lens, uint32_t w, uint32_t h) {
    const double sx = double(lens.width / w), sy = double(lens.height / h);
    const cv::Matx33d k(lens.fx / sx, 0, lens.cx / sx, 0, lens.fy / sy, lens.cy / sy, 0, 0, 1);
    const cv::Mat d(1, int(lens.n_dcoef), CV_64F, const_cast<double *>(lens.dcoef));
    cv_maps m;
    cv::initUndistortRectifyMap(k, d, cv::Mat(), k, cv::Size(int(w), int(h)), CV_32FC1, m.x, m.y);
    return m;
}

double max_map_error(const vx_calib_len_map_t &m, const cv_maps &want) {
    const cv::Mat x(int(m.height), int(m.width), CV_32F, m.map_x);
    const cv::Mat y(int(m.height), int(m.width), CV_32F, m.map_y);
    return std::max(cv::norm(x, want.x, cv::NORM_INF), cv::norm(y, want.y, cv::NORM_INF));
}

// One map follows lens and size changes through update; every rebuild agrees with OpenCV.
TEST(FilterUndistort, AgreesWithOpenCvOnDefaultLensesAndBinnedSizes) {
    map_guard g;
    for (const vx_lens_t *lens : {&epc, &sony}) {
        for (uint32_t bin : {1u, 2u}) {
            const uint32_t w = lens->width / bin, h = lens->height / bin;
            ASSERT_TRUE(vx_calib_len_update_map(&g.m, lens, w, h));
            EXPECT_DOUBLE_EQ(g.m.cx, lens->cx / bin);
            EXPECT_DOUBLE_EQ(g.m.fy, lens->fy / bin);
            EXPECT_LT(max_map_error(g.m, opencv_maps(*lens, w, h)), 0.01)
                << lens->width << " / " << bin;
        }
    }
}

TEST(FilterUndistort, RefusesBadArguments) {
    map_guard g;
    EXPECT_FALSE(vx_calib_len_init_map(&g.m, &epc, 100, 100));  // not a whole division
    EXPECT_EQ(g.m.map_x, nullptr);
    EXPECT_FALSE(vx_calib_len_init_map(&g.m, nullptr, 320, 240));
    EXPECT_FALSE(vx_calib_len_init_map(&g.m, &epc, 0, 240));
    EXPECT_FALSE(vx_calib_len_init_map(nullptr, &epc, 320, 240));
    vx_lens_t flat = epc;
    flat.fx = 0;
    EXPECT_FALSE(vx_calib_len_init_map(&g.m, &flat, 320, 240));
    flat = epc;
    flat.dcoef = nullptr;
    EXPECT_FALSE(vx_calib_len_init_map(&g.m, &flat, 320, 240));

    ASSERT_TRUE(vx_calib_len_init_map(&g.m, &epc, 320, 240));
    std::vector<uint16_t> src(640 * 480, 7), dst(640 * 480, 9);
    EXPECT_FALSE(vx_calib_len_undistort_u16(&g.m, dst.data(), src.data(), 640, 480));
    EXPECT_FALSE(vx_calib_len_undistort_u16(&g.m, nullptr, src.data(), 320, 240));
    EXPECT_FALSE(vx_calib_len_undistort_u16(nullptr, dst.data(), src.data(), 320, 240));
    std::vector<float> fs(640 * 480, 1.0f), fd(640 * 480, 2.0f);
    EXPECT_FALSE(vx_calib_len_undistort_f32(&g.m, fd.data(), fs.data(), 320, 239, 1));
    EXPECT_EQ(dst, std::vector<uint16_t>(640 * 480, 9));
    EXPECT_EQ(fd, std::vector<float>(640 * 480, 2.0f));
    vx_calib_len_uninit_map(&g.m);
    vx_calib_len_uninit_map(&g.m);
    vx_calib_len_uninit_map(nullptr);
    EXPECT_FALSE(vx_calib_len_undistort_u16(&g.m, dst.data(), src.data(), 0, 0));
}

TEST(FilterUndistort, UpdateRebuildsOnlyOnChange) {
    map_guard g;
    ASSERT_TRUE(vx_calib_len_update_map(&g.m, &epc, 320, 240));
    const float *first = g.m.map_x;
    const float corner = g.m.map_x[0];
    ASSERT_TRUE(vx_calib_len_update_map(&g.m, &epc, 320, 240));
    EXPECT_EQ(g.m.map_x, first);
    EXPECT_EQ(g.m.map_x[0], corner);

    double k[5] = {epc_k[0], epc_k[1], epc_k[2], epc_k[3], epc_k[4]};
    vx_lens_t other = epc;
    other.dcoef = k;
    ASSERT_TRUE(vx_calib_len_update_map(&g.m, &other, 320, 240));  // same values, other storage
    EXPECT_EQ(g.m.map_x[0], corner);
    k[0] = -0.2;
    ASSERT_TRUE(vx_calib_len_update_map(&g.m, &other, 320, 240));
    EXPECT_NE(g.m.map_x[0], corner);

    EXPECT_FALSE(vx_calib_len_update_map(&g.m, &epc, 100, 100));
}

TEST(FilterUndistort, DistanceTakesNearestPixelOnly) {
    // The EPC lens is barrel-shaped; the same lens with pincushion distortion sees its corners
    // outside the sensor, which leaves them empty.
    const double pin_k[5] = {0.5, 0.1, 0, 0, 0};
    const vx_lens_t pincushion = {157.262, 122.083, 210.783, 204.817, pin_k, 5, 320, 240};
    for (const vx_lens_t *lens : {&epc, &pincushion}) {
        map_guard g;
        const uint32_t w = 320, h = 240;
        ASSERT_TRUE(vx_calib_len_init_map(&g.m, lens, w, h));
        std::vector<uint16_t> src(w * h);
        for (size_t i = 0; i < src.size(); ++i) src[i] = uint16_t(1 + i % 65000);
        std::vector<uint16_t> dst(src.size());
        ASSERT_TRUE(vx_calib_len_undistort_u16(&g.m, dst.data(), src.data(), w, h));
        const cv_maps ref = opencv_maps(*lens, w, h);
        size_t outside = 0;
        for (uint32_t v = 0; v < h; ++v)
            for (uint32_t u = 0; u < w; ++u) {
                const double x = ref.x.at<float>(int(v), int(u)),
                             y = ref.y.at<float>(int(v), int(u));
                // Skip rounding ties, where the two maps may pick different neighbours.
                if (std::abs(x - std::floor(x) - 0.5) < 1e-3 ||
                    std::abs(y - std::floor(y) - 0.5) < 1e-3)
                    continue;
                const long nx = std::lround(x), ny = std::lround(y);
                const uint16_t got = dst[size_t(v) * w + u];
                if (nx < 0 || ny < 0 || nx >= long(w) || ny >= long(h)) {
                    ASSERT_EQ(got, 0) << u << "," << v;
                    ++outside;
                } else {
                    ASSERT_EQ(got, src[size_t(ny) * w + nx]) << u << "," << v;
                }
            }
        EXPECT_EQ(outside > 0, lens == &pincushion);

        auto in_place = src;
        ASSERT_TRUE(vx_calib_len_undistort_u16(&g.m, in_place.data(), in_place.data(), w, h));
        EXPECT_EQ(in_place, dst);
    }
}

TEST(FilterUndistort, GreyIsBilinearAwayFromInvalidSamples) {
    map_guard g;
    const uint32_t w = 640, h = 480;
    ASSERT_TRUE(vx_calib_len_init_map(&g.m, &sony, w, h));
    cv::Mat src(int(h), int(w), CV_32F);
    for (int y = 0; y < int(h); ++y)
        for (int x = 0; x < int(w); ++x) src.at<float>(y, x) = 100.0f + 0.3f * x + 0.2f * y;
    std::vector<float> dst(w * h);
    ASSERT_TRUE(vx_calib_len_undistort_f32(&g.m, dst.data(), src.ptr<float>(), w, h, 1));
    const cv_maps ref = opencv_maps(sony, w, h);
    cv::Mat want;
    cv::remap(src, want, ref.x, ref.y, cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
    // Away from the border OpenCV's 1/32 pixel interpolation grid is the only difference.
    for (uint32_t v = 1; v + 1 < h; ++v)
        for (uint32_t u = 1; u + 1 < w; ++u) {
            const float x = ref.x.at<float>(int(v), int(u)), y = ref.y.at<float>(int(v), int(u));
            if (x < 1 || y < 1 || x > w - 2 || y > h - 2) continue;
            ASSERT_NEAR(dst[v * w + u], want.at<float>(int(v), int(u)), 0.02) << u << "," << v;
        }

    // An invalid sample is never blended in: the nearest sample is taken instead.
    std::vector<float> holes(src.ptr<float>(), src.ptr<float>() + w * h);
    const uint32_t u = 200, v = 150;
    const float x = g.m.map_x[v * w + u], y = g.m.map_y[v * w + u];
    const uint32_t x0 = uint32_t(x), y0 = uint32_t(y);
    holes[y0 * w + x0] = 0.0f;
    holes[(y0 + 1) * w + x0 + 1] = NAN;
    ASSERT_TRUE(vx_calib_len_undistort_f32(&g.m, dst.data(), holes.data(), w, h, 1));
    const size_t nearest = size_t(std::lround(y)) * w + size_t(std::lround(x));
    EXPECT_EQ(std::memcmp(&dst[v * w + u], &holes[nearest], sizeof(float)), 0);

    // Nearest mode copies values only, in place too.
    std::vector<float> copy = holes;
    ASSERT_TRUE(vx_calib_len_undistort_f32(&g.m, copy.data(), copy.data(), w, h, 0));
    for (size_t i = 0; i < copy.size(); ++i) {
        const int32_t n = g.m.nearest[i];
        const float want_v = n < 0 ? 0.0f : holes[size_t(n)];
        ASSERT_EQ(std::memcmp(&copy[i], &want_v, sizeof(float)), 0) << i;
    }
}

// The vector path gives the scalar path's bits, including at the decisions' edges: positions just
// inside and outside the last interpolable column and row, negative, huge and NaN positions, and
// sources with zeros, NaN and infinities.
TEST(FilterUndistort, BilinearTiersAgreeBitForBit) {
    for (uint32_t div : {1u, 4u}) {
        map_guard g;
        const uint32_t w = 320 / div, h = 240 / div;
        ASSERT_TRUE(vx_calib_len_init_map(&g.m, &epc, w, h));
        std::mt19937 rng(div);
        std::uniform_real_distribution<float> any(-5.0f, float(w) + 5.0f);
        const float odd[] = {NAN,
                             -0.0f,
                             -0.3f,
                             float(w - 1),
                             std::nextafter(float(w - 1), 0.0f),
                             float(h - 1),
                             std::nextafter(float(h - 1), 0.0f),
                             1e10f,
                             -1e10f,
                             INFINITY,
                             0.0f,
                             0.5f};
        const size_t n = size_t(w) * h;
        for (size_t i = 0; i < n; i += 7) {
            g.m.map_x[i] = i % 3 ? any(rng) : odd[i % std::size(odd)];
            g.m.map_y[i] = i % 5 ? g.m.map_y[i] : odd[(i / 7) % std::size(odd)];
        }
        std::vector<float> src(n);
        std::uniform_real_distribution<float> value(100.0f, 4000.0f);
        for (size_t i = 0; i < n; ++i) {
            const uint32_t r = rng() % 40;
            src[i] = r == 0 ? 0.0f : r == 1 ? NAN : r == 2 ? -INFINITY : value(rng);
        }
        SCOPED_TRACE(testing::Message() << w << "x" << h);
        tevix::test::same_at_every_level([&] {
            std::vector<float> out(n);
            EXPECT_TRUE(vx_calib_len_undistort_f32(&g.m, out.data(), src.data(), w, h, 1));
            return out;
        });
    }
}

}  // namespace
