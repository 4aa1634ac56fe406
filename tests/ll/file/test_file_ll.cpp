#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../oni/oni_test_util.h"
#include "ll/dispatch.h"
#include "tevix/tevix_ll.h"
#include "tevix/tevix_types.h"
#include "tevix/vx_stream.h"

namespace oni = tevix::oni;
using tevix::test::log_capture;
using tevix::test::read_file;
using tevix::test::temp_dir;

namespace {

using namespace std::chrono_literals;

constexpr uint32_t k_w = 16, k_h = 8, k_frames = 6;
constexpr uint64_t k_t0_us = 1700000000123456ull;  // 2023-11-14 22:13:20.123456 UTC

std::vector<uint8_t> _raw_frame(uint32_t k) {
    std::vector<uint8_t> f(k_w * k_h * 2);
    for (size_t i = 0; i < f.size(); ++i) f[i] = static_cast<uint8_t>(i * 7 + k * 31);
    return f;
}

// What the callback saw, in order.
struct sink {
    struct event {
        int32_t status;
        std::vector<uint8_t> data;
        std::chrono::steady_clock::time_point at;
    };
    std::mutex mtx;
    std::condition_variable cv;
    std::vector<event> events;

    static void cb(tevix_ll_dev_t *, int32_t status, uint8_t *data, uint32_t len, void *user) {
        auto *s = static_cast<sink *>(user);
        std::lock_guard lk(s->mtx);
        s->events.push_back({status,
                             data ? std::vector<uint8_t>(data, data + len) : std::vector<uint8_t>(),
                             std::chrono::steady_clock::now()});
        s->cv.notify_all();
    }
    bool wait_for(size_t n, std::chrono::milliseconds limit = 5000ms) {
        std::unique_lock lk(mtx);
        return cv.wait_for(lk, limit, [&] { return events.size() >= n; });
    }
    size_t size() {
        std::lock_guard lk(mtx);
        return events.size();
    }
    event at(size_t i) {
        std::lock_guard lk(mtx);
        return events.at(i);
    }
    // Frame number carried by the stream header of event i.
    uint16_t frame_no(size_t i) {
        vx_stream_hdr_t h;
        const event e = at(i);
        std::memcpy(&h, e.data.data(), sizeof h);
        return h.desc.fridx;
    }
};

class FileReplay : public testing::Test {
  protected:
    void SetUp() override {
        path_ = dir_.file("rec.oni");
        auto w = oni::writer::create(path_.c_str());
        ASSERT_TRUE(w);
        oni::stream_desc d{2, 100, 0, k_w, k_h, 2, 30};
        const int id = w->add_node("VX_REPLAY", d, oni::k_codec_none);
        ASSERT_EQ(id, 1);
        w->write_string(id, "VX_PRODUCT", "a-very-long-product-name");
        w->write_int(id, "VX_FRAME_IMGW", k_w);
        w->write_int(id, "VX_FRAME_IMGH", k_h);
        w->write_int(id, "VX_FRAME_FMT", 7);
        w->write_int(id, "VX_FRAME_FPS", 25);
        w->write_int(id, "VX_FRAME_MOD_FREQ", 24000000);
        w->write_string(id, "VX_FILENAME_CALIB", "/elsewhere/tevix_param_3.bin");
        w->write_general(id, "VX_FILEDATA_CALIB", "calib-", 6);
        w->write_general(id, "VX_FILEDATA_CALIB", "data", 4);
        tevix_frame_info_t info{};
        info.temperature = 351u | uint32_t{static_cast<uint16_t>(-12)} << 16;
        w->write_general(id, "VX_FRAME_INFO", &info, sizeof info);
        for (uint32_t k = 0; k < k_frames; ++k) {
            const auto f = _raw_frame(k);
            ASSERT_TRUE(w->write_data(id, f.data(), static_cast<uint32_t>(f.size()),
                                      k_t0_us + k * 40000ull));
        }
        ASSERT_TRUE(w->finish());
        dev_.if_type = TEVIX_LL_IF_FILE;
        dev_.info.file = path_.c_str();
    }
    void TearDown() override {
        if (dev_.priv) tevix_ll_dev_close(&dev_);
    }
    void open() {
        ASSERT_EQ(tevix_ll_dev_open(&dev_), &dev_);
        const tevix_ll_ops *ops = dev_.ops;  // a packed member: compare a copy
        ASSERT_EQ(ops, &file_ll_ops);
    }
    // One cap_wait, then the header and frame it releases.
    void step(size_t expect_events) {
        tevix_ll_cap_wait(&dev_);
        ASSERT_TRUE(sink_.wait_for(expect_events)) << "only " << sink_.size();
    }

