#include "node.h"

#include <diagnostic_msgs/DiagnosticArray.h>
#include <sensor_msgs/CameraInfo.h>
#include <sensor_msgs/Image.h>
#include <sensor_msgs/PointCloud2.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace tevix_ros {

namespace {

constexpr uint32_t k_raw_capacity = 8u << 20;
// Parameter 4: u16 max width, u16 max height, u32 max fps, u32 max integration time (us).
constexpr uint32_t k_param_geometry = 4;
constexpr size_t k_rate_window = 30;

enum class arg_kind { none, u8, u8x2, u16, u16x2, s16 };
struct filter_name {
    const char *name;
    uint32_t id;
    arg_kind args;
};
constexpr filter_name k_filters[] = {
    {"lens_calib", TEVIX_FILTER_LENS_CALIB, arg_kind::none},
    {"pix_calib", TEVIX_FILTER_PIX_CALIB, arg_kind::none},
    {"smooth", TEVIX_FILTER_SMOOTH, arg_kind::u8x2},
    {"min_amp", TEVIX_FILTER_MIN_AMP, arg_kind::u16},
    {"auto_intg", TEVIX_FILTER_AUTO_INTG, arg_kind::u16},
    {"consistency", TEVIX_FILTER_CONSISTENCY, arg_kind::u16},
    {"temp_monitor", TEVIX_FILTER_TEMP_MONITOR, arg_kind::u16},
    {"hdr", TEVIX_FILTER_HDR, arg_kind::u16x2},
    {"offset", TEVIX_FILTER_OFFSET, arg_kind::s16},
    {"sport", TEVIX_FILTER_SPORT_MODE, arg_kind::u8},
    {"sys_calib", TEVIX_FILTER_SYS_CALIB, arg_kind::none},
    {"gray_scale", TEVIX_FILTER_GRAY_SCALE, arg_kind::u16},
    {"flying_pixel", TEVIX_FILTER_FLYING_PIXEL, arg_kind::u8},
    {"temp_comp", TEVIX_FILTER_TEMP_COMP, arg_kind::none},
};

const filter_name *_filter(const std::string &name) {
    for (const auto &f : k_filters)
        if (name == f.name) return &f;
    return nullptr;
}

// Whole decimal numbers separated by commas, each within lo..hi.
bool _numbers(const std::string &text, long lo, long hi, std::vector<long> &out) {
    out.clear();
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ',');) {
        char *end = nullptr;
        errno = 0;
        const long v = std::strtol(part.c_str(), &end, 10);
        if (part.empty() || *end != '\0' || errno != 0 || v < lo || v > hi) return false;
        out.push_back(v);
    }
    return !out.empty();
}

std::string _join(const std::vector<long> &v) {
    std::string s;
    for (size_t i = 0; i < v.size(); ++i) s += (i ? "," : "") + std::to_string(v[i]);
    return s;
}

}  // namespace

// One camera per node process.
std::atomic<camera_node::error_sink *> camera_node::s_sink{nullptr};

camera_node::camera_node(ros::NodeHandle nh, ros::NodeHandle pnh, node_config cfg)
    : nh_(nh), pnh_(pnh), cfg_(std::move(cfg)) {
    pub_depth_ = nh_.advertise<sensor_msgs::Image>("depth/image_raw", 5);
    if (cfg_.undistort) pub_rect_ = nh_.advertise<sensor_msgs::Image>("depth/image_rect", 5);
    pub_info_ = nh_.advertise<sensor_msgs::CameraInfo>("depth/camera_info", 5);
    pub_ir_ = nh_.advertise<sensor_msgs::Image>("ir/image_raw", 5);
    pub_points_ = nh_.advertise<sensor_msgs::PointCloud2>("points", 5);
    pub_diag_ = nh_.advertise<diagnostic_msgs::DiagnosticArray>("/diagnostics", 5);
    srv_ = pnh_.advertiseService("set_param", &camera_node::_on_set_param, this);
    diag_timer_ = nh_.createTimer(ros::Duration(1.0), &camera_node::_publish_diagnostics, this);
    sink_ = {&discarded_, &last_error_};
    s_sink = &sink_;
    std::lock_guard<std::mutex> lock(stats_mtx_);
    stats_.uri = cfg_.uri.empty() ? "first camera" : cfg_.uri;
}

camera_node::~camera_node() {
    _close();
    s_sink = nullptr;
}

// Runs on the pulling thread; the pull that reported the error returns 0 afterwards.
int camera_node::_on_cap_error(tevix_dev_t *, int code, uint32_t extra) {
    error_sink *sink = s_sink.load();
    if (!sink) return 1;
    if (code == TEVIX_ERR_CAP_FRAME_DISCARD)
        sink->discarded->store(extra);  // the running total of the capture
    else
        sink->last_error->store(code);
    return 1;
}

