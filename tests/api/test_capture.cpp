#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fake_camera.h"
#include "ll/oni/oni.h"
#include "platform/platform.h"
#include "test_util.h"
#include "tevix/tevix.h"
#include "tevix/vx_stream.h"

namespace {

using tevix::test::g_cam;

constexpr uint32_t k_frame = 64;

// The stream bytes of frames first..first+n-1, each filled with its own index; `cut`: the first
// frame's packet carries half its bytes only.
std::vector<uint8_t> _stream_of(uint16_t first, int n, bool cut = false) {
    vx_ostream_t *os = vx_ostream_create();
    std::vector<uint8_t> out;
    for (int i = 0; i < n; ++i) {
        vx_frame_desc_t desc{};
        desc.frlen = k_frame;
        desc.fridx = static_cast<uint16_t>(first + i);
        desc.frfmt = 2;
        uint8_t hdr[36];
        const uint32_t len = cut && i == 0 ? k_frame / 2 : k_frame;
        std::vector<uint8_t> payload(len, static_cast<uint8_t>(first + i));
        vx_ostream_mkhdr(os, hdr, &desc, nullptr, static_cast<int32_t>(len));
        out.insert(out.end(), hdr, hdr + 36);
        out.insert(out.end(), payload.begin(), payload.end());
    }
    vx_ostream_destroy(os);
    return out;
}

void _event(int32_t status, std::vector<uint8_t> data = {}) {
    g_cam.cb(g_cam.ll, status, data.empty() ? nullptr : data.data(),
             static_cast<uint32_t>(data.size()), g_cam.user);
}

std::vector<std::pair<int, uint32_t>> g_errors;
int g_error_answer = 1;
int _on_error(tevix_dev_t *, int code, uint32_t extra) {
    g_errors.emplace_back(code, extra);
    return g_error_answer;
}

std::vector<std::pair<uint16_t, uint8_t>> g_frames;
uint32_t g_frame_thread = 0;
void _on_frame(tevix_dev_t *, const tevix_frame_t *f) {
    g_frames.emplace_back(f->info.index, f->data[0]);
    g_frame_thread = tevix::plat::thread_id();
}

class api_capture : public ::testing::Test {
  protected:
    void SetUp() override {
        g_cam.reset();
        g_errors.clear();
        g_error_answer = 1;
        g_frames.clear();
        ASSERT_EQ(tevix_dev_open(&dev_), &dev_);
    }
    void TearDown() override { tevix_dev_close(&dev_); }
    // Pulls n frames of dev (the test's record by default) into buf_, room for ten.
    int pull(int n, tevix_frame_info_t *info = nullptr, tevix_dev_t *dev = nullptr) {
        return tevix_cap_get_frames(dev ? dev : &dev_, n, buf_.data(), 10 * k_frame, info);
    }
    // Capture configuration with the ready list of `slots` frames; recording into `file` (by
    // hand when `manual`) unless it is null.
    void config(tevix_cap_frdy_cb frdy, tevix_cap_err_cb err, uint32_t slots = 10,
                const char *file = nullptr, bool manual = false) {
        tevix_cap_cfg_t cfg{};
        cfg.cache_frames_cnt = slots;
        cfg.on_cap_frdy = frdy;
        cfg.on_cap_err = err;
        cfg.save_replay = file != nullptr;
        cfg.save_manual = manual;
        cfg.save_file = file;
        ASSERT_EQ(tevix_cap_config_set(&dev_, &cfg), 1);
    }

    tevix::test::temp_dir dir_;
    tevix::test::log_capture log_;
    tevix::test::backend_slot usb_{tevix::ll::k_backend_usb, &tevix::test::fake_ll::ops()};
    tevix_dev_t dev_{};
    std::vector<uint8_t> buf_ = std::vector<uint8_t>(10 * k_frame, 0xEE);
};

}  // namespace

