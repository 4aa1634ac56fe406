// Frames of the library as ROS messages: pure conversions, no node, no camera, so that they can be
// checked without a ROS master. The node is C++17: ROS 1 message headers use allocator members
// that C++20 removed.
#pragma once

#include <diagnostic_msgs/DiagnosticArray.h>
#include <ros/time.h>
#include <sensor_msgs/CameraInfo.h>
#include <sensor_msgs/Image.h>
#include <sensor_msgs/PointCloud2.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tevix/tevix.h"

namespace tevix_ros {

// Invalid distance pixels of the library; ROS depth images mark them 0 (no measurement).
constexpr uint16_t k_invalid_mm = 65500;

// Camera model of our lens record: plumb_bob for up to five coefficients (k1 k2 p1 p2 k3), the
// rational polynomial for six to eight (k1 k2 p1 p2 k3 k4 k5 k6). Coefficients past the eighth
// (thin prism, tilt) have no ROS model; they are dropped and reported by the return value.
bool fill_camera_info(sensor_msgs::CameraInfo &ci, const tevix_lens_t &lens, uint32_t width,
                      uint32_t height);

// 16UC1 millimetres; invalid pixels become 0 when zero_invalid, else stay 65500.
void fill_depth(sensor_msgs::Image &img, const std::vector<uint16_t> &mm, uint32_t width,
                uint32_t height, bool zero_invalid);

// Infrared as 16UC1 (the grey values as decoded) or mono8 (the library's 8-bit IR picture).
void fill_ir_u16(sensor_msgs::Image &img, const std::vector<uint16_t> &grey, uint32_t width,
                 uint32_t height);
void fill_ir_mono8(sensor_msgs::Image &img, const std::vector<uint8_t> &ir, uint32_t width,
                   uint32_t height);

// x y z float32 points in metres from the library's xyz triples (invalid pixels have z <= 0).
// organised: width x height with NaN for invalid pixels; dense: the valid points only.
void fill_points(sensor_msgs::PointCloud2 &pc, const std::vector<float> &xyz, uint32_t width,
                 uint32_t height, bool organised);

// Maps camera timestamps onto ROS time: the first frame is anchored at the ROS time it arrived,
// later frames keep the camera's own intervals (no host scheduling jitter). A camera clock that
// jumps (replay looping, a seek, a device reset) or drifts more than max_drift from the host
// re-anchors; stamps never go backwards.
class stamp_mapper {
  public:
    explicit stamp_mapper(double max_drift_s = 0.5) : max_drift_(max_drift_s) {}
    ros::Time map(uint32_t cam_sec, uint32_t cam_usec, const ros::Time &now);
    void reset() { anchored_ = false; }

  private:
    double max_drift_;
    bool anchored_ = false;
    double cam0_ = 0.0;
    ros::Time ros0_, last_;
};

// Frame statistics for the diagnostics message.
struct frame_stats {
    double rate_hz = 0.0;
    uint64_t frames = 0;
    uint64_t drops = 0;      // gaps in the camera's frame index
    uint64_t discarded = 0;  // incomplete frames the stream assembler dropped, this capture
    uint64_t reconnects = 0;
    double board_c = 0.0, sensor_c = 0.0;
    bool connected = false;
    std::string uri;
};
void fill_diagnostics(diagnostic_msgs::DiagnosticArray &arr, const frame_stats &s,
                      const std::string &name, const ros::Time &stamp);

}  // namespace tevix_ros
