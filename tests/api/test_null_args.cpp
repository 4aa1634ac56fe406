// Every public call fed null pointers, closed devices, zero counts and short buffers: each case
// checks the documented result and, where one is documented, the line the call logs.
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "api/session.h"
#include "fake_camera.h"
#include "tevix/tevix.h"
#include "tevix/tevix_ll.h"
#include "tevix/tevix_param.h"
#include "tevix/vx_image.h"
#include "tevix/vx_log.h"
#include "tevix/vx_stream.h"

namespace {

using tevix::test::backend_slot;
using tevix::test::g_cam;
using tevix::test::k_bad_format;

// One call of the sweep: its result as a number, the result it must give, and the text it must
// log (nullptr: not checked; "": nothing at all).
struct call_case {
    std::string what;
    std::function<long long()> call;
    long long expect;
    const char *log = nullptr;
};

// Any result as a number; a pointer as whether it is set.
long long _num(long long v) {
    return v;
}
template <class T>
long long _num(const T *p) {
    return p != nullptr;
}

// A row named by its own call: CASE(expr, expect[, log]). DEV_CASE: two rows, expr on the
// record d being no record and then the record never opened, which both get refused alike.
// clang-format off
#define CASE(expr, ...) {#expr, [&]() -> long long { return _num(expr); }, __VA_ARGS__}
#define ON_DEV(dev, expr, ...) {#expr " on " #dev, \
    [&, d = static_cast<tevix_dev_t *>(dev)]() -> long long { return _num(expr); }, __VA_ARGS__}
#define DEV_CASE(expr, ...) ON_DEV(nullptr, expr, __VA_ARGS__), ON_DEV(&closed_, expr, __VA_ARGS__)
// clang-format on
// A call on the record d refused with the line a missing or closed record logs.
#define NULL_DEV(fn, expect, ...) \
    DEV_CASE(fn(d __VA_OPT__(, ) __VA_ARGS__), expect, "[" #fn "] Device handler Is NULL!\r\n")

// Every byte of a record still zero.
template <class T>
bool _all_zero(const T &rec) {
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    for (size_t i = 0; i < sizeof rec; ++i)
        if (p[i]) return false;
    return true;
}

void _on_frame(tevix_dev_t *, const tevix_frame_t *) {}
int _on_error(tevix_dev_t *, int, uint32_t) {
    return 1;
}

// An open record over the fake transport (which opens no record of its own and answers every
// batch and register access), with the fake frame driver and a frame assembler.
class null_args : public tevix::test::frame_test {
  protected:
    void SetUp() override {
        frame_test::SetUp();
        dev_.inited = 1;
        tevix_session *s = dev_.session;
        s->fb_slots = 10;
        s->stream = vx_stream_create(&s->fb_slots);
        ASSERT_NE(s->stream, nullptr);
    }
    void TearDown() override {
        if (dev_.session) vx_stream_destroy(dev_.session->stream);
        frame_test::TearDown();
    }

    // Runs each case and checks its result and what it added to the log.
    void sweep(const std::vector<call_case> &cases) {
        for (const call_case &c : cases) {
            size_t before = log().size();
            EXPECT_EQ(c.call(), c.expect) << c.what;
            if (!c.log) continue;
            std::string added = log().substr(before);
            if (c.log[0] == '\0')
                EXPECT_EQ(added, "") << c.what;
            else
                EXPECT_NE(added.find(c.log), std::string::npos) << c.what << "\nlogged:\n" << added;
        }
    }
    const tevix_ll_ops *fake_ = &tevix::test::fake_ll::ops();
    backend_slot usb_{tevix::ll::k_backend_usb, fake_}, file_{tevix::ll::k_backend_file, fake_};
    tevix_dev_t closed_{};  // never opened
};

}  // namespace

TEST(null_args_lifecycle, init_and_uninit_in_any_order) {
    tevix::test::temp_dir dir;
    const std::filesystem::path old = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    backend_slot usb(tevix::ll::k_backend_usb, &tevix::test::fake_ll::ops());
    backend_slot file(tevix::ll::k_backend_file, &tevix::test::fake_ll::ops());

    tevix_uninit();  // before any init: nothing to undo
    tevix_log_cfg(VX_LOG_OFF, VX_LOG_OFF, 0);
    EXPECT_FALSE(vx_log_default()->inited);

    // No log path: the file is named by today's date in the working directory.
    tevix_init(nullptr);
    EXPECT_TRUE(vx_log_default()->inited);
    tevix_init("");  // a second init changes nothing
    std::string name;
    for (const auto &e : std::filesystem::directory_iterator(dir.path()))
        name = e.path().filename().string();
    EXPECT_TRUE(std::regex_match(name, std::regex("tevix_20[0-9]{6}\\.log"))) << name;
    EXPECT_EQ(tevix_path_get(), std::string(""));
    tevix_uninit();
    tevix_uninit();
    EXPECT_FALSE(vx_log_default()->inited);
    std::string text = tevix::test::read_file(dir.file(name));
    EXPECT_EQ(text.find("---- TEVIX v1.81.4"), 1u) << text;  // after the banner's blank line
    EXPECT_NE(text.find("---- TEVIX log END ----\n\n"), std::string::npos);
    std::filesystem::current_path(old);
}

