// The USB backend against the real libusb and the virtual camera.
#include <libusb.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ll/dispatch.h"
#include "ll/usb/usb_ll.h"
#include "ll/usb/usb_proto.h"
#include "test_util.h"
#include "tevix/tevix_ll.h"
#include "tevix/vx_log.h"
#include "tevix/vx_stream.h"
#include "vcam_env.h"

namespace {

// A field of a packed record as a value (the macros bind references).
template <class T>
T val(T v) {
    return v;
}

using tevix::emu::camera;
using tevix::emu::cmd_record;
using tevix::emu::firmware;
using tevix::test::vcam_env;

bool wait_for(const std::function<bool()> &pred, int ms = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Everything the backend hands to the capture callback.
struct sink {
    std::mutex m;
    std::vector<uint8_t> bytes;
    std::map<int32_t, int> status;
    std::set<const uint8_t *> buffers;
    int calls = 0;

    static void cb(tevix_ll_dev_t *, int32_t st, uint8_t *data, uint32_t len, void *user) {
        auto *s = static_cast<sink *>(user);
        std::lock_guard lk(s->m);
        ++s->calls;
        ++s->status[st];
        s->buffers.insert(data);
        if (st == 0 && len) s->bytes.insert(s->bytes.end(), data, data + len);
    }
    int count(int32_t st) {
        std::lock_guard lk(m);
        return status.count(st) ? status[st] : 0;
    }
    size_t size() {
        std::lock_guard lk(m);
        return bytes.size();
    }
};

class usb_ll : public ::testing::Test {
  protected:
    void SetUp() override {
        cam_ = vcam_env::cam(0);
        cam_->reset();
        vcam_env::cam(1)->reset();
        dev_ = listed(2, 255);
    }
    void TearDown() override {
        if (dev_.priv) usb_ll_ops.dev_close(&dev_);
    }

    static tevix_ll_dev_t listed(uint8_t port, uint8_t addr) {
        tevix_ll_dev_t d{};
        d.is_listed = 1;
        d.info.usb.bus = 1;
        d.info.usb.port = port;
        d.info.usb.addr = addr;
        return d;
    }
    void open() { ASSERT_EQ(usb_ll_ops.dev_open(&dev_), &dev_); }
    std::string log_text() { return log_.text(); }
    std::vector<cmd_record> cmds() {
        return cam_->with_firmware([](firmware &fw) { return fw.log(); });
    }
    void clear_cmds() {
        cam_->with_firmware([](firmware &fw) { fw.clear_log(); });
    }
    void set_fps(uint32_t fps) {
        uint8_t v[4];
        std::memcpy(v, &fps, 4);
        cam_->with_firmware([&](firmware &fw) { fw.set_param(tevix::emu::k_par_fps, v); });
    }
    // Starts capture with the camera holding every transfer; returns once the pool is out.
    void start_held(sink &s) {
        cam_->hold_in(true);
        ASSERT_TRUE(usb_ll_ops.cap_start(&dev_, 0, sink::cb, &s));
        ASSERT_TRUE(wait_for([&] { return cam_->stats().pending_in == 16; }));
    }
    // Stops capture and waits until every transfer came back.
    void stop_and_drain() {
        EXPECT_TRUE(usb_ll_ops.cap_stop(&dev_));
        EXPECT_TRUE(wait_for([&] { return tevix::usb::in_flight(&dev_) == 0; }));
    }

    tevix::test::temp_dir dir_;
    tevix::test::log_capture log_{VX_LOG_DBG};
    camera *cam_ = nullptr;
    tevix_ll_dev_t dev_{};
};

static uint32_t u32_at(const std::vector<uint8_t> &v, size_t off) {
    uint32_t x;
    std::memcpy(&x, v.data() + off, 4);
    return x;
}

TEST_F(usb_ll, list_fills_entries_of_every_camera) {
    tevix_ll_dev_t list[4];
    std::memset(list, 0xAB, sizeof(list));
    ASSERT_EQ(usb_ll_ops.dev_list(list, 4), 2u);
    std::map<uint8_t, const tevix_ll_dev_t *> by_port;
    for (int i = 0; i < 2; ++i) by_port[list[i].info.usb.port] = &list[i];
    ASSERT_EQ(by_port.size(), 2u);
    const tevix_ll_dev_t &a = *by_port[2];
    EXPECT_EQ(a.info.usb.bus, 1);
    EXPECT_EQ(a.info.usb.addr, 2);
    EXPECT_EQ(a.info.usb.speed, LIBUSB_SPEED_HIGH);
    EXPECT_STREQ(a.info.usb.product, "VXCAM-E1-R1");
    EXPECT_STREQ(a.info.usb.vendor, "Tevix Virtual");
    EXPECT_EQ(val(a.ops), &usb_ll_ops);
    EXPECT_EQ(a.is_listed, 1);
    EXPECT_EQ(val(a.priv), nullptr);
    EXPECT_EQ(a.if_type, 0u);
    const tevix_ll_dev_t &b = *by_port[3];
    EXPECT_EQ(b.info.usb.addr, 5);
    EXPECT_STREQ(b.info.usb.product, "VXCAM-E1-R2");
    // Entries past the cameras are cleared.
    for (int i = 2; i < 4; ++i) {
        const auto *raw = reinterpret_cast<const uint8_t *>(&list[i]);
        EXPECT_EQ(std::count(raw, raw + sizeof(list[i]), 0), static_cast<long>(sizeof(list[i])));
    }
    // max stops the listing; nothing beyond max is touched.
    std::memset(list, 0xAB, sizeof(list));
    EXPECT_EQ(usb_ll_ops.dev_list(list, 1), 1u);
    EXPECT_EQ(list[1].is_listed, 0xAB);
    EXPECT_EQ(usb_ll_ops.dev_list(nullptr, 4), 0u);
    EXPECT_EQ(usb_ll_ops.dev_list(list, 0), 0u);
}

TEST_F(usb_ll, open_listed_record_with_any_address_unlisted_or_by_descriptor) {
    open();
    EXPECT_EQ(dev_.info.usb.addr, 255);  // only the speed is updated
    EXPECT_EQ(dev_.info.usb.speed, LIBUSB_SPEED_HIGH);
    EXPECT_EQ(val(dev_.ops), &usb_ll_ops);
    EXPECT_TRUE(wait_for([&] { return tevix::usb::evt_running(&dev_); }));
    tevix_param_wire_t it{};
    it.id = tevix::emu::k_par_product;
    ASSERT_TRUE(usb_ll_ops.param_get(&dev_, &it, 1));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(it.value), it.len), "VXCAM-E1-R1");
    usb_ll_ops.dev_close(&dev_);
    EXPECT_EQ(val(dev_.priv), nullptr);