TEST_F(api_capture, pull_delivers_frames_back_to_back_with_the_first_info) {
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    EXPECT_EQ(tevix_cap_is_ongoing(&dev_), 1);
    _event(0, _stream_of(5, 3));
    tevix_frame_info_t info{};
    ASSERT_EQ(pull(3, &info), 3);
    EXPECT_EQ(info.index, 5);
    EXPECT_EQ(info.size, k_frame);
    EXPECT_EQ(buf_[0], 5);
    EXPECT_EQ(buf_[k_frame], 6);
    EXPECT_EQ(buf_[2 * k_frame + k_frame - 1], 7);
    EXPECT_EQ(buf_[3 * k_frame], 0xEE);

    // Nothing ready: one frame without waiting gives 0 at once.
    EXPECT_EQ(tevix_cap_get_frame(&dev_, buf_.data(), 10 * k_frame, &info), 0);
    // A buffer too small for one frame leaves the frame for a later pull.
    _event(0, _stream_of(8, 1));
    EXPECT_EQ(tevix_cap_get_frames(&dev_, 1, buf_.data(), k_frame - 1, nullptr), 0);
    EXPECT_EQ(tevix_cap_get_frames(&dev_, 1, buf_.data(), k_frame, nullptr), 1);
    EXPECT_EQ(buf_[0], 8);

    ASSERT_EQ(tevix_cap_stop(&dev_), 1);
    EXPECT_EQ(tevix_cap_get_frames(&dev_, 1, buf_.data(), k_frame, nullptr),
              TEVIX_ERR_CAP_WRONG_STATE);
    EXPECT_TRUE(log_.has("Buffer size 63 too small to keep frame (size=64)"));
    // 5 frames at 20 fps wait 5 x 100 + 50 x 5 + 2000 ms at most; here 3 frames: 2450 ms.
    EXPECT_TRUE(log_.has("[tevix_cap_get_frames]frame_num = 3, timeout_msec=2450\n"));
}

TEST_F(api_capture, callbacks_run_on_the_pulling_thread) {
    config(_on_frame, nullptr);
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    std::thread producer([] { _event(0, _stream_of(0, 2)); });
    producer.join();
    ASSERT_EQ(tevix_cap_get_frames(&dev_, 2, nullptr, 0, nullptr), 2);
    ASSERT_EQ(g_frames.size(), 2u);
    EXPECT_EQ(g_frames[0], (std::pair<uint16_t, uint8_t>{0, 0}));
    EXPECT_EQ(g_frames[1], (std::pair<uint16_t, uint8_t>{1, 1}));
    EXPECT_EQ(g_frame_thread, tevix::plat::thread_id());
}

// Timeouts add up over the whole capture (the 33rd stops it), stalls only while no data comes
// between them (the 17th in a row stops it); each start clears both counts.
TEST_F(api_capture, timeouts_and_stalls_beyond_their_limit_stop_the_capture) {
    const struct {
        int32_t event;
        int error;
        const char *log;
    } rows[] = {
        {TEVIX_LL_EVT_TIMEOUT, TEVIX_ERR_CAP_TIMEOUT, "[_on_capture_event]trans timeout -> stop\n"},
        {TEVIX_LL_EVT_STALL, TEVIX_ERR_CAP_STALL, "[_on_capture_event]trans stall -> stop\n"},
    };
    for (const auto &r : rows) {
        for (int run = 0; run < 2; ++run) {
            SCOPED_TRACE(std::string(r.log) + " run " + std::to_string(run));
            g_cam.aborts = 0;
            ASSERT_EQ(tevix_cap_start(&dev_), 1);
            for (int i = 0; i < 16; ++i) _event(r.event);
            _event(0, _stream_of(0, 1));
            for (int i = 0; i < 16; ++i) _event(r.event);
            EXPECT_EQ(g_cam.aborts, 0);
            EXPECT_EQ(tevix_cap_is_ongoing(&dev_), 1);
            _event(r.event);
            EXPECT_EQ(g_cam.aborts, 1);
            EXPECT_EQ(tevix_cap_is_ongoing(&dev_), 0);
            EXPECT_EQ(pull(1), r.error);
            EXPECT_TRUE(log_.has(r.log));
        }
    }
}

TEST_F(api_capture, other_errors_stop_at_once_and_reach_the_error_callback) {
    config(nullptr, _on_error);
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    _event(TEVIX_LL_EVT_ERROR);
    EXPECT_EQ(g_cam.aborts, 1);
    EXPECT_EQ(pull(1), 0);
    ASSERT_EQ(g_errors.size(), 1u);
    EXPECT_EQ(g_errors[0], (std::pair<int, uint32_t>{TEVIX_ERR_CAP_UNKNOWN, 0}));
    EXPECT_TRUE(log_.has("[_cap_handle_rdy_data]error cb invoke: TEVIX_ERR_CAP_UNKNOWN\n"));
}