bool camera_node::_open() {
    tevix_dev_t *dev =
        cfg_.uri.empty() ? tevix_dev_open(nullptr) : tevix_dev_open_by_uri(cfg_.uri.c_str());
    // A camera that came back on another USB address is found again by its serial number.
    if (!dev && !serial_.empty()) {
        std::vector<tevix_dev_t> list(16);
        const int n = tevix_dev_list(list.data(), static_cast<int>(list.size()));
        for (int i = 0; i < n && !dev; ++i)
            if (serial_ == list[static_cast<size_t>(i)].serial) {
                char uri[64];
                std::snprintf(uri, sizeof uri, "usb://%03u:%03u:%03u",
                              list[static_cast<size_t>(i)].addr.usb.bus,
                              list[static_cast<size_t>(i)].addr.usb.port,
                              list[static_cast<size_t>(i)].addr.usb.addr);
                dev = tevix_dev_open_by_uri(uri);
            }
    }
    if (!dev) return false;
    {
        std::lock_guard<std::mutex> lock(dev_mtx_);
        dev_ = dev;
    }
    is_file_ = dev->type == TEVIX_DEV_FILE;
    serial_ = dev->serial;
    char uri[300] = {};
    tevix_dev_get_uri(dev, uri, sizeof uri);
    ROS_INFO("tevix: opened %s (%s, serial %s)", uri, dev->product, dev->serial);

    tevix_param_item_t geo{};
    geo.id = k_param_geometry;
    if (!is_file_ && tevix_param_batch_get(dev, &geo, 1)) {
        max_fps_ = geo.value.u32[1];
        max_intg_ = geo.value.u32[2];
    }
    // A recording opens in sync mode (one frame per pull); unless told otherwise it replays at
    // the rate it was recorded with.
    if (is_file_ && cfg_.fps == 0) {
        tevix_param_item_t rate{};
        rate.id = TEVIX_PARAM_FPS;
        if (tevix_param_batch_get(dev, &rate, 1) && rate.value.u32[0] != 0) {
            rate.len = 4;
            tevix_param_batch_set(dev, &rate, 1);
        }
    }
    if (!_apply_startup()) {
        _close();
        return false;
    }

    tevix_cap_cfg_t cap{};
    tevix_cap_config_get(dev, &cap);
    cap.on_cap_err = &camera_node::_on_cap_error;
    if (!cfg_.record.empty() && !is_file_) {
        cap.save_replay = 1;
        cap.save_file = cfg_.record.c_str();
    }
    if (is_file_) cap.file_replay_mode = cfg_.loop ? 1 : 0;
    tevix_cap_config_set(dev, &cap);
    if (!tevix_cap_start(dev)) {
        ROS_ERROR("tevix: the capture of %s did not start", uri);
        _close();
        return false;
    }
    stamps_.reset();
    last_index_ = -1;
    discarded_ = 0;
    last_error_ = 0;
    std::lock_guard<std::mutex> lock(stats_mtx_);
    stats_.connected = true;
    stats_.uri = uri;
    return true;
}

void camera_node::_close() {
    std::lock_guard<std::mutex> lock(dev_mtx_);
    if (!dev_) return;
    tevix_cap_stop(dev_);
    tevix_dev_close(dev_);
    dev_ = nullptr;
    std::lock_guard<std::mutex> slock(stats_mtx_);
    stats_.connected = false;
}

bool camera_node::_apply_startup() {
    std::vector<std::pair<std::string, std::string>> todo;
    if (cfg_.fps > 0) todo.emplace_back("FPS", std::to_string(cfg_.fps));
    if (cfg_.mod_freq > 0 && cfg_.mod_freq2 > 0)
        todo.emplace_back("DUAL_FREQ",
                          std::to_string(cfg_.mod_freq) + "," + std::to_string(cfg_.mod_freq2));
    else if (cfg_.mod_freq > 0)
        todo.emplace_back("MOD_FREQ", std::to_string(cfg_.mod_freq));
    if (cfg_.intg_time > 0) todo.emplace_back("INTG1", std::to_string(cfg_.intg_time));
    if (cfg_.intg_time2 > 0) todo.emplace_back("INTG2", std::to_string(cfg_.intg_time2));
    std::stringstream in(cfg_.filters);
    for (std::string f; std::getline(in, f, ';');) {
        f.erase(std::remove(f.begin(), f.end(), ' '), f.end());
        if (f.empty()) continue;
        const size_t eq = f.find('=');
        todo.emplace_back("filter." + f.substr(0, eq),
                          eq == std::string::npos ? "on" : f.substr(eq + 1));
    }
    for (const auto &[name, value] : todo) {
        std::string msg, now;
        if (!_apply(name, value, msg, now)) {
            ROS_ERROR("tevix: start-up setting %s=%s refused: %s", name.c_str(), value.c_str(),
                      msg.c_str());
            return false;
        }
        ROS_INFO("tevix: %s=%s (camera: %s)", name.c_str(), value.c_str(), now.c_str());
    }
    return true;
}