    // The other port with address 255 opens the other camera; an exact address too.
    for (uint8_t addr : {uint8_t{255}, uint8_t{5}}) {
        tevix_ll_dev_t other = listed(3, addr);
        ASSERT_EQ(usb_ll_ops.dev_open(&other), &other);
        ASSERT_TRUE(usb_ll_ops.param_get(&other, &it, 1));
        EXPECT_EQ(std::string(reinterpret_cast<char *>(it.value), it.len), "VXCAM-E1-R2");
        usb_ll_ops.dev_close(&other);
    }
    // An open by descriptor ignores the descriptor.
    ASSERT_EQ(usb_ll_ops.dev_open_by_fd(&dev_, 42), &dev_);
    uint32_t v = 9;
    EXPECT_TRUE(usb_ll_ops.reg_write(&dev_, 0, 1, reinterpret_cast<uint8_t *>(&v), 1));
    usb_ll_ops.dev_close(&dev_);

    // A record not listed opens the first camera and gets its address.
    tevix_ll_dev_t any{};
    any.if_type = TEVIX_LL_IF_ANY;
    ASSERT_EQ(usb_ll_ops.dev_open(&any), &any);
    EXPECT_EQ(any.is_listed, 1);
    EXPECT_EQ(any.if_type, 0u);
    EXPECT_EQ(any.info.usb.bus, 1);
    EXPECT_TRUE((any.info.usb.port == 2 && any.info.usb.addr == 2) ||
                (any.info.usb.port == 3 && any.info.usb.addr == 5));
    usb_ll_ops.dev_close(&any);
    EXPECT_EQ(val(any.priv), nullptr);
}

