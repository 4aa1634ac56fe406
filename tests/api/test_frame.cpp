#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "api/session.h"
#include "drivers/drv.h"
#include "pinhole_lens.h"
#include "test_util.h"
#include "tevix/tevix.h"
#include "tevix/vx_log.h"

namespace {

constexpr uint32_t k_w = 8, k_h = 4;

// A driver whose decode writes value = 1000 + pixel index (distance) or pixel index (grey), and
// whose lens is a plain pinhole at the image centre.
int32_t _decode(tevix_drv_t *, uint8_t *out, uint32_t cap, uint32_t kind, const uint8_t *, uint32_t,
                const tevix_frame_info_t *info) {
    uint32_t n = info->width * info->height;
    if (cap < 2 * n) return -1;
    auto *px = reinterpret_cast<uint16_t *>(out);
    for (uint32_t i = 0; i < n; ++i)
        px[i] = static_cast<uint16_t>(kind == TEVIX_DECODE_GRAY ? i : 1000 + i);
    return static_cast<int32_t>(2 * n);
}
tevix_drv_ops g_ops = [] {
    tevix_drv_ops ops{};
    ops.frame_decode = _decode;
    ops.lens_param_get = tevix::test::pinhole_lens;
    return ops;
}();
tevix_drv_t g_drv{"test driver", "X1", &g_ops, nullptr, nullptr};

class api_frame : public ::testing::Test {
  protected:
    void SetUp() override {
        tevix_ll_dev_t ll{};
        ASSERT_TRUE(tevix::api::session_attach(&dev_, ll));
        dev_.session->drv = &g_drv;
        info_.width = k_w;
        info_.height = k_h;
        info_.size = k_w * k_h * 8;
        raw_.assign(info_.size, 0);
        vx_cmap_init(tevix::api::default_cmap(), 1024);
    }
    void TearDown() override {
        vx_cmap_uninit(tevix::api::default_cmap());
        tevix::api::session_detach(&dev_);
    }
    std::string log() { return log_.text(); }

    tevix::test::temp_dir dir_;
    tevix::test::log_capture log_;
    tevix_dev_t dev_{};
    tevix_frame_info_t info_{};
    std::vector<uint8_t> raw_;
};

}  // namespace

TEST_F(api_frame, getters_check_sizes_and_convert_units) {
    const uint32_t n = k_w * k_h;
    std::vector<uint16_t> u16(n);
    EXPECT_EQ(tevix_frame_get_dist_u16(&dev_, u16.data(), n, raw_.data(),
                                       static_cast<uint32_t>(raw_.size()), &info_),
              static_cast<int>(n));
    EXPECT_EQ(u16[5], 1005);
    EXPECT_EQ(tevix_frame_get_dist_u16(&dev_, u16.data(), n - 1, raw_.data(),
                                       static_cast<uint32_t>(raw_.size()), &info_),
              0);
    EXPECT_EQ(tevix_frame_get_gray_u16(&dev_, u16.data(), n, raw_.data(), info_.size - 1, &info_),
              0);
    std::string text = log();
    EXPECT_NE(text.find("[tevix_frame_get_dist_u16]wrong dst_len: 31 (wxh=8x4)\n"),
              std::string::npos);
    EXPECT_NE(text.find("raw frame length too small: datalen=255, frlen=256\n"), std::string::npos);

    // The float getters fill exactly dst_len floats from a buffer of that many floats.
    std::vector<float> f(n + 1, -1.0f);
    EXPECT_EQ(tevix_frame_get_dist_f32(&dev_, f.data(), n, raw_.data(),
                                       static_cast<uint32_t>(raw_.size()), &info_),
              static_cast<int>(n));
    for (uint32_t i = 0; i < n; ++i) EXPECT_FLOAT_EQ(f[i], (1000 + i) * 0.001f) << i;
    EXPECT_EQ(f[n], -1.0f);
    EXPECT_EQ(tevix_frame_get_gray(&dev_, f.data(), n, raw_.data(),
                                   static_cast<uint32_t>(raw_.size()), &info_),
              static_cast<int>(n));
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(f[i], static_cast<float>(i));
}