TEST_F(null_args, session_calls) {
    tevix_dev_t one{}, eth{}, odd{};
    eth.type = TEVIX_DEV_ETH;  // no transport serves it
    odd.type = TEVIX_DEV_DEFAULT;
    odd.inited = 1;
    tevix_dev_t wide{};  // an Ethernet address that fills its whole field, no terminator
    wide.type = TEVIX_DEV_ETH;
    wide.inited = 1;
    std::memcpy(wide.addr.eth.addr, "0123456789abcdef", 16);
    wide.addr.eth.dev_num = 7;
    wide.addr.eth.access_num = 9;
    tevix_dev_info_t info;
    char uri[64];
    std::vector<char> tiny(4, 'X');
    const float zeros[4] = {};
    // URIs longer than any path.
    const std::string long_any = "x://" + std::string(1000, 'a');
    const std::string long_file = "file://" + std::string(300, 'b');
    sweep({
        CASE(tevix_dev_list(nullptr, 3), 0,
             "[tevix_dev_list]  wrong params: dev_list=(nil), dev_list_num=3 \n"),
        CASE(tevix_dev_list(&one, -1), 0, "dev_list_num=-1 \n"),
        CASE(tevix_dev_open_by_fd(-1), 0,
             "[tevix_dev_open_by_fd]tevix_dev_open_by_fd currently only support in android!\n"),
        CASE(tevix_dev_open(&eth), 0, "[tevix_dev_open]open device failed!\n"),
        CASE(tevix_dev_get_uri(nullptr, uri, 64), 0, ""),
        CASE(tevix_dev_get_uri(&dev_, nullptr, 64), 0),
        CASE(tevix_dev_get_uri(&dev_, uri, 0), 0),
        CASE(tevix_dev_get_uri(&closed_, uri, 64), 0,
             "[tevix_dev_get_uri]get uri failed : device not inited\n"),
        CASE(tevix_dev_get_uri(&odd, uri, 64), 0, "[tevix_dev_get_uri]unknown device type: 99\n"),
        CASE(std::strcmp(tevix_dev_get_uri(&dev_, tiny.data(), 4), "usb"), 0),
        {"no path prefix",
         [&] {
             tevix_path_set(nullptr);
             return std::strcmp(tevix_path_get(), "");
         },
         0, "[tevix_path_set]PATH_PREIFX: \n"},
        CASE(std::strcmp(tevix_dev_get_uri(&wide, uri, 64), "eth://7:9@0123456789abcdef"), 0),
        CASE(tevix_dev_open_by_uri("file://"), 0, "[tevix_dev_open_by_uri]wrong URI: file://\n"),
        CASE(tevix_dev_open_by_uri("usb://"), 0, "[tevix_dev_open_by_uri]wrong URI: usb://\n"),
        CASE(tevix_dev_open_by_uri("://"), 0, "[tevix_dev_open_by_uri]wrong URI: ://\n"),
        CASE(tevix_dev_open_by_uri("eth://@"), 0, "[tevix_dev_open_by_uri]wrong URI: eth://@\n"),
        CASE(tevix_dev_open_by_uri(long_any.c_str()), 0, "[tevix_dev_open]open device failed!\n"),
        CASE(tevix_dev_open_by_uri(long_file.c_str()), 0, "[tevix_dev_open]open device failed!\n"),
        CASE(std::strcmp(tevix_error_name(INT_MIN), "**UNKNOWN**"), 0),
        CASE(tevix_oni_repair(nullptr, "x.oni"), -1, "[tevix_oni_repair]Wrong params\n"),
        CASE(tevix_oni_repair("x.oni", nullptr), -1),
        CASE(tevix_hotplug_register(nullptr, nullptr, 1), 0,
             "[tevix_hotplug_register]Wrong params\n"),
        CASE(tevix_hotplug_deregister(12345), 0),
        CASE(tevix_file_open(nullptr, "rb"), -1),
        CASE(tevix_file_open("x", nullptr), -1),
        CASE(tevix_frame_save_raw(1, 2, nullptr, 4, 2, 2, 1, nullptr), 0,
             "[tevix_frame_save_raw]wrong param: raw_len=4, w=2, h=2\n"),
        CASE(tevix_frame_save_distance(-1, 0, zeros, 4, 2, 2), 0,
             "[tevix_frame_save_distance]wrong param: dist_len=4, w=2, h=2\n"),
        CASE(tevix_frame_save_gray(1, 2, zeros, 4, 0, 2), 0, "[tevix_frame_save_gray]wrong param"),
        CASE(tevix_frame_load_distance(0, nullptr, 4, nullptr, nullptr), 0,
             "[tevix_frame_load_distance]Wrong params\n"),
        CASE(tevix_oni_open(nullptr), 0, "[tevix_oni_open]Wrong params\n"),
        CASE(tevix_oni_node_count(nullptr), -1),
        CASE(tevix_oni_node_info(nullptr, 1, nullptr), 0),
        CASE(tevix_oni_properties(nullptr, nullptr, nullptr), -1),
        CASE(tevix_oni_read_frame(nullptr, 1, 0, nullptr, 0, nullptr), -1),
        CASE(tevix_oni_decode_frame(nullptr, 1, 0, nullptr, 0), -1),
        DEV_CASE(tevix_dev_get_info(d, &info), 0),
        NULL_DEV(tevix_dev_reset, 0, 1),
        NULL_DEV(tevix_dev_get_driver, 0, nullptr),
        NULL_DEV(tevix_dev_get_calib_freqs, -1, nullptr, 0),
    });
    tevix_oni_close(nullptr);
    tevix_dev_close(nullptr);
    tevix_dev_close(&closed_);
    EXPECT_TRUE(_all_zero(closed_));
    // The failed open leaves the record closed, with nothing allocated.
    EXPECT_EQ(eth.session, nullptr);
    EXPECT_EQ(eth.api_mutex, nullptr);
}

TEST_F(null_args, capture_calls) {
    tevix_cap_cfg_t cfg{};
    cfg.cache_frames_cnt = 10;
    tevix_frame_info_t info{};
    uint8_t buf[64] = {};
    sweep({
        NULL_DEV(tevix_cap_set_callback_on_frame_ready, 0, _on_frame),
        NULL_DEV(tevix_cap_set_callback_on_error, 0, _on_error),
        NULL_DEV(tevix_cap_start, 0),
        NULL_DEV(tevix_cap_stop, 0),
        DEV_CASE(tevix_cap_is_ongoing(d), 0),
        DEV_CASE(tevix_cap_config_get(d, &cfg), 0),
        DEV_CASE(tevix_cap_get_frames(d, 1, buf, sizeof buf, &info), -1,
                 "[tevix_cap_get_frames]Wrong params\n"),
        DEV_CASE(tevix_cap_get_frame(d, buf, sizeof buf, &info), -1,
                 "[tevix_cap_get_frame]Wrong params\n"),
        DEV_CASE(tevix_cap_snapshot(d, buf, sizeof buf, &info), 0,
                 "[tevix_cap_snapshot]wrong parameters\n"),
        DEV_CASE(tevix_cap_save_frame(d, buf, 0, &info), -22),
        NULL_DEV(tevix_cap_seek_frame, -1, 0, 0),
        CASE(tevix_cap_config_set(nullptr, &cfg), 0),
        CASE(tevix_cap_config_set(&closed_, &cfg), 1,
             "[tevix_cap_config_set]Cannot set capture config when device is closed \n"),
        CASE(tevix_cap_config_get(&dev_, nullptr), 0),
        CASE(tevix_cap_get_frames(&dev_, 0, buf, sizeof buf, &info), -1,
             "[tevix_cap_get_frames]Wrong params\n"),
        CASE(tevix_cap_get_frame(&dev_, nullptr, 0, nullptr), TEVIX_ERR_CAP_WRONG_STATE,
             "[tevix_cap_get_frame]device is not capturing\n"),
        CASE(tevix_cap_save_frame(&dev_, nullptr, 0, &info), -22),
        CASE(tevix_cap_save_frame(&dev_, buf, 0, nullptr), -22),
        {"a ready list of no frames cannot start",
         [&] {
             tevix_cap_cfg_t none{};
             tevix_cap_config_set(&dev_, &none);
             return tevix_cap_start(&dev_);
         },
         0, " capture buffer not set or size is not correct \n"},
    });
    EXPECT_EQ(dev_.busy, 0);
}

