// USB backend internals that tests look at.
#pragma once

#include <cstdint>

#include "tevix/tevix_ll.h"

namespace tevix::usb {

// Bulk-in transfers of an open device currently submitted (0 when not open).
uint32_t in_flight(const tevix_ll_dev_t *dev);

// Whether the device's event thread is running.
bool evt_running(const tevix_ll_dev_t *dev);

}  // namespace tevix::usb