TEST_F(api_frame, point_clouds_use_the_driver_lens_and_check_lengths) {
    const uint32_t n = k_w * k_h;
    std::vector<float> dist(n, 2.0f), pcl(4 * n, 0.0f);
    EXPECT_EQ(tevix_frame_get_pcl(&dev_, pcl.data(), 3 * n - 1, dist.data(), n, k_w, k_h, nullptr),
              0);
    EXPECT_NE(log().find("Pcl output buffer too small: only 95 floats, needs 32 x 3 floats"),
              std::string::npos);
    ASSERT_EQ(tevix_frame_get_pcl(&dev_, pcl.data(), 3 * n, dist.data(), n, k_w, k_h, nullptr),
              static_cast<int>(n));
    // Pixel (0, 0) lies 3.5 and 1.5 pixels off the centre at focal length 10.
    EXPECT_NEAR(pcl[0], -3.5f * 2.0f / 10.0f, 1e-6);
    EXPECT_NEAR(pcl[1], -1.5f * 2.0f / 10.0f, 1e-6);
    EXPECT_LT(pcl[2], 2.0f);

    ASSERT_EQ(tevix_frame_get_pcl_xyzd(&dev_, pcl.data(), 4 * n, dist.data(), n, k_w, k_h, 0, 0, 4,
                                       nullptr),
              static_cast<int>(n));
    EXPECT_EQ(pcl[3], 2.0f);
    ASSERT_EQ(tevix_frame_get_pcl_xyzd(&dev_, pcl.data(), 4 * n, dist.data(), n, k_w, k_h, 1, 0, 4,
                                       nullptr),
              static_cast<int>(n));
    EXPECT_GT(pcl[3], 0.0f);  // a colour word as a number

    std::vector<float> gray(n, 500.0f);
    EXPECT_EQ(tevix_frame_get_pcl_xyzi(&dev_, pcl.data(), 4 * n, dist.data(), n, gray.data(), n,
                                       k_w, k_h, 1025, nullptr),
              0);
    EXPECT_NE(log().find("[tevix_frame_get_pcl_xyzi] wrong ir_balance value: 1025\n"),
              std::string::npos);
    uint32_t palette = tevix_cmap_palette_get();
    ASSERT_EQ(tevix_frame_get_pcl_xyzi(&dev_, pcl.data(), 4 * n, dist.data(), n, gray.data(), n,
                                       k_w, k_h, 0, nullptr),
              static_cast<int>(n));
    EXPECT_EQ(tevix_cmap_palette_get(), palette);  // restored after the call
    uint32_t word = static_cast<uint32_t>(pcl[3]);
    EXPECT_EQ(word & 0xFF, (word >> 8) & 0xFF);  // a grey colour
}

TEST_F(api_frame, colour_formats_place_their_bytes) {
    const uint16_t src[2] = {0, 65000};  // at min: black; above max: the top of the palette
    uint8_t dst[8];
    EXPECT_EQ(tevix_cmap_dist_u16_to_RGB(dst, 8, src, 2, 8, 0, 1000, nullptr), -22);
    EXPECT_EQ(tevix_cmap_dist_u16_to_RGB(nullptr, 8, src, 2, 0, 0, 1000, nullptr), -22);

    tevix_cmap_cfg_t grey{35, 0};
    ASSERT_EQ(tevix_cmap_dist_u16_to_RGB(dst, 8, src, 2, TEVIX_PIX_ARGB, 0, 1000, &grey), 2);
    EXPECT_EQ(dst[0], 255);  // other byte first
    EXPECT_EQ(dst[1], 0);
    EXPECT_EQ(dst[4], 255);
    EXPECT_EQ(dst[5], dst[6]);
    ASSERT_EQ(tevix_cmap_dist_u16_to_RGB(dst, 8, src, 2, TEVIX_PIX_RGB0, 0, 1000, &grey), 2);
    EXPECT_EQ(dst[3], 0);
    EXPECT_EQ(dst[7], 0);
    // Three-byte formats: as many pixels as the destination holds.
    EXPECT_EQ(tevix_cmap_dist_u16_to_RGB(dst, 5, src, 2, TEVIX_PIX_RGB, 0, 1000, &grey), 1);
    float fsrc[2] = {0.0f, 9.0f};
    EXPECT_EQ(tevix_cmap_dist_f32_to_RGB(dst, 8, fsrc, 2, TEVIX_PIX_BGR, 0.0f, 4.0f, nullptr), 2);
}