TEST_F(null_args, frame_decoding_calls) {
    std::vector<uint16_t> u16(k_n);
    std::vector<float> f32(k_n);
    const uint8_t *raw = raw_.data();
    tevix_frame_info_t bad = info_;
    bad.format = k_bad_format;
    // One row a refusal, run by every getter: device, no destination, destination length,
    // raw bytes, raw length, frame info; the result and the line after the getter's name.
    struct row {
        tevix_dev_t *dev;
        bool dst;
        uint32_t dst_len;
        const uint8_t *raw;
        uint32_t raw_len;
        const tevix_frame_info_t *info;
        int expect;
        const char *text;
    };
    const row rows[] = {
        {nullptr, true, k_n, raw, info_.size, &info_, -1, " Device handler Is NULL!\r\n"},
        {&closed_, true, k_n, raw, info_.size, &info_, -1, " Device handler Is NULL!\r\n"},
        {&dev_, false, k_n, raw, info_.size, &info_, 0, "wrong dst_len: 32 (wxh=8x4)\n"},
        {&dev_, true, k_n - 1, raw, info_.size, &info_, 0, "wrong dst_len: 31 (wxh=8x4)\n"},
        {&dev_, true, k_n, nullptr, info_.size, &info_, 0,
         "raw frame length too small: datalen=256, frlen=256\n"},
        {&dev_, true, k_n, raw, info_.size - 1, &info_, 0,
         "raw frame length too small: datalen=255, frlen=256\n"},
        {&dev_, true, k_n, raw, info_.size, &bad, 0, "raw frame decode to "},
    };
    std::vector<std::string> lines;  // kept alive for the cases below
    lines.reserve(64);
    std::vector<call_case> cases;
    // Reported names: the two plain float getters speak as their typed twins.
    auto add = [&](auto get, const char *name, auto &dst) {
        for (const row &r : rows) {
            lines.push_back(std::string("[") + name + "]" + r.text);
            cases.push_back({name,
                             [&dst, get, r] {
                                 return get(r.dev, r.dst ? dst.data() : nullptr, r.dst_len, r.raw,
                                            r.raw_len, r.info);
                             },
                             r.expect, lines.back().c_str()});
        }
    };
    add(tevix_frame_get_dist_raw, "tevix_frame_get_dist_raw", u16);
    add(tevix_frame_get_dist_u16, "tevix_frame_get_dist_u16", u16);
    add(tevix_frame_get_gray_u16, "tevix_frame_get_gray_u16", u16);
    add(tevix_frame_get_dist_f32, "tevix_frame_get_dist_f32", f32);
    add(tevix_frame_get_distance, "tevix_frame_get_dist_f32", f32);
    add(tevix_frame_get_gray_f32, "tevix_frame_get_gray_f32", f32);
    add(tevix_frame_get_gray, "tevix_frame_get_gray_f32", f32);
    sweep(cases);
    EXPECT_EQ(dev_.busy, 0);
}

