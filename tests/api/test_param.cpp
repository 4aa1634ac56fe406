#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "api/session.h"
#include "drivers/drv.h"
#include "test_util.h"
#include "tevix/tevix.h"
#include "tevix/vx_log.h"

namespace {

// A transport that records every batch and register access and answers gets from a store.
struct fake_link {
    std::vector<std::vector<tevix_param_wire_t>> sets, gets;
    std::vector<std::string> regs;
    int accept = 1;
    uint8_t busy_seen = 0;
    tevix_dev_t *dev = nullptr;
};
fake_link g_link;

int _param_set(tevix_ll_dev_t *, tevix_param_wire_t *items, uint32_t count) {
    g_link.sets.emplace_back(items, items + count);
    g_link.busy_seen = g_link.dev ? g_link.dev->busy : 0;
    return g_link.accept;
}
int _param_get(tevix_ll_dev_t *, tevix_param_wire_t *items, uint32_t count) {
    g_link.gets.emplace_back(items, items + count);
    if (!g_link.accept) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        items[i].len = 4;
        for (int b = 0; b < 18; ++b) items[i].value[b] = static_cast<uint8_t>(items[i].id + b);
    }
    return 1;
}
int _reg(tevix_ll_dev_t *, uint8_t target, uint32_t addr, uint8_t *data, uint16_t count,
         const char *what) {
    uint32_t first = 0;
    if (count) std::memcpy(&first, data, 4);
    g_link.regs.push_back(std::string(what) + " " + std::to_string(target) + " " +
                          std::to_string(addr) + " " + std::to_string(count) + " " +
                          std::to_string(first));
    return g_link.accept;
}
int _reg_write(tevix_ll_dev_t *d, uint8_t t, uint32_t a, uint8_t *data, uint16_t n) {
    return _reg(d, t, a, data, n, "w");
}
int _reg_read(tevix_ll_dev_t *d, uint8_t t, uint32_t a, uint8_t *data, uint16_t n) {
    for (uint16_t i = 0; i < n; ++i) {
        uint32_t v = 100 + i;
        std::memcpy(data + 4 * i, &v, 4);
    }
    return _reg(d, t, a, data, n, "r");
}

const tevix_ll_ops k_link_ops = [] {
    tevix_ll_ops o{};
    o.reg_write = _reg_write;
    o.reg_read = _reg_read;
    o.param_set = _param_set;
    o.param_get = _param_get;
    return o;
}();

// A driver row whose operations record what the parameter calls tell it.
std::vector<std::string> g_drv_calls;
void _on_freq(tevix_drv_t *, uint32_t f0, uint32_t f1) {
    g_drv_calls.push_back("freq " + std::to_string(f0) + " " + std::to_string(f1));
}
void _on_intg(tevix_drv_t *, uint32_t v, uint8_t idx) {
    g_drv_calls.push_back("intg " + std::to_string(v) + " " + std::to_string(idx));
}
void _on_fps(tevix_drv_t *, uint32_t fps) {
    g_drv_calls.push_back("fps " + std::to_string(fps));
}
void _on_roi(tevix_drv_t *, const tevix_roi_t *r) {
    g_drv_calls.push_back("roi " + std::to_string(r->left) + " " + std::to_string(r->binning));
}
bool _filter_on(tevix_drv_t *, uint32_t id, const tevix_filter_arg_t *) {
    g_drv_calls.push_back("filter_on " + std::to_string(id));
    return id != 3;
}

tevix_drv_ops g_fake_ops = [] {
    tevix_drv_ops ops{};
    ops.on_update_mod_freq = _on_freq;
    ops.on_update_intg_time = _on_intg;
    ops.on_update_fps = _on_fps;
    ops.on_update_roi = _on_roi;
    ops.filter_enable = _filter_on;
    return ops;
}();
tevix_drv_t g_fake_drv{"fake driver", "F1", &g_fake_ops, nullptr, nullptr};

