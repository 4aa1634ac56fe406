// Where the calibration files of a device live and how they are told apart: the path prefix and
// the 32-bit device identifier. The device session fills both fields of the device record.
#pragma once

#include <cstdint>

#include "tevix/tevix_types.h"

namespace tevix::calib {

// The parameter directory, with its trailing separator; "" when not set.
inline const char *dev_path_prefix(const tevix_dev_t *dev) {
    return (dev && dev->path_prefix) ? dev->path_prefix : "";
}

// The XOR of the device's unique-id words, kept in the high half of the hardware id.
inline uint32_t dev_ident(const tevix_dev_t *dev) {
    return dev ? static_cast<uint32_t>(dev->hw_id >> 32) : 0;
}

}  // namespace tevix::calib
