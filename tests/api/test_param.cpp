#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "api/session.h"
#include "drivers/drv.h"
#include "fake_camera.h"
#include "test_util.h"
#include "tevix/tevix.h"

namespace {

using tevix::test::g_cam;
using tevix::test::param_item;

// A driver row whose operations record what the parameter calls tell it.
std::vector<std::string> g_drv_calls;
template <class... T>
void _note(const char *what, T... values) {
    std::ostringstream call;
    call << what;
    ((call << ' ' << +values), ...);  // + : small integers as numbers
    g_drv_calls.push_back(call.str());
}

tevix_drv_ops g_fake_ops = [] {
    tevix_drv_ops ops{};
    ops.on_update_mod_freq = [](tevix_drv_t *, uint32_t f0, uint32_t f1) { _note("freq", f0, f1); };
    ops.on_update_intg_time = [](tevix_drv_t *, uint32_t v, uint8_t i) { _note("intg", v, i); };
    ops.on_update_fps = [](tevix_drv_t *, uint32_t fps) { _note("fps", fps); };
    ops.on_update_roi = [](tevix_drv_t *, const tevix_roi_t *r) {
        _note("roi", r->left, r->binning);
    };
    ops.filter_enable = [](tevix_drv_t *, uint32_t id, const tevix_filter_arg_t *) {
        _note("filter_on", id);
        return id != 3;
    };
    return ops;
}();
tevix_drv_t g_fake_drv{"fake driver", "F1", &g_fake_ops, nullptr, nullptr};

class api_param : public ::testing::Test {
  protected:
    void SetUp() override {
        g_cam.reset();
        g_cam.watch = &dev_;
        g_drv_calls.clear();
        std::snprintf(dev_.product, sizeof dev_.product, "CAM-F1-R1");
        tevix_ll_dev_t ll{};
        ll.ops = &tevix::test::fake_ll::ops();
        ASSERT_TRUE(tevix::api::session_attach(&dev_, ll));
        dev_.session->drv = &g_fake_drv;
    }
    void TearDown() override { tevix::api::session_detach(&dev_); }
    tevix_dev_t dev_{};
};

}  // namespace

TEST_F(api_param, set_sends_wire_items_and_maps_171_to_18_one_way) {
    tevix_param_item_t items[2] = {param_item(171, {7}), param_item(18, {9})};
    std::memset(items[0].value.u8 + 4, 0xEE, 15);  // the 19th value byte never travels
    ASSERT_EQ(tevix_param_batch_set(&dev_, items, 2), 1);
    ASSERT_EQ(g_cam.sets.size(), 1u);
    EXPECT_EQ(g_cam.sets[0][0].id, 18);
    EXPECT_EQ(g_cam.sets[0][0].len, 4);
    EXPECT_EQ(g_cam.sets[0][0].value[0], 7);
    EXPECT_EQ(g_cam.sets[0][0].value[17], 0xEE);
    EXPECT_EQ(g_cam.sets[0][1].id, 18);
    EXPECT_EQ(g_cam.busy_seen, 1);  // the busy count is held around the transfer
    EXPECT_EQ(dev_.busy, 0);

    tevix_param_item_t get = param_item(171, {});
    ASSERT_NE(tevix_param_batch_get(&dev_, &get, 1), 0);
    EXPECT_EQ(g_cam.gets[0][0].id, 171);  // reads keep the id
    EXPECT_EQ(get.len, 4);
    EXPECT_EQ(get.value.u8[0], 171);
    EXPECT_EQ(get.value.u8[17], static_cast<uint8_t>(171 + 17));
    EXPECT_EQ(get.value.u8[18], 0);  // beyond the 18 travelling bytes: untouched
}

