// Driver table, driver lookup by product string, lens scaling and the TI and SONY tables.
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

TEST(DrvTable, NineRowsInSearchOrder) {
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
}

TEST(DrvTable, OperationTableLayout) {
    EXPECT_EQ(offsetof(tevix_drv_ops, filter_disable), 21 * sizeof(void *));
    EXPECT_EQ(offsetof(tevix_drv_ops, unused), 22 * sizeof(void *));
    EXPECT_EQ(offsetof(tevix_drv_ops, lens), 24 * sizeof(void *));
    EXPECT_EQ(epc_drv_ops.unused[0], nullptr);
    EXPECT_EQ(epc_drv_ops.unused[1], nullptr);
}

TEST(DrvFind, ChipCodeSelectsRow) {
    tevix::test::log_capture log;
    tevix_dev_t d = _dev("ABC-E5-XYZ");
    EXPECT_EQ(tevix_drv_find(&d), &tevix_drv_table()[8]);
    EXPECT_EQ(log.count("find driver: EPC chip driver (device=ABC-E5-XYZ [SW=7,BT=8,HW=9])"), 1);
    d = _dev("M-S2-R");
    EXPECT_EQ(tevix_drv_find(&d), &tevix_drv_table()[5]);
    d = _dev("M-T0-R");
    EXPECT_EQ(tevix_drv_find(&d), &tevix_drv_table()[0]);
}

TEST(DrvFind, NoMatch) {
    tevix_dev_t d = _dev("ABC-E6-XYZ");
    EXPECT_EQ(tevix_drv_find(&d), nullptr);
    d = _dev("E1");
    EXPECT_EQ(tevix_drv_find(&d), nullptr);
    d = _dev("ABC-E1");
    EXPECT_EQ(tevix_drv_find(&d), nullptr);
    // 17 characters in the second field: cut at 16, and the rest breaks the pattern.
    d = _dev("ABC-E1234567890123456-XYZ");
    EXPECT_EQ(tevix_drv_find(&d), nullptr);
    d = _dev("ABC-e1-XYZ");
    EXPECT_EQ(tevix_drv_find(&d), nullptr);
    d = _dev("ABC-E1x-XYZ");
    EXPECT_EQ(tevix_drv_find(&d), nullptr);
    EXPECT_EQ(tevix_drv_find(nullptr), nullptr);
}

TEST(DrvFind, ProductWithoutTerminator) {
    tevix_dev_t d{};
    std::memset(d.product, 'A', sizeof d.product);
    EXPECT_EQ(tevix_drv_find(&d), nullptr);
}

TEST(LensParam, DefaultRecords) {
    EXPECT_DOUBLE_EQ(k_epc_default_lens.cx, 157.262);
    EXPECT_DOUBLE_EQ(k_epc_default_lens.dcoef[4], -0.0133954);
    EXPECT_EQ(k_epc_default_lens.dcoef[5], 0.0);
    EXPECT_EQ(k_epc_default_lens.n_dcoef, 5u);
    EXPECT_EQ(imx_drv_ops.lens.width, 640u);
    EXPECT_DOUBLE_EQ(imx_drv_ops.lens.fy, 1377.11);
    EXPECT_DOUBLE_EQ(imx_drv_ops.lens.dcoef[4], -33.6074);
}

TEST(LensParam, ScalesToBinnedSize) {
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
}

TEST(LensParam, RejectsSizesThatDoNotDivide) {
    tevix::test::log_capture log;
    tevix_drv_t *row = &tevix_drv_table()[1];
    tevix_lens_param_t l{};
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
