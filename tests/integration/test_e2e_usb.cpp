// End to end over the real libusb: a virtual camera streaming the scene renderer's EPC frames,
// the USB backend, the capture engine, the EPC driver and the frame data calls, checked against
// the scene's truth.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>

#include "api/session.h"
#include "platform/platform.h"
#include "vcam_env.h"

namespace {

using tevix::test::cap_errors;
using tevix::test::decode;
using tevix::test::pull;
using tevix::test::set_u32;
using tevix::test::vcam_env;

constexpr uint32_t k_freq = 20000000;
constexpr uint32_t k_w = 320, k_h = 240;

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(
    new vcam_env({vcam_env::scene_unit(vcam_env::at_fps(60))}, "E2E_LOG"));

class e2e : public ::testing::Test {
  protected:
    void SetUp() override {
        vcam_env::cam()->reset();
        cap_errors::reset();
    }
    // Opens the virtual camera through the device list and sets its modulation frequency.
    tevix_dev_t *open_listed() {
        int n = tevix_dev_list(list_, 4);
        EXPECT_EQ(n, 1);
        if (n < 1) return nullptr;
        tevix_dev_t *dev = tevix_dev_open(&list_[0]);
        if (dev) {
            EXPECT_TRUE(set_u32(dev, TEVIX_PARAM_MOD_FREQ, k_freq));
        }
        return dev;
    }
    tevix_dev_t list_[4] = {};
    std::vector<uint8_t> raw_ = std::vector<uint8_t>(8u << 20);
};

}  // namespace

TEST_F(e2e, list_open_identity_and_parameters) {
    tevix_dev_t *dev = open_listed();
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(list_[0].addr.usb.bus, 1);
    EXPECT_EQ(list_[0].addr.usb.port, 2);
    EXPECT_STREQ(dev->product, "VXCAM-E1-R1");
    EXPECT_STREQ(dev->vendor, "Tevix Virtual");
    const auto &cfg = vcam_env::cam()->config();
    uint64_t high = cfg.uid[0] ^ cfg.uid[1] ^ cfg.uid[2];
    uint64_t low = (uint64_t{cfg.sensor[0]} & 0xFF) << 24 | (uint64_t{cfg.sensor[1]} & 0xFF) << 16 |
                   cfg.sensor[2];
    EXPECT_EQ(dev->hw_id, high << 32 | low);
    char uri[64];
    EXPECT_STREQ(tevix_dev_get_uri(dev, uri, sizeof uri), "usb://001:002:002");

    // The camera keeps what was set (the session's mirror of accepted and refused sets is
    // checked against a fake transport).
    ASSERT_TRUE(set_u32(dev, TEVIX_PARAM_DUAL_FREQ, 20000000, 40000000, 8));
    tevix_param_item_t get = tevix::test::u32_item(TEVIX_PARAM_DUAL_FREQ, 0, 0, 0);
    ASSERT_NE(tevix_param_batch_get(dev, &get, 1), 0);
    uint32_t kept = 0;  // the item is packed: read its words by copy
    std::memcpy(&kept, get.value.u8 + 4, 4);
    EXPECT_EQ(kept, 40000000u);
    tevix_dev_close(dev);
}

// At full size, and binned through the region of interest (the camera then sends 160x120 frames
// of the same scene, which the driver decodes at that size): a hundred frames in a row, then
// distance, grey and points of the last one against a scene renderer of that size.
TEST_F(e2e, capture_decodes_the_scene_full_and_binned) {
    for (uint8_t bin : {0, 1}) {
        SCOPED_TRACE(bin ? "binned" : "full size");
        const uint32_t w = k_w >> bin, h = k_h >> bin, n = w * h;
        tevix_dev_t *dev = open_listed();
        ASSERT_NE(dev, nullptr);
        if (bin) {
            tevix_roi_t roi{0, k_h - 1, 0, k_w - 1, bin, {}};
            tevix_param_item_t it{};
            it.id = TEVIX_PARAM_ROI;
            it.len = sizeof roi;
            std::memcpy(it.value.u8, &roi, sizeof roi);
            ASSERT_EQ(tevix_param_batch_set(dev, &it, 1), 1);
        }
        ASSERT_EQ(tevix_cap_start(dev), 1);
        tevix_frame_info_t info{};
        for (int i = 0; i < 100; ++i) {
            const int got = pull(dev, raw_, &info);
            ASSERT_EQ(got, 1) << "frame " << i << ": " << tevix_error_name(got);
        }
        ASSERT_EQ(info.width, w);
        ASSERT_EQ(info.height, h);
        EXPECT_EQ(info.format, 2);

        const auto mm = decode(tevix_frame_get_dist_u16, dev, raw_, info, n);
        const auto m = decode(tevix_frame_get_dist_f32, dev, raw_, info, n);
        const auto gray = decode(tevix_frame_get_gray_u16, dev, raw_, info, n);
        tevix::emu::scene_config sc;
        sc.freq_hz = k_freq;
        sc.width = static_cast<uint16_t>(w);
        sc.height = static_cast<uint16_t>(h);
        const tevix::emu::scene_renderer truth(sc, 2);
        std::vector<float> err;
        for (uint32_t i = 0; i < n; ++i) {
            const float t = truth.truth_mm()[i];
            if (mm[i] == 0 || mm[i] >= 60000 || t <= 0 || truth.under_header(i % w, i / w))
                continue;
            err.push_back(std::fabs(mm[i] - t));
            EXPECT_FLOAT_EQ(m[i], mm[i] * 0.001f);
        }
        ASSERT_GT(err.size(), n / 2);
        std::sort(err.begin(), err.end());
        EXPECT_LE(err[err.size() / 2], 2.0f);
        EXPECT_LE(err[err.size() * 95 / 100], 5.0f);
        EXPECT_GT(*std::max_element(gray.begin(), gray.end()), 0);

        std::vector<float> pcl(3 * n);
        ASSERT_EQ(tevix_frame_get_pcl(dev, pcl.data(), 3 * n, m.data(), n, w, h, nullptr), int(n));
        // A point's distance from the camera is the measured distance.
        const uint32_t c = (h / 2) * w + w / 2;
        ASSERT_TRUE(m[c] > 0 && m[c] < 60) << m[c];
        EXPECT_NEAR(std::hypot(pcl[3 * c], pcl[3 * c + 1], pcl[3 * c + 2]), m[c], 0.01f);
        ASSERT_EQ(tevix_cap_stop(dev), 1);
        tevix_dev_close(dev);
    }
}

