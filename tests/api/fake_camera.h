// The camera the API tests talk to: a transport that stands in a backend slot and a driver row
// that decodes any frame, both recording what the library asks of them.
#pragma once

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "api/session.h"
#include "drivers/drv.h"
#include "ll/dispatch.h"
#include "test_util.h"
#include "tevix/tevix.h"
#include "tevix/tevix_ll.h"
#include "tevix/vx_cmap.h"

namespace tevix::test {

// What the fake transport answers and what it saw. Capture events are fired by the test through
// the callback kept at start, standing in for the event thread.
struct fake_camera {
    const char *product = "CAM-T0-R1";  // selects the TI stub driver row
    uint32_t fps = 20;
    int accept = 1;         // answer of parameter and register calls (0: every one refused)
    bool take_all = false;  // opens file and Ethernet records too, not only USB and default ones

    tevix_ll_dev_t last_open{};
    int opens = 0, closes = 0, stops = 0, aborts = 0;
    std::atomic<int> starts{0};
    std::vector<std::vector<tevix_param_wire_t>> sets, gets;
    std::vector<std::string> regs;  // "w|r target address count first-word"
    tevix_dev_t *watch = nullptr;   // record whose busy count a parameter set sees
    uint8_t busy_seen = 0;

    tevix_ll_evt_cb cb = nullptr;
    void *user = nullptr;
    tevix_ll_dev_t *ll = nullptr;

    size_t device_calls() const { return sets.size() + gets.size() + regs.size(); }
    void reset() {
        this->~fake_camera();
        new (this) fake_camera();
    }
};
inline fake_camera g_cam;

namespace fake_ll {

inline int g_priv;
const tevix_ll_ops &ops();

inline tevix_ll_dev_t *open(tevix_ll_dev_t *dev) {
    const bool usb = dev->if_type == TEVIX_LL_IF_UNKNOWN || dev->if_type == TEVIX_LL_IF_ANY;
    if (!usb && !g_cam.take_all) return nullptr;
    ++g_cam.opens;
    g_cam.last_open = *dev;
    dev->ops = &ops();
    dev->priv = &g_priv;
    if (dev->if_type != TEVIX_LL_IF_FILE) {
        dev->info.usb.speed = 3;
        if (dev->if_type == TEVIX_LL_IF_ANY) dev->info.usb.bus = 9;
    }
    return dev;
}
inline void close(tevix_ll_dev_t *dev) {
    ++g_cam.closes;
    dev->priv = nullptr;
}
inline uint32_t list(tevix_ll_dev_t *list, uint32_t max) {
    if (max < 1) return 0;
    list[0].is_listed = 1;
    list[0].info.usb.bus = 4;
    list[0].info.usb.port = 5;
    list[0].info.usb.addr = 6;
    list[0].info.usb.speed = 3;
    std::snprintf(list[0].info.usb.product, 16, "CAM");
    return 1;
}
inline int param_set(tevix_ll_dev_t *, tevix_param_wire_t *items, uint32_t count) {
    g_cam.sets.emplace_back(items, items + count);
    g_cam.busy_seen = g_cam.watch ? g_cam.watch->busy : 0;
    return g_cam.accept;
}
// The identity of a camera and its frame rate, as 16-bit words or text; any other id gets 4
// bytes, byte b = id + b (18 of them written).
inline void answer(tevix_param_wire_t &it) {
    std::memset(it.value, 0, sizeof it.value);
    auto words = [&](uint8_t len, std::initializer_list<uint16_t> w) {
        it.len = len;
        std::memcpy(it.value, w.begin(), 2 * w.size());
    };
    auto text = [&](const char *t) {
        it.len = static_cast<uint8_t>(std::strlen(t));
        std::memcpy(it.value, t, it.len);
    };
    switch (it.id) {
        case TEVIX_PARAM_VENDOR:
            return text("TEVIX");
        case TEVIX_PARAM_PRODUCT:
            return text(g_cam.product);
        case TEVIX_PARAM_UID:
            return words(12, {0x1111, 0x1111, 0x2222, 0x2222, 0x4444, 0x4444});
        case TEVIX_PARAM_VERSION:
            return words(8, {7, 2, 3});
        case TEVIX_PARAM_SENSOR:
            return words(6, {0x12, 0x34, 0x5678});
        case TEVIX_PARAM_GEOMETRY:
            return words(4, {320, 240});
        case TEVIX_PARAM_FPS:
            return words(4, {static_cast<uint16_t>(g_cam.fps)});
    }
    it.len = 4;
    for (int b = 0; b < 18; ++b) it.value[b] = static_cast<uint8_t>(it.id + b);
}
inline int param_get(tevix_ll_dev_t *, tevix_param_wire_t *items, uint32_t count) {
    g_cam.gets.emplace_back(items, items + count);
    if (!g_cam.accept) return 0;
    for (uint32_t i = 0; i < count; ++i) answer(items[i]);
    return 1;
}
inline int reg(uint8_t target, uint32_t addr, uint8_t *data, uint16_t count, const char *what) {
    uint32_t first = 0;
    if (count) std::memcpy(&first, data, 4);
    g_cam.regs.push_back(std::string(what) + " " + std::to_string(target) + " " +
                         std::to_string(addr) + " " + std::to_string(count) + " " +
                         std::to_string(first));
    return g_cam.accept;
}
inline int reg_write(tevix_ll_dev_t *, uint8_t t, uint32_t a, uint8_t *data, uint16_t n) {
    return reg(t, a, data, n, "w");
}
// Register i reads as 100 + i.
inline int reg_read(tevix_ll_dev_t *, uint8_t t, uint32_t a, uint8_t *data, uint16_t n) {
    for (uint16_t i = 0; i < n; ++i) {
        uint32_t v = 100 + i;
        std::memcpy(data + 4 * i, &v, 4);
    }
    return reg(t, a, data, n, "r");
}
inline int cap_start(tevix_ll_dev_t *dev, uint32_t, tevix_ll_evt_cb cb, void *user) {
    g_cam.cb = cb;
    g_cam.user = user;
    g_cam.ll = dev;
    ++g_cam.starts;  // after the callback is in place: a feeder thread waits for it
    return 1;
}
inline int cap_stop(tevix_ll_dev_t *) {
    ++g_cam.stops;
    return 1;
}

inline const tevix_ll_ops &ops() {
    static const tevix_ll_ops o = [] {
        tevix_ll_ops o{};
        o.init = [] { return 1; };
        o.dev_open = open;
        o.dev_close = close;
        o.dev_list = list;
        o.dev_reset = [](tevix_ll_dev_t *, uint8_t target) { return int(target == 1); };
        o.reg_write = reg_write;
        o.reg_read = reg_read;
        o.param_set = param_set;
        o.param_get = param_get;
        o.cap_start = cap_start;
        o.cap_stop = cap_stop;
        o.cap_abort = [](tevix_ll_dev_t *) { ++g_cam.aborts; };
        return o;
    }();
    return o;
}

}  // namespace fake_ll

// Puts a transport in one backend slot for the object's lifetime.
class backend_slot {
  public:
    backend_slot(int slot, const tevix_ll_ops *ops)
        : slot_(slot), old_(tevix::ll::backend_swap(slot, ops)) {}
    ~backend_slot() { tevix::ll::backend_swap(slot_, old_); }
    backend_slot(const backend_slot &) = delete;
    backend_slot &operator=(const backend_slot &) = delete;

