// tevix_ros_node: one camera or recording published as ROS topics.
#pragma once

#include <ros/ros.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "convert.h"
#include "tevix/tevix.h"
#include "tevix_ros/SetParam.h"

namespace tevix_ros {

// Settings read from the private namespace at start-up.
struct node_config {
    std::string uri;  // usb://..., file://..., or empty for the first camera
    std::string frame_id = "tevix_depth_optical_frame";
    int fps = 0;                        // 0: the camera's own
    int mod_freq = 0, mod_freq2 = 0;    // Hz; both set: dual frequency
    int intg_time = 0, intg_time2 = 0;  // microseconds
    std::string filters;                // "name[=args],..." enabled at start
    std::string ir_encoding = "16UC1";  // or mono8
    bool organised = true;     // points as width x height with NaN, else the valid points only
    bool undistort = false;    // also publish depth/image_rect
    bool zero_invalid = true;  // invalid depth pixels as 0 (ROS convention), else 65500
    bool loop = false;         // recordings: start over at the end
    std::string record;        // record the capture into this ONI file
    double reconnect_s = 0.5;
    double timeout_s = 2.0;  // no frame for this long: warn (the capture keeps waiting)
};

class camera_node {
  public:
    camera_node(ros::NodeHandle nh, ros::NodeHandle pnh, node_config cfg);
    ~camera_node();
    camera_node(const camera_node &) = delete;
    camera_node &operator=(const camera_node &) = delete;

    // Publishes until ROS shuts down; the exit status of the node.
    int run();

  private:
    bool _open();
    void _close();
    bool _apply_startup();
    // One setting by name; false with a reason in msg. now: the value the camera reports after.
    bool _apply(const std::string &name, const std::string &value, std::string &msg,
                std::string &now);
    bool _on_set_param(SetParam::Request &req, SetParam::Response &res);
    void _publish(const std::vector<uint8_t> &raw, const tevix_frame_info_t &info);
    void _publish_diagnostics(const ros::TimerEvent &);
    static int _on_cap_error(tevix_dev_t *dev, int code, uint32_t extra);

    ros::NodeHandle nh_, pnh_;
    node_config cfg_;
    ros::Publisher pub_depth_, pub_rect_, pub_info_, pub_ir_, pub_points_, pub_diag_;
    ros::ServiceServer srv_;
    ros::Timer diag_timer_;

    std::mutex dev_mtx_;  // the device against a service call while the main thread reconnects
    tevix_dev_t *dev_ = nullptr;
    bool is_file_ = false;
    uint32_t max_fps_ = 0, max_intg_ = 0;
    std::string serial_;

    stamp_mapper stamps_;
    std::mutex stats_mtx_;
    frame_stats stats_;
    std::atomic<uint32_t> discarded_{0};
    std::atomic<int> last_error_{0};
    // Where the library's error callback (a plain function) finds this node.
    struct error_sink {
        std::atomic<uint32_t> *discarded;
        std::atomic<int> *last_error;
    } sink_{};
    static std::atomic<error_sink *> s_sink;
    int32_t last_index_ = -1;
    std::vector<ros::Time> recent_;  // arrival times of the last frames, for the rate

    std::vector<uint16_t> dist_, rect_, grey_;
    std::vector<uint8_t> ir8_;
    std::vector<float> metres_, xyz_;
};

}  // namespace tevix_ros