TEST_F(api_frame, infrared_pictures_follow_mean_and_balance) {
    std::vector<uint16_t> flat(16, 1000);
    std::vector<uint8_t> out(16, 7);
    ASSERT_EQ(tevix_cmap_gray_u16_to_IR(out.data(), 16, flat.data(), 16, 640), 16);
    for (uint8_t v : out) EXPECT_EQ(v, 128);  // divisor 1000
    // A dim image (mean 2, values from 32768 on left out) keeps divisor 1 and saturates.
    std::vector<uint16_t> dim = {1, 2, 40000, 3};
    ASSERT_EQ(tevix_cmap_gray_u16_to_IR(out.data(), 4, dim.data(), 4, 700), 4);
    EXPECT_EQ(out[0], 128);
    EXPECT_EQ(out[1], 255);
    EXPECT_EQ(out[2], 255);
    std::vector<float> fl(4, 1000.0f);
    ASSERT_EQ(tevix_cmap_gray_f32_to_IR(out.data(), 4, fl.data(), 4, 640), 4);
    EXPECT_EQ(out[3], 128);
    EXPECT_EQ(tevix_cmap_gray_u16_to_IR(out.data(), 4, dim.data(), 0, 640), 0);
}

TEST_F(api_frame, lens_calibration_copies_or_converts) {
    const uint32_t n = k_w * k_h;
    tevix_lens_calib_cfg_t off{0, 0, 0};
    ASSERT_EQ(tevix_lens_calib_config_set(&dev_, &off), 1);
    EXPECT_EQ(tevix_lens_calib_config_get(&dev_)->en_2d, 0);
    std::vector<uint16_t> src(n, 1500), dst(n, 0);
    ASSERT_EQ(
        tevix_lens_calib_apply_dist_u16(&dev_, dst.data(), n, src.data(), n, 0, &info_, nullptr),
        1);
    EXPECT_EQ(dst, src);
    // Mode 2 keeps the distance as z: millimetres in, millimetres out.
    ASSERT_EQ(
        tevix_lens_calib_apply_dist_u16(&dev_, dst.data(), n, src.data(), n, 2, &info_, nullptr),
        1);
    EXPECT_EQ(dst[0], 1500);
    // Mode 1 turns distance along the ray into z: smaller off the axis.
    ASSERT_EQ(
        tevix_lens_calib_apply_dist_u16(&dev_, dst.data(), n, src.data(), n, 1, &info_, nullptr),
        1);
    EXPECT_LT(dst[0], 1500);
    EXPECT_EQ(tevix_lens_calib_apply_dist_u16(&dev_, dst.data(), n - 1, src.data(), n, 0, &info_,
                                              nullptr),
              0);
    EXPECT_EQ(tevix_lens_calib_apply(&dev_, dst.data(), n, src.data(), n, 0, 0, nullptr, nullptr),
              0);

    tevix_lens_t lens{};
    info_.size = 0;
    dev_.session->last_info = info_;
    ASSERT_EQ(tevix_lens_param_get(&dev_, &lens), 1);
    EXPECT_FLOAT_EQ(lens.cx, 3.5f);
    EXPECT_EQ(lens.width, k_w);
}