  private:
    int slot_;
    const tevix_ll_ops *old_;
};

// The lens of the fake driver: a plain pinhole at the image centre, f = 10 px.
inline bool pinhole_lens(tevix_drv_t *, tevix_lens_param_t *lens, uint32_t w, uint32_t h) {
    *lens = tevix_lens_param_t{};
    lens->cx = (w - 1) / 2.0;
    lens->cy = (h - 1) / 2.0;
    lens->fx = lens->fy = 10.0;
    lens->width = w;
    lens->height = h;
    return true;
}

// A parameter item of `id` holding `words`.
inline tevix_param_item_t param_item(uint32_t id, std::initializer_list<uint32_t> words) {
    tevix_param_item_t it{};
    it.id = id;
    it.len = static_cast<uint8_t>(4 * words.size());
    int i = 0;
    for (uint32_t w : words) std::memcpy(it.value.u8 + 4 * i++, &w, 4);
    return it;
}

// Frames of this format fail to decode.
constexpr uint16_t k_bad_format = 0xBAD;

// Decodes pixel i to 1000 + i (distance) or i (grey), when the destination holds the frame.
inline int32_t fake_decode(tevix_drv_t *, uint8_t *out, uint32_t cap, uint32_t kind,
                           const uint8_t *, uint32_t, const tevix_frame_info_t *info) {
    if (info->format == k_bad_format) return -5;
    uint32_t n = info->width * info->height;
    if (cap < 2 * n) return -1;
    auto *px = reinterpret_cast<uint16_t *>(out);
    for (uint32_t i = 0; i < n; ++i)
        px[i] = static_cast<uint16_t>(kind == TEVIX_DECODE_GRAY ? i : 1000 + i);
    return static_cast<int32_t>(2 * n);
}

inline tevix_drv_ops g_frame_ops = [] {
    tevix_drv_ops ops{};
    ops.frame_decode = fake_decode;
    ops.lens_param_get = pinhole_lens;
    return ops;
}();
inline tevix_drv_ops g_blind_ops = [] {  // no lens at all
    tevix_drv_ops ops{};
    ops.frame_decode = fake_decode;
    return ops;
}();
inline tevix_drv_t g_frame_drv{"test driver", "X1", &g_frame_ops, nullptr, nullptr};
inline tevix_drv_t g_blind_drv{"blind driver", "X2", &g_blind_ops, nullptr, nullptr};

// A record with a session over the fake transport and on the fake frame driver, without the open
// sequence; an 8x4 frame's information and raw bytes; the library's colour map.
class frame_test : public ::testing::Test {
  protected:
    static constexpr uint32_t k_w = 8, k_h = 4, k_n = k_w * k_h;
    void SetUp() override {
        g_cam.reset();
        tevix_ll_dev_t ll{};
        ll.ops = &fake_ll::ops();
        ASSERT_TRUE(tevix::api::session_attach(&dev_, ll));
        dev_.session->drv = &g_frame_drv;
        ASSERT_EQ(vx_cmap_init(tevix::api::default_cmap(), 1024), 0);
        info_.width = k_w;
        info_.height = k_h;
        info_.size = k_n * 8;
        raw_.assign(info_.size, 0);
    }
    void TearDown() override {
        vx_cmap_uninit(tevix::api::default_cmap());
        tevix::api::session_detach(&dev_);
    }
    std::string log() { return log_.text(); }

    temp_dir dir_;
    log_capture log_;
    tevix_dev_t dev_{};
    tevix_frame_info_t info_{};
    std::vector<uint8_t> raw_;
};

}  // namespace tevix::test
