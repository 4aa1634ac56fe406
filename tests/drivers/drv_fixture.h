// A driver row initialised on a fake camera and released at the end, for the suites of every
// sensor driver: the filter switch, parameter and calibration-container calls they all make.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "calib/calib_writer.h"
#include "drivers/drv.h"
#include "drivers/epc_test_backend.h"
#include "test_util.h"
#include "tevix/tevix.h"
#include "tevix/vx_stream.h"

namespace tevix::test {

// Frame `index` of a scene renderer, raw.
template <class Renderer>
std::vector<uint8_t> render(Renderer &r, uint32_t index) {
    std::vector<uint8_t> raw(r.frame_bytes());
    vx_frame_desc_t desc{};
    r.render(index, raw, desc);
    return raw;
}

class drv_fixture : public ::testing::Test {
  protected:
    // A new fake camera; init() then initialises a table row on it, as set up meanwhile.
    void make(const char *product, uint32_t type = 0) {
        dev_ = std::make_unique<fake_device>(product, type);
    }
    void init(int row) {
        drv_ = &tevix_drv_table()[row];
        ASSERT_TRUE(drv_->ops->init(drv_, dev_->dev()));
        dev_->bind(drv_);
    }
    void TearDown() override {
        if (drv_ && drv_->priv) drv_->ops->uninit(drv_);
        if (drv_) drv_->dev = nullptr;
        dev_.reset();
    }
    tevix_drv_ops *ops() { return drv_->ops; }
    fake_camera &cam() { return dev_->cam(); }

    bool enable(uint32_t id, tevix_filter_arg_t arg = {}) {
        return ops()->filter_enable(drv_, id, &arg);
    }
    tevix_frame_info_t info_of(const std::vector<uint8_t> &raw) {
        tevix_frame_info_t info{};
        EXPECT_TRUE(ops()->frame_get_info(drv_, &info, raw.data()));
        return info;
    }
    // Decodes into out, first filled with a value no decode gives, so that unwritten pixels show.
    int32_t decode(const std::vector<uint8_t> &raw, uint32_t kind, std::vector<uint16_t> &out,
                   const tevix_frame_info_t &info) {
        const uint32_t n = info.width * info.height;
        out.assign(n, 0xEEEE);
        return ops()->frame_decode(drv_, reinterpret_cast<uint8_t *>(out.data()), n * 2, kind,
                                   raw.data(), static_cast<uint32_t>(raw.size()), &info);
    }
    // The camera's value of a parameter: the last one written, or as the test set it.
    uint32_t param_u32(uint8_t id) {
        uint32_t v;
        std::memcpy(&v, cam().params[id].data(), 4);
        return v;
    }
    // A valid system calibration on the camera.
    void set_sys_calib(float scale, float offset) {
        std::array<uint8_t, 18> v{};
        std::memcpy(v.data(), &scale, 4);
        std::memcpy(v.data() + 4, &offset, 4);
        v[8] = 1;
        cam().params[TEVIX_PARAM_SYS_CALIB] = v;
    }

    // The device's parameter directory in a temporary one, and its calibration file path_.
    void use_param_dir() {
        prefix_ = dir_.path().string() + "/";
        dev_->dev()->path_prefix = prefix_.c_str();
        char name[512];
        path_ = tevix_get_param_absolute_name(dev_->dev(), name, sizeof name);
    }
    void write_container(std::vector<tevix::calib::param_block> blocks) {
        tevix::calib::param_container c;
        c.ts = 100;
        c.blocks = std::move(blocks);
        ASSERT_TRUE(tevix::calib::param_container_write(path_, c));
    }

    std::unique_ptr<fake_device> dev_;
    tevix_drv_t *drv_ = nullptr;
    temp_dir dir_;
    std::string prefix_, path_;
};

}  // namespace tevix::test