TEST_F(api_capture, error_callback_returning_false_silences_pulls_until_the_next_start) {
    config(nullptr, _on_error);
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    // A frame cut short by the next frame's bound is discarded: reported as 3 with the total.
    g_error_answer = 0;
    _event(0, _stream_of(0, 2, true));
    EXPECT_EQ(pull(1), 0);
    ASSERT_EQ(g_errors.size(), 1u);
    EXPECT_EQ(g_errors[0], (std::pair<int, uint32_t>{TEVIX_ERR_CAP_FRAME_DISCARD, 1}));
    _event(0, _stream_of(2, 2));
    EXPECT_EQ(pull(1), 0);
    EXPECT_EQ(tevix_cap_get_frame(&dev_, buf_.data(), k_frame, nullptr), 0);

    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    _event(0, _stream_of(4, 1));
    EXPECT_EQ(pull(1), 1);
    EXPECT_EQ(buf_[0], 4);
}

TEST_F(api_capture, close_while_a_pull_waits) {
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    std::atomic<int> result{1234};
    std::thread puller([&] { result = pull(1); });
    tevix::plat::sleep_ms(100);
    tevix_dev_close(&dev_);
    puller.join();
    EXPECT_LE(result.load(), 0);
    EXPECT_EQ(g_cam.stops, 1);
    EXPECT_EQ(dev_.session, nullptr);
    ASSERT_EQ(tevix_dev_open(&dev_), &dev_);  // for TearDown
}

TEST_F(api_capture, configuration_and_odd_calls) {
    config(nullptr, nullptr, 4);
    tevix_cap_cfg_t cfg{};
    ASSERT_EQ(tevix_cap_config_get(&dev_, &cfg), 1);
    EXPECT_EQ(cfg.cache_frames_cnt, 4u);
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    cfg.cache_frames_cnt = 8;
    cfg.on_cap_err = _on_error;
    EXPECT_EQ(tevix_cap_config_set(&dev_, &cfg), 1);
    tevix_cap_cfg_t now{};
    tevix_cap_config_get(&dev_, &now);
    EXPECT_EQ(now.cache_frames_cnt, 4u);  // kept while capturing
    EXPECT_EQ(now.on_cap_err, _on_error);
    EXPECT_TRUE(log_.has("Change cache_frames_cnt 4 to 8 is not allowed during capturing"));
    EXPECT_EQ(tevix_cap_config_set(&dev_, nullptr), 0);
    tevix_cap_stop(&dev_);

    // A one-frame buffer cannot start a capture.
    config(nullptr, nullptr, 1);
    EXPECT_EQ(tevix_cap_start(&dev_), 0);
    config(nullptr, nullptr, 10);

    tevix_frame_info_t info{};
    info.size = 10;
    uint8_t data[10] = {};
    EXPECT_EQ(tevix_cap_save_frame(&dev_, data, 9, &info), -22);
    EXPECT_EQ(tevix_cap_save_frame(&dev_, data, 10, &info), -9);
    EXPECT_EQ(tevix_cap_seek_frame(&dev_, 0, 0), -1);  // not a recording

    // A nonzero capture mode waits a year.
    tevix_param_item_t mode = tevix::test::param_item(TEVIX_PARAM_DEV_CAP_MOD, {1, 0});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &mode, 1), 1);
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    _event(0, _stream_of(0, 1));
    EXPECT_EQ(pull(1), 1);
    EXPECT_TRUE(log_.has("timeout_msec=31536000"));
}

TEST_F(api_capture, snapshot_starts_and_stops_around_one_frame) {
    // The camera answers the start with one frame at once.
    std::thread feeder([] {
        while (g_cam.starts.load() == 0) tevix::plat::sleep_ms(1);
        _event(0, _stream_of(9, 1));
    });
    uint8_t buf[k_frame];
    tevix_frame_info_t info{};
    EXPECT_EQ(tevix_cap_snapshot(&dev_, buf, sizeof buf, &info), 1);
    feeder.join();
    EXPECT_EQ(info.index, 9);
    EXPECT_EQ(g_cam.stops, 1);
}

namespace {

struct seen_props {
    std::vector<std::string> names;
    double rep_ver = 0;
    std::string product;
};
void _collect(tevix::oni::reader *, uint32_t kind, const char *name, const void *v, uint32_t,
              void *user) {
    auto *p = static_cast<seen_props *>(user);
    p->names.push_back(name);
    if (kind == 4 && std::string(name) == "VX_REP_VER") std::memcpy(&p->rep_ver, v, 8);
    if (kind == 5 && std::string(name) == "VX_PRODUCT") p->product = static_cast<const char *>(v);
}

}  // namespace

