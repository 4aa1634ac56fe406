#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ll/dispatch.h"
#include "test_util.h"
#include "tevix/tevix_ll.h"
#include "tevix/vx_log.h"

namespace {

// Two recording backends stand in for USB and replay: each logs the calls it receives.
std::vector<std::string> g_calls;
int g_usb_init = 1, g_file_init = 7;
uint32_t g_usb_list = 0, g_file_list = 0;

template <int Tag>
struct fake {
    static std::string name(const char *op) {
        return std::string(Tag == 0 ? "usb." : "file.") + op;
    }
    static int init() {
        g_calls.push_back(name("init"));
        return Tag == 0 ? g_usb_init : g_file_init;
    }
    static void uninit() { g_calls.push_back(name("uninit")); }
    static void set_debug(uint32_t level) {
        g_calls.push_back(name("set_debug") + std::to_string(level));
    }
    static tevix_ll_dev_t *dev_open(tevix_ll_dev_t *dev);
    static tevix_ll_dev_t *dev_open_by_fd(tevix_ll_dev_t *, int fd) {
        g_calls.push_back(name("open_by_fd") + std::to_string(fd));
        return nullptr;
    }
    static void dev_close(tevix_ll_dev_t *) { g_calls.push_back(name("close")); }
    static uint32_t dev_list(tevix_ll_dev_t *list, uint32_t max) {
        uint32_t n = std::min(max, Tag == 0 ? g_usb_list : g_file_list);
        for (uint32_t i = 0; i < n; ++i) list[i].is_listed = static_cast<uint8_t>(10 + Tag);
        g_calls.push_back(name("list") + std::to_string(max));
        return n;
    }
    static int exe_cmd(tevix_ll_dev_t *, uint8_t w, uint8_t cmd, uint16_t value, uint8_t *data,
                       uint32_t len, uint32_t timeout) {
        g_calls.push_back(name("exe_cmd") + " " + std::to_string(w) + " " + std::to_string(cmd) +
                          " " + std::to_string(value) + " " + std::to_string(data[0]) + " " +
                          std::to_string(len) + " " + std::to_string(timeout));
        return 5;
    }
    static int32_t seek(tevix_ll_dev_t *, uint32_t idx, uint32_t whence) {
        return static_cast<int32_t>(idx * 10 + whence);
    }
};

template <int N>
tevix_ll_ops _fake_ops() {
    tevix_ll_ops o{};
    o.init = fake<N>::init;
    o.uninit = fake<N>::uninit;
    o.set_debug = fake<N>::set_debug;
    o.dev_open = fake<N>::dev_open;
    o.dev_open_by_fd = fake<N>::dev_open_by_fd;
    o.dev_close = fake<N>::dev_close;
    o.dev_list = fake<N>::dev_list;
    o.exe_cmd = fake<N>::exe_cmd;
    if (N == 1) o.cap_seek = fake<1>::seek;
    return o;
}
const tevix_ll_ops k_usb_ops = _fake_ops<0>(), k_file_ops = _fake_ops<1>();

// The USB stand-in accepts only if_type 0 or 99, the replay one only 2; both claim the record.
template <int Tag>
tevix_ll_dev_t *fake<Tag>::dev_open(tevix_ll_dev_t *dev) {
    g_calls.push_back(name("open"));
    bool ok = Tag == 0 ? (dev->if_type == 0 || dev->if_type == 99) : dev->if_type == 2;
    if (!ok) return nullptr;
    dev->ops = Tag == 0 ? &k_usb_ops : &k_file_ops;
    return dev;
}

class dispatch : public ::testing::Test {
  protected:
    void SetUp() override {
        old_usb_ = tevix::ll::backend_swap(tevix::ll::k_backend_usb, &k_usb_ops);
        old_file_ = tevix::ll::backend_swap(tevix::ll::k_backend_file, &k_file_ops);
        g_calls.clear();
        g_usb_init = 1;
        g_file_init = 7;
        g_usb_list = g_file_list = 0;
    }
    void TearDown() override {
        tevix::ll::backend_swap(tevix::ll::k_backend_usb, old_usb_);
        tevix::ll::backend_swap(tevix::ll::k_backend_file, old_file_);
    }
    const tevix_ll_ops *old_usb_ = nullptr;
    const tevix_ll_ops *old_file_ = nullptr;
};

using calls = std::vector<std::string>;

}  // namespace

TEST_F(dispatch, init_runs_usb_then_replay_and_reports_the_failing_backend) {
    tevix::test::log_capture log;

    EXPECT_EQ(tevix_ll_init(), 7);  // the replay init's own result
    EXPECT_EQ(g_calls, (calls{"usb.init", "file.init"}));

    g_calls.clear();
    g_usb_init = 0;
    EXPECT_EQ(tevix_ll_init(), 0);
    EXPECT_EQ(g_calls, (calls{"usb.init"}));

    g_calls.clear();
    g_usb_init = 1;
    g_file_init = 0;
    EXPECT_EQ(tevix_ll_init(), 0);
    EXPECT_EQ(g_calls, (calls{"usb.init", "file.init"}));
    EXPECT_TRUE(log.has("[ERR][tevix_ll_init]ll_init failed: ll[0]\n")) << log.text();
    EXPECT_TRUE(log.has("[ERR][tevix_ll_init]ll_init failed: ll[1]\n")) << log.text();

    g_calls.clear();
    tevix_ll_uninit();
    tevix_ll_set_debug(3);
    EXPECT_EQ(g_calls, (calls{"usb.uninit", "file.uninit", "usb.set_debug3", "file.set_debug3"}));
}

