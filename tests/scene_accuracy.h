// Decoded distances against a rendered scene's truth: how many pixels were checked and kept, and
// the errors of those kept.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace tevix::test {

struct accuracy {
    uint32_t checked = 0, valid = 0, far_off = 0;  // far_off: kept pixels off by more than far_mm
    double mean = 0, p95 = 0, max = 0;
};

// Over the pixels whose truth lies in (0, limit_mm) and that the frame header leaves alone; 0 and
// the markers from 60001 up count as not kept.
template <class Renderer>
accuracy scene_accuracy(const Renderer &r, const std::vector<uint16_t> &d, double limit_mm,
                        double far_mm = 100) {
    accuracy a;
    std::vector<double> errs;
    const uint32_t w = r.width(), h = r.height();
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            const double t = r.truth_mm()[y * w + x];
            if (r.under_header(x, y) || t <= 0 || t >= limit_mm) continue;
            ++a.checked;
            const uint16_t v = d[y * w + x];
            if (v == 0 || v >= 60001) continue;
            ++a.valid;
            errs.push_back(std::fabs(v - t));
            if (errs.back() > far_mm) ++a.far_off;
        }
    if (errs.empty()) return a;
    std::sort(errs.begin(), errs.end());
    for (double e : errs) a.mean += e;
    a.mean /= double(errs.size());
    a.p95 = errs[errs.size() * 95 / 100];
    a.max = errs.back();
    return a;
}

}  // namespace tevix::test