TEST_F(null_args, point_cloud_and_lens_calls) {
    std::vector<float> dist(k_n, 1.0f), gray(k_n, 500.0f), pcl(4 * k_n, -7.0f), img(k_n, 1.0f);
    std::vector<uint16_t> img16(k_n, 1000);
    float *P = pcl.data(), *I = img.data();
    const float *D = dist.data(), *G = gray.data();
    uint16_t *I16 = img16.data();
    tevix_lens_t lens{};
    tevix_lens_calib_cfg_t lcfg{1, 1, 0};
    const char *arg_error = "[tevix_lens_calib_apply]lens_calib_apply argument error\n";
    // The calls with the test image's size and no lens of their own.
    auto cloud = [&](tevix_dev_t *d, float *o, uint32_t olen, const float *ds, uint32_t dlen) {
        return tevix_frame_get_pcl(d, o, olen, ds, dlen, k_w, k_h, nullptr);
    };
    auto xyzd = [&](tevix_dev_t *d, float *o, uint32_t olen, const float *ds, int z) {
        return tevix_frame_get_pcl_xyzd(d, o, olen, ds, k_n, k_w, k_h, z, 0.0f, 4.0f, nullptr);
    };
    auto xyzi = [&](tevix_dev_t *d, float *o, uint32_t olen, const float *ds, int balance) {
        return tevix_frame_get_pcl_xyzi(d, o, olen, ds, k_n, G, k_n, k_w, k_h, balance, nullptr);
    };
    sweep({
        DEV_CASE(cloud(d, P, 3 * k_n, D, k_n), 0),
        DEV_CASE(xyzd(d, P, 4 * k_n, D, 0), 0),
        DEV_CASE(xyzi(d, P, 4 * k_n, D, 0), 0),
        DEV_CASE(tevix_lens_calib_config_set(d, &lcfg), 0),
        DEV_CASE(tevix_lens_calib_config_get(d), 0),
        DEV_CASE(tevix_lens_calib_apply(d, I, k_n, I, k_n, 1, 0, &info_, nullptr), 0, arg_error),
        DEV_CASE(tevix_lens_param_get(d, &lens), 0),
        DEV_CASE(tevix_lens_param_set(d, &lens), 0),
        CASE(cloud(&dev_, nullptr, 3 * k_n, D, k_n), 0,
             "[tevix_frame_get_pcl]Pcl output buffer too small"),
        CASE(cloud(&dev_, P, 3 * k_n, nullptr, k_n), 0),
        CASE(cloud(&dev_, P, 3 * k_n, D, k_n - 1), 0),
        {"cloud without any lens",
         [&] {
             dev_.session->drv = &tevix::test::g_blind_drv;
             int r = cloud(&dev_, P, 3 * k_n, D, k_n);
             dev_.session->drv = &tevix::test::g_frame_drv;
             return r;
         },
         0, "[tevix_frame_get_pcl]Cannot generate PCL: no lens parameter in driver.\n"},
        CASE(tevix_frame_get_pcl(&dev_, P, 0, D, 0, 0, k_h, nullptr), 0),
        CASE(xyzd(&dev_, nullptr, 4 * k_n, D, 1), 0,
             "[tevix_frame_get_pcl_xyzd]Pcl output buffer too small: only 128 floats, needs 32 x 4 "
             "floats\n"),
        CASE(xyzd(&dev_, P, 3 * k_n, D, 0), 0, "only 96 floats, needs 32 x 4 floats\n"),
        CASE(xyzd(&dev_, P, 4 * k_n, nullptr, 1), 0),
        CASE(xyzi(&dev_, P, 4 * k_n, nullptr, 0), 0),
        CASE(xyzi(&dev_, P, 4 * k_n, D, -1025), 0,
             "[tevix_frame_get_pcl_xyzi] wrong ir_balance value: -1025\n"),
        CASE(xyzi(&dev_, P, 4 * k_n - 1, D, 0), 0,
             "[tevix_frame_get_pcl_xyzi]Pcl output buffer too small: only 127 floats"),
        CASE(tevix_lens_calib_config_set(&dev_, nullptr), 0),
        CASE(tevix_lens_calib_apply_dist_f32(&dev_, nullptr, k_n, I, k_n, 0, &info_, nullptr), 0,
             arg_error),
        CASE(tevix_lens_calib_apply_dist_u16(&dev_, I16, k_n, nullptr, k_n, 1, &info_, nullptr), 0,
             arg_error),
        CASE(tevix_lens_calib_apply_gray_f32(&dev_, I, k_n, I, k_n, nullptr, nullptr), 0,
             arg_error),
        CASE(tevix_lens_calib_apply_gray_u16(&dev_, I16, k_n, I16, k_n - 1, &info_, nullptr), 0,
             "[tevix_lens_calib_apply]lens_calib_apply dst_len or src_len too small: dst_len=32, "
             "src_len=31\n"),
        CASE(tevix_lens_calib_apply_dist_f32(&dev_, I, 0, I, k_n, 2, &info_, nullptr), 0,
             "dst_len=0, src_len=32\n"),
        CASE(tevix_lens_param_get(&dev_, nullptr), 0),
        CASE(tevix_lens_param_set(&dev_, nullptr), 0),
    });
    for (float v : pcl) ASSERT_EQ(v, -7.0f);  // no refused call wrote a point
    for (float v : img) ASSERT_EQ(v, 1.0f);
    EXPECT_EQ(g_cam.device_calls(), 0u);  // nothing went to the device
    EXPECT_EQ(dev_.busy, 0);

    // A grey image shorter than the cloud colours its first points only; the rest stay black.
    ASSERT_EQ(tevix_frame_get_pcl_xyzi(&dev_, pcl.data(), 4 * k_n, dist.data(), k_n, gray.data(), 1,
                                       k_w, k_h, 0, nullptr),
              static_cast<int>(k_n));
    EXPECT_GT(pcl[3], 0.0f);
    EXPECT_EQ(pcl[7], 0.0f);
    ASSERT_EQ(tevix_frame_get_pcl_xyzi(&dev_, pcl.data(), 4 * k_n, dist.data(), k_n, nullptr, k_n,
                                       k_w, k_h, 0, nullptr),
              static_cast<int>(k_n));
    EXPECT_EQ(pcl[3], 0.0f);

    // Clouds into outputs of exactly the floats they need, for widths around the groups of four.
    for (uint32_t w = 1; w <= 9; ++w) {
        const uint32_t n = w * 3;
        std::vector<float> d(n, 1.5f), out3(3 * n + 4, -9.0f), out4(4 * n + 4, -9.0f);
        EXPECT_EQ(tevix_frame_get_pcl(&dev_, out3.data(), 3 * n, d.data(), n, w, 3, nullptr),
                  static_cast<int>(n));
        EXPECT_EQ(tevix_frame_get_pcl_xyzd(&dev_, out4.data(), 4 * n, d.data(), n, w, 3, 1, 0.0f,
                                           4.0f, nullptr),
                  static_cast<int>(n));
        for (uint32_t i = 3 * n; i < out3.size(); ++i) ASSERT_EQ(out3[i], -9.0f) << w;
        for (uint32_t i = 4 * n; i < out4.size(); ++i) ASSERT_EQ(out4[i], -9.0f) << w;
    }
}

