// Shared by the ONI and replay tests: a log capture on the default context and small recordings.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ll/oni/oni.h"
#include "test_util.h"
#include "tevix/vx_log.h"

namespace tevix::test {

// A test depth image: frame k differs from every other frame.
inline std::vector<uint16_t> depth_frame(uint32_t w, uint32_t h, uint32_t k) {
    std::vector<uint16_t> px(size_t{w} * h);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            px[size_t{y} * w + x] =
                static_cast<uint16_t>(500 + k * 17 + x * 3 + y * 5 + (x * y + k) % 7);
    return px;
}

// Writes a depth node "Depth" (pixel format 100) of n frames w x h at 30 fps.
inline bool write_depth_file(const std::string &path, uint32_t codec, uint32_t w, uint32_t h,
                             uint32_t n) {
    auto wr = oni::writer::create(path.c_str());
    if (!wr) return false;
    oni::stream_desc d;
    d.type = static_cast<uint32_t>(oni::node_type::depth);
    d.pixel_format = 100;
    d.max_depth = 10000;
    d.xres = w;
    d.yres = h;
    d.bytes_per_pixel = 2;
    d.fps = 30;
    const int id = wr->add_node("Depth", d, codec);
    if (id < 1) return false;
    for (uint32_t k = 0; k < n; ++k) {
        const auto px = depth_frame(w, h, k);
        if (!wr->write_data(id, px.data(), static_cast<uint32_t>(px.size() * 2),
                            33333ull * (k + 1)))
            return false;
    }
    return wr->finish();
}

// A little-endian field of a file held in a string.
template <typename T>
T get_at(const std::string &s, size_t at) {
    T v{};
    std::memcpy(&v, s.data() + at, sizeof v);
    return v;
}
template <typename T>
void set_at(std::string &s, size_t at, T v) {
    std::memcpy(s.data() + at, &v, sizeof v);
}

// Offsets of the records of a file with 28-byte record headers, up to and including End.
inline std::vector<size_t> record_offsets(const std::string &f) {
    std::vector<size_t> at;
    for (size_t p = 24; p + 28 <= f.size();) {
        at.push_back(p);
        if (get_at<uint32_t>(f, p + 4) == 11) break;
        p += get_at<uint32_t>(f, p + 12) + size_t{get_at<uint32_t>(f, p + 16)};
    }
    return at;
}

inline std::string testdata(const char *name) {
    return std::string(TEVIX_TESTDATA_DIR) + "/oni/" + name;
}

}  // namespace tevix::test
