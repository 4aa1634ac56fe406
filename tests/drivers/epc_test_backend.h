// A test backend standing in for the camera: a register file and a parameter store behind a
// tevix_ll_ops table, attached to a device record through the session attach helper, so that
// drivers run through the real camera-interface calls.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "test_util.h"
#include "tevix/tevix_ll.h"
#include "tevix/tevix_types.h"

struct tevix_drv_t;

namespace tevix::test {

struct fake_camera {
    std::map<uint32_t, uint32_t> regs;  // register class 1
    std::map<uint8_t, std::array<uint8_t, 18>> params;
    std::vector<std::pair<uint32_t, uint32_t>> reg_writes;  // (register, value)
    std::vector<std::pair<uint8_t, std::array<uint8_t, 18>>> param_writes;
    bool fail_reg = false;
    bool fail_param_set = false;
    bool fail_param_get = false;

    // Writes of one parameter id, in order.
    std::vector<std::array<uint8_t, 18>> writes_of(uint8_t id) const;
    void set_u32(uint8_t id, uint32_t v);
};

// A device record with an open session on the fake camera. The driver row, once initialised,
// is tied to the session so that accepted parameter writes reach it.
class fake_device {
  public:
    explicit fake_device(const char *product = "VXCAM-E1-R1", uint32_t type = 0);
    ~fake_device();
    fake_device(const fake_device &) = delete;
    fake_device &operator=(const fake_device &) = delete;

    tevix_dev_t *dev() { return &dev_; }
    fake_camera &cam() { return cam_; }
    void bind(tevix_drv_t *drv);

  private:
    tevix_dev_t dev_{};
    fake_camera cam_;
};

}  // namespace tevix::test
