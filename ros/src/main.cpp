// tevix_ros_node: publishes a tevix camera or recording to ROS.
//
// Private parameters (~): uri, frame_id, fps, mod_freq, mod_freq2, intg_time, intg_time2, filters,
// ir_encoding, organised, undistort, zero_invalid, loop, record, reconnect_interval, log_level.
// Service ~set_param (tevix_ros/SetParam) changes a setting while the node runs.
#include <ros/ros.h>

#include <algorithm>

#include "node.h"

int main(int argc, char **argv) {
    ros::init(argc, argv, "tevix");
    ros::NodeHandle nh, pnh("~");
    tevix_ros::node_config cfg;
    pnh.param<std::string>("uri", cfg.uri, cfg.uri);
    pnh.param<std::string>("frame_id", cfg.frame_id, cfg.frame_id);
    pnh.param("fps", cfg.fps, cfg.fps);
    pnh.param("mod_freq", cfg.mod_freq, cfg.mod_freq);
    pnh.param("mod_freq2", cfg.mod_freq2, cfg.mod_freq2);
    pnh.param("intg_time", cfg.intg_time, cfg.intg_time);
    pnh.param("intg_time2", cfg.intg_time2, cfg.intg_time2);
    pnh.param<std::string>("filters", cfg.filters, cfg.filters);
    pnh.param<std::string>("ir_encoding", cfg.ir_encoding, cfg.ir_encoding);
    pnh.param("organised", cfg.organised, cfg.organised);
    pnh.param("undistort", cfg.undistort, cfg.undistort);
    pnh.param("zero_invalid", cfg.zero_invalid, cfg.zero_invalid);
    pnh.param("loop", cfg.loop, cfg.loop);
    pnh.param<std::string>("record", cfg.record, cfg.record);
    pnh.param("reconnect_interval", cfg.reconnect_s, cfg.reconnect_s);
    int log_level = 7;
    pnh.param("log_level", log_level, log_level);
    if (cfg.ir_encoding != "16UC1" && cfg.ir_encoding != "mono8") {
        ROS_FATAL("tevix: ir_encoding must be 16UC1 or mono8, not %s", cfg.ir_encoding.c_str());
        return 2;
    }
    if (cfg.fps < 0 || cfg.mod_freq < 0 || cfg.mod_freq2 < 0 || cfg.intg_time < 0 ||
        cfg.intg_time2 < 0 || cfg.reconnect_s <= 0.0) {
        ROS_FATAL(
            "tevix: fps, frequencies, integration times and reconnect_interval must be "
            "positive");
        return 2;
    }
    tevix_init("");
    const uint32_t level = static_cast<uint32_t>(std::clamp(log_level, 0, 7));
    tevix_log_cfg(level, 7, level);
    int rc;
    {
        tevix_ros::camera_node node(nh, pnh, cfg);
        rc = node.run();
    }
    tevix_uninit();
    return rc;
}