TEST_F(api_param, accepted_sets_are_mirrored_into_session_and_driver) {
    tevix_session *s = dev_.session;
    tevix_param_item_t f = param_item(TEVIX_PARAM_MOD_FREQ, {12000000});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &f, 1), 1);
    EXPECT_EQ(s->mod_freq[0], 12000000u);
    EXPECT_EQ(s->mod_freq[1], 12000000u);

    tevix_param_item_t dual = param_item(TEVIX_PARAM_DUAL_FREQ, {20000000, 40000000});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &dual, 1), 1);
    EXPECT_EQ(s->mod_freq[0], 20000000u);
    EXPECT_EQ(s->mod_freq[1], 40000000u);

    tevix_param_item_t batch[5] = {
        param_item(TEVIX_PARAM_FPS, {30}), param_item(TEVIX_PARAM_INTG1, {800}),
        param_item(TEVIX_PARAM_INTG2, {0}), param_item(TEVIX_PARAM_DEV_MOD, {9}),
        param_item(TEVIX_PARAM_DEV_CAP_MOD, {1, 2})};
    ASSERT_EQ(tevix_param_batch_set(&dev_, batch, 5), 1);
    EXPECT_EQ(s->fps, 30u);
    EXPECT_EQ(s->intg[0], 800u);
    EXPECT_EQ(s->intg[1], 0u);
    EXPECT_EQ(s->dev_mode, 9u);
    EXPECT_EQ(s->cap_mode, 1u);

    tevix_param_item_t roi{TEVIX_PARAM_ROI, 13, {}};
    tevix_roi_t r{0, 239, 4, 323, 4, {}};
    std::memcpy(roi.value.u8, &r, sizeof r);
    ASSERT_EQ(tevix_param_batch_set(&dev_, &roi, 1), 1);

    EXPECT_EQ(g_drv_calls,
              (std::vector<std::string>{"freq 12000000 0", "freq 20000000 40000000", "fps 30",
                                        "intg 800 0", "intg 0 1", "roi 4 4"}));
}

TEST_F(api_param, rejected_set_changes_nothing) {
    tevix_param_item_t intg = param_item(TEVIX_PARAM_INTG1, {500});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &intg, 1), 1);
    g_cam.accept = 0;
    intg = param_item(TEVIX_PARAM_INTG1, {900});
    EXPECT_EQ(tevix_param_batch_set(&dev_, &intg, 1), 0);
    EXPECT_EQ(dev_.session->intg[0], 500u);
    EXPECT_EQ(g_drv_calls, (std::vector<std::string>{"intg 500 0"}));

    tevix_param_item_t get = param_item(TEVIX_PARAM_FPS, {});
    EXPECT_EQ(tevix_param_batch_get(&dev_, &get, 1), 0);
    EXPECT_EQ(get.len, 0);
    EXPECT_EQ(dev_.busy, 0);

    // An empty set still goes to the device and reports its answer.
    g_cam.accept = 1;
    EXPECT_EQ(tevix_param_batch_set(&dev_, nullptr, 0), 1);
    EXPECT_EQ(g_cam.sets.back().size(), 0u);
}

TEST_F(api_param, calls_without_a_driver) {
    tevix::test::log_capture log;
    dev_.session->drv = nullptr;
    // A dual frequency is stored through the driver only.
    tevix_param_item_t dual = param_item(TEVIX_PARAM_DUAL_FREQ, {20000000, 40000000});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &dual, 1), 1);
    EXPECT_EQ(dev_.session->mod_freq[0], 0u);
    tevix_param_item_t fps = param_item(TEVIX_PARAM_FPS, {25});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &fps, 1), 1);
    EXPECT_EQ(dev_.session->fps, 25u);  // other ids only skip the driver call

    // A filter finds no driver: refused, and the busy count stays raised.
    std::snprintf(dev_.product, sizeof dev_.product, "NODASHES");
    EXPECT_EQ(tevix_filter_enable(&dev_, 4, nullptr), -1);
    EXPECT_EQ(dev_.busy, 1);
    EXPECT_TRUE(log.has("[tevix_filter_enable]cannot find driver for device: product=NODASHES\n"));
}

TEST_F(api_param, registers_pass_straight_through) {
    uint32_t values[3] = {11, 12, 13};
    EXPECT_EQ(tevix_reg_batch_write(&dev_, 1, 113, values, 3), 1);
    uint32_t out[2] = {};
    EXPECT_EQ(tevix_reg_batch_read(&dev_, 1, 18, out, 2), 1);
    EXPECT_EQ(out[0], 100u);
    EXPECT_EQ(out[1], 101u);
    EXPECT_EQ(g_cam.regs, (std::vector<std::string>{"w 1 113 3 11", "r 1 18 2 100"}));
    EXPECT_EQ(tevix_reg_batch_write(&dev_, 1, 0, nullptr, 2), 0);
}

TEST_F(api_param, filters_go_to_the_driver) {
    tevix_filter_arg_t arg{};
    EXPECT_EQ(tevix_filter_enable(&dev_, 4, &arg), 0);
    EXPECT_EQ(tevix_filter_enable(&dev_, 3, &arg), -1);
    EXPECT_EQ(tevix_filter_disable(&dev_, 4), -1);  // the fake driver has no disable slot
    EXPECT_EQ(dev_.busy, 0);
}
