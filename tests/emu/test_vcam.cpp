// The virtual camera: firmware answers, the test pattern, and the stream faults as the USB backend
// and the stream assembler see them.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <span>
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

// The status record after good and failed commands, busy and wrong-command replies are checked
// through the USB transport, which reads them from this firmware.
TEST(emu_firmware, malformed_commands_end_in_error_state) {
    firmware fw{camera_config{}};
    std::vector<uint8_t> many(7 + 64, 0);
    many[5] = 64;
    const struct {
        uint8_t request;
        uint16_t value;
        std::vector<uint8_t> data;
        const char *text;  // null: any
    } rows[] = {
        {0xC2, 0, {0, 0, 0, 0, 0, 8, 0, 1, 2, 3, 4}, "bad register count"},  // not the data's
        {0xC2, 0, many, nullptr},                                            // over 15 registers
        {0xC0, 3, std::vector<uint8_t>(80, 0), nullptr},                     // 4 parameter items
        {0xC0, 3, std::vector<uint8_t>(21, 0), nullptr},                     // not items of 20
        {0xC7, 1, {1}, "unsupported command"},
    };
    for (const auto &r : rows) {
        out(fw, r.request, r.value, r.data);
        const auto st = status(fw);
        EXPECT_EQ(st[0], 0xFF) << r.data.size();
        EXPECT_EQ(st[1], r.request) << r.data.size();
        if (r.text) {
            EXPECT_STREQ(reinterpret_cast<const char *>(&st[3]), r.text);
        }
    }
    // Not a class request to an endpoint: stalled.
    std::vector<uint8_t> d(4);
    EXPECT_EQ(fw.control(0x40, 0xC2, 0, d), -EPIPE);
    // A short status buffer stalls too.
    std::vector<uint8_t> shortst(10);
    EXPECT_EQ(fw.control(0xA2, 0xB0, 0, shortst), -EPIPE);
}

// The identity answers (product, serial) are checked through the library's open; here the
// geometry, a stored value and an unknown id, in one get.
TEST(emu_firmware, parameter_answers) {
    firmware fw{camera_config{}};
    EXPECT_EQ(out(fw, 0xC0, 3, {77, 2, 9, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 20);
    std::vector<uint8_t> q(60, 0);
    q[0] = 4;
    q[20] = 77;
    q[40] = 78;
    EXPECT_EQ(fw.control(0x22, 0xC0, 4, q), 60);
    std::vector<uint8_t> a(60, 0xAA);
    EXPECT_EQ(fw.control(0xA2, 0xC0, 4, a), 60);
    uint16_t geo[2];
    std::memcpy(geo, &a[2], 4);
    EXPECT_EQ(a[0], 4);
    EXPECT_EQ(geo[0], 320);
    EXPECT_EQ(geo[1], 240);
    EXPECT_EQ(a[20], 77);
    EXPECT_EQ(a[21], 2);
    EXPECT_EQ(a[22], 9);
    EXPECT_EQ(a[23], 8);
    EXPECT_EQ(a[40], 78);
    EXPECT_EQ(a[41], 0);
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

struct stream_run {
    vx_stream_state_t state{};
    uint16_t first = 0xFFFF;  // index of the first ready frame
};

// Captures through the USB backend into a stream assembler, with a fault set on the camera, until
// the assembler completed n frames.
stream_run _run(void (*fault)(tevix::emu::camera &), uint32_t n) {
    tevix::emu::camera *cam = tevix::test::vcam_env::cam(0);
    cam->reset();
    const uint32_t fps = 300;
    cam->with_firmware([&](firmware &fw) {
        fw.set_param(tevix::emu::k_par_fps, std::span(reinterpret_cast<const uint8_t *>(&fps), 4));
    });
    tevix_ll_dev_t dev{};
    dev.is_listed = 1;
    dev.info.usb.bus = 1;
    dev.info.usb.port = 2;
    dev.info.usb.addr = 255;
    stream_run r;
    EXPECT_EQ(usb_ll_ops.dev_open(&dev), &dev);
    fault(*cam);
    const uint32_t cap = 100;
    vx_stream_t *st = vx_stream_create(&cap);
    auto feed = [](tevix_ll_dev_t *, int32_t status, uint8_t *data, uint32_t len, void *user) {
        if (status == 0 && len) vx_stream_feed_input(static_cast<vx_stream_t *>(user), data, len);
    };
    EXPECT_TRUE(usb_ll_ops.cap_start(&dev, 0, feed, st));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (vx_stream_get_state(st, &r.state)->completed < n &&
           std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(usb_ll_ops.cap_stop(&dev));
    while (tevix::usb::in_flight(&dev)) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    vx_stream_get_state(st, &r.state);
    vx_frame_desc_t d{};
    uint8_t head[4];
    if (vx_stream_fetch_frames(st, head, sizeof(head), 1, &d, true) >= 1) r.first = d.fridx;
    usb_ll_ops.dev_close(&dev);
    vx_stream_destroy(st);
    return r;
}

// The stream faults seen through the backend and the assembler: each loses what it hits (bytes
// skipped, the frame it cut) and the stream goes on. The clean stream is checked byte for byte in
// the USB transport test.
TEST(emu_stream, faults_lose_what_they_hit) {
    using tevix::emu::camera;
    const struct {
        const char *what;
        void (*fault)(camera &);
        uint32_t bytes_lo, bytes_hi;  // bytes the assembler skipped
        uint16_t first;
    } rows[] = {
        {"garbage", [](camera &c) { c.garbage_next(1000); }, 1000, 1000, 0},
        {"a corrupted checksum", [](camera &c) { c.corrupt_cksum_next(1); }, 0, UINT32_MAX, 1},
        {"a dropped chunk", [](camera &c) { c.drop_next(1); }, 1, UINT32_MAX, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const stream_run r = _run(row.fault, 3);
        EXPECT_GE(r.state.completed, 3u);
        EXPECT_GE(r.state.discarded_bytes, row.bytes_lo);
        EXPECT_LE(r.state.discarded_bytes, row.bytes_hi);
        EXPECT_EQ(r.first, row.first);  // the first frame that came through whole
    }
}

}  // namespace
