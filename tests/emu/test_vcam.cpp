// The virtual camera: firmware answers, the test pattern, and the stream faults as the USB backend
// and the stream assembler see them.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ll/dispatch.h"
#include "ll/usb/usb_ll.h"
#include "tevix/tevix_ll.h"
#include "tevix/vx_stream.h"
#include "vcam_env.h"

namespace {

using tevix::emu::camera_config;
using tevix::emu::firmware;
using tevix::emu::test_pattern;

std::vector<uint8_t> status(firmware &fw) {
    std::vector<uint8_t> st(60, 0xEE);
    EXPECT_EQ(fw.control(0xA2, 0xB0, 0, st), 60);
    return st;
}

int out(firmware &fw, uint8_t req, uint16_t value, std::vector<uint8_t> data) {
    return fw.control(0x22, req, value, data);
}

TEST(emu_firmware, status_record_follows_the_last_command) {
    firmware fw{camera_config{}};
    std::vector<uint8_t> reg = {2, 0x10, 0, 0, 0, 4, 0, 0x78, 0x56, 0x34, 0x12};
    EXPECT_EQ(out(fw, 0xC2, 0, reg), 11);
    auto st = status(fw);
    EXPECT_EQ(st[0], 0);
    EXPECT_EQ(st[1], 0xC2);
    EXPECT_EQ(st[2], 0);
    EXPECT_EQ(fw.reg(2, 0x10), 0x12345678u);

    fw.busy_reads(2);
    EXPECT_EQ(status(fw)[0], 0xFE);
    EXPECT_EQ(status(fw)[0], 0xFE);
    EXPECT_EQ(status(fw)[0], 0x00);

    fw.fail_next("flash write failed");
    EXPECT_EQ(out(fw, 0xC0, 3, std::vector<uint8_t>(20, 0)), 20);
    st = status(fw);
    EXPECT_EQ(st[0], 0xFF);
    EXPECT_EQ(st[1], 0xC0);
    EXPECT_EQ(st[2], 3);
    EXPECT_STREQ(reinterpret_cast<char *>(&st[3]), "flash write failed");
    EXPECT_EQ(st[59], 0);

    fw.wrong_status_next();
    EXPECT_EQ(status(fw)[1], 0xC1);
    EXPECT_EQ(status(fw)[1], 0xC0);  // only once
    EXPECT_EQ(fw.status_reads(), 7u);
    EXPECT_EQ(fw.log().size(), 2u);  // status reads are not logged
}

TEST(emu_firmware, malformed_commands_end_in_error_state) {
    firmware fw{camera_config{}};
    // Register byte count that disagrees with the data, and more than 15 registers.
    out(fw, 0xC2, 0, {0, 0, 0, 0, 0, 8, 0, 1, 2, 3, 4});
    auto st = status(fw);
    EXPECT_EQ(st[0], 0xFF);
    EXPECT_STREQ(reinterpret_cast<char *>(&st[3]), "bad register count");
    std::vector<uint8_t> big(7 + 64, 0);
    big[5] = 64;
    out(fw, 0xC2, 0, big);
    EXPECT_EQ(status(fw)[0], 0xFF);
    // Parameter batches of 0 or 4 items, or not a multiple of 20 bytes.
    out(fw, 0xC0, 3, std::vector<uint8_t>(80, 0));
    EXPECT_EQ(status(fw)[0], 0xFF);
    out(fw, 0xC0, 3, std::vector<uint8_t>(21, 0));
    EXPECT_EQ(status(fw)[0], 0xFF);
    out(fw, 0xC7, 1, {1});
    st = status(fw);
    EXPECT_EQ(st[0], 0xFF);
    EXPECT_EQ(st[1], 0xC7);
    EXPECT_STREQ(reinterpret_cast<char *>(&st[3]), "unsupported command");
    // Not a class request to an endpoint: stalled.
    std::vector<uint8_t> d(4);
    EXPECT_EQ(fw.control(0x40, 0xC2, 0, d), -EPIPE);
    // A short status buffer stalls too.
    std::vector<uint8_t> shortst(10);
    EXPECT_EQ(fw.control(0xA2, 0xB0, 0, shortst), -EPIPE);
}

TEST(emu_firmware, identity_parameters) {
    camera_config cfg;
    firmware fw{cfg};
    std::vector<uint8_t> items(60, 0);
    items[0] = 3;
    items[20] = 5;
    items[40] = 4;
    EXPECT_EQ(fw.control(0x22, 0xC0, 4, items), 60);
    std::vector<uint8_t> ans(60, 0xAA);
    EXPECT_EQ(fw.control(0xA2, 0xC0, 4, ans), 60);
    EXPECT_EQ(ans[0], 3);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&ans[2]), ans[1]), "VXCAM-E1-R1");
    EXPECT_EQ(ans[19], 0);
    EXPECT_EQ(ans[20], 5);
    EXPECT_EQ(ans[21], 12);
    uint32_t uid[3];
    std::memcpy(uid, &ans[22], 12);
    EXPECT_EQ(uid[0], cfg.uid[0]);
    EXPECT_EQ(uid[2], cfg.uid[2]);
    EXPECT_EQ(ans[40], 4);
    uint16_t geo[4];
    std::memcpy(geo, &ans[42], 8);
    EXPECT_EQ(geo[0], 320);
    EXPECT_EQ(geo[1], 240);
    // Unknown ids answer with length 0; stored ids answer what was set.
    EXPECT_EQ(out(fw, 0xC0, 3, {77, 2, 9, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 20);
    std::vector<uint8_t> q(40, 0);
    q[0] = 77;
    q[20] = 78;
    fw.control(0x22, 0xC0, 4, q);
    std::vector<uint8_t> a(40, 0xAA);
    fw.control(0xA2, 0xC0, 4, a);
    EXPECT_EQ(a[1], 2);
    EXPECT_EQ(a[2], 9);
    EXPECT_EQ(a[3], 8);
    EXPECT_EQ(a[20], 78);
    EXPECT_EQ(a[21], 0);
    EXPECT_EQ(fw.fps(), 30u);
}

TEST(emu_firmware, capture_and_reset_hooks) {
    firmware fw{camera_config{}};
    std::vector<uint32_t> starts, resets;
    int stops = 0;
    fw.on_start = [&](uint32_t m) { starts.push_back(m); };
    fw.on_stop = [&] { ++stops; };
    fw.on_reset = [&](uint32_t t) { resets.push_back(t); };
    out(fw, 0xC2, 4, {9, 0, 0, 0});
    EXPECT_EQ(fw.capture_mode(), 9u);
    out(fw, 0xC2, 5, {0xC2});
    out(fw, 0xC0, 0, {3, 0, 0, 0});
    EXPECT_EQ(starts, (std::vector<uint32_t>{9}));
    EXPECT_EQ(stops, 1);
    EXPECT_EQ(resets, (std::vector<uint32_t>{3}));
    // A start that ends in error does not start the stream.
    fw.fail_next("no sensor");
    out(fw, 0xC2, 4, {0, 0, 0, 0});
    EXPECT_EQ(starts.size(), 1u);
}

TEST(emu_pattern, planes_of_12_bit_samples_that_move) {
    test_pattern src;
    vx_frame_desc_t d = src.describe();
    EXPECT_EQ(d.frlen, 614400u);
    EXPECT_EQ(d.frfmt, 2);
    EXPECT_EQ(d.width, 320);
    EXPECT_EQ(d.height, 240);
    std::vector<uint8_t> f0(614400), f1(614400);
    src.render(0, f0, d);
    src.render(1, f1, d);
    auto sample = [](const std::vector<uint8_t> &f, size_t p, size_t x, size_t y) {
        const size_t i = 2 * (p * 320 * 240 + y * 320 + x);
        return f[i] | f[i + 1] << 8;
    };
    EXPECT_EQ(sample(f0, 0, 0, 0), 0);
    EXPECT_EQ(sample(f0, 1, 10, 2), 10 + 6 + 1024);
    EXPECT_EQ(sample(f0, 3, 319, 239), (319 + 717 + 3072) & 0xFFF);
    EXPECT_EQ(sample(f1, 0, 0, 0), 5);
    for (size_t i = 1; i < f0.size(); i += 2) ASSERT_LT(f0[i], 16);  // 12-bit samples
}

// The stream faults seen through the backend and the assembler.
class emu_stream : public ::testing::Test {
  protected:
    void SetUp() override {
        cam_ = tevix::test::vcam_env::cam(0);
        cam_->reset();
        uint32_t fps = 300;
        uint8_t v[4];
        std::memcpy(v, &fps, 4);
        cam_->with_firmware([&](firmware &fw) { fw.set_param(tevix::emu::k_par_fps, v); });
        dev_.is_listed = 1;
        dev_.info.usb.bus = 1;
        dev_.info.usb.port = 2;
        dev_.info.usb.addr = 255;
        ASSERT_EQ(usb_ll_ops.dev_open(&dev_), &dev_);
        const uint32_t cap = 100;
        st_ = vx_stream_create(&cap);
    }
    void TearDown() override {
        usb_ll_ops.dev_close(&dev_);
        vx_stream_destroy(st_);
    }
    static void feed(tevix_ll_dev_t *, int32_t status, uint8_t *data, uint32_t len, void *user) {
        auto *self = static_cast<emu_stream *>(user);
        if (status == 0 && len) vx_stream_feed_input(self->st_, data, len);
    }
    // Captures until the assembler completed n frames.
    vx_stream_state_t run(uint32_t n) {
        vx_stream_state_t s{};
        EXPECT_TRUE(usb_ll_ops.cap_start(&dev_, 0, feed, this));
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < end) {
            vx_stream_get_state(st_, &s);
            if (s.completed >= n) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_TRUE(usb_ll_ops.cap_stop(&dev_));
        while (tevix::usb::in_flight(&dev_))
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        vx_stream_get_state(st_, &s);
        return s;
    }
    // Index of the first ready frame.
    uint16_t first_index() {
        vx_frame_desc_t d{};
        uint8_t head[4];
        EXPECT_GE(vx_stream_fetch_frames(st_, head, sizeof(head), 1, &d, true), 1u);
        return d.fridx;
    }

    tevix::emu::camera *cam_ = nullptr;
    tevix_ll_dev_t dev_{};
    vx_stream_t *st_ = nullptr;
};

TEST_F(emu_stream, clean_stream_loses_nothing) {
    const auto s = run(5);
    EXPECT_GE(s.completed, 5u);
    EXPECT_EQ(s.discarded, 0u);
    EXPECT_EQ(s.discarded_bytes, 0u);
    EXPECT_EQ(first_index(), 0);
}

TEST_F(emu_stream, garbage_bytes_are_skipped) {
    cam_->garbage_next(1000);
    const auto s = run(3);
    EXPECT_GE(s.completed, 3u);
    EXPECT_EQ(s.discarded_bytes, 1000u);
    EXPECT_EQ(first_index(), 0);
}

TEST_F(emu_stream, corrupted_checksum_loses_one_frame) {
    cam_->corrupt_cksum_next(1);
    const auto s = run(3);
    EXPECT_GE(s.completed, 3u);
    EXPECT_EQ(first_index(), 1);  // frame 0 failed its data checksum
}

TEST_F(emu_stream, dropped_chunk_loses_its_frame) {
    cam_->drop_next(1);
    const auto s = run(3);
    EXPECT_GE(s.completed, 3u);
    EXPECT_EQ(first_index(), 1);
    EXPECT_GT(s.discarded_bytes, 0u);
}

}  // namespace