TEST_F(api_capture, recording_writes_the_device_and_the_raw_frames_and_replays_them) {
    std::string file = dir_.file("rec.oni");
    config(nullptr, nullptr, 10, file.c_str());
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    _event(0, _stream_of(20, 4));
    ASSERT_EQ(pull(4), 4);
    // A parameter change while recording becomes a property of the recording.
    tevix_param_item_t fps = tevix::test::param_item(TEVIX_PARAM_FPS, {25});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &fps, 1), 1);
    ASSERT_EQ(tevix_cap_stop(&dev_), 1);

    seen_props props;
    auto rd = tevix::oni::reader::open(file.c_str(), _collect, &props);
    ASSERT_NE(rd, nullptr);
    uint32_t node = rd->find_node("VX_REPLAY");
    ASSERT_NE(node, 0u);
    EXPECT_NE(rd->find_node("Device"), 0u);
    int frames = 0;
    while (rd->read_frame(node) == 1) {
        ASSERT_EQ(rd->last().payload.size(), k_frame);
        EXPECT_EQ(rd->last().payload[0], 20 + frames);
        ++frames;
    }
    EXPECT_EQ(frames, 4);
    rd.reset();
    EXPECT_EQ(props.rep_ver, 1.0);
    EXPECT_EQ(props.product, "CAM-T0-R1");
    const std::vector<std::string> order = {"VX_REP_VER",     "VX_VENDOR",         "VX_PRODUCT",
                                            "VX_SERIAL",      "VX_DEV_ID",         "VX_DEV_VER",
                                            "VX_DEV_MAX_FPS", "VX_DEV_MAX_INTG_US"};
    auto it = props.names.begin();
    for (const std::string &name : order) {
        it = std::find(it, props.names.end(), name);
        EXPECT_NE(it, props.names.end()) << name << " missing or out of order";
    }
    for (const char *name : {"VX_FRAME_IMGW", "VX_FRAME_FMT", "VX_FRAME_FPS", "VX_FRAME_INFO"})
        EXPECT_NE(std::find(props.names.begin(), props.names.end(), name), props.names.end())
            << name;

    // The recording opens as a camera: same frames, one per wait in sync mode.
    tevix_dev_t *replay = tevix_dev_open_by_uri(("file://" + file).c_str());
    ASSERT_NE(replay, nullptr);
    EXPECT_STREQ(replay->product, "CAM-T0-R1");
    EXPECT_STREQ(replay->serial, dev_.serial);  // the recorded camera's identity
    EXPECT_EQ(replay->hw_id, dev_.hw_id);
    tevix_cap_cfg_t rcfg{};
    rcfg.cache_frames_cnt = 10;
    ASSERT_EQ(tevix_cap_config_set(replay, &rcfg), 1);
    ASSERT_EQ(tevix_cap_start(replay), 1);
    for (int i = 0; i < 4; ++i) {
        tevix_frame_info_t info{};
        ASSERT_EQ(pull(1, &info, replay), 1);
        EXPECT_EQ(info.size, k_frame);
        EXPECT_EQ(buf_[0], 20 + i);
        EXPECT_EQ(buf_[k_frame - 1], 20 + i);
    }
    tevix_cap_stop(replay);
    tevix_dev_close(replay);
}

TEST_F(api_capture, manual_recording_saves_only_what_the_host_hands_in) {
    std::string file = dir_.file("manual.oni");
    config(nullptr, nullptr, 10, file.c_str(), true);
    ASSERT_EQ(tevix_cap_start(&dev_), 1);
    _event(0, _stream_of(0, 3));
    tevix_frame_info_t info{};
    ASSERT_EQ(pull(3, &info), 3);
    EXPECT_EQ(tevix_cap_save_frame(&dev_, buf_.data() + k_frame, k_frame, &info), 0);
    ASSERT_EQ(tevix_cap_stop(&dev_), 1);
    EXPECT_EQ(tevix_cap_save_frame(&dev_, buf_.data(), k_frame, &info), -9);  // closed with stop

    auto rd = tevix::oni::reader::open(file.c_str(), nullptr, nullptr);
    ASSERT_NE(rd, nullptr);
    uint32_t node = rd->find_node("VX_REPLAY");
    ASSERT_NE(node, 0u);
    ASSERT_EQ(rd->read_frame(node), 1);
    EXPECT_EQ(rd->last().payload[0], 1);
    EXPECT_EQ(rd->read_frame(node), 0);
}