TEST_F(usb_ll, open_refuses_wrong_address_and_foreign_types) {
    tevix_ll_dev_t wrong = listed(2, 9);
    EXPECT_EQ(usb_ll_ops.dev_open(&wrong), nullptr);
    EXPECT_EQ(val(wrong.priv), nullptr);
    tevix_ll_dev_t file = listed(2, 255);
    file.if_type = TEVIX_LL_IF_FILE;
    EXPECT_EQ(usb_ll_ops.dev_open(&file), nullptr);
    EXPECT_EQ(usb_ll_ops.dev_open_by_fd(&file, 3), nullptr);
    EXPECT_EQ(val(file.priv), nullptr);
    EXPECT_EQ(usb_ll_ops.dev_open(nullptr), nullptr);
    // Commands on a record that is not open fail without touching the camera.
    uint8_t v[4] = {};
    EXPECT_FALSE(usb_ll_ops.exe_cmd(&dev_, 1, 0xC2, 0, v, 4, 100));
    EXPECT_FALSE(usb_ll_ops.reg_write(&dev_, 0, 0, v, 1));
    EXPECT_FALSE(usb_ll_ops.cap_start(&dev_, 0, sink::cb, nullptr));
    EXPECT_EQ(usb_ll_ops.tx_data(&dev_, v, 4), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_TRUE(cmds().empty());
}

TEST_F(usb_ll, register_write_of_40_goes_as_15_15_10) {
    open();
    clear_cmds();
    constexpr uint32_t a = 0x100;
    std::vector<uint32_t> values(40);
    for (uint32_t i = 0; i < 40; ++i) values[i] = 0x1000 * i + 7;
    ASSERT_TRUE(usb_ll_ops.reg_write(&dev_, 1, a, reinterpret_cast<uint8_t *>(values.data()), 40));
    const auto log = cmds();
    ASSERT_EQ(log.size(), 3u);
    const uint32_t counts[] = {15, 15, 10};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(log[i].request_type, 0x22);
        EXPECT_EQ(log[i].request, 0xC2);
        EXPECT_EQ(log[i].value, 0);
        ASSERT_EQ(log[i].data.size(), 7 + 4 * counts[i]);
        EXPECT_EQ(log[i].data[0], 1);
        EXPECT_EQ(u32_at(log[i].data, 1), a + 15 * i);
        EXPECT_EQ(log[i].data[5] | log[i].data[6] << 8, static_cast<int>(4 * counts[i]));
    }
    cam_->with_firmware([&](firmware &fw) {
        for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(fw.reg(1, a + i), values[i]) << i;
        EXPECT_EQ(fw.reg(1, a + 40), 0u);
        return 0;
    });

    clear_cmds();
    std::vector<uint32_t> back(40, 0xDEADBEEF);
    ASSERT_TRUE(usb_ll_ops.reg_read(&dev_, 1, a, reinterpret_cast<uint8_t *>(back.data()), 40));
    EXPECT_EQ(back, values);
    const auto rlog = cmds();
    ASSERT_EQ(rlog.size(), 6u);  // out (7 bytes) and in per piece
    EXPECT_EQ(rlog[4].data.size(), 7u);
    EXPECT_EQ(u32_at(rlog[4].data, 1), a + 30);
    EXPECT_EQ(rlog[5].request_type, 0xA2);
    EXPECT_EQ(rlog[5].data.size(), 40u);

    clear_cmds();
    EXPECT_TRUE(usb_ll_ops.reg_write(&dev_, 1, a, nullptr, 0));
    EXPECT_TRUE(usb_ll_ops.reg_read(&dev_, 1, a, nullptr, 0));
    EXPECT_TRUE(cmds().empty());
}

