// One decoded frame of an open device written as pictures and points: a colour-mapped depth PNG,
// an infrared PNG and a point cloud (PLY or PCD). Shared by "demo" and "export", so that both
// write the same files for the same frame.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tevix/tevix.h"

// Colour range of the depth picture, millimetres.
constexpr uint16_t k_export_depth_max_mm = 6000;

struct export_paths {
    std::string depth;   // colour PNG, or empty
    std::string ir;      // 8-bit PNG, or empty
    std::string points;  // *.ply or *.pcd, or empty
};

// Empty when the path names a known kind for its file, else the reason.
std::string export_check(const export_paths &p);

// Decodes the pulled frame (raw, info) of dev and writes the files asked for; false with the
// reason in err.
bool export_frame(tevix_dev_t *dev, const std::vector<uint8_t> &raw, const tevix_frame_info_t &info,
                  const export_paths &p, std::string &err);
