// One testbed per test process with two virtual cameras: 001:002:002 ("VXCAM-E1-R1") and
// 001:003:005 ("VXCAM-E1-R2"). It is created before any libusb context and destroyed after the
// last test, once every device is closed.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "vcam.h"

namespace tevix::test {

class vcam_env : public ::testing::Environment {
  public:
    void SetUp() override {
        tb_ = std::make_unique<emu::testbed>();
        emu::camera_config a;
        cams_[0] = tb_->add(a);
        emu::camera_config b;
        b.port = 3;
        b.addr = 5;
        b.product = "VXCAM-E1-R2";
        b.uid[2] += 1;
        cams_[1] = tb_->add(b);
    }
    void TearDown() override { tb_.reset(); }

    static emu::camera *cam(int i = 0) { return cams_[i]; }

  private:
    std::unique_ptr<emu::testbed> tb_;
    static inline emu::camera *cams_[2] = {};
};

inline ::testing::Environment *const g_vcam_env = ::testing::AddGlobalTestEnvironment(new vcam_env);

}  // namespace tevix::test