TEST_F(usb_ll, parameter_get_of_7_goes_as_3_3_1) {
    open();
    clear_cmds();
    const uint8_t ids[] = {2, 3, 5, 6, 7, 4, 8};
    tevix_param_wire_t items[7];
    std::memset(items, 0x5C, sizeof(items));
    for (int i = 0; i < 7; ++i) items[i].id = ids[i];
    ASSERT_TRUE(usb_ll_ops.param_get(&dev_, items, 7));
    const auto log = cmds();
    ASSERT_EQ(log.size(), 6u);
    const size_t counts[] = {3, 3, 1};
    for (size_t i = 0; i < 3; ++i) {
        const cmd_record &out = log[2 * i], &in = log[2 * i + 1];
        EXPECT_EQ(out.request_type, 0x22);
        EXPECT_EQ(in.request_type, 0xA2);
        EXPECT_EQ(out.request, 0xC0);
        EXPECT_EQ(out.value, 4);
        ASSERT_EQ(out.data.size(), 20 * counts[i]);
        EXPECT_EQ(in.data.size(), 20 * counts[i]);
        // Only the id travels out; the other 19 bytes are cleared.
        for (size_t k = 0; k < counts[i]; ++k) {
            EXPECT_EQ(out.data[20 * k], ids[3 * i + k]);
            for (size_t b = 1; b < 20; ++b) EXPECT_EQ(out.data[20 * k + b], 0);
        }
    }
    EXPECT_EQ(std::string(reinterpret_cast<char *>(items[0].value), items[0].len), "Tevix Virtual");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(items[1].value), items[1].len), "VXCAM-E1-R1");
    EXPECT_EQ(items[2].len, 12);
    uint16_t geo[2];
    std::memcpy(geo, items[5].value, 4);
    EXPECT_EQ(geo[0], 320);
    EXPECT_EQ(geo[1], 240);
    EXPECT_EQ(items[6].id, 8);

    // Set: an empty batch fails, four items go as 3 and 1.
    clear_cmds();
    EXPECT_FALSE(usb_ll_ops.param_set(&dev_, items, 0));
    EXPECT_TRUE(usb_ll_ops.param_get(&dev_, items, 0));
    tevix_param_wire_t set[4] = {};
    for (int i = 0; i < 4; ++i) {
        set[i].id = static_cast<uint8_t>(40 + i);
        set[i].len = 2;
        set[i].value[0] = static_cast<uint8_t>(i + 1);
    }
    ASSERT_TRUE(usb_ll_ops.param_set(&dev_, set, 4));
    const auto slog = cmds();
    ASSERT_EQ(slog.size(), 2u);
    EXPECT_EQ(slog[0].data.size(), 60u);
    EXPECT_EQ(slog[1].data.size(), 20u);
    EXPECT_EQ(slog[1].value, 3);
    cam_->with_firmware([](firmware &fw) {
        EXPECT_EQ(fw.param(43), (std::vector<uint8_t>{4, 0}));
        return 0;
    });
}

TEST_F(usb_ll, exe_cmd_sends_then_reads_back_into_the_buffer) {
    open();
    tevix_param_wire_t it{};
    it.id = tevix::emu::k_par_uid;
    ASSERT_TRUE(usb_ll_ops.exe_cmd(&dev_, 0, 0xC0, 4, reinterpret_cast<uint8_t *>(&it), 20, 1000));
    EXPECT_EQ(it.len, 12);
    uint32_t w;
    std::memcpy(&w, it.value, 4);
    EXPECT_EQ(w, vcam_env::cam(0)->config().uid[0]);
    // Write only: one command, nothing read back.
    clear_cmds();
    uint8_t mode[4] = {};
    EXPECT_TRUE(usb_ll_ops.exe_cmd(&dev_, 1, 0xC0, 0, mode, 4, 1000));
    EXPECT_EQ(cmds().size(), 1u);
    // Bulk data goes to the bulk out endpoint.
    std::vector<uint8_t> data(5000, 0x3C);
    EXPECT_EQ(usb_ll_ops.tx_data(&dev_, data.data(), 5000), 5000);
    EXPECT_EQ(cam_->stats().bulk_out, 5000u);
}