tevix_param_item_t _item(uint32_t id, std::initializer_list<uint32_t> words) {
    tevix_param_item_t it{};
    it.id = id;
    it.len = static_cast<uint8_t>(4 * words.size());
    int i = 0;
    for (uint32_t w : words) std::memcpy(it.value.u8 + 4 * i++, &w, 4);
    return it;
}

class api_param : public ::testing::Test {
  protected:
    void SetUp() override {
        g_link = fake_link{};
        g_link.dev = &dev_;
        g_drv_calls.clear();
        std::snprintf(dev_.product, sizeof dev_.product, "CAM-F1-R1");
        tevix_ll_dev_t ll{};
        ll.ops = &k_link_ops;
        ASSERT_TRUE(tevix::api::session_attach(&dev_, ll));
        dev_.session->drv = &g_fake_drv;
    }
    void TearDown() override { tevix::api::session_detach(&dev_); }
    tevix_dev_t dev_{};
};

}  // namespace

TEST_F(api_param, set_sends_wire_items_and_maps_171_to_18_one_way) {
    tevix_param_item_t items[2] = {_item(171, {7}), _item(18, {9})};
    std::memset(items[0].value.u8 + 4, 0xEE, 15);  // the 19th value byte never travels
    ASSERT_EQ(tevix_param_batch_set(&dev_, items, 2), 1);
    ASSERT_EQ(g_link.sets.size(), 1u);
    EXPECT_EQ(g_link.sets[0][0].id, 18);
    EXPECT_EQ(g_link.sets[0][0].len, 4);
    EXPECT_EQ(g_link.sets[0][0].value[0], 7);
    EXPECT_EQ(g_link.sets[0][0].value[17], 0xEE);
    EXPECT_EQ(g_link.sets[0][1].id, 18);
    EXPECT_EQ(g_link.busy_seen, 1);  // the busy count is held around the transfer
    EXPECT_EQ(dev_.busy, 0);

    tevix_param_item_t get = _item(171, {});
    ASSERT_NE(tevix_param_batch_get(&dev_, &get, 1), 0);
    EXPECT_EQ(g_link.gets[0][0].id, 171);  // reads keep the id
    EXPECT_EQ(get.len, 4);
    EXPECT_EQ(get.value.u8[0], 171);
    EXPECT_EQ(get.value.u8[17], static_cast<uint8_t>(171 + 17));
    EXPECT_EQ(get.value.u8[18], 0);  // beyond the 18 travelling bytes: untouched
}

TEST_F(api_param, accepted_sets_are_mirrored_into_session_and_driver) {
    tevix_session *s = dev_.session;
    tevix_param_item_t f = _item(TEVIX_PARAM_MOD_FREQ, {12000000});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &f, 1), 1);
    EXPECT_EQ(s->mod_freq[0], 12000000u);
    EXPECT_EQ(s->mod_freq[1], 12000000u);

    tevix_param_item_t dual = _item(TEVIX_PARAM_DUAL_FREQ, {20000000, 40000000});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &dual, 1), 1);
    EXPECT_EQ(s->mod_freq[0], 20000000u);
    EXPECT_EQ(s->mod_freq[1], 40000000u);

    tevix_param_item_t batch[5] = {_item(TEVIX_PARAM_FPS, {30}), _item(TEVIX_PARAM_INTG1, {800}),
                                   _item(TEVIX_PARAM_INTG2, {0}), _item(TEVIX_PARAM_DEV_MOD, {9}),
                                   _item(TEVIX_PARAM_DEV_CAP_MOD, {1, 2})};
    ASSERT_EQ(tevix_param_batch_set(&dev_, batch, 5), 1);
    EXPECT_EQ(s->fps, 30u);
    EXPECT_EQ(s->intg[0], 800u);
    EXPECT_EQ(s->intg[1], 0u);
    EXPECT_EQ(s->dev_mode, 9u);
    EXPECT_EQ(s->cap_mode, 1u);

    tevix_param_item_t roi{};
    roi.id = TEVIX_PARAM_ROI;
    roi.len = 13;
    tevix_roi_t r{0, 239, 4, 323, 4, {}};
    std::memcpy(roi.value.u8, &r, sizeof r);
    ASSERT_EQ(tevix_param_batch_set(&dev_, &roi, 1), 1);

    EXPECT_EQ(g_drv_calls,
              (std::vector<std::string>{"freq 12000000 0", "freq 20000000 40000000", "fps 30",
                                        "intg 800 0", "intg 0 1", "roi 4 4"}));
}

