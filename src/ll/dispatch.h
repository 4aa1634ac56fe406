// Backend list of the dispatch layer. Entry 0 holds the file replay backend, entry 2 the USB
// backend; 1 and 3 are empty.
#pragma once

#include "tevix/tevix_ll.h"

namespace tevix::ll {

constexpr int k_backend_file = 0;
constexpr int k_backend_usb = 2;
constexpr int k_backend_count = 4;

// Replaces one entry of the backend list and returns the previous one. Tests put their own
// backends here; the library never calls it.
const tevix_ll_ops *backend_swap(int idx, const tevix_ll_ops *ops);

}  // namespace tevix::ll

// The two built-in backends.
extern const tevix_ll_ops usb_ll_ops;
extern const tevix_ll_ops file_ll_ops;