// An unanswered command ends with its own timeout, or after 2 seconds when that is longer.
TEST_F(usb_ll, unanswered_command_ends_with_its_timeout) {
    open();
    cam_->hold_control(true);
    uint8_t v[4] = {};
    EXPECT_FALSE(usb_ll_ops.exe_cmd(&dev_, 1, 0xC0, 0, v, 4, 300));
    EXPECT_EQ(cam_->stats().discards, 1u);  // libusb gave it up after 300 ms
    EXPECT_TRUE(log_.has("[usb_ll_exe_cmd]exe usb cmd failed: LIBUSB_ERROR_TIMEOUT"));
    cam_->hold_control(false);
    EXPECT_TRUE(usb_ll_ops.exe_cmd(&dev_, 1, 0xC0, 0, v, 4, 300));

    cam_->hold_control(true);
    EXPECT_FALSE(usb_ll_ops.exe_cmd(&dev_, 1, 0xC0, 0, v, 4, 60000));
    EXPECT_TRUE(log_.has("[usb_ll_exe_cmd]control transfer timeout !"));
    // The transfer is still out; when it ends it frees itself.
    EXPECT_EQ(cam_->stats().discards, 1u);
    const uint64_t reaped = cam_->stats().urbs_done;
    cam_->unplug();
    EXPECT_TRUE(wait_for([&] { return cam_->stats().urbs_done > reaped; }));
    usb_ll_ops.dev_close(&dev_);
}

// The status read after a command: one naming another command or an error fails the call (the
// next is fine again); a busy one is read again until done.
TEST_F(usb_ll, status_replies) {
    open();
    uint32_t v = 1;
    auto *pv = reinterpret_cast<uint8_t *>(&v);
    cam_->with_firmware([](firmware &fw) { return fw.wrong_status_next(), 0; });
    EXPECT_FALSE(usb_ll_ops.reg_write(&dev_, 0, 0x20, pv, 1));
    EXPECT_TRUE(
        log_.has("[usb_ll_check_last_cmd] last cmd (t=0xc3,v=0x0) is not as "
                 "expect(t=0xc2,v=0x0)"))
        << log_text();
    EXPECT_TRUE(log_.has("[usb_ll_reg_write]write phase failed"));
    EXPECT_TRUE(usb_ll_ops.reg_write(&dev_, 0, 0x20, pv, 1));

    cam_->with_firmware([](firmware &fw) { return fw.fail_next("sensor not ready"), 0; });
    tevix_param_wire_t it{};
    it.id = 3;
    EXPECT_FALSE(usb_ll_ops.param_get(&dev_, &it, 1));
    EXPECT_TRUE(log_.has("[ERR][usb_ll_check_last_cmd]sensor not ready\n")) << log_text();
    EXPECT_TRUE(log_.has("[usb_ll_param_get]write phase failed"));

    const uint32_t before = cam_->with_firmware([](firmware &fw) {
        fw.busy_reads(6);
        return fw.status_reads();
    });
    EXPECT_TRUE(usb_ll_ops.reg_write(&dev_, 0, 0x30, pv, 1));
    EXPECT_EQ(cam_->with_firmware([](firmware &fw) { return fw.status_reads(); }) - before, 7u);
}

