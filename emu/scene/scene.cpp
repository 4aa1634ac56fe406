#include "scene/scene.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

namespace tevix::emu {

namespace {

struct vec3 {
    double x, y, z;
};

vec3 operator-(vec3 a, vec3 b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
double dot(vec3 a, vec3 b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
vec3 cross(vec3 a, vec3 b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// The scene in camera coordinates (mm; x right, y down, z forward).
constexpr double k_room_x = 2200, k_room_top = -1400, k_room_floor = 1200;

struct box {
    vec3 lo, hi;
    float refl;
};
constexpr box k_boxes[2] = {
    {{-1300, 600, 2200}, {-500, 1200, 3000}, 0.85f},
    {{1200, -200, 3600}, {1900, 1200, 4300}, 0.8f},
};
constexpr vec3 k_sphere_c{700, 300, 2700};
constexpr double k_sphere_r = 500;
// Ramp: a parallelogram from the floor rising towards the back.
constexpr vec3 k_ramp_p{-300, 1200, 1500}, k_ramp_e1{900, 0, 0}, k_ramp_e2{0, -450, 800};

struct hit {
    double t = 1e30;
    float refl = 0;
};

void _try(hit &h, double t, float refl) {
    if (t > 1e-6 && t < h.t) {
        h.t = t;
        h.refl = refl;
    }
}

void _room(hit &h, vec3 d, double back) {
    if (d.x > 0) _try(h, k_room_x / d.x, 0.8f);
    if (d.x < 0) _try(h, -k_room_x / d.x, 0.8f);
    if (d.y > 0) _try(h, k_room_floor / d.y, 0.75f);
    if (d.y < 0) _try(h, k_room_top / d.y, 0.7f);
    if (d.z > 0) _try(h, back / d.z, 0.9f);
}

void _box(hit &h, vec3 d, const box &b) {
    double t0 = 0, t1 = 1e30;
    const double o[3] = {0, 0, 0}, dv[3] = {d.x, d.y, d.z};
    const double lo[3] = {b.lo.x, b.lo.y, b.lo.z}, hi[3] = {b.hi.x, b.hi.y, b.hi.z};
    for (int a = 0; a < 3; ++a) {
        if (std::fabs(dv[a]) < 1e-12) {
            if (o[a] < lo[a] || o[a] > hi[a]) return;
            continue;
        }
        double ta = (lo[a] - o[a]) / dv[a], tb = (hi[a] - o[a]) / dv[a];
        if (ta > tb) std::swap(ta, tb);
        t0 = std::max(t0, ta);
        t1 = std::min(t1, tb);
    }
    if (t0 <= t1) _try(h, t0, b.refl);
}

void _sphere(hit &h, vec3 d) {
    const double b = dot(d, k_sphere_c);
    const double c = dot(k_sphere_c, k_sphere_c) - k_sphere_r * k_sphere_r;
    const double disc = b * b - c;
    if (disc >= 0) _try(h, b - std::sqrt(disc), 0.9f);
}

void _ramp(hit &h, vec3 d) {
    const vec3 n = cross(k_ramp_e1, k_ramp_e2);
    const double den = dot(n, d);
    if (std::fabs(den) < 1e-12) return;
    const double t = dot(n, k_ramp_p) / den;
    const vec3 q = vec3{d.x * t, d.y * t, d.z * t} - k_ramp_p;
    const double u = dot(q, k_ramp_e1) / dot(k_ramp_e1, k_ramp_e1);
    const double v = dot(q, k_ramp_e2) / dot(k_ramp_e2, k_ramp_e2);
    if (u >= 0 && u <= 1 && v >= 0 && v <= 1) _try(h, t, 0.95f);
}

// Ray direction (unit length) of an image pixel through the lens: the distortion model is
// inverted by fixed-point iteration.
vec3 _ray(const tevix_lens_param_t &l, double u, double v) {
    const double xd = (u - l.cx) / l.fx, yd = (v - l.cy) / l.fy;
    const double k1 = l.dcoef[0], k2 = l.dcoef[1], p1 = l.dcoef[2], p2 = l.dcoef[3],
                 k3 = l.dcoef[4];
    double x = xd, y = yd;
    for (int i = 0; i < 30; ++i) {
        const double r2 = x * x + y * y;
        const double rad = 1 + k1 * r2 + k2 * r2 * r2 + k3 * r2 * r2 * r2;
        const double dx = 2 * p1 * x * y + p2 * (r2 + 2 * x * x);
        const double dy = p1 * (r2 + 2 * y * y) + 2 * p2 * x * y;
        x = (xd - dx) / rad;
        y = (yd - dy) / rad;
    }
    const double norm = std::sqrt(x * x + y * y + 1);
    return {x / norm, y / norm, 1 / norm};
}

uint32_t _image_row(uint32_t sensor_row, uint32_t h) {
    const uint32_t k = sensor_row / 2;
    if (sensor_row >= (h / 2) * 2) return sensor_row;
    return (sensor_row & 1) ? h / 2 + k : h / 2 - 1 - k;
}

// The four DCS samples of a pixel (B = 2048) for phase theta (radians) and amplitude a, such
// that D2 - D0 = -a cos(theta) and D3 - D1 = -a sin(theta).
struct dcs4 {
    double d[4];
};

dcs4 _samples(double theta, double a) {
    const double c = 0.5 * a * std::cos(theta), s = 0.5 * a * std::sin(theta);
    return {{2048 + c, 2048 + s, 2048 - c, 2048 - s}};
}

uint16_t _sample(double v) {
    return static_cast<uint16_t>(std::clamp(std::lround(v), 0L, 4095L));
}

struct pair_planes {
    int p0, p1;
};

pair_planes _reduced(uint32_t f) {
    if (f > 24000000) return {0, 1};
    if (f <= 12000000) return {1, 2};
    return {2, 3};
}

}  // namespace

unit_errors unit_errors::draw(uint32_t seed, uint32_t width, uint32_t height) {
    unit_errors e;
    std::mt19937 rng(seed * 2654435761u + 17u);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    // A smooth pattern across the array (a few centimetres at most) plus a little per pixel.
    const double ax = 8 + 10 * u(rng), ay = 6 + 8 * u(rng), px = 6.28 * u(rng), py = 6.28 * u(rng);
    const double base = -10 + 20 * u(rng);
    std::normal_distribution<double> grain(0.0, 3.0);
    e.pixel_mm.resize(size_t{width} * height);
    for (uint32_t v = 0; v < height; ++v)
        for (uint32_t x = 0; x < width; ++x)
            e.pixel_mm[size_t{v} * width + x] =
                static_cast<float>(base + ax * std::sin(3.0 * x / width + px) +
                                   ay * std::cos(2.0 * v / height + py) + grain(rng));
    e.cyclic_amp_mm = 6 + 10 * u(rng);
    e.cyclic_phase = 6.28 * u(rng);
    e.drift_board_mm = 8 + 10 * u(rng);
    e.drift_sensor_mm = 0.5 + 1.5 * u(rng);
    return e;
}

double unit_errors::at(uint32_t pixel, double d, double range, int16_t tcb, int16_t tib) const {
    if (pixel_mm.empty()) return 0.0;
    const double e = pixel_mm[pixel] + drift_board_mm * (tcb - 350) / 10.0 +
                     drift_sensor_mm * (tib - 420) / 10.0;
    const double theta = 2.0 * M_PI * std::fmod(std::max(d + e, 0.0), range) / range;
    return e + cyclic_amp_mm * std::sin(4.0 * theta + cyclic_phase);
}

double unit_errors::read(uint32_t pixel, double d, double range, int16_t tcb, int16_t tib) const {
    if (pixel_mm.empty() || d <= 0) return d;
    return std::max(d + at(pixel, d, range, tcb, tib), 0.0);
}

uint32_t scene_time_word(uint32_t hours, uint32_t minutes, uint32_t seconds, uint32_t usec) {
    return (hours & 0x1F) | ((minutes & 0x3F) << 5) | ((seconds & 0x3F) << 11) |
           ((usec / 64) << 17);
}

scene_renderer::scene_renderer(const scene_config &cfg, uint16_t format)
    : init_(cfg), cfg_(cfg), format_(format) {
    _geometry();
    _truth();
}

// Rays of every pixel at the current image size: the room's distances and reflectivities, and
// each ray's axial share for a flat target.
void scene_renderer::_geometry() {
    const uint32_t w = cfg_.width, h = cfg_.height, n = w * h;
    errors_ = cfg_.unit_errors ? unit_errors::draw(cfg_.unit_seed, w, h) : unit_errors{};
    room_.assign(n, 0.0f);
    room_refl_.assign(n, 0.0f);
    axial_.assign(n, 0.0f);
    // The lens record may be for a larger image; scale it like the driver does.
    tevix_lens_param_t l = cfg_.lens;
    if (l.width && l.height && w && h) {
        const double sx = static_cast<double>(l.width) / w, sy = static_cast<double>(l.height) / h;
        l.cx /= sx;
        l.fx /= sx;
        l.cy /= sy;
        l.fy /= sy;
    }
    for (uint32_t v = 0; v < h; ++v) {
        for (uint32_t u = 0; u < w; ++u) {
            const vec3 d = _ray(l, u, v);
            const uint32_t i = v * w + u;
            axial_[i] = static_cast<float>(d.z);
            hit hh;
            _room(hh, d, cfg_.room_back_mm);
            for (const box &b : k_boxes) _box(hh, d, b);
            _sphere(hh, d);
            _ramp(hh, d);
            if (hh.t >= 1e29) continue;
            room_[i] = static_cast<float>(hh.t);
            room_refl_[i] = hh.refl;
        }
    }
}

void scene_renderer::configure(const param_reader &param) {
    // Binning (the last byte of the region of interest): the sensor adds up neighbouring pixels,
    // so the image shrinks to 1/2, 1/4 or 1/8 a side (mode 4: half the width, a quarter of the
    // height) and each pixel sees the scene through a wider cone.
    static constexpr uint8_t k_shift_w[5] = {0, 1, 2, 3, 1}, k_shift_h[5] = {0, 1, 2, 3, 2};
    const std::vector<uint8_t> roi = param(k_par_roi);
    const uint8_t b = roi.size() >= 9 && roi[8] <= 4 ? roi[8] : 0;
    const uint32_t w = init_.width >> k_shift_w[b], h = init_.height >> k_shift_h[b];
    std::lock_guard lk(m_);
    if (w == 0 || h == 0 || (w == cfg_.width && h == cfg_.height)) return;
    cfg_.width = static_cast<uint16_t>(w);
    cfg_.height = static_cast<uint16_t>(h);
    _geometry();
    _truth();
}

// Distance, reflectivity and amplitude of every pixel for the room or the flat target.
void scene_renderer::_truth() {
    if (cfg_.target_mm == 0) {
        dist_ = room_;
        refl_ = room_refl_;
    } else {
        dist_.resize(axial_.size());
        refl_.assign(axial_.size(), cfg_.target_refl);
        for (size_t i = 0; i < axial_.size(); ++i)
            dist_[i] = static_cast<float>(cfg_.target_mm / double(axial_[i]));
    }
    amp_.assign(dist_.size(), 0.0f);
    for (size_t i = 0; i < dist_.size(); ++i)
        if (dist_[i] > 0)
            amp_[i] =
                static_cast<float>(cfg_.amp_max * refl_[i] / (1.0 + 0.03 * dist_[i] / 1000.0));
}

void scene_renderer::on_param(uint8_t id, std::span<const uint8_t> v) {
    std::lock_guard lk(m_);
    if (id == k_par_mod_freq && v.size() >= 4) {
        uint32_t f;
        std::memcpy(&f, v.data(), 4);
        if (f >= 1000000 && f <= 100000000) cfg_.freq_hz = f;
    } else if (id == k_par_scene && v.size() >= k_scene_ctl_len) {
        uint32_t target;
        std::memcpy(&target, v.data(), 4);
        std::memcpy(&cfg_.tcb, v.data() + 4, 2);
        std::memcpy(&cfg_.tib, v.data() + 6, 2);
        cfg_.noise = v[8] & k_scene_noise;
        if (target > 60000) target = 0;
        if (target != cfg_.target_mm) {
            cfg_.target_mm = target;
            _truth();
        }
    }
}

std::vector<uint8_t> scene_renderer::param(uint8_t id) const {
    if (id != k_par_scene) return {};
    std::lock_guard lk(m_);
    std::vector<uint8_t> v(k_scene_ctl_len, 0);
    std::memcpy(v.data(), &cfg_.target_mm, 4);
    std::memcpy(v.data() + 4, &cfg_.tcb, 2);
    std::memcpy(v.data() + 6, &cfg_.tib, 2);
    v[8] = cfg_.noise ? k_scene_noise : 0;
    return v;
}

void scene_renderer::reset() {
    std::lock_guard lk(m_);
    const bool resized = cfg_.width != init_.width || cfg_.height != init_.height;
    cfg_ = init_;
    if (resized) _geometry();
    _truth();
}

scene_config scene_renderer::config() const {
    std::lock_guard lk(m_);
    return cfg_;
}

uint32_t scene_renderer::planes() const {
    switch (format_) {
        case 2:
            return 4;
        case 1:
            return 2;
        default:
            return 1;
    }
}

uint32_t scene_renderer::frame_bytes() const {
    return planes() * cfg_.width * cfg_.height * 2u;
}

bool scene_renderer::under_header(uint32_t x, uint32_t y) const {
    return x < k_scene_header_bytes / 2 && y == _image_row(0, cfg_.height);
}

void scene_dcs_ideal(double theta, double a, double v[4]) {
    const dcs4 q = _samples(theta, a);
    for (int p = 0; p < 4; ++p) v[p] = q.d[p];
}

void scene_dcs_exact(double theta, double a, uint16_t d[4]) {
    const long dx = std::lround(-a * std::cos(theta));
    const long dy = std::lround(-a * std::sin(theta));
    const long d0 = 2048 - dx / 2, d1 = 2048 - dy / 2;
    d[0] = _sample(d0);
    d[1] = _sample(d1);
    d[2] = _sample(d0 + dx);
    d[3] = _sample(d1 + dy);
}

vx_frame_desc_t scene_describe(const scene_config &cfg, uint16_t format, uint32_t frame_bytes) {
    vx_frame_desc_t d{};
    d.frlen = frame_bytes;
    d.frfmt = format;
    d.width = cfg.width;
    d.height = cfg.height;
    d.tcb = cfg.tcb;
    d.tib = cfg.tib;
    return d;
}

vx_frame_desc_t scene_renderer::describe() const {
    std::lock_guard lk(m_);
    return scene_describe(cfg_, format_, frame_bytes());
}

void scene_renderer::render(uint32_t index, std::span<uint8_t> out, vx_frame_desc_t &desc) {
    std::unique_lock lk(m_);
    const uint32_t w = cfg_.width, h = cfg_.height, n = w * h;
    if (out.size() < frame_bytes()) return;
    const double range = static_cast<double>(
        static_cast<uint32_t>(149896216576.0f / static_cast<float>(cfg_.freq_hz)));
    std::mt19937 rng(cfg_.seed * 7919u + index);
    std::normal_distribution<double> gauss(0.0, 1.0);
    auto noisy = [&](double v) {
        // Shot noise: the deviation grows with the square root of the collected charge.
        return cfg_.noise ? v + gauss(rng) * 0.1 * std::sqrt(std::max(v, 0.0)) : v;
    };
    const pair_planes pp = _reduced(cfg_.freq_hz);
    std::vector<uint16_t> s(static_cast<size_t>(planes()) * n);
    for (uint32_t sr = 0; sr < h; ++sr) {
        const uint32_t ir = _image_row(sr, h);
        for (uint32_t x = 0; x < w; ++x) {
            const uint32_t ii = ir * w + x, si = sr * w + x;
            double d = dist_[ii];
            const double a = amp_[ii];
            // The unit reads the distance its errors make of it.
            if (cfg_.unit_errors) d = errors_.read(ii, d, range, cfg_.tcb, cfg_.tib);
            const double theta = 2.0 * M_PI * std::fmod(d, range) / range;
            if (format_ == 11) {
                s[si] = _sample(noisy(2048 + a));
                continue;
            }
            dcs4 q = _samples(theta, a);
            if (format_ == 2 && !cfg_.noise) {
                uint16_t d[4];
                scene_dcs_exact(theta, a, d);
                for (uint32_t p = 0; p < 4; ++p) s[p * n + si] = d[p];
                continue;
            }
            if (format_ == 2) {
                for (int p = 0; p < 4; ++p) s[p * n + si] = _sample(noisy(q.d[p]));
            } else if (format_ == 1) {
                s[si] = _sample(noisy(q.d[pp.p0]));
                s[n + si] = _sample(noisy(q.d[pp.p1]));
            } else {
                s[si] = _sample(noisy(q.d[((sr / 2) & 1) ? pp.p1 : pp.p0]));
            }
        }
    }
    std::memcpy(out.data(), s.data(), s.size() * 2);
    lk.unlock();
    desc = describe();
    scene_write_header(index, out.data(), desc);
}

void scene_write_header(uint32_t index, uint8_t *frame, vx_frame_desc_t &desc) {
    const uint32_t usec_total = index * 33333u;
    const uint32_t secs = usec_total / 1000000u;
    desc.fridx = static_cast<uint16_t>(index);
    desc.time = scene_time_word(12, (secs / 60) % 60, secs % 60, usec_total % 1000000u);
    uint8_t hdr[k_scene_header_bytes];
    std::memcpy(hdr, &desc.frlen, 4);
    std::memcpy(hdr + 4, &desc.fridx, 2);
    std::memcpy(hdr + 6, &desc.frfmt, 2);
    std::memcpy(hdr + 8, &desc.width, 2);
    std::memcpy(hdr + 10, &desc.height, 2);
    std::memcpy(hdr + 12, &desc.tcb, 2);
    std::memcpy(hdr + 14, &desc.tib, 2);
    std::memcpy(hdr + 16, &desc.time, 4);
    std::memcpy(frame, hdr, sizeof hdr);
}

std::vector<uint8_t> scene_render_frame(const scene_config &cfg, uint16_t format, uint32_t index) {
    scene_renderer r(cfg, format);
    std::vector<uint8_t> out(r.frame_bytes());
    vx_frame_desc_t desc{};
    r.render(index, out, desc);
    return out;
}

}  // namespace tevix::emu
