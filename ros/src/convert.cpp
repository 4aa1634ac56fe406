#include "convert.h"

#include <sensor_msgs/distortion_models.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace tevix_ros {

bool fill_camera_info(sensor_msgs::CameraInfo &ci, const tevix_lens_t &lens, uint32_t width,
                      uint32_t height) {
    ci.width = width;
    ci.height = height;
    const uint32_t n = std::min<uint32_t>(lens.n_dcoef, 16);
    const bool rational = n > 5;
    const size_t keep = rational ? 8 : 5;
    ci.distortion_model = rational ? sensor_msgs::distortion_models::RATIONAL_POLYNOMIAL
                                   : sensor_msgs::distortion_models::PLUMB_BOB;
    ci.D.assign(keep, 0.0);
    for (size_t i = 0; i < std::min<size_t>(n, keep); ++i) ci.D[i] = lens.dcoef[i];
    ci.K = {lens.fx, 0.0, lens.cx, 0.0, lens.fy, lens.cy, 0.0, 0.0, 1.0};
    ci.R = {1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0};
    ci.P = {lens.fx, 0.0, lens.cx, 0.0, 0.0, lens.fy, lens.cy, 0.0, 0.0, 0.0, 1.0, 0.0};
    ci.binning_x = ci.binning_y = 0;
    ci.roi = sensor_msgs::RegionOfInterest();
    return n <= keep;
}

namespace {

void _image_header(sensor_msgs::Image &img, const char *encoding, uint32_t width, uint32_t height,
                   uint32_t bytes_per_pixel) {
    img.encoding = encoding;
    img.width = width;
    img.height = height;
    img.is_bigendian = 0;
    img.step = width * bytes_per_pixel;
    img.data.resize(static_cast<size_t>(img.step) * height);
}

}  // namespace

void fill_depth(sensor_msgs::Image &img, const std::vector<uint16_t> &mm, uint32_t width,
                uint32_t height, bool zero_invalid) {
    _image_header(img, "16UC1", width, height, 2);
    const size_t n = std::min<size_t>(mm.size(), static_cast<size_t>(width) * height);
    auto *out = reinterpret_cast<uint16_t *>(img.data.data());
    if (!zero_invalid) {
        std::memcpy(out, mm.data(), n * 2);
        return;
    }
    for (size_t i = 0; i < n; ++i) out[i] = mm[i] == k_invalid_mm ? 0 : mm[i];
}

void fill_ir_u16(sensor_msgs::Image &img, const std::vector<uint16_t> &grey, uint32_t width,
                 uint32_t height) {
    _image_header(img, "16UC1", width, height, 2);
    std::memcpy(img.data.data(), grey.data(), std::min<size_t>(grey.size() * 2, img.data.size()));
}

void fill_ir_mono8(sensor_msgs::Image &img, const std::vector<uint8_t> &ir, uint32_t width,
                   uint32_t height) {
    _image_header(img, "mono8", width, height, 1);
    std::memcpy(img.data.data(), ir.data(), std::min<size_t>(ir.size(), img.data.size()));
}

void fill_points(sensor_msgs::PointCloud2 &pc, const std::vector<float> &xyz, uint32_t width,
                 uint32_t height, bool organised) {
    pc.fields.resize(3);
    const char *names[3] = {"x", "y", "z"};
    for (uint32_t i = 0; i < 3; ++i) {
        pc.fields[i].name = names[i];
        pc.fields[i].offset = 4 * i;
        pc.fields[i].datatype = sensor_msgs::PointField::FLOAT32;
        pc.fields[i].count = 1;
    }
    pc.is_bigendian = false;
    pc.point_step = 12;
    const size_t n = std::min<size_t>(xyz.size() / 3, static_cast<size_t>(width) * height);
    auto valid = [&](size_t i) {
        const float z = xyz[3 * i + 2];
        return std::isfinite(z) && z > 0.0f;
    };
    if (organised) {
        pc.width = width;
        pc.height = height;
        pc.is_dense = false;
        pc.data.resize(static_cast<size_t>(width) * height * 12);
        auto *out = reinterpret_cast<float *>(pc.data.data());
        const float nan = std::numeric_limits<float>::quiet_NaN();
        for (size_t i = 0; i < n; ++i) {
            const bool ok = valid(i);
            for (size_t k = 0; k < 3; ++k) out[3 * i + k] = ok ? xyz[3 * i + k] : nan;
        }
        for (size_t i = 3 * n; i < pc.data.size() / 4; ++i) out[i] = nan;
    } else {
        pc.data.resize(n * 12);
        auto *out = reinterpret_cast<float *>(pc.data.data());
        size_t m = 0;
        for (size_t i = 0; i < n; ++i) {
            if (!valid(i)) continue;
            std::memcpy(out + 3 * m, &xyz[3 * i], 12);
            ++m;
        }
        pc.data.resize(m * 12);
        pc.width = static_cast<uint32_t>(m);
        pc.height = 1;
        pc.is_dense = true;
    }
    pc.row_step = pc.point_step * pc.width;
}

ros::Time stamp_mapper::map(uint32_t cam_sec, uint32_t cam_usec, const ros::Time &now) {
    const double cam = cam_sec + cam_usec * 1e-6;
    ros::Time t;
    if (anchored_) {
        const double dt = cam - cam0_;
        const double host = (now - ros0_).toSec();
        // A clock that ran backwards or strayed from the host by more than the bound is
        // re-anchored.
        if (dt < 0.0 || std::fabs(dt - host) > max_drift_)
            anchored_ = false;
        else
            t = ros0_ + ros::Duration(dt);
    }
    if (!anchored_) {
        anchored_ = true;
        cam0_ = cam;
        ros0_ = now;
        t = now;
    }
    if (!last_.isZero() && t <= last_) t = last_ + ros::Duration(0, 1000);
    last_ = t;
    return t;
}

void fill_diagnostics(diagnostic_msgs::DiagnosticArray &arr, const frame_stats &s,
                      const std::string &name, const ros::Time &stamp) {
    arr.header.stamp = stamp;
    arr.status.resize(1);
    auto &st = arr.status[0];
    st.name = name;
    st.hardware_id = s.uri;
    if (!s.connected) {
        st.level = diagnostic_msgs::DiagnosticStatus::ERROR;
        st.message = "camera not connected";
    } else if (s.rate_hz <= 0.0) {
        st.level = diagnostic_msgs::DiagnosticStatus::WARN;
        st.message = "no frames";
    } else {
        st.level = diagnostic_msgs::DiagnosticStatus::OK;
        st.message = "streaming";
    }
    auto kv = [](const char *k, const std::string &v) {
        diagnostic_msgs::KeyValue e;
        e.key = k;
        e.value = v;
        return e;
    };
    char buf[64];
    st.values.clear();
    std::snprintf(buf, sizeof buf, "%.2f", s.rate_hz);
    st.values.push_back(kv("rate_hz", buf));
    st.values.push_back(kv("frames", std::to_string(s.frames)));
    st.values.push_back(kv("drops", std::to_string(s.drops)));
    st.values.push_back(kv("discarded", std::to_string(s.discarded)));
    st.values.push_back(kv("reconnects", std::to_string(s.reconnects)));
    std::snprintf(buf, sizeof buf, "%.1f", s.board_c);
    st.values.push_back(kv("board_temperature_c", buf));
    std::snprintf(buf, sizeof buf, "%.1f", s.sensor_c);
    st.values.push_back(kv("sensor_temperature_c", buf));
}

}  // namespace tevix_ros