TEST_F(null_args, colour_calls) {
    const uint16_t src16[2] = {100, 200};
    const float srcf[2] = {0.5f, 1.0f};
    std::vector<uint8_t> out(8, 0xEE);
    const uint32_t palette = tevix_cmap_palette_get();
    uint8_t *O = out.data();
    auto u16 = [&](uint8_t *o, uint32_t len, const uint16_t *px, uint32_t n, uint32_t fmt) {
        return tevix_cmap_dist_u16_to_RGB(o, len, px, n, fmt, 0, 1000, nullptr);
    };
    auto f32 = [&](uint8_t *o, uint32_t len, const float *px, uint32_t n, uint32_t fmt) {
        return tevix_cmap_dist_f32_to_RGB(o, len, px, n, fmt, 0.0f, 4.0f, nullptr);
    };
    sweep({
        CASE(tevix_cmap_palette_set(64), 0),
        CASE(tevix_cmap_palette_get(), palette),
        CASE(u16(O, 8, nullptr, 2, 0), -22),
        CASE(f32(nullptr, 8, srcf, 2, 0), -22),
        CASE(f32(O, 8, srcf, 2, 8), -22),
        CASE(u16(O, 2, src16, 2, TEVIX_PIX_RGB), 0),
        CASE(f32(O, 3, srcf, 2, TEVIX_PIX_ARGB), 0),
        CASE(u16(O, 8, src16, 0, TEVIX_PIX_BGR), 0),
        CASE(tevix_cmap_gray_u16_to_IR(nullptr, 2, src16, 2, 640), 0),
        CASE(tevix_cmap_gray_u16_to_IR(out.data(), 2, nullptr, 2, 640), 0),
        CASE(tevix_cmap_gray_f32_to_IR(out.data(), 2, srcf, 0, 640), 0),
    });
    for (uint8_t b : out) EXPECT_EQ(b, 0xEE);
    // f32 infrared of samples beyond any integer.
    const float odd[4] = {NAN, INFINITY, 1e30f, -INFINITY};
    std::vector<uint8_t> ir(4, 7);
    EXPECT_EQ(tevix_cmap_gray_f32_to_IR(ir.data(), 4, odd, 4, 640), 4);
    EXPECT_EQ(ir, (std::vector<uint8_t>{0, 255, 255, 0}));

    // Destinations sized exactly for the pixels: every format fills them and nothing beyond.
    constexpr uint32_t k_bytes[8] = {3, 4, 3, 4, 4, 4, 4, 4};
    for (uint32_t fmt = 0; fmt < 8; ++fmt) {
        for (uint32_t px : {1u, 2u, 5u, 6u, 17u, 300u}) {
            std::vector<uint16_t> s16(px);
            std::vector<float> sf(px);
            for (uint32_t i = 0; i < px; ++i) {
                s16[i] = static_cast<uint16_t>(i * 7);
                sf[i] = static_cast<float>(i) * 0.01f;
            }
            const uint32_t len = k_bytes[fmt] * px;
            std::vector<uint8_t> d(len + 16, 0x5A);
            EXPECT_EQ(
                tevix_cmap_dist_u16_to_RGB(d.data(), len, s16.data(), px, fmt, 0, 2000, nullptr),
                static_cast<int>(px));
            EXPECT_EQ(
                tevix_cmap_dist_f32_to_RGB(d.data(), len, sf.data(), px, fmt, 0.0f, 2.0f, nullptr),
                static_cast<int>(px));
            for (uint32_t i = len; i < d.size(); ++i)
                ASSERT_EQ(d[i], 0x5A) << "format " << fmt << ", " << px << " pixels";
        }
    }
}

TEST_F(null_args, parameter_calls) {
    uint32_t values[2] = {};
    tevix_param_item_t item{};
    sweep({
        NULL_DEV(tevix_param_batch_set, 0, &item, 1),
        NULL_DEV(tevix_param_batch_get, 0, &item, 1),
        NULL_DEV(tevix_reg_batch_write, 0, 1, 0, values, 2),
        NULL_DEV(tevix_reg_batch_read, 0, 1, 0, values, 2),
        CASE(tevix_param_batch_set(&dev_, nullptr, 2), 0),
        CASE(tevix_param_batch_get(&dev_, nullptr, 2), 0),
        CASE(tevix_reg_batch_read(&dev_, 1, 0, nullptr, 2), 0,
             "[tevix_reg_batch_read]target=1,reg_base=0,reg_cnt=2,val_buf=(nil)\n"),
        // Filters refuse no record silently, a closed one through the device check.
        CASE(tevix_filter_enable(nullptr, TEVIX_FILTER_MIN_AMP, nullptr), -1, ""),
        CASE(tevix_filter_disable(nullptr, TEVIX_FILTER_MIN_AMP), -1, ""),
        CASE(tevix_filter_enable(&closed_, TEVIX_FILTER_MIN_AMP, nullptr), -1,
             "[tevix_filter_enable] Device handler Is NULL!\r\n"),
        CASE(tevix_filter_disable(&closed_, TEVIX_FILTER_MIN_AMP), -1,
             "[tevix_filter_disable] Device handler Is NULL!\r\n"),
    });
    EXPECT_EQ(g_cam.device_calls(), 0u);  // no refused call reached the device
    // An empty batch or zero registers still go to the device, which answers.
    EXPECT_EQ(tevix_param_batch_get(&dev_, nullptr, 0), 1);
    EXPECT_EQ(tevix_reg_batch_read(&dev_, 1, 0, nullptr, 0), 1);
    EXPECT_EQ(g_cam.device_calls(), 2u);
    EXPECT_EQ(dev_.busy, 0);
}

// Records that were never opened, handed to the real transports: nothing runs, nothing is kept.
// The USB transport refuses every call; the replay transport answers commands, registers and
// parameters with success whatever the state, as it does for an open recording.
TEST_F(null_args, transport_calls_on_records_never_opened) {
    uint8_t data[16] = {};
    tevix_param_wire_t wire[2] = {};
    for (const tevix_ll_ops *ops : {&usb_ll_ops, &file_ll_ops}) {
        tevix_ll_dev_t rec{};
        rec.ops = ops;
        const bool usb = ops == &usb_ll_ops;
        SCOPED_TRACE(usb ? "usb" : "file");
        const long long accepts = usb ? 0 : 1;
        sweep({
            CASE(tevix_ll_exe_cmd(&rec, 0, 0xCC, 0, data, 16, 10), accepts),
            CASE(tevix_ll_tx_data(&rec, data, 16) <= 0, 1),
            CASE(tevix_ll_cap_start(&rec, 0, nullptr, nullptr), 0),
            CASE(tevix_ll_cap_stop(&rec), 0),
            CASE(tevix_ll_cap_seek(&rec, 1, 0), -1),
            CASE(tevix_ll_dev_reset(&rec, 1), 0),
            CASE(tevix_ll_reg_write(&rec, 1, 0, data, 2), accepts),
            CASE(tevix_ll_reg_read(&rec, 1, 0, data, 2), accepts),
            CASE(tevix_ll_param_set(&rec, wire, 2), accepts),
            CASE(tevix_ll_param_get(&rec, nullptr, 2), accepts),
        });
        tevix_ll_cap_abort(&rec);
        tevix_ll_cap_wait(&rec);
        tevix_ll_dev_close(&rec);
        EXPECT_EQ(rec.priv, nullptr);
    }
    // A recording record without a file name opens nothing and keeps no state.
    tevix_ll_dev_t rec{};
    rec.if_type = TEVIX_LL_IF_FILE;
    rec.ops = &file_ll_ops;
    EXPECT_EQ(tevix_ll_dev_open(&rec), nullptr);
    EXPECT_EQ(rec.priv, nullptr);
    EXPECT_EQ(tevix_ll_dev_open_by_fd(&rec, 3), nullptr);

    // With no backend in the list, the library-wide calls find nobody to ask.
    tevix::ll::backend_swap(tevix::ll::k_backend_usb, nullptr);
    tevix::ll::backend_swap(tevix::ll::k_backend_file, nullptr);
    tevix_ll_dev_t list[2] = {}, any{};
    sweep({
        CASE(tevix_ll_init(), 0, "[tevix_ll_init]ll_init failed: ll[0]\n"),
        {"debug level and stop without backends",
         [&] {
             tevix_ll_set_debug(5);
             tevix_ll_uninit();
             return 0;
         },
         0, ""},
        CASE(tevix_ll_dev_list(list, 2) + list[0].is_listed, 0),
        CASE(tevix_ll_dev_open(&any), 0),
        CASE(tevix_ll_dev_open_by_fd(&any, 3), 0),
    });
}