    temp_dir dir_;
    log_capture log_;
    std::string path_;
    tevix_ll_dev_t dev_{};
    sink sink_;
};

TEST_F(FileReplay, OpenReadsTheDescriptionAndExtractsTheCalibration) {
    open();
    EXPECT_TRUE(log_.has("open file dev: prod = a-very-long-product-name, WxHxN = 16x8x4"));
    EXPECT_TRUE(log_.has("PROP-INT  VX_FRAME_IMGW=16"));
    EXPECT_TRUE(log_.has("PROP-STR  VX_PRODUCT=a-very-long-product-name"));
    EXPECT_TRUE(log_.has("PROP-GEN  VX_FILEDATA_CALIB=6 bytes"));
    EXPECT_TRUE(log_.has("Extracted calib file"));
    EXPECT_EQ(read_file(dir_.file("tevix_param_3.bin")), "calib-data");

    tevix_param_wire_t items[4] = {};
    items[0].id = 12;
    items[1].id = 3;
    items[2].id = 4;
    items[3].id = 10;
    ASSERT_EQ(tevix_ll_param_get(&dev_, items, 4), 1);
    uint32_t u = 0;
    std::memcpy(&u, items[0].value, 4);
    EXPECT_EQ(items[0].len, 4);
    EXPECT_EQ(u, 25u);
    EXPECT_EQ(items[1].len, 17);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(items[1].value), 17), "a-very-long-produ");
    uint16_t wh[2];
    uint32_t limits[2];
    std::memcpy(wh, items[2].value, 4);
    std::memcpy(limits, items[2].value + 4, 8);
    EXPECT_EQ(wh[0], k_w);
    EXPECT_EQ(wh[1], k_h);
    EXPECT_EQ(limits[0], 60u);
    EXPECT_EQ(limits[1], 1500u);
    std::memcpy(&u, items[3].value, 4);
    EXPECT_EQ(u, 7u);

    EXPECT_EQ(file_ll_ops.dev_open_by_fd(&dev_, 3), nullptr);
    EXPECT_EQ(file_ll_ops.dev_list(&dev_, 1), 0u);
    EXPECT_EQ(tevix_ll_exe_cmd(&dev_, 1, 0, 0, nullptr, 0, 100), 1);
    EXPECT_EQ(tevix_ll_tx_data(&dev_, nullptr, 0), 0);
    EXPECT_EQ(tevix_ll_reg_read(&dev_, 0, 0, nullptr, 0), 1);
    EXPECT_EQ(tevix_ll_reg_write(&dev_, 0, 0, nullptr, 0), 1);
}

TEST_F(FileReplay, SyncModeDeliversOneFramePerWaitThenEndsOnce) {
    open();
    ASSERT_EQ(tevix_ll_cap_start(&dev_, 0, sink::cb, &sink_), 1);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(sink_.size(), 0u);  // nothing without a wait
    for (uint32_t k = 0; k < k_frames; ++k) {
        step(2 * (k + 1));
        EXPECT_EQ(sink_.size(), 2 * (k + 1));
        const sink::event hdr = sink_.at(2 * k), frame = sink_.at(2 * k + 1);
        ASSERT_EQ(hdr.data.size(), 36u);
        vx_stream_hdr_t h;
        std::memcpy(&h, hdr.data.data(), 36);
        EXPECT_EQ(h.sync, VX_STREAM_SYNC);
        EXPECT_EQ(h.idx, k + 1);
        EXPECT_EQ(h.desc.fridx, k + 1);
        EXPECT_EQ(h.len, k_w * k_h * 2);
        EXPECT_EQ(h.desc.frlen, k_w * k_h * 2);
        EXPECT_EQ(h.desc.frfmt, 7);
        EXPECT_EQ(h.desc.width, k_w);
        EXPECT_EQ(h.desc.height, k_h);
        // These frames carry no header of their own: temperatures from the recorded frame info.
        EXPECT_EQ(h.desc.tcb, 351);
        EXPECT_EQ(h.desc.tib, -12);
        // The recorded time of day in the camera's time word.
        const uint64_t usec = 123456 + k * 40000;
        EXPECT_EQ(h.desc.time & 0x1F, 22u);
        EXPECT_EQ(h.desc.time >> 5 & 0x3F, 13u);
        EXPECT_EQ(h.desc.time >> 11 & 0x3F, 20u);
        EXPECT_EQ(h.desc.time >> 17, usec / 64);
        EXPECT_EQ(h.flags0, VX_STREAM_FLAG0_BOUND);
        EXPECT_EQ(h.hdr_cksum, vx_stream_hash16(hdr.data.data(), 34, 0));
        EXPECT_EQ(frame.status, 0);
        EXPECT_EQ(frame.data, _raw_frame(k));
    }
    step(2 * k_frames + 1);
    EXPECT_EQ(sink_.at(2 * k_frames).status, TEVIX_LL_EVT_EOF);
    EXPECT_TRUE(sink_.at(2 * k_frames).data.empty());
    tevix_ll_cap_wait(&dev_);
    tevix_ll_cap_wait(&dev_);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(sink_.size(), 2 * k_frames + 1);
    EXPECT_TRUE(log_.has("stop capture: file EOF met"));
}