TEST_F(e2e, lost_stream_bytes_are_reported_as_discards) {
    tevix_dev_t *dev = open_listed();
    ASSERT_NE(dev, nullptr);
    ASSERT_TRUE(tevix::test::cap_configure(
        dev, [](tevix_cap_cfg_t &c) { c.on_cap_err = cap_errors::note; }));
    ASSERT_EQ(tevix_cap_start(dev), 1);
    ASSERT_EQ(pull(dev, raw_), 1);
    tevix::emu::camera *cam = vcam_env::cam();
    // One lost chunk cuts a frame (two when it spans a frame's end): each report is 3 with the
    // discarded total so far.
    auto lose_and_pull = [&] {
        cam->drop_next(1);
        const size_t before = cap_errors::all().size();
        for (int i = 0; i < 30 && cap_errors::all().size() == before; ++i)
            EXPECT_GE(pull(dev, raw_), 0);
        for (int i = 0; i < 5; ++i) EXPECT_GE(pull(dev, raw_), 0);
        return cap_errors::all().size() - before;
    };
    for (int loss = 1; loss <= 3; ++loss) {
        ASSERT_GE(lose_and_pull(), 1u) << "loss " << loss;
        auto errs = cap_errors::all();
        for (size_t i = 0; i < errs.size(); ++i) {
            EXPECT_EQ(errs[i].first, TEVIX_ERR_CAP_FRAME_DISCARD);
            if (i) {
                EXPECT_GT(errs[i].second, errs[i - 1].second);  // the total, not the difference
            }
        }
        EXPECT_GE(errs.back().second, static_cast<uint32_t>(loss));
        EXPECT_EQ(tevix_cap_is_ongoing(dev), 1);
    }

    tevix_cap_stop(dev);
    tevix_dev_close(dev);
}

// Three threads on one camera: one pulls, one sets parameters while frames flow, and one closes
// while a pull waits for data that the camera holds back.
TEST_F(e2e, pulls_sets_and_a_close_from_three_threads) {
    tevix_dev_t *dev = open_listed();
    ASSERT_NE(dev, nullptr);
    ASSERT_EQ(tevix_cap_start(dev), 1);
    std::atomic<int> pulled{0}, last{1}, sets_ok{0};
    std::atomic<bool> waiting{false}, stop_sets{false};
    std::thread puller([&] {
        std::vector<uint8_t> raw(8u << 20);
        int n = 1;
        while (n > 0) {  // while data flows every pull gets its frame; the close ends the last
            waiting = true;
            n = pull(dev, raw);
            waiting = false;
            if (n > 0) pulled += n;
        }
        last = n;
    });
    std::thread setter([&] {
        for (uint32_t i = 0; !stop_sets; ++i)
            if (set_u32(dev, TEVIX_PARAM_INTG1, 200 + i % 100, 0, 2)) ++sets_ok;
    });
    // A sanitizer build on a loaded machine needs seconds for 30 sets over the emulated bus.
    for (int i = 0; i < 1500 && (pulled < 30 || sets_ok < 30); ++i) tevix::plat::sleep_ms(20);
    stop_sets = true;
    setter.join();
    EXPECT_GE(pulled.load(), 30);
    EXPECT_GE(sets_ok.load(), 30);

    vcam_env::cam()->hold_in(true);
    tevix::plat::sleep_ms(300);  // the puller is now inside a pull that cannot complete
    EXPECT_TRUE(waiting.load());
    uint64_t took = 0;
    std::thread closer([&] {
        const uint64_t t0 = tevix::plat::mono_ms();
        tevix_dev_close(dev);
        took = tevix::plat::mono_ms() - t0;
    });
    closer.join();
    puller.join();
    EXPECT_LT(took, 20000u);
    EXPECT_LE(last.load(), 0);
    EXPECT_EQ(dev->session, nullptr);
    vcam_env::cam()->hold_in(false);
}
