#include "frame_export.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "png_out.h"

namespace {

bool _ends_with(const std::string &s, const char *tail) {
    const std::string t(tail);
    if (s.size() < t.size()) return false;
    return std::equal(t.rbegin(), t.rend(), s.rbegin(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) ==
               std::tolower(static_cast<unsigned char>(b));
    });
}

bool _valid(const float *p) {
    return p[2] > 0.0f && std::isfinite(p[2]);
}

// ASCII PLY or PCD of the valid points (z > 0), metres.
bool _write_points(const std::string &path, const std::vector<float> &xyz, uint32_t n) {
    uint32_t valid = 0;
    for (uint32_t i = 0; i < n; ++i) valid += _valid(&xyz[3 * i]);
    std::FILE *fp = std::fopen(path.c_str(), "wb");
    if (!fp) return false;
    if (_ends_with(path, ".pcd"))
        std::fprintf(fp,
                     "# .PCD v0.7 - tevix point cloud, metres\nVERSION 0.7\nFIELDS x y z\n"
                     "SIZE 4 4 4\nTYPE F F F\nCOUNT 1 1 1\nWIDTH %u\nHEIGHT 1\n"
                     "VIEWPOINT 0 0 0 1 0 0 0\nPOINTS %u\nDATA ascii\n",
                     valid, valid);
    else
        std::fprintf(fp,
                     "ply\nformat ascii 1.0\ncomment tevix point cloud, metres\nelement vertex %u\n"
                     "property float x\nproperty float y\nproperty float z\nend_header\n",
                     valid);
    for (uint32_t i = 0; i < n; ++i) {
        const float *p = &xyz[3 * i];
        if (_valid(p)) std::fprintf(fp, "%.4f %.4f %.4f\n", p[0], p[1], p[2]);
    }
    return std::fclose(fp) == 0;
}

}  // namespace

std::string export_check(const export_paths &p) {
    if (!p.depth.empty() && !_ends_with(p.depth, ".png"))
        return "the depth picture is a PNG file: " + p.depth + " does not end in .png";
    if (!p.ir.empty() && !_ends_with(p.ir, ".png"))
        return "the infrared picture is a PNG file: " + p.ir + " does not end in .png";
    if (!p.points.empty() && !_ends_with(p.points, ".ply") && !_ends_with(p.points, ".pcd"))
        return "points are written as PLY or PCD: " + p.points + " ends in neither .ply nor .pcd";
    if (p.depth.empty() && p.ir.empty() && p.points.empty())
        return "nothing to write: give --depth, --ir or --points";
    return {};
}

bool export_frame(tevix_dev_t *dev, const std::vector<uint8_t> &raw, const tevix_frame_info_t &info,
                  const export_paths &p, std::string &err) {
    const uint32_t w = info.width, h = info.height, n = w * h;
    if (n == 0) {
        err = "the frame has no image size";
        return false;
    }
    std::vector<uint16_t> dist(n), gray(n);
    if (tevix_frame_get_dist_u16(dev, dist.data(), n, raw.data(), info.size, &info) <= 0 ||
        tevix_frame_get_gray_u16(dev, gray.data(), n, raw.data(), info.size, &info) <= 0) {
        err = "the frame does not decode (format " + std::to_string(info.format) + ")";
        return false;
    }
    if (!p.depth.empty()) {
        std::vector<uint8_t> rgb(3 * size_t{n});
        tevix_cmap_dist_u16_to_RGB(rgb.data(), 3 * n, dist.data(), n, TEVIX_PIX_RGB, 0,
                                   k_export_depth_max_mm, nullptr);
        if (!png_write(p.depth, rgb.data(), w, h, 3)) {
            err = "cannot write " + p.depth;
            return false;
        }
    }
    if (!p.ir.empty()) {
        std::vector<uint8_t> ir(n);
        tevix_cmap_gray_u16_to_IR(ir.data(), n, gray.data(), n, 640);
        if (!png_write(p.ir, ir.data(), w, h, 1)) {
            err = "cannot write " + p.ir;
            return false;
        }
    }
    if (!p.points.empty()) {
        std::vector<float> metres(n), xyz(3 * size_t{n});
        if (tevix_frame_get_dist_f32(dev, metres.data(), n, raw.data(), info.size, &info) <= 0 ||
            tevix_frame_get_pcl(dev, xyz.data(), 3 * n, metres.data(), n, w, h, nullptr) <= 0) {
            err = "no point cloud for the frame";
            return false;
        }
        if (!_write_points(p.points, xyz, n)) {
            err = "cannot write " + p.points;
            return false;
        }
    }
    return true;
}