// Looping, a seek delivers the frame it names next and the end wraps to the first frame; a reset
// rewinds.
TEST_F(FileReplay, LoopModeWrapsAndSeekAndResetMove) {
    open();
    ASSERT_EQ(tevix_ll_cap_start(&dev_, 1, sink::cb, &sink_), 1);
    EXPECT_EQ(tevix_ll_cap_seek(&dev_, 3, 0), 3);
    step(2);
    EXPECT_EQ(sink_.frame_no(0), 4);
    EXPECT_EQ(sink_.at(1).data, _raw_frame(3));
    EXPECT_EQ(tevix_ll_cap_seek(&dev_, 0, 1), 4);
    for (uint32_t k = 1; k < 5; ++k) step(2 * (k + 1));
    EXPECT_EQ(sink_.frame_no(2 * 2), k_frames);
    EXPECT_EQ(sink_.frame_no(2 * 3), 1);
    EXPECT_EQ(sink_.frame_no(2 * 4), 2);
    EXPECT_TRUE(log_.has("rewind capture: file EOF met"));
    EXPECT_EQ(tevix_ll_dev_reset(&dev_, 0), 1);
    step(2 * 6);
    EXPECT_EQ(sink_.frame_no(2 * 5), 1);
}

TEST_F(FileReplay, PacedModeDeliversAtTheFrameRateWithoutWaits) {
    open();
    tevix_param_wire_t item{};
    item.id = 12;
    const uint32_t fps = 25;  // 40 ms per frame: the sleep gives the rate exactly
    std::memcpy(item.value, &fps, 4);
    ASSERT_EQ(tevix_ll_param_set(&dev_, &item, 1), 1);
    EXPECT_TRUE(log_.has("REP_SET: file replay set fps to 25"));
    tevix_ll_cap_wait(&dev_);  // returns at once and releases nothing extra

    // Looping, so that 1.6 s of frames come from the six recorded ones; the median interval
    // between frame headers shrugs off a loaded machine's late wake-ups.
    constexpr size_t k_intervals = 40;
    ASSERT_EQ(tevix_ll_cap_start(&dev_, 1, sink::cb, &sink_), 1);
    ASSERT_TRUE(sink_.wait_for(2 * (k_intervals + 1), 10s)) << "only " << sink_.size();
    ASSERT_EQ(tevix_ll_cap_stop(&dev_), 1);
    std::vector<double> ms;
    for (size_t k = 1; k <= k_intervals; ++k) {
        const sink::event prev = sink_.at(2 * (k - 1)), cur = sink_.at(2 * k);
        ASSERT_EQ(cur.data.size(), 36u);
        ASSERT_EQ(cur.status, 0);
        ms.push_back(std::chrono::duration<double, std::milli>(cur.at - prev.at).count());
    }
    std::nth_element(ms.begin(), ms.begin() + k_intervals / 2, ms.end());
    const double median = ms[k_intervals / 2];
    EXPECT_GE(median, 1000.0 / fps * 0.9);
    EXPECT_LE(median, 1000.0 / fps * 1.1);
    RecordProperty("median_interval_ms", std::to_string(median));
    // Every recorded frame in order, wrapping after the last.
    for (size_t k = 0; k <= k_intervals; ++k)
        EXPECT_EQ(sink_.frame_no(2 * k), k % k_frames + 1) << k;

    std::memset(item.value, 0, 4);
    ASSERT_EQ(tevix_ll_param_set(&dev_, &item, 1), 1);
    EXPECT_TRUE(log_.has("REP_SET: file replay set to sync mode"));
}

TEST_F(FileReplay, StopHaltsDeliveryAndCloseReturnsWhileTheThreadWaits) {
    open();
    ASSERT_EQ(tevix_ll_cap_start(&dev_, 0, sink::cb, &sink_), 1);
    step(2);
    ASSERT_EQ(tevix_ll_cap_stop(&dev_), 1);
    tevix_ll_cap_wait(&dev_);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(sink_.size(), 2u);
    ASSERT_EQ(tevix_ll_cap_start(&dev_, 0, sink::cb, &sink_), 1);
    std::this_thread::sleep_for(50ms);  // the thread now waits for a signal
    const auto t0 = std::chrono::steady_clock::now();
    tevix_ll_dev_close(&dev_);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 3s);
    const void *priv = dev_.priv;
    EXPECT_EQ(priv, nullptr);
    tevix_ll_dev_close(&dev_);
    EXPECT_TRUE(log_.has("device no need to closed!"));
    // The record can be opened again.
    open();
}

TEST_F(FileReplay, RecordingWithoutADataNodeIsRefused) {
    const std::string p = dir_.file("empty.oni");
    {
        auto w = oni::writer::create(p.c_str());
        ASSERT_TRUE(w);
        oni::stream_desc d;
        d.type = 1;
        ASSERT_EQ(w->add_node("Device", d, 0), 1);
    }
    tevix_ll_dev_t dev{};
    dev.if_type = TEVIX_LL_IF_FILE;
    dev.info.file = p.c_str();
    EXPECT_EQ(tevix_ll_dev_open(&dev), nullptr);
    EXPECT_TRUE(log_.has("No replay stream found in " + p));
    const void *priv = dev.priv;
    EXPECT_EQ(priv, nullptr);
    dev.if_type = 0;
    EXPECT_EQ(file_ll_ops.dev_open(&dev), nullptr);
}

}  // namespace