bool camera_node::_apply(const std::string &name, const std::string &value, std::string &msg,
                         std::string &now) {
    if (!dev_) {
        msg = "no camera connected";
        return false;
    }
    std::vector<long> v;
    if (name.rfind("filter.", 0) == 0) {
        const filter_name *f = _filter(name.substr(7));
        if (!f) {
            msg = "unknown filter '" + name.substr(7) + "'";
            return false;
        }
        if (value == "off" || value == "0" || value == "false") {
            if (tevix_filter_disable(dev_, f->id) != 0) {
                msg = "the driver refused to disable " + name.substr(7);
                return false;
            }
            now = "off";
            return true;
        }
        tevix_filter_arg_t arg{};
        const bool plain = value == "on" || value == "1" || value == "true";
        if (!plain || f->args == arg_kind::none) {
            long lo = 0, hi = 65535;
            size_t count = 1;
            switch (f->args) {
                case arg_kind::none:
                    msg = "filter " + name.substr(7) + " takes no value: use on or off";
                    return false;
                case arg_kind::u8:
                    hi = 255;
                    break;
                case arg_kind::u8x2:
                    hi = 255;
                    count = 2;
                    break;
                case arg_kind::u16x2:
                    count = 2;
                    break;
                case arg_kind::s16:
                    lo = -32768;
                    hi = 32767;
                    break;
                case arg_kind::u16:
                    break;
            }
            if (!plain) {
                if (!_numbers(value, lo, hi, v) || v.size() > count) {
                    msg = "bad value '" + value + "' for filter " + name.substr(7) + ": up to " +
                          std::to_string(count) + " number(s) in " + std::to_string(lo) + ".." +
                          std::to_string(hi) + ", or on/off";
                    return false;
                }
                for (size_t i = 0; i < v.size(); ++i) {
                    if (f->args == arg_kind::u8 || f->args == arg_kind::u8x2)
                        arg.u8[i] = static_cast<uint8_t>(v[i]);
                    else if (f->args == arg_kind::s16)
                        arg.s16[i] = static_cast<int16_t>(v[i]);
                    else
                        arg.u16[i] = static_cast<uint16_t>(v[i]);
                }
            }
        }
        if (tevix_filter_enable(dev_, f->id, &arg) != 0) {
            msg = "the driver refused to enable " + name.substr(7);
            return false;
        }
        now = plain ? "on" : value;
        return true;
    }

    tevix_param_item_t item{};
    if (name == "FPS") {
        // A recording replays at any rate; 0 hands out every frame as fast as it is published.
        const long lo = is_file_ ? 0 : 1;
        const long hi = max_fps_ ? static_cast<long>(max_fps_) : 1000;
        if (!_numbers(value, lo, hi, v) || v.size() != 1) {
            msg =
                "FPS must be one whole number in " + std::to_string(lo) + ".." + std::to_string(hi);
            return false;
        }
        item.id = TEVIX_PARAM_FPS;
        item.len = 4;
        item.value.u32[0] = static_cast<uint32_t>(v[0]);
    } else if (name == "MOD_FREQ") {
        if (!_numbers(value, 1000000, 200000000, v) || v.size() != 1) {
            msg = "MOD_FREQ must be one frequency in Hz, 1000000..200000000";
            return false;
        }
        item.id = TEVIX_PARAM_MOD_FREQ;
        item.len = 4;
        item.value.u32[0] = static_cast<uint32_t>(v[0]);
    } else if (name == "DUAL_FREQ") {
        if (!_numbers(value, 1000000, 200000000, v) || v.size() != 2) {
            msg = "DUAL_FREQ must be two frequencies in Hz, f0,f1, each 1000000..200000000";
            return false;
        }
        item.id = TEVIX_PARAM_DUAL_FREQ;
        item.len = 8;
        item.value.u32[0] = static_cast<uint32_t>(v[0]);
        item.value.u32[1] = static_cast<uint32_t>(v[1]);
    } else if (name == "INTG1" || name == "INTG2") {
        const long lo = name == "INTG2" ? 0 : 1;
        const long hi = max_intg_ ? std::min<long>(max_intg_, 65535) : 65535;
        if (!_numbers(value, lo, hi, v) || v.size() != 1) {
            msg = name + " must be one integration time in microseconds, " + std::to_string(lo) +
                  ".." + std::to_string(hi);
            return false;
        }
        item.id = name == "INTG1" ? TEVIX_PARAM_INTG1 : TEVIX_PARAM_INTG2;
        item.len = 2;
        item.value.u16[0] = static_cast<uint16_t>(v[0]);
    } else {
        msg = "unknown parameter '" + name +
              "' (FPS, MOD_FREQ, DUAL_FREQ, INTG1, INTG2, filter.<name>)";
        return false;
    }
    if (is_file_ && item.id != TEVIX_PARAM_FPS) {
        msg = "a recording replays as it was recorded: only its rate (FPS) can change";
        return false;
    }
    if (!tevix_param_batch_set(dev_, &item, 1)) {
        msg = "the camera refused " + name + "=" + value;
        return false;
    }
    tevix_param_item_t back{};
    back.id = item.id;
    if (tevix_param_batch_get(dev_, &back, 1)) {
        std::vector<long> got;
        if (item.len == 2)
            got.push_back(back.value.u16[0]);
        else
            for (uint32_t i = 0; i < item.len / 4u; ++i) got.push_back(back.value.u32[i]);
        now = _join(got);
    } else {
        now = "unreadable";
    }
    return true;
}

