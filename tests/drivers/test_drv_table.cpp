// Driver table, driver lookup by product string, lens scaling and the TI stub.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "drivers/drv.h"
#include "drivers/epc_test_backend.h"

namespace {

tevix_dev_t _dev(const char *product) {
    tevix_dev_t d{};
    std::strncpy(d.product, product, sizeof d.product - 1);
    d.version[0] = 7;
    d.version[1] = 8;
    d.version[2] = 9;
    return d;
}

// Nine rows in search order; the operation table keeps its layout for drivers built elsewhere.
TEST(DrvTable, NineRowsInSearchOrderAndTheOperationLayout) {
    const char *chips[k_drv_rows] = {"T0", "E1", "E2", "E3", "S1", "S2", "S3", "E4", "E5"};
    tevix_drv_t *t = tevix_drv_table();
    for (int i = 0; i < k_drv_rows; ++i) {
        EXPECT_STREQ(t[i].chip, chips[i]) << i;
        const char c = chips[i][0];
        tevix_drv_ops *ops = c == 'T' ? &ti_drv_ops : c == 'E' ? &epc_drv_ops : &imx_drv_ops;
        EXPECT_EQ(t[i].ops, ops) << i;
        EXPECT_STREQ(t[i].desc, c == 'T'   ? "TI OP8241 chip driver"
                                : c == 'E' ? "EPC chip driver"
                                           : "SONY chip driver");
    }
    EXPECT_EQ(offsetof(tevix_drv_ops, filter_disable), 21 * sizeof(void *));
    EXPECT_EQ(offsetof(tevix_drv_ops, unused), 22 * sizeof(void *));
    EXPECT_EQ(offsetof(tevix_drv_ops, lens), 24 * sizeof(void *));
    EXPECT_EQ(epc_drv_ops.unused[0], nullptr);
    EXPECT_EQ(epc_drv_ops.unused[1], nullptr);
}

// The chip code, the second field of "<model>-<chip code>-<revision>", picks the row; anything
// else finds none.
TEST(DrvFind, ChipCodeSelectsRow) {
    tevix::test::log_capture log;
    // A chip code of 17 characters is cut at 16, and the rest breaks the pattern.
    const struct {
        const char *product;
        int row;  // -1: none
    } cases[] = {{"ABC-E5-XYZ", 8},
                 {"M-S2-R", 5},
                 {"M-T0-R", 0},
                 {"ABC-E6-XYZ", -1},
                 {"E1", -1},
                 {"ABC-E1", -1},
                 {"ABC-E1234567890123456-XYZ", -1},
                 {"ABC-e1-XYZ", -1},
                 {"ABC-E1x-XYZ", -1}};
    for (const auto &c : cases) {
        tevix_dev_t d = _dev(c.product);
        EXPECT_EQ(tevix_drv_find(&d), c.row < 0 ? nullptr : &tevix_drv_table()[c.row]) << c.product;
    }
    EXPECT_EQ(log.count("find driver: EPC chip driver (device=ABC-E5-XYZ [SW=7,BT=8,HW=9])"), 1);
    EXPECT_EQ(tevix_drv_find(nullptr), nullptr);
    tevix_dev_t d{};
    std::memset(d.product, 'A', sizeof d.product);  // no terminator
    EXPECT_EQ(tevix_drv_find(&d), nullptr);
}

// The lens record scales to a binned frame size; a size it does not divide into is refused and
// the output left alone.
TEST(LensParam, ScalesToBinnedSizesOnly) {
    tevix::test::log_capture log;
    tevix_drv_t *row = &tevix_drv_table()[1];
    tevix_lens_param_t l{};
    ASSERT_TRUE(row->ops->lens_param_get(row, &l, 160, 120));
    EXPECT_NEAR(l.cx, 78.631, 1e-12);
    EXPECT_NEAR(l.cy, 61.0415, 1e-12);
    EXPECT_NEAR(l.fx, 105.3915, 1e-12);
    EXPECT_NEAR(l.fy, 102.4085, 1e-12);
    EXPECT_EQ(l.width, 160u);
    EXPECT_EQ(l.height, 120u);
    EXPECT_EQ(l.n_dcoef, 5u);
    EXPECT_DOUBLE_EQ(l.dcoef[0], -0.378924);
    ASSERT_TRUE(row->ops->lens_param_get(row, &l, 160, 60));
    EXPECT_NEAR(l.cy, 122.083 / 4, 1e-12);
    l.cx = 1234;
    EXPECT_FALSE(row->ops->lens_param_get(row, &l, 100, 100));
    EXPECT_EQ(log.count("lens param not match the frame size: lens: 320x240, frame: 100x100"), 1);
    EXPECT_EQ(l.cx, 1234);
    EXPECT_FALSE(row->ops->lens_param_get(row, &l, 0, 120));
    EXPECT_FALSE(row->ops->lens_param_get(row, &l, 160, 0));
    EXPECT_FALSE(row->ops->lens_param_get(row, nullptr, 160, 120));
}

TEST(TiStub, MinimalOperations) {
    tevix_drv_t *row = &tevix_drv_table()[0];
    tevix_dev_t d = _dev("M-T0-R");
    ASSERT_TRUE(row->ops->init(row, &d));
    EXPECT_EQ(row->dev, &d);
    uint8_t raw[20] = {0x10, 0x20, 0, 0, 5, 0, 2, 0, 0x40, 1, 0xF0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    tevix_frame_info_t info;
    std::memset(&info, 0xAB, sizeof info);
    ASSERT_TRUE(row->ops->frame_get_info(row, &info, raw));
    EXPECT_EQ(info.size, 0x2010u);
    EXPECT_EQ(info.index, 5);
    EXPECT_EQ(info.format, 2);
    EXPECT_EQ(info.width, 320u);
    EXPECT_EQ(info.height, 240u);
    EXPECT_EQ(info.temperature, 0u);
    EXPECT_EQ(row->ops->calib_load(row, 0, 0, 2), 2);
    EXPECT_EQ(row->ops->reserved18(row, 1, 2, 3), 3);
    EXPECT_EQ(row->ops->reserved19(row), 1);
    EXPECT_EQ(row->ops->reserved9(row), 0);
    EXPECT_EQ(row->ops->need_data, nullptr);
    EXPECT_EQ(row->ops->filter_enable, nullptr);
    row->ops->uninit(row);
    row->dev = nullptr;
}

}  // namespace