TEST_F(null_args, calibration_file_calls) {
    tevix_param_handle_t handle{};
    tevix_lens_param_t lens{};
    lens.cx = 1.5;
    char buf[64];
    std::vector<char> tiny(6, 'X');
    tevix_dev_t dev{}, bare{};
    std::string prefix = dir_.path().string() + "/";
    dev.path_prefix = prefix.c_str();
    ASSERT_TRUE(
        tevix::test::write_text(dir_.file("lens_param.txt"), "160 120 200 200 0.1 0.01 320 240\n"));
    sweep({
        CASE(tevix_param_open_file(nullptr, dir_.file("x.bin").c_str()), 0),
        CASE(tevix_param_open_file(&handle, nullptr) + handle.opened, 0,
             "[tevix_param_open_file]open calib bin failed: \n"),
        CASE(std::strcmp(tevix_get_param_absolute_name(nullptr, buf, sizeof buf),
                         "tevix_param_0.bin"),
             0),
        CASE(tevix_get_param_absolute_name(&dev, nullptr, 64), 0),
        CASE(tevix_get_param_absolute_name(&dev, tiny.data(), 0)[0], 'X'),
        CASE(std::strcmp(tevix_get_param_absolute_name(&bare, tiny.data(), 6), "tevix"), 0),
        CASE(std::strcmp(tevix_lens_param_filename(nullptr, buf, 64, 0, 1), "lens_param_0.txt"), 0),
        CASE(tevix_lens_param_filename(&dev, nullptr, 64, 1, 1), 0),
        CASE(std::strlen(tevix_lens_param_filename(&dev, buf, 1, 1, 0)), 0),
        CASE(tevix_param_len_bin_load(nullptr, nullptr), 0,
             "[tevix_param_len_bin_load] Load : skipped\n"),
        CASE(tevix_param_load_len_2d_file(&dev, nullptr, "lens_param.txt"), 0,
             "[tevix_param_load_len_2d_file] Load lens_param.txt: skipped\n"),
        CASE(tevix_param_load_len_2d_file(nullptr, &lens, nullptr), 0),
    });
    tevix_param_close(nullptr);
    tevix_param_close(&handle);
    EXPECT_TRUE(_all_zero(handle));
    tevix_param_len_bin_free(nullptr);
    // The calibration station: nothing moves before the arguments and the camera are right.
    static int placed = 0;
    const uint32_t dist[2] = {1000, 2000};
    tevix_station_cfg_t cfg{};
    cfg.distances_mm = dist;
    cfg.n_distances = 2;
    cfg.place = [](tevix_dev_t *, const tevix_station_step_t *, void *) { return ++placed, 0; };
    const std::string out = dir_.file("station.bin");
    auto station = [&](tevix_dev_t *d, tevix_station_cfg_t c, const char *path) {
        return tevix_calib_station(d, &c, path);
    };
    tevix_station_cfg_t no_place = cfg, one_distance = cfg, no_temps = cfg;
    no_place.place = nullptr;
    one_distance.n_distances = 1;
    no_temps.n_temps = 2;
    sweep({
        DEV_CASE(station(d, cfg, out.c_str()), 0,
                 "[tevix_calib_station] Device handler Is NULL!\r\n"),
        CASE(tevix_calib_station(&dev_, nullptr, out.c_str()), 0,
             "[tevix_calib_station]Wrong params\n"),
        CASE(station(&dev_, cfg, nullptr), 0, "[tevix_calib_station]Wrong params\n"),
        CASE(station(&dev_, no_place, out.c_str()), 0, "[tevix_calib_station]Wrong params\n"),
        CASE(station(&dev_, one_distance, out.c_str()), 0, "[tevix_calib_station]Wrong params\n"),
        CASE(station(&dev_, no_temps, out.c_str()), 0, "[tevix_calib_station]Wrong params\n"),
        CASE(station(&dev_, cfg, out.c_str()), 0,
             "[tevix_calib_station]the station calibrates EPC cameras only (chip X1)\n"),
    });
    EXPECT_EQ(placed, 0);
    EXPECT_FALSE(std::filesystem::exists(out));
    EXPECT_EQ(lens.cx, 1.5);  // a failed load leaves the record untouched
    EXPECT_EQ(tevix_param_load_len_2d_file(&dev, &lens, "lens_param.txt"), 1);
    EXPECT_EQ(lens.width, 320u);
}

namespace {
void _vlog(vx_log_t *ctx, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vx_log_vfprintf(ctx, VX_LOG_ERR, 1, nullptr, fmt, args);
    va_end(args);
}
}  // namespace

