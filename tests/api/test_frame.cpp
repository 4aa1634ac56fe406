#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_camera.h"
#include "tevix/tevix.h"

// The fake driver decodes pixel i to 1000 + i (distance) or i (grey) and has a pinhole lens.
using api_frame = tevix::test::frame_test;

TEST_F(api_frame, getters_check_sizes_and_convert_units) {
    const uint32_t n = k_n;
    std::vector<uint16_t> u16(n);
    EXPECT_EQ(tevix_frame_get_dist_u16(&dev_, u16.data(), n, raw_.data(), info_.size, &info_),
              static_cast<int>(n));
    EXPECT_EQ(u16[5], 1005);

    // The float getters fill exactly dst_len floats from a buffer of that many floats.
    std::vector<float> f(n + 1, -1.0f);
    EXPECT_EQ(tevix_frame_get_dist_f32(&dev_, f.data(), n, raw_.data(), info_.size, &info_),
              static_cast<int>(n));
    for (uint32_t i = 0; i < n; ++i) EXPECT_FLOAT_EQ(f[i], (1000 + i) * 0.001f) << i;
    EXPECT_EQ(f[n], -1.0f);
    EXPECT_EQ(tevix_frame_get_gray(&dev_, f.data(), n, raw_.data(), info_.size, &info_),
              static_cast<int>(n));
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(f[i], static_cast<float>(i));
}

TEST_F(api_frame, point_clouds_use_the_driver_lens_and_check_lengths) {
    const uint32_t n = k_n;
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
}

TEST_F(api_frame, lens_calibration_copies_or_converts) {
    const uint32_t n = k_n;
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

    tevix_lens_t lens{};
    info_.size = 0;
    dev_.session->last_info = info_;
    ASSERT_EQ(tevix_lens_param_get(&dev_, &lens), 1);
    EXPECT_FLOAT_EQ(lens.cx, 3.5f);
    EXPECT_EQ(lens.width, k_w);
}