bool camera_node::_on_set_param(SetParam::Request &req, SetParam::Response &res) {
    std::lock_guard<std::mutex> lock(dev_mtx_);
    std::string msg, now;
    res.ok = _apply(req.name, req.value, msg, now);
    res.message = res.ok ? "camera reports " + now : msg;
    res.value = now;
    if (res.ok)
        ROS_INFO("tevix: %s=%s, %s", req.name.c_str(), req.value.c_str(), res.message.c_str());
    else
        ROS_WARN("tevix: %s=%s refused: %s", req.name.c_str(), req.value.c_str(), msg.c_str());
    return true;
}

void camera_node::_publish(const std::vector<uint8_t> &raw, const tevix_frame_info_t &info) {
    const uint32_t w = info.width, h = info.height, n = w * h;
    if (n == 0) return;
    const ros::Time arrived = ros::Time::now();
    const ros::Time stamp = stamps_.map(info.ts_sec, info.ts_usec, arrived);
    {
        std::lock_guard<std::mutex> lock(stats_mtx_);
        ++stats_.frames;
        if (last_index_ >= 0) {
            const uint16_t gap = static_cast<uint16_t>(info.index - last_index_ - 1);
            if (gap < 1000) stats_.drops += gap;  // a larger step is a restart, not a loss
        }
        recent_.push_back(arrived);
        if (recent_.size() > k_rate_window) recent_.erase(recent_.begin());
        if (recent_.size() > 1)
            stats_.rate_hz = (recent_.size() - 1) / (recent_.back() - recent_.front()).toSec();
        stats_.board_c = static_cast<int16_t>(info.temperature & 0xFFFF) / 10.0;
        stats_.sensor_c = static_cast<int16_t>(info.temperature >> 16) / 10.0;
    }
    last_index_ = info.index;

    const bool want_depth = pub_depth_.getNumSubscribers() > 0;
    const bool want_rect = cfg_.undistort && pub_rect_.getNumSubscribers() > 0;
    const bool want_points = pub_points_.getNumSubscribers() > 0;
    const bool want_ir = pub_ir_.getNumSubscribers() > 0;
    std_msgs::Header header;
    header.stamp = stamp;
    header.frame_id = cfg_.frame_id;

    if (want_depth || want_rect) {
        dist_.resize(n);
        if (tevix_frame_get_dist_u16(dev_, dist_.data(), n, raw.data(), info.size, &info) <= 0) {
            ROS_WARN_THROTTLE(5.0, "tevix: frame %u does not decode", info.index);
            return;
        }
        if (want_depth) {
            sensor_msgs::ImagePtr img(new sensor_msgs::Image);
            img->header = header;
            fill_depth(*img, dist_, w, h, cfg_.zero_invalid);
            pub_depth_.publish(img);
        }
        if (want_rect) {
            rect_.resize(n);
            if (tevix_lens_calib_apply_dist_u16(dev_, rect_.data(), n, dist_.data(), n, 0, &info,
                                                nullptr) == 1) {
                sensor_msgs::ImagePtr img(new sensor_msgs::Image);
                img->header = header;
                fill_depth(*img, rect_, w, h, cfg_.zero_invalid);
                pub_rect_.publish(img);
            }
        }
    }
    if (pub_info_.getNumSubscribers() > 0) {
        tevix_lens_t lens{};
        if (tevix_lens_param_get(dev_, &lens)) {
            sensor_msgs::CameraInfoPtr ci(new sensor_msgs::CameraInfo);
            ci->header = header;
            if (!fill_camera_info(*ci, lens, w, h))
                ROS_WARN_ONCE(
                    "tevix: the lens has %u distortion coefficients; camera_info "
                    "carries the first 8",
                    lens.n_dcoef);
            pub_info_.publish(ci);
        }
    }
    if (want_points) {
        metres_.resize(n);
        xyz_.resize(3 * static_cast<size_t>(n));
        if (tevix_frame_get_dist_f32(dev_, metres_.data(), n, raw.data(), info.size, &info) > 0 &&
            tevix_frame_get_pcl(dev_, xyz_.data(), 3 * n, metres_.data(), n, w, h, nullptr) > 0) {
            sensor_msgs::PointCloud2Ptr pc(new sensor_msgs::PointCloud2);
            pc->header = header;
            fill_points(*pc, xyz_, w, h, cfg_.organised);
            pub_points_.publish(pc);
        }
    }
    if (want_ir) {
        grey_.resize(n);
        if (tevix_frame_get_gray_u16(dev_, grey_.data(), n, raw.data(), info.size, &info) > 0) {
            sensor_msgs::ImagePtr img(new sensor_msgs::Image);
            img->header = header;
            if (cfg_.ir_encoding == "mono8") {
                ir8_.resize(n);
                tevix_cmap_gray_u16_to_IR(ir8_.data(), n, grey_.data(), n, 0);
                fill_ir_mono8(*img, ir8_, w, h);
            } else {
                fill_ir_u16(*img, grey_, w, h);
            }
            pub_ir_.publish(img);
        }
    }
}

