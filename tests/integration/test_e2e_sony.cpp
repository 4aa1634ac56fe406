// End to end over the real libusb with virtual SONY units: the SONY driver decodes what they
// stream, checked against the scene's truth. Unit 1 (usb://1:2) is ideal; unit 2 (usb://1:3)
// carries its systematic errors, for calibration; unit 3 (usb://2:2) sees the room with a weak
// signal and shot noise.
#include <cmath>
#include <cstring>
#include <iostream>

#include "calib/calib_writer.h"
#include "drivers/drv_calib.h"
#include "scene/sony_scene.h"
#include "scene_accuracy.h"
#include "vcam_env.h"

namespace {

constexpr uint32_t k_w = 640, k_h = 480, k_n = k_w * k_h;

using tevix::test::vcam_env;

std::vector<vcam_env::unit> _units() {
    std::vector<vcam_env::unit> units;
    for (int unit = 0; unit < 3; ++unit) {
        tevix::emu::scene_config sc = tevix::emu::sony_scene_config();
        sc.room_back_mm = 6200;  // deeper than either frequency of a 100 + 80 MHz pair
        tevix::emu::camera_config cfg;
        cfg.product = "VXCAM-S" + std::to_string(unit + 1) + "-R1";
        cfg.bus = static_cast<uint8_t>(1 + unit / 2);
        cfg.port = cfg.addr = static_cast<uint8_t>(2 + unit % 2);
        cfg.uid[2] += static_cast<uint32_t>(unit);
        cfg.fps = 30;
        cfg.width = k_w;
        cfg.height = k_h;
        cfg.mod_freq = 100000000;
        cfg.frame_format = 2;
        cfg.lens.assign(std::begin(tevix::emu::k_sony_lens), std::end(tevix::emu::k_sony_lens));
        sc.unit_errors = unit == 1;
        sc.noise = unit == 2;
        if (unit == 2) sc.amp_max = 70;
        sc.unit_seed = cfg.uid[0] ^ cfg.uid[1] ^ cfg.uid[2];
        units.push_back({cfg, [sc] { return std::make_unique<tevix::emu::sony_renderer>(sc); }});
    }
    return units;
}
::testing::Environment *const g_env =
    ::testing::AddGlobalTestEnvironment(new vcam_env(_units(), "E2E_LOG"));

tevix::emu::sony_renderer &_scene(int unit) {
    return *vcam_env::scene<tevix::emu::sony_renderer>(size_t(unit));
}

uint32_t _fw_u32(int unit, uint8_t id) {
    return vcam_env::cam(size_t(unit))->with_firmware([id](tevix::emu::firmware &fw) {
        const std::vector<uint8_t> v = fw.param(id);
        uint32_t x = 0;
        if (v.size() >= 4) std::memcpy(&x, v.data(), 4);
        return x;
    });
}

using tevix::test::accuracy;

// The errors of unit's distances mm, printed under the name what.
accuracy _accuracy(const char *what, int unit, const std::vector<uint16_t> &mm, double limit_mm,
                   double far_mm = 100) {
    const accuracy a = tevix::test::scene_accuracy(_scene(unit), mm, limit_mm, far_mm);
    std::cout << what << " over USB: " << a.valid << "/" << a.checked << " valid, mean " << a.mean
              << " mm, p95 " << a.p95 << " mm, max " << a.max << " mm\n";
    return a;
}

class sony_e2e : public ::testing::Test {
  protected:
    void SetUp() override {
        for (size_t unit = 0; unit < 3; ++unit) vcam_env::cam(unit)->reset();
    }
    void TearDown() override {
        if (dev_) tevix_dev_close(dev_);
    }
    tevix_dev_t *open(int unit) {
        static const char *const uris[3] = {"usb://1:2", "usb://1:3", "usb://2:2"};
        dev_ = tevix_dev_open_by_uri(uris[unit]);
        return dev_;
    }
    bool set(uint32_t id, uint32_t a, uint32_t b = 0, uint8_t len = 4) {
        return tevix::test::set_u32(dev_, id, a, b, len);
    }
    // 100 + 80 MHz in format 17.
    bool dual() {
        return set(TEVIX_PARAM_FRM_FMT, 17) && set(TEVIX_PARAM_DUAL_FREQ, 100000000, 80000000, 8);
    }
    // Starts a capture and keeps the second frame of format fmt in raw_ and info_ (frames made
    // before the last setting are skipped; a loaded machine may take a few tries).
    void capture(uint16_t fmt) {
        ASSERT_EQ(tevix_cap_start(dev_), 1);
        int good = 0, last = 0;
        for (int i = 0; i < 40 && good < 2; ++i) {
            last = tevix_cap_get_frames(dev_, 1, raw_.data(), uint32_t(raw_.size()), &info_);
            if (last == 1 && info_.format == fmt) ++good;
        }
        tevix_cap_stop(dev_);
        ASSERT_EQ(good, 2) << "last pull " << tevix_error_name(last) << ", format " << info_.format;
    }
    std::vector<uint16_t> distance() {
        return tevix::test::decode(tevix_frame_get_dist_u16, dev_, raw_, info_, k_n);
    }