// Resets of other targets are checked commands. A USB reset returns false even when the camera
// comes back (the record is open again and works) and gives up after 15 tries when it does not.
TEST_F(usb_ll, resets) {
    open();
    clear_cmds();
    EXPECT_TRUE(usb_ll_ops.dev_reset(&dev_, 1));
    const auto log = cmds();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].request, 0xC0);
    EXPECT_EQ(log[0].value, 0);
    EXPECT_EQ(log[0].data, (std::vector<uint8_t>{1, 0, 0, 0}));

    EXPECT_FALSE(usb_ll_ops.dev_reset(&dev_, 3));
    EXPECT_TRUE(log_.has("[usb_ll_dev_reset]Reset usb if end."));
    EXPECT_FALSE(log_.has("reopen device failed"));
    EXPECT_TRUE(cam_->plugged());
    ASSERT_NE(val(dev_.priv), nullptr);
    tevix_param_wire_t it{};
    it.id = 3;
    EXPECT_TRUE(usb_ll_ops.param_get(&dev_, &it, 1));

    cam_->unplug();
    EXPECT_FALSE(usb_ll_ops.dev_reset(&dev_, 3));  // the command itself fails: unplugged
    EXPECT_FALSE(usb_ll_ops.dev_reset(&dev_, 3));  // not open any more
    EXPECT_TRUE(log_.has("[usb_ll_dev_reset]reopen device failed!"));
    EXPECT_EQ(val(dev_.priv), nullptr);
}

TEST_F(usb_ll, capture_delivers_the_stream_complete_and_in_order) {
    set_fps(500);
    open();
    std::mutex tm;
    std::vector<uint8_t> emitted;
    cam_->set_tap([&](std::span<const uint8_t> b) {
        std::lock_guard lk(tm);
        emitted.insert(emitted.end(), b.begin(), b.end());
    });
    sink s;
    ASSERT_TRUE(usb_ll_ops.cap_start(&dev_, 0, sink::cb, &s));
    EXPECT_EQ(cmds().back().data, (std::vector<uint8_t>{0, 0, 0, 0}));
    ASSERT_TRUE(wait_for([&] { return s.size() >= 12u * 614400; }, 20000));
    stop_and_drain();
    cam_->set_tap(nullptr);
    {
        std::lock_guard lk(s.m);
        ASSERT_EQ(s.bytes.size(), emitted.size());
        EXPECT_TRUE(s.bytes == emitted);
        EXPECT_EQ(s.buffers.size(), 16u);  // every slot of the pool carried data
        EXPECT_EQ(s.status.size(), 1u);    // status 0 only: data and cancellations
    }
    // The stream rebuilds into the camera's frames.
    const uint32_t cap = 64;
    vx_stream_t *st = vx_stream_create(&cap);
    ASSERT_NE(st, nullptr);
    vx_stream_feed_input(st, s.bytes.data(), static_cast<uint32_t>(s.bytes.size()));
    std::vector<uint8_t> frame(614400);
    vx_frame_desc_t desc{};
    ASSERT_EQ(vx_stream_fetch_frames(st, frame.data(), static_cast<int32_t>(frame.size()), 1, &desc,
                                     false),
              1u);
    EXPECT_EQ(desc.fridx, 0);
    EXPECT_EQ(desc.frfmt, 2);
    EXPECT_EQ(desc.width, 320);
    std::vector<uint8_t> want(614400);
    vx_frame_desc_t wd{};
    tevix::emu::test_pattern().render(0, want, wd);
    EXPECT_TRUE(frame == want);
    vx_stream_state_t state{};
    vx_stream_get_state(st, &state);
    EXPECT_GE(state.completed, 12u);
    EXPECT_EQ(state.discarded, 0u);
    EXPECT_EQ(state.discarded_bytes, 0u);
    vx_stream_destroy(st);
}

TEST_F(usb_ll, stop_cancels_every_transfer_in_flight) {
    open();
    sink s;
    start_held(s);
    EXPECT_EQ(tevix::usb::in_flight(&dev_), 16u);
    stop_and_drain();
    EXPECT_FALSE(cam_->streaming());
    const auto st = cam_->stats();
    EXPECT_EQ(st.pending_in, 0u);
    EXPECT_EQ(st.discards, 16u);
    EXPECT_EQ(s.count(0), 16);  // cancellations report status 0
    std::lock_guard lk(s.m);
    EXPECT_EQ(s.calls, 16);
}