void camera_node::_publish_diagnostics(const ros::TimerEvent &) {
    diagnostic_msgs::DiagnosticArray arr;
    std::lock_guard<std::mutex> lock(stats_mtx_);
    stats_.discarded = discarded_.load();
    // No frame for two seconds: the rate reads 0, not the last value.
    if (!recent_.empty() && (ros::Time::now() - recent_.back()).toSec() > 2.0) {
        recent_.clear();
        stats_.rate_hz = 0.0;
    }
    fill_diagnostics(arr, stats_, ros::this_node::getName(), ros::Time::now());
    pub_diag_.publish(arr);
}

int camera_node::run() {
    ros::AsyncSpinner spinner(1);  // service calls and the diagnostics timer
    spinner.start();
    std::vector<uint8_t> raw(k_raw_capacity);
    bool warned = false;
    while (ros::ok()) {
        if (!dev_) {
            if (!_open()) {
                if (!warned)
                    ROS_WARN("tevix: cannot open %s; retrying every %.1f s",
                             cfg_.uri.empty() ? "a camera" : cfg_.uri.c_str(), cfg_.reconnect_s);
                warned = true;
                ros::Duration(cfg_.reconnect_s).sleep();
                continue;
            }
            warned = false;
        }
        tevix_frame_info_t info{};
        const int got = tevix_cap_get_frames(dev_, 1, raw.data(), k_raw_capacity, &info);
        if (got == 1) {
            _publish(raw, info);
            continue;
        }
        if (got == TEVIX_ERR_CAP_TIMEOUT) {
            ROS_WARN_THROTTLE(5.0, "tevix: no frame from the camera");
            continue;
        }
        // No frame within the wait (a replay's first pull, say) while the capture runs: pull again.
        // A pull that ends the capture returns 0 once the error callback has had its code.
        if (got == 0 && tevix_cap_is_ongoing(dev_)) continue;
        const int code = got < 0 ? got : last_error_.exchange(0);
        if (code == TEVIX_ERR_CAP_EOF && is_file_) {
            ROS_INFO("tevix: end of the recording");
            _close();
            std::lock_guard<std::mutex> lock(stats_mtx_);
            stats_.uri += " (ended)";
            break;
        }
        ROS_ERROR("tevix: capture ended (%s); reconnecting", tevix_error_name(code));
        _close();
        std::lock_guard<std::mutex> lock(stats_mtx_);
        ++stats_.reconnects;
    }
    // A finished recording leaves the node up (its last messages stay latched by subscribers)
    // until ROS shuts it down.
    while (ros::ok()) ros::Duration(0.1).sleep();
    spinner.stop();
    _close();
    return 0;
}

}  // namespace tevix_ros
