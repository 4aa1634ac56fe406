// The lens the API tests' fake drivers report: a plain pinhole at the image centre, f = 10 px.
#pragma once

#include "drivers/drv.h"

namespace tevix::test {

inline bool pinhole_lens(tevix_drv_t *, tevix_lens_param_t *lens, uint32_t w, uint32_t h) {
    *lens = tevix_lens_param_t{};
    lens->cx = (w - 1) / 2.0;
    lens->cy = (h - 1) / 2.0;
    lens->fx = lens->fy = 10.0;
    lens->width = w;
    lens->height = h;
    return true;
}

}  // namespace tevix::test