TEST_F(null_args, log_calls) {
    vx_log_t off{};  // never initialised
    vx_log_t mine{};
    std::string path = dir_.file("mine.log");
    ASSERT_NE(vx_log_init(&mine, path.c_str(), "ME"), nullptr);
    vx_log_cfg(&mine, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
    vx_log_cfg(&mine, VX_LOG_TARGET_FILE, VX_LOG_DBG, 1);  // every write reaches the file at once
    const uint8_t bytes[3] = {'a', 'b', 'c'};
    auto size = [&] { return tevix::test::read_file(path).size(); };
    sweep({
        CASE(vx_log_cfg(&off, VX_LOG_TARGET_CONSOLE, VX_LOG_ERR, 1), 0),
        CASE(off.flush[0], 1),
        CASE(vx_log_cfg(&off, VX_LOG_TARGET_FILE, VX_LOG_ERR, 0), 0),
        CASE(vx_log_cfg(&off, VX_LOG_TARGET_THIRD, VX_LOG_ERR, 0), 0),
        CASE(vx_log_cfg(&mine, 3, VX_LOG_ERR, 1), 0),
        {"a prefixed message of no tag and no format",
         [&] {
             vx_log_fprintf(nullptr, VX_LOG_ERR, 0, nullptr, nullptr);
             return 0;
         },
         0, "][VX]"},
    });
    vx_log_rotate_enable(&off, "backup.log", 10);
    vx_log_rotate_disable(&off);
    vx_log_reload(&off, 1);
    vx_log_uninit(&off);
    vx_log_uninit(&off);
    EXPECT_TRUE(_all_zero(off));
    // Rotation without a backup path leaves the file in place.
    vx_log_rotate_enable(&mine, nullptr, 1);
    vx_log(&mine, VX_LOG_ERR, "T", "more than one byte\n");
    vx_log_rotate_disable(&mine);
    const size_t before = size();
    EXPECT_GT(before, 1u);
    // Messages without a format and dumps of nothing write nothing.
    vx_log_raw(&mine, VX_LOG_ERR, nullptr);
    _vlog(&mine, nullptr);
    vx_log_hex(&mine, VX_LOG_ERR, bytes, 0, 1);
    vx_log_hex(&mine, VX_LOG_ERR, bytes, -3, 1);
    vx_log_memstr(&mine, VX_LOG_ERR, bytes, 0, 64, 0);
    vx_log_memstr(&mine, VX_LOG_ERR, bytes, 3, 0, 0);
    vx_log_memstr(&mine, VX_LOG_ERR, nullptr, 3, 64, 0);
    EXPECT_EQ(size(), before);
    vx_log_memstr(&mine, VX_LOG_ERR, bytes, 3, 4, 0);  // a quoted dump cut at four bytes of text
    EXPECT_EQ(size(), before + 3);
    vx_log_uninit(&mine);
}

TEST_F(null_args, stream_calls) {
    uint32_t cfg = 3, got = 0;
    vx_stream_t *s = vx_stream_create(&cfg);
    ASSERT_NE(s, nullptr);
    vx_ostream_t *os = vx_ostream_create();
    ASSERT_NE(os, nullptr);
    uint8_t on = 1, out = 0;
    vx_ostream_set_cfg(os, &on);
    uint8_t hdr[36];
    vx_frame_desc_t desc{};
    desc.frlen = 8;
    const uint8_t payload[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const auto *words = reinterpret_cast<const uint32_t *>(payload);
    std::vector<uint8_t> wire(36 + 8);
    uint8_t dst[8] = {};
    vx_stream_state_t st{};
    vx_ostream_reset(nullptr);
    vx_ostream_destroy(nullptr);
    vx_ostream_set_cfg(os, nullptr);
    vx_ostream_set_cfg(nullptr, &out);
    EXPECT_EQ(*vx_ostream_get_cfg(os, &out), 1);
    vx_stream_set_cfg(nullptr, &cfg);
    vx_stream_reset(nullptr);
    vx_stream_destroy(nullptr);
    vx_stream_set_cfg(s, nullptr);
    EXPECT_EQ(*vx_stream_get_cfg(s, &got), 3u);
    const uint32_t four = 4;
    vx_stream_set_cfg(s, &four);
    EXPECT_EQ(*vx_stream_get_cfg(s, &got), 4u);
    sweep({
        CASE(vx_ostream_get_cfg(nullptr, &out), 0),
        CASE(vx_ostream_mkhdr(nullptr, hdr, &desc, words, 4), -1),
        CASE(vx_ostream_get_cfg(os, nullptr), 0),
        CASE(vx_ostream_mkhdr(os, hdr, &desc, nullptr, -1), -1),
        CASE(vx_ostream_mkhdr(os, nullptr, &desc, words, 4), -1),
        CASE(vx_ostream_mkhdr(os, hdr, nullptr, words, 4), -1),
        CASE(vx_ostream_mkhdr(os, hdr, &desc, nullptr, 4), -1),
        CASE(vx_stream_create(nullptr), 0),
        CASE(vx_stream_feed_input(nullptr, nullptr, 5), 0),
        CASE(vx_stream_fetch_frames(nullptr, nullptr, 0, 1, nullptr, false), 0),
        CASE(vx_stream_get_state(nullptr, &st), 0),
        CASE(vx_stream_get_cfg(nullptr, &got), 0),
        CASE(vx_stream_get_state(s, nullptr), 0),
        CASE(vx_stream_get_cfg(s, nullptr), 0),
        CASE(vx_stream_feed_input(s, payload, 0), 0),
        CASE(vx_stream_feed_input(s, nullptr, 100), 0),
    });
    // One frame, fetched into a negative size.
    vx_ostream_mkhdr(os, wire.data(), &desc, words, 8);
    std::memcpy(wire.data() + 36, payload, 8);
    vx_stream_feed_input(s, wire.data(), static_cast<uint32_t>(wire.size()));
    EXPECT_EQ(vx_stream_fetch_frames(s, dst, -5, 1, nullptr, false), 1);
    for (uint8_t b : dst) EXPECT_EQ(b, 0);
    // The frame fetched into no room left the ready list all the same.
    ASSERT_EQ(vx_stream_get_state(s, &st), &st);
    EXPECT_EQ(st.completed, 1u);
    EXPECT_EQ(st.ready, 0u);
    vx_ostream_destroy(os);
    vx_stream_destroy(s);
}

TEST_F(null_args, image_routine_calls) {
    std::vector<uint16_t> img(k_n, 1234), copy(img);
    std::vector<float> pts(4 * k_n, -1.0f), fimg(k_n, 2.0f);
    const float intr[4] = {4.0f, 2.0f, 10.0f, 10.0f};
    const double coef[2] = {0.1, 0.01};
    vx_lens_t lens{4.0, 2.0, 10.0, 10.0, coef, 2, k_w, k_h};
    vx_lens_t no_coef = lens;
    no_coef.dcoef = nullptr;
    vx_calib_len_map_t map{};
    vx_bpf2d_iir_t bpf{};
    vx_cmap_t cm{}, bare{};
    ASSERT_EQ(vx_cmap_init(&cm, 0), 0);  // an empty table is allowed
    uint8_t plane[4] = {9, 9, 9, 9};
    uint16_t w16[1] = {5};
    uint32_t w32[1] = {5};
    float wf[1] = {5.0f};
    float *P = pts.data(), *F = fimg.data();
    uint16_t *I = img.data();
    auto pts_f32 = [&](float *o, const float *d, int w, int h, const float *k) {
        return vx_pcl_get_xyzd_f32(o, d, nullptr, w, h, k, nullptr, 0, 0);
    };
    auto pts_u16 = [&](float *o, const uint16_t *d, int w, int h, const float *k, const float *x,
                       int z) { return vx_pcl_get_xyzd_u16(o, d, nullptr, w, h, k, x, 0, z); };
    sweep({
        CASE(vx_bpf2d_iir_init(nullptr, k_w, k_h, 0.1f, 0.1f, 0, 100), 0),
        {"bilateral filter of a context never made",
         [&] {
             vx_bpf2d_iir(&bpf, I, I, k_w, k_h);
             return img == copy;
         },
         1, "[vx_bpf2d_iir]wrong parameters: init=0x0, cur=8x4\n"},
        CASE(vx_median2d_u16(I, k_w, 0, 3), 0),
        CASE(vx_median2d_u16(I, k_w, k_h, 4), 0),
        CASE(vx_flypix_u16_k3(nullptr, k_w, k_h, 3), 0),
        CASE(vx_flypix_u16_k5(I, 0, k_h, 3), 0),
        CASE(vx_fhole_u16_k3(nullptr, k_w, k_h, 0), 0),
        CASE(vx_gauss2d_iir_u16(I, k_w, 0, 0.1f), 0),
        CASE(vx_calib_len_init_map(nullptr, &lens, k_w, k_h), 0),
        CASE(vx_calib_len_init_map(&map, nullptr, k_w, k_h), 0),
        CASE(vx_calib_len_init_map(&map, &no_coef, k_w, k_h), 0),
        CASE(vx_calib_len_init_map(&map, &lens, 0, k_h), 0),
        CASE(vx_calib_len_update_map(nullptr, &lens, k_w, k_h), 0),
        CASE(vx_calib_len_update_map(&map, nullptr, k_w, k_h), 0),
        CASE(vx_calib_len_undistort_u16(&map, I, I, k_w, k_h), 0),  // a map never built
        CASE(vx_calib_len_init_map(&map, &lens, k_w, k_h), 1),
        CASE(vx_calib_len_undistort_f32(&map, nullptr, F, k_w, k_h, 1), 0),
        CASE(vx_calib_len_undistort_u16(&map, I, I, k_w, k_h + 1), 0),
        CASE(pts_f32(nullptr, F, k_w, k_h, intr), -22),
        CASE(pts_u16(P, nullptr, k_w, k_h, intr, nullptr, 0), -22),
        CASE(pts_u16(P, I, k_w, k_h, nullptr, nullptr, 1), -22),
        CASE(pts_f32(P, F, 0, k_h, intr), 0),
        CASE(pts_u16(P, I, k_w, -1, intr, F, 0), 0),
        CASE(vx_cmap_get_palette(nullptr), 0),
        CASE(vx_cmap_get_color(nullptr, 5), 0),
        CASE(vx_cmap_get_color(&cm, 5), 0),
        CASE(vx_cmap_u16_to_rgb(&cm, I, 1, plane, plane, plane, 0, 0, 9, 0), -22),
        CASE(vx_cmap_f32_to_rgb(&cm, F, 0, plane, plane, plane, 1, 0, 9, 1), 0),
        CASE(vx_cmap_histeq_u16(I, I, k_n, 0, 5000, 0, 0), -22),
        CASE(vx_cmap_histeq_f32(F, F, 0, 0.0f, 1.0f, 4, 1), 0),
        CASE(vx_cmap_set_palette(&bare, 3) && vx_cmap_get_palette(&bare) == 3, 1),
        CASE(vx_conv_u16_u8(plane, I, 0, 0), 0),
        CASE(vx_conv_u16_f32(wf, I, -1, 1.0f), 0),
        CASE(vx_conv_u16_u32(w32, I, -1, 1), 0),
        CASE(vx_conv_f32_u8(plane, F, -4, 1.0f), 0),
        CASE(vx_conv_f32_u16(w16, F, 0, 1.0f), 0),
        CASE(vx_conv_f32_u32(w32, F, INT_MIN, 1.0f), 0),
        CASE(vx_conv_u32_f32(wf, w32, -1, 1.0f), 0),
    });
    vx_bpf2d_iir_uninit(&bpf);  // freed before it was made
    EXPECT_TRUE(_all_zero(bpf));
    vx_calib_len_uninit_map(&map);
    vx_calib_len_uninit_map(&map);
    vx_calib_len_uninit_map(nullptr);
    EXPECT_TRUE(_all_zero(map));
    vx_cmap_set_range(nullptr, 0.0f, 1.0f);
    EXPECT_EQ(img, copy);
    for (float v : pts) EXPECT_EQ(v, -1.0f);
    for (float v : fimg) EXPECT_EQ(v, 2.0f);
    for (uint8_t b : plane) EXPECT_EQ(b, 9);
    EXPECT_EQ(w16[0], 5);  // no conversion of no elements wrote one
    EXPECT_EQ(w32[0], 5u);
    EXPECT_EQ(wf[0], 5.0f);
    vx_cmap_uninit(&cm);
}