    const tevix::test::calib_dirs dirs_;  // an empty parameter directory
    tevix_dev_t *dev_ = nullptr;
    std::vector<uint8_t> raw_ = std::vector<uint8_t>(8u << 20);
    tevix_frame_info_t info_{};
};

// Opened with the SONY driver and the unit's lens. 20 MHz holds the whole room in its range: every
// pixel within 2 mm; grey follows the amplitude and a point lies at its measured distance from the
// camera.
TEST_F(sony_e2e, single_frequency_distance_grey_and_points) {
    ASSERT_NE(open(0), nullptr);
    const char *chip = nullptr;
    EXPECT_STREQ(tevix_dev_get_driver(dev_, &chip), "SONY chip driver");
    EXPECT_STREQ(chip, "S1");
    tevix_lens_t lens{};
    ASSERT_EQ(tevix_lens_param_get(dev_, &lens), 1);
    EXPECT_FLOAT_EQ(lens.fx, tevix::emu::k_sony_lens[2]);
    EXPECT_FLOAT_EQ(lens.cy, tevix::emu::k_sony_lens[1]);
    EXPECT_EQ(lens.width, k_w);
    EXPECT_EQ(lens.height, k_h);
    ASSERT_TRUE(set(TEVIX_PARAM_MOD_FREQ, 20000000));
    ASSERT_NO_FATAL_FAILURE(capture(2));
    EXPECT_EQ(info_.width, k_w);
    const accuracy a = _accuracy("20 MHz", 0, distance(), 1e9);
    EXPECT_EQ(a.valid, a.checked);
    EXPECT_LE(a.max, 2.0);

    const auto grey = tevix::test::decode(tevix_frame_get_gray_u16, dev_, raw_, info_, k_n);
    const uint32_t c = (k_h / 2) * k_w + k_w / 2;
    EXPECT_NEAR(grey[c], _scene(0).amplitude()[c], _scene(0).amplitude()[c] * 0.06);

    const auto m = tevix::test::decode(tevix_frame_get_dist_f32, dev_, raw_, info_, k_n);
    std::vector<float> pcl(3 * k_n);
    ASSERT_EQ(tevix_frame_get_pcl(dev_, pcl.data(), 3 * k_n, m.data(), k_n, k_w, k_h, nullptr),
              int(k_n));
    for (uint32_t i : {c, c + 200, 100 * k_w + 50}) {
        const float r = std::sqrt(pcl[3 * i] * pcl[3 * i] + pcl[3 * i + 1] * pcl[3 * i + 1] +
                                  pcl[3 * i + 2] * pcl[3 * i + 2]);
        EXPECT_NEAR(r, m[i], 0.002f) << i;
    }
}

// 100 + 80 MHz in format 17: one distance over 7.5 m, every pixel out to 6 m within 2 mm, where
// 100 MHz alone wraps at 1.5 m.
TEST_F(sony_e2e, dual_frequency_unwraps_the_deep_room) {
    ASSERT_NE(open(0), nullptr);
    ASSERT_TRUE(dual());
    ASSERT_NO_FATAL_FAILURE(capture(17));
    const accuracy a = _accuracy("100 + 80 MHz", 0, distance(), 6000);
    EXPECT_GT(a.checked, k_n / 2);
    EXPECT_EQ(a.valid, a.checked);
    EXPECT_LE(a.max, 2.0);
}

// A weak, noisy signal: pixels whose two phases disagree are marked invalid, and none is unwrapped
// to a wrong wrap (an error of a wrap or more).
TEST_F(sony_e2e, dual_frequency_marks_pixels_whose_phases_disagree) {
    ASSERT_NE(open(2), nullptr);
    ASSERT_TRUE(dual());
    ASSERT_NO_FATAL_FAILURE(capture(17));
    const accuracy a = _accuracy("weak signal, 100 + 80 MHz", 2, distance(), 7000, 250);
    EXPECT_LT(a.valid, a.checked);
    EXPECT_GT(a.valid, a.checked * 80 / 100);
    EXPECT_EQ(a.far_off, 0u);
}

// A second integration time moves the camera to the HDR format and its frames decode; clearing
// it brings the format back.
TEST_F(sony_e2e, second_integration_time_streams_hdr_frames) {
    ASSERT_NE(open(0), nullptr);
    ASSERT_TRUE(set(TEVIX_PARAM_MOD_FREQ, 20000000));
    ASSERT_TRUE(set(TEVIX_PARAM_FRM_FMT, 13));
    ASSERT_TRUE(set(TEVIX_PARAM_INTG1, 1000, 0, 2));
    ASSERT_TRUE(set(TEVIX_PARAM_INTG2, 250, 0, 2));
    EXPECT_EQ(_fw_u32(0, TEVIX_PARAM_FRM_FMT), 15u);
    ASSERT_NO_FATAL_FAILURE(capture(15));
    const accuracy a = _accuracy("HDR", 0, distance(), 1e9);
    EXPECT_GT(a.valid, a.checked * 99 / 100);
    EXPECT_LT(a.p95, 30.0);  // eight-bit samples
    ASSERT_TRUE(set(TEVIX_PARAM_INTG2, 0, 0, 2));
    EXPECT_EQ(_fw_u32(0, TEVIX_PARAM_FRM_FMT), 13u);
}

// A unit with its systematic errors and a calibration container of its station measurements
// (100 and 80 MHz blocks) in the parameter directory: opened as a customer opens it, the blocks
// mount, and the calibrated distance is clearly closer to the truth than the raw one.
TEST_F(sony_e2e, calibration_container_removes_the_units_errors) {
    ASSERT_NE(open(1), nullptr);
    const std::string path = tevix::test::param_path(dev_);
    tevix_dev_close(dev_);
    const tevix::emu::sony_renderer &r = _scene(1);
    tevix::calib::param_container c;
    c.ts = 100;
    for (const auto &b : {r.station_block(100000000, {150, 330, 520, 710, 900, 1090, 1280, 1440}),
                          r.station_block(80000000, {150, 380, 610, 840, 1070, 1300, 1530, 1800})})
        c.blocks.push_back({2, tevix::drv::block_payload(b)});
    ASSERT_TRUE(tevix::calib::param_container_write(path, c));

    ASSERT_NE(open(1), nullptr);
    ASSERT_EQ(tevix_filter_enable(dev_, TEVIX_FILTER_PIX_CALIB, nullptr), 0);
    ASSERT_TRUE(dual());
    ASSERT_NO_FATAL_FAILURE(capture(17));
    const auto raw = tevix::test::decode(tevix_frame_get_dist_raw, dev_, raw_, info_, k_n);
    const accuracy before = _accuracy("unit errors, uncalibrated", 1, raw, 6000);
    const accuracy after = _accuracy("unit errors, calibrated", 1, distance(), 6000);
    EXPECT_GT(before.mean, 5.0);
    EXPECT_LT(after.mean, before.mean / 3);
    EXPECT_LT(after.p95, before.p95 / 2);
}

}  // namespace