TEST_F(usb_ll, held_transfers_end_with_timeouts) {
    open();
    sink s;
    start_held(s);
    // libusb ends each transfer after 8.5 s; the backend reports -5 and submits it again.
    ASSERT_TRUE(wait_for([&] { return s.count(TEVIX_LL_EVT_TIMEOUT) >= 16; }, 20000));
    EXPECT_TRUE(wait_for([&] { return cam_->stats().pending_in == 16; }));
    stop_and_drain();
    EXPECT_EQ(s.count(TEVIX_LL_EVT_STALL), 0);
}

TEST_F(usb_ll, stalls_report_minus_7_and_clear_the_halt) {
    open();
    sink s;
    start_held(s);
    const uint64_t halts = cam_->stats().clear_halts;  // cap_start clears it once
    EXPECT_GE(halts, 1u);
    cam_->stall();
    ASSERT_TRUE(wait_for([&] { return s.count(TEVIX_LL_EVT_STALL) >= 1; }));
    EXPECT_TRUE(wait_for([&] { return cam_->stats().clear_halts > halts; }));
    // Resubmitted after the halt is cleared: the pool is back in flight.
    EXPECT_TRUE(wait_for([&] { return cam_->stats().pending_in == 16; }));
    stop_and_drain();
    EXPECT_TRUE(log_.has("stall (last_tx=0)"));
}

// Transfer errors other than timeouts and stalls report -10, and so does every transfer of the
// pool when the cable goes; the record still closes.
TEST_F(usb_ll, transfer_errors_and_unplug_report_minus_10) {
    set_fps(200);
    open();
    cam_->error_next(3);
    sink s;
    ASSERT_TRUE(usb_ll_ops.cap_start(&dev_, 0, sink::cb, &s));
    ASSERT_TRUE(wait_for([&] { return s.count(TEVIX_LL_EVT_ERROR) == 3 && s.size() > 0; }));
    // The pool waits on the camera when the cable goes.
    cam_->hold_in(true);
    ASSERT_TRUE(wait_for([&] { return cam_->stats().pending_in == 16; }));
    EXPECT_EQ(s.count(TEVIX_LL_EVT_ERROR), 3);
    cam_->unplug();
    ASSERT_TRUE(wait_for([&] { return s.count(TEVIX_LL_EVT_ERROR) == 3 + 16; })) << log_text();
    EXPECT_TRUE(wait_for([&] { return tevix::usb::in_flight(&dev_) == 0; }));
    EXPECT_EQ(s.count(TEVIX_LL_EVT_TIMEOUT), 0);
    EXPECT_FALSE(usb_ll_ops.cap_stop(&dev_));
    usb_ll_ops.dev_close(&dev_);
    EXPECT_EQ(val(dev_.priv), nullptr);
    EXPECT_TRUE(log_.has("error (5) (last_tx=0)"));
}

TEST_F(usb_ll, open_capture_close_100_times) {
    set_fps(1000);
    for (int i = 0; i < 100; ++i) {
        tevix_ll_dev_t d = listed(2, 255);
        ASSERT_EQ(usb_ll_ops.dev_open(&d), &d) << i;
        sink s;
        ASSERT_TRUE(usb_ll_ops.cap_start(&d, 0, sink::cb, &s)) << i;
        ASSERT_TRUE(wait_for([&] { return s.size() > 0; })) << i;
        EXPECT_TRUE(usb_ll_ops.cap_stop(&d));
        usb_ll_ops.dev_close(&d);  // cancels and collects what is still in flight
        ASSERT_EQ(val(d.priv), nullptr);
    }
    EXPECT_EQ(cam_->stats().pending_in, 0u);
}

}  // namespace