TEST_F(api_param, rejected_set_changes_nothing) {
    tevix_param_item_t intg = _item(TEVIX_PARAM_INTG1, {500});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &intg, 1), 1);
    g_link.accept = 0;
    intg = _item(TEVIX_PARAM_INTG1, {900});
    EXPECT_EQ(tevix_param_batch_set(&dev_, &intg, 1), 0);
    EXPECT_EQ(dev_.session->intg[0], 500u);
    EXPECT_EQ(g_drv_calls, (std::vector<std::string>{"intg 500 0"}));

    tevix_param_item_t get = _item(TEVIX_PARAM_FPS, {});
    EXPECT_EQ(tevix_param_batch_get(&dev_, &get, 1), 0);
    EXPECT_EQ(get.len, 0);
    EXPECT_EQ(dev_.busy, 0);

    // An empty set still goes to the device and reports its answer.
    g_link.accept = 1;
    EXPECT_EQ(tevix_param_batch_set(&dev_, nullptr, 0), 1);
    EXPECT_EQ(g_link.sets.back().size(), 0u);
}

TEST_F(api_param, dual_frequency_without_a_driver_stores_nothing) {
    dev_.session->drv = nullptr;
    tevix_param_item_t dual = _item(TEVIX_PARAM_DUAL_FREQ, {20000000, 40000000});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &dual, 1), 1);
    EXPECT_EQ(dev_.session->mod_freq[0], 0u);
    tevix_param_item_t fps = _item(TEVIX_PARAM_FPS, {25});
    ASSERT_EQ(tevix_param_batch_set(&dev_, &fps, 1), 1);
    EXPECT_EQ(dev_.session->fps, 25u);  // other ids only skip the driver call
}

TEST_F(api_param, registers_pass_straight_through) {
    uint32_t values[3] = {11, 12, 13};
    EXPECT_EQ(tevix_reg_batch_write(&dev_, 1, 113, values, 3), 1);
    uint32_t out[2] = {};
    EXPECT_EQ(tevix_reg_batch_read(&dev_, 1, 18, out, 2), 1);
    EXPECT_EQ(out[0], 100u);
    EXPECT_EQ(out[1], 101u);
    EXPECT_EQ(g_link.regs, (std::vector<std::string>{"w 1 113 3 11", "r 1 18 2 100"}));
    EXPECT_EQ(tevix_reg_batch_write(&dev_, 1, 0, nullptr, 2), 0);
}

TEST_F(api_param, filters_go_to_the_driver) {
    tevix_filter_arg_t arg{};
    EXPECT_EQ(tevix_filter_enable(&dev_, 4, &arg), 0);
    EXPECT_EQ(tevix_filter_enable(&dev_, 3, &arg), -1);
    EXPECT_EQ(tevix_filter_disable(&dev_, 4), -1);  // the fake driver has no disable slot
    EXPECT_EQ(dev_.busy, 0);
    EXPECT_EQ(tevix_filter_enable(nullptr, 4, &arg), -1);
}

TEST_F(api_param, filter_without_a_driver_leaves_the_busy_count_raised) {
    tevix::test::log_capture log;
    dev_.session->drv = nullptr;
    std::snprintf(dev_.product, sizeof dev_.product, "NODASHES");
    EXPECT_EQ(tevix_filter_enable(&dev_, 4, nullptr), -1);
    EXPECT_EQ(dev_.busy, 1);
    EXPECT_TRUE(log.has("[tevix_filter_enable]cannot find driver for device: product=NODASHES\n"));
}