TEST_F(dispatch, list_fills_usb_first_then_replay_into_the_rest) {
    tevix_ll_dev_t list[5];
    std::memset(list, 0xAB, sizeof list);
    EXPECT_EQ(tevix_ll_dev_list(list, 0), 0);
    EXPECT_EQ(tevix_ll_dev_list(list, -3), 0);
    EXPECT_EQ(tevix_ll_dev_list(nullptr, 5), 0);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(list[0].is_listed, 0xAB);  // untouched

    g_usb_list = 2;
    g_file_list = 1;
    EXPECT_EQ(tevix_ll_dev_list(list, 5), 3);
    EXPECT_EQ(g_calls, (calls{"usb.list5", "file.list3"}));
    EXPECT_EQ(list[0].is_listed, 10);
    EXPECT_EQ(list[1].is_listed, 10);
    EXPECT_EQ(list[2].is_listed, 11);  // the replay entries start at the first free one
    EXPECT_EQ(list[3].is_listed, 0xAB);

    g_calls.clear();
    g_usb_list = 5;
    EXPECT_EQ(tevix_ll_dev_list(list, 5), 5);
    EXPECT_EQ(g_calls, (calls{"usb.list5"}));  // a full list leaves replay out
}

TEST_F(dispatch, open_tries_usb_first_then_replay_and_honours_a_set_table) {
    tevix_ll_dev_t dev{};
    dev.if_type = TEVIX_LL_IF_FILE;
    EXPECT_EQ(tevix_ll_dev_open(&dev), &dev);
    EXPECT_EQ(g_calls, (calls{"usb.open", "file.open"}));
    // The record is packed to 4 bytes: its pointer fields are compared by value.
    const tevix_ll_ops *ops = dev.ops;
    EXPECT_EQ(ops, &k_file_ops);

    g_calls.clear();
    EXPECT_EQ(tevix_ll_dev_open(&dev), &dev);  // ops already set: that table only
    EXPECT_EQ(g_calls, (calls{"file.open"}));

    tevix_ll_dev_t usb{};
    usb.if_type = TEVIX_LL_IF_ANY;
    g_calls.clear();
    EXPECT_EQ(tevix_ll_dev_open(&usb), &usb);
    EXPECT_EQ(g_calls, (calls{"usb.open"}));
    ops = usb.ops;
    EXPECT_EQ(ops, &k_usb_ops);

    tevix_ll_dev_t nobody{};
    nobody.if_type = 5;
    g_calls.clear();
    EXPECT_EQ(tevix_ll_dev_open(&nobody), nullptr);
    ops = nobody.ops;
    EXPECT_EQ(ops, nullptr);
    EXPECT_EQ(tevix_ll_dev_open(nullptr), nullptr);

    g_calls.clear();
    EXPECT_EQ(tevix_ll_dev_open_by_fd(&nobody, 9), nullptr);
    EXPECT_EQ(g_calls, (calls{"usb.open_by_fd9", "file.open_by_fd9"}));
}

TEST_F(dispatch, forwarders_pass_arguments_unchanged_and_refuse_null_records) {
    tevix_ll_dev_t dev{};
    dev.ops = &k_usb_ops;
    uint8_t data[4] = {42, 0, 0, 0};
    EXPECT_EQ(tevix_ll_exe_cmd(&dev, 1, 0xC2, 0x1234, data, 4, 1500), 5);
    EXPECT_EQ(g_calls, (calls{"usb.exe_cmd 1 194 4660 42 4 1500"}));

    // Slots the backend leaves empty and null records answer 0 (seek: -1) without a call.
    g_calls.clear();
    EXPECT_EQ(tevix_ll_cap_seek(&dev, 3, 0), -1);
    EXPECT_EQ(tevix_ll_cap_start(&dev, 0, nullptr, nullptr), 0);
    EXPECT_EQ(tevix_ll_reg_write(&dev, 1, 0, data, 1), 0);
    tevix_ll_cap_abort(&dev);
    tevix_ll_cap_wait(&dev);

    tevix_ll_dev_t replay{};
    replay.ops = &k_file_ops;
    EXPECT_EQ(tevix_ll_cap_seek(&replay, 3, 2), 32);

    EXPECT_EQ(tevix_ll_cap_seek(nullptr, 0, 0), -1);
    EXPECT_EQ(tevix_ll_exe_cmd(nullptr, 1, 0, 0, data, 4, 10), 0);
    EXPECT_EQ(tevix_ll_tx_data(nullptr, data, 4), 0);
    EXPECT_EQ(tevix_ll_cap_start(nullptr, 0, nullptr, nullptr), 0);
    EXPECT_EQ(tevix_ll_cap_stop(nullptr), 0);
    EXPECT_EQ(tevix_ll_dev_reset(nullptr, 3), 0);
    EXPECT_EQ(tevix_ll_reg_write(nullptr, 1, 0, data, 1), 0);
    EXPECT_EQ(tevix_ll_reg_read(nullptr, 1, 0, data, 1), 0);
    EXPECT_EQ(tevix_ll_param_set(nullptr, nullptr, 1), 0);
    EXPECT_EQ(tevix_ll_param_get(nullptr, nullptr, 1), 0);
    tevix_ll_dev_close(nullptr);
    tevix_ll_cap_abort(nullptr);
    tevix_ll_cap_wait(nullptr);
    EXPECT_TRUE(g_calls.empty());

    tevix_ll_dev_close(&dev);
    EXPECT_EQ(g_calls, (calls{"usb.close"}));
}
