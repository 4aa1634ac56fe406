// SONY raw frames of the scene (see sony_scene.h).
#include "scene/sony_scene.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "drivers/sony/imx_format.h"

namespace tevix::emu {

namespace {

constexpr double k_iq_noise = 6.4;

uint32_t _u32(const std::vector<uint8_t> &v, size_t at) {
    uint32_t x = 0;
    if (v.size() >= at + 4) std::memcpy(&x, v.data() + at, 4);
    return x;
}

uint16_t _u16(const std::vector<uint8_t> &v) {
    uint16_t x = 0;
    if (v.size() >= 2) std::memcpy(&x, v.data(), 2);
    return x;
}

// Phases wrap at the physical range c / 2f.
double _range(uint32_t f) {
    return tevix::imx::exact_range_mm(f);
}

int16_t _s(double v, long lim, long none) {
    const long r = std::lround(v);
    return static_cast<int16_t>(r > lim || r < -lim ? none : r);
}

uint16_t _sample(double v) {
    return static_cast<uint16_t>(std::clamp(std::lround(v), 0L, 4095L));
}

}  // namespace

scene_config sony_scene_config() {
    scene_config c;
    c.width = 640;
    c.height = 480;
    c.freq_hz = 100000000;
    c.lens = tevix_lens_param_t{};
    c.lens.cx = k_sony_lens[0];
    c.lens.cy = k_sony_lens[1];
    c.lens.fx = k_sony_lens[2];
    c.lens.fy = k_sony_lens[3];
    for (int i = 0; i < 5; ++i) c.lens.dcoef[i] = k_sony_lens[4 + i];
    c.lens.n_dcoef = 5;
    c.lens.width = 640;
    c.lens.height = 480;
    return c;
}

sony_renderer::sony_renderer(const scene_config &cfg, uint16_t format)
    : cfg_(cfg), geo_(cfg, 2), format_(format) {}

void sony_renderer::configure(const param_reader &param) {
    const std::vector<uint8_t> fmt = param(k_par_frame_format), f = param(k_par_mod_freq),
                               dual = param(k_par_dual_freq);
    if (_u32(fmt, 0)) format_ = static_cast<uint16_t>(_u32(fmt, 0));
    if (_u32(f, 0)) f0_ = f1_ = _u32(f, 0);
    if (_u32(dual, 0) && _u32(dual, 4)) f0_ = _u32(dual, 0), f1_ = _u32(dual, 4);
    intg_[0] = _u16(param(k_par_intg1));
    intg_[1] = _u16(param(k_par_intg2));
    if (!intg_[0]) intg_[0] = 1000;
}

uint32_t sony_renderer::frame_bytes() const {
    const tevix::imx::layout l = tevix::imx::layout_of(format_);
    return l.min_n * cfg_.width * cfg_.height;
}

std::vector<uint16_t> sony_renderer::station_phases(double truth_mm, uint32_t f) const {
    const uint32_t n = cfg_.width * cfg_.height;
    const double range = _range(f);
    std::vector<uint16_t> out(n);
    for (uint32_t i = 0; i < n; ++i) {
        const double d = cfg_.unit_errors
                             ? geo_.errors().read(i, truth_mm, range, cfg_.tcb, cfg_.tib)
                             : truth_mm;
        const double turn = std::fmod(d, range) / range;
        out[i] = static_cast<uint16_t>(std::lround(turn * 32768.0) & 0x7FFF);
    }
    return out;
}

tevix::drv::calib_block sony_renderer::station_block(uint32_t f,
                                                     const std::vector<float> &truths_mm) const {
    tevix::drv::calib_block b;
    b.freq = f;
    b.ver = 1;
    b.ts = 1;
    b.box_len_mm = 1200;
    b.t_cb = cfg_.tcb;
    b.t_ib = cfg_.tib;
    b.c1 = 13.78f;
    b.c2 = 1.183f;
    b.width = static_cast<uint16_t>(cfg_.width);
    b.height = static_cast<uint16_t>(cfg_.height);
    b.truth_mm = truths_mm;
    b.meas_cb.assign(truths_mm.size(), cfg_.tcb);
    b.meas_ib.assign(truths_mm.size(), cfg_.tib);
    for (float t : truths_mm) {
        const std::vector<uint16_t> ph = station_phases(t, f);
        b.phases.insert(b.phases.end(), ph.begin(), ph.end());
    }
    return b;
}

vx_frame_desc_t sony_renderer::describe() const {
    return scene_describe(cfg_, format_, frame_bytes());
}

void sony_renderer::render(uint32_t index, std::span<uint8_t> out, vx_frame_desc_t &desc) {
    using namespace tevix::imx;
    const layout l = layout_of(format_);
    const uint32_t n = cfg_.width * cfg_.height;
    if (!l.word || out.size() < frame_bytes()) return;
    std::mt19937 rng(cfg_.seed * 7919u + index);
    std::normal_distribution<double> gauss(0.0, 1.0);
    auto noisy = [&](double v, double sigma) { return cfg_.noise ? v + gauss(rng) * sigma : v; };
    const bool hdr = l.word == 8;
    const uint32_t sets = l.type == sample::dcs16 || l.type == sample::phase16 ? 1 : l.sets;
    // Per set, I and Q of every pixel (the second set: f1, or the second exposure).
    std::vector<double> iq(size_t{n} * 2 * sets);
    std::vector<uint16_t> words(l.type == sample::phase16 ? n : 0);
    std::vector<uint16_t> dcs(l.type == sample::dcs16 ? 4 * size_t{n} : 0);
    for (uint32_t i = 0; i < n; ++i) {
        for (uint32_t k = 0; k < sets; ++k) {
            const uint32_t f = k == 1 && !hdr ? f1_ : f0_;
            const double range = _range(f);
            double d = geo_.truth_mm()[i];
            double a = geo_.amplitude()[i];
            if (hdr) a *= intg_[k] / 1000.0;
            if (cfg_.unit_errors) d = geo_.errors().read(i, d, range, cfg_.tcb, cfg_.tib);

            const double theta = 2.0 * M_PI * std::fmod(d, range) / range;
            if (l.type == sample::phase16) {
                const long ph = std::lround(theta / (2.0 * M_PI) * 32768.0) & 0x7FFF;
                words[i] = a > 0 ? static_cast<uint16_t>(ph) : k_phase_none;
                continue;
            }
            if (l.type == sample::dcs16) {
                uint16_t d4[4];
                if (!cfg_.noise) {
                    scene_dcs_exact(theta, a, d4);
                } else {
                    double v[4];
                    scene_dcs_ideal(theta, a, v);
                    for (int p = 0; p < 4; ++p)
                        d4[p] = _sample(noisy(v[p], 0.1 * std::sqrt(std::max(v[p], 0.0))));
                }
                for (uint32_t p = 0; p < 4; ++p) dcs[p * n + i] = d4[p];
                continue;
            }
            iq[(size_t{k} * 2) * n + i] = noisy(-a * std::cos(theta), k_iq_noise);
            iq[(size_t{k} * 2 + 1) * n + i] = noisy(-a * std::sin(theta), k_iq_noise);
        }
    }
    // Samples in the format's order: plane by plane, or each pixel's together.
    const uint32_t comps = 2 * sets;
    auto at = [&](uint32_t j) {
        const uint32_t c = l.interleaved ? j % comps : j / n, i = l.interleaved ? j / comps : j % n;
        return iq[size_t{c} * n + i];
    };
    uint8_t *o = out.data();
    switch (l.type) {
        case sample::dcs16:
            std::memcpy(o, dcs.data(), dcs.size() * 2);
            break;
        case sample::phase16:
            std::memcpy(o, words.data(), words.size() * 2);
            break;
        case sample::iq16:
            for (uint32_t j = 0; j < comps * n; ++j) {
                const int16_t v = _s(at(j), 32767, k_none_s16);
                std::memcpy(o + size_t{j} * 2, &v, 2);
            }
            break;
        case sample::iq8:
            for (uint32_t p = 0; p < n; ++p) {
                // A pair beyond the sample's range is saturated as a whole.
                for (uint32_t k = 0; k < sets; ++k) {
                    const double I = iq[2 * k * size_t{n} + p] / 16,
                                 Q = iq[(2 * k + 1) * size_t{n} + p] / 16;
                    const bool sat = std::lround(I) > 127 || std::lround(I) < -127 ||
                                     std::lround(Q) > 127 || std::lround(Q) < -127;
                    const int8_t vi = static_cast<int8_t>(sat ? k_none_s8 : std::lround(I));
                    const int8_t vq = static_cast<int8_t>(sat ? k_none_s8 : std::lround(Q));
                    const size_t ji =
                        l.interleaved ? size_t{p} * comps + 2 * k : 2 * k * size_t{n} + p;
                    const size_t jq = l.interleaved ? ji + 1 : ji + n;
                    o[ji] = static_cast<uint8_t>(vi);
                    o[jq] = static_cast<uint8_t>(vq);
                }
            }
            break;
        case sample::iq12: {
            std::vector<int16_t> s(size_t{comps} * n);
            for (uint32_t j = 0; j < comps * n; ++j) s[j] = _s(at(j), 2047, k_none_s12);
            pack12(s.data(), comps * n, o);
            break;
        }
        default:
            break;
    }
    desc = describe();
    scene_write_header(index, out.data(), desc);
}

}  // namespace tevix::emu
