// The calibration station: a flat target measured at known distances and temperatures, averaged
// per step, fitted into the EPC driver's calibration block for each frequency and written as a
// calibration container.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <vector>

#include "api/session.h"
#include "calib/calib_writer.h"
#include "drivers/drv.h"
#include "drivers/epc/epc_calib.h"
#include "drivers/epc/epc_kernels.h"
#include "log/log.h"
#include "tevix/tevix.h"
#include "tevix/tevix_param.h"

namespace {

using tevix::api::dev_check;
using tevix::epc::calib_block;

constexpr const char *k_fn = "tevix_calib_station";
constexpr uint32_t k_max_freqs = 16, k_max_distances = 48, k_max_temps = 16;
constexpr uint32_t k_default_frames = 10;
constexpr uint32_t k_raw_max = 8u << 20;
constexpr uint32_t k_max_pixels = 640 * 480;
// Frames dropped after the target moved (still in flight) and after the temperature changed (the
// driver takes the median of its last seven readings).
constexpr uint32_t k_settle_frames = 2, k_settle_temp_frames = 8;
constexpr uint32_t k_filter_offset = 9;
constexpr uint16_t k_ratio_one = 16384;

// What one step saw: per pixel (sensor order) the phase, 65500 where it saw too little; the
// temperatures it ran at.
struct step_result {
    std::vector<uint16_t> phases;
    double tcb = 0, tib = 0;
};

// The frames of one camera at one resolution, and the run's state.
struct station {
    station(tevix_dev_t *d, const tevix_station_cfg_t &c) : dev(d), cfg(c) {}
    tevix_dev_t *dev;
    const tevix_station_cfg_t &cfg;
    bool reorder = true;  // sensor rows interleaved (all but the 160 x 60 sensor)
    uint32_t w = 0, h = 0;
    std::vector<uint8_t> raw = std::vector<uint8_t>(k_raw_max);
    std::vector<uint16_t> mm = std::vector<uint16_t>(k_max_pixels);
    std::vector<uint16_t> ratio;  // sensor order, once the resolution is known
    int16_t last_tcb = TEVIX_STATION_TEMP_ASIS, last_tib = TEVIX_STATION_TEMP_ASIS;

    // Sensor index of image pixel (x, y): source row 2k is image row H/2 - 1 - k, 2k + 1 is
    // H/2 + k.
    size_t sensor_index(uint32_t x, uint32_t y) const {
        if (!reorder || y >= h / 2 * 2) return size_t{y} * w + x;
        const uint32_t sr = y < h / 2 ? 2 * (h / 2 - 1 - y) : 2 * (y - h / 2) + 1;
        return size_t{sr} * w + x;
    }
    bool geometry();
    int measure(const tevix_station_step_t &step, step_result &out);
};

// Each pixel's radial distance over its axial one, through the lens record at this resolution:
// the distortion model inverted by fixed-point iteration.
bool station::geometry() {
    tevix_session *s = dev->session;
    tevix_lens_param_t l{};
    if (!s->drv || !s->drv->ops->lens_param_get || !s->drv->ops->lens_param_get(s->drv, &l, w, h)) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]no lens parameters for %ux%u\n", w, h);
        return false;
    }
    double k[16] = {};
    std::copy_n(l.dcoef, std::min<uint32_t>(l.n_dcoef, 16), k);
    ratio.assign(size_t{w} * h, k_ratio_one);
    for (uint32_t v = 0; v < h; ++v)
        for (uint32_t u = 0; u < w; ++u) {
            const double xd = (u - l.cx) / l.fx, yd = (v - l.cy) / l.fy;
            double x = xd, y = yd;
            for (int it = 0; it < 30; ++it) {
                const double r2 = x * x + y * y, r4 = r2 * r2, r6 = r4 * r2;
                const double radial = (1 + k[0] * r2 + k[1] * r4 + k[4] * r6) /
                                      (1 + k[5] * r2 + k[6] * r4 + k[7] * r6);
                const double dx =
                    2 * k[2] * x * y + k[3] * (r2 + 2 * x * x) + k[8] * r2 + k[9] * r4;
                const double dy =
                    k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y + k[10] * r2 + k[11] * r4;
                x = (xd - dx) / radial;
                y = (yd - dy) / radial;
            }
            const double q = std::sqrt(x * x + y * y + 1.0) * k_ratio_one;
            if (!std::isfinite(q)) {
                VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]lens parameters give no ray at %u,%u\n", u, v);
                return false;
            }
            ratio[sensor_index(u, v)] = uint16_t(std::clamp(std::lround(q), 16384L, 65535L));
        }
    return true;
}

// One step: the target placed, a few frames let pass, the uncalibrated distances of cfg.frames
// frames averaged per pixel. 1, 0 on failure, -2 when place() stopped the run.
int station::measure(const tevix_station_step_t &step, step_result &out) {
    if (cfg.place(dev, &step, cfg.place_user) != 0) {
        VX_LOG_AS(VX_LOG_WRN, k_fn, "[%s]stopped before step %u\n", step.index);
        return -2;
    }
    const bool warmed = step.tcb != last_tcb || step.tib != last_tib;
    last_tcb = step.tcb;
    last_tib = step.tib;
    const uint32_t frames = cfg.frames ? cfg.frames : k_default_frames;
    const uint32_t settle = warmed ? k_settle_temp_frames : k_settle_frames;
    if (tevix_cap_start(dev) != 1) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]capture start failed\n");
        return 0;
    }
    std::vector<double> sum;
    std::vector<uint32_t> cnt;
    uint32_t used = 0, seen = 0, tries = 0;
    double tcb = 0, tib = 0;
    while (used < frames && tries++ < 3 * (frames + settle) + 10) {
        tevix_frame_info_t info{};
        if (tevix_cap_get_frames(dev, 1, raw.data(), k_raw_max, &info) != 1) continue;
        if (++seen <= settle) continue;
        const int n =
            tevix_frame_get_dist_raw(dev, mm.data(), k_max_pixels, raw.data(), info.size, &info);
        if (n <= 0) continue;
        if (w == 0) {
            w = info.width;
            h = info.height;
            if (size_t{w} * h != size_t(n) || !geometry()) {
                tevix_cap_stop(dev);
                return 0;
            }
        }
        if (info.width != w || info.height != h) {
            VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]frame size changed: %ux%u, was %ux%u\n", info.width,
                      info.height, w, h);
            tevix_cap_stop(dev);
            return 0;
        }
        if (sum.empty()) sum.assign(size_t{w} * h, 0.0), cnt.assign(size_t{w} * h, 0);
        for (size_t i = 0; i < sum.size(); ++i)
            if (mm[i] > 0 && mm[i] < tevix::epc::k_dist_invalid) sum[i] += mm[i], ++cnt[i];
        tcb += int16_t(info.temperature & 0xFFFF);
        tib += int16_t(info.temperature >> 16);
        ++used;
    }
    tevix_cap_stop(dev);
    if (used < frames) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]step %u: %u of %u frames\n", step.index, used, frames);
        return 0;
    }
    // The averaged millimetres (truncated by the decode, so half a millimetre is added back) to
    // phases; pixels valid in fewer than half of the frames saw nothing usable.
    const double range = tevix::epc::range_mm(step.freq_hz);
    out.phases.assign(size_t{w} * h, uint16_t(tevix::epc::k_dist_invalid));
    uint32_t valid = 0;
    double centre = 0;
    uint32_t centre_n = 0;
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            const size_t i = size_t{y} * w + x;
            if (cnt[i] * 2 <= used) continue;
            const double d = sum[i] / cnt[i];
            const double ph = (d + 0.5) * tevix::epc::k_phase_turn / range;
            if (!(ph >= 0 && ph < tevix::epc::k_phase_turn)) continue;
            out.phases[sensor_index(x, y)] = uint16_t(std::lround(ph) & 0x7FFF);
            ++valid;
            if (x >= w / 2 - 5 && x < w / 2 + 5 && y >= h / 2 - 5 && y < h / 2 + 5)
                centre += d, ++centre_n;
        }
    out.tcb = tcb / used;
    out.tib = tib / used;
    if (cfg.report)
        cfg.report(&step, valid, centre_n ? float(centre / centre_n) : 0.0f,
                   int16_t(std::lround(out.tcb)), int16_t(std::lround(out.tib)), cfg.report_user);
    VX_LOG_AS(VX_LOG_INF, k_fn,
              "[%s]step %u/%u: %u Hz, %u mm: %u pixels, centre %.1f mm, Tcb %.1f, Tib %.1f\n",
              step.index + 1, step.count, step.freq_hz, step.distance_mm, valid,
              centre_n ? centre / centre_n : 0.0, out.tcb / 10, out.tib / 10);
    if (valid < sum.size() / 2) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]step %u: %u of %zu pixels valid: is the target there?\n",
                  step.index, valid, sum.size());
        return 0;
    }
    return 1;
}

bool _cfg_ok(const tevix_station_cfg_t *cfg, const char *out_path) {
    if (!cfg || !out_path || !out_path[0] || !cfg->place || !cfg->distances_mm ||
        cfg->n_distances < 2 || cfg->n_distances > k_max_distances || cfg->n_freqs > k_max_freqs ||
        (cfg->n_freqs && !cfg->freqs) || cfg->n_temps > k_max_temps ||
        (cfg->n_temps && !cfg->temps))
        return false;
    for (uint32_t i = 0; i < cfg->n_distances; ++i)
        if (cfg->distances_mm[i] == 0 || cfg->distances_mm[i] > 60000) return false;
    return true;
}

bool _set_freq(tevix_dev_t *dev, uint32_t f) {
    tevix_param_item_t it{};
    it.id = TEVIX_PARAM_MOD_FREQ;
    it.len = 4;
    it.value.u32[0] = f;
    return tevix_param_batch_set(dev, &it, 1) != 0;
}

// One frequency: the distance sweep, then the drift sweep; its block into blocks.
int _calibrate(station &st, uint32_t freq, uint32_t first_step, uint32_t steps, uint32_t ts,
               std::vector<tevix::calib::param_block> &blocks) {
    const tevix_station_cfg_t &cfg = st.cfg;
    if (!_set_freq(st.dev, freq)) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]set MOD_FREQ %u failed\n", freq);
        return 0;
    }
    const uint32_t range = tevix::epc::range_mm(freq);
    const uint32_t n = cfg.n_distances + cfg.n_temps;
    std::vector<uint32_t> dist(cfg.distances_mm, cfg.distances_mm + cfg.n_distances);
    std::vector<uint32_t> sorted = dist;
    std::sort(sorted.begin(), sorted.end());
    const uint32_t drift_at =
        cfg.drift_distance_mm ? cfg.drift_distance_mm : sorted[cfg.n_distances / 2];
    for (uint32_t k = 0; k < cfg.n_temps; ++k) dist.push_back(drift_at);
    calib_block b;
    b.freq = freq;
    b.ver = 1;
    b.ts = ts;
    b.box_len_mm = uint16_t(std::min<uint32_t>(*std::max_element(dist.begin(), dist.end()), 65535));
    b.c1 = 13.78f;  // what the coefficients stay without a drift sweep
    b.c2 = 1.183f;
    double cal_cb = 0, cal_ib = 0;
    for (uint32_t k = 0; k < n; ++k) {
        const bool drift = k >= cfg.n_distances;
        const tevix_station_step_t step{
            freq,
            dist[k],
            drift ? cfg.temps[2 * (k - cfg.n_distances)] : cfg.cal_tcb,
            drift ? cfg.temps[2 * (k - cfg.n_distances) + 1] : cfg.cal_tib,
            first_step + k,
            steps};
        step_result r;
        const int got = st.measure(step, r);
        if (got != 1) return got;
        if (k == 0) {
            // The target's farthest pixel must stay inside one turn of the phase.
            const uint16_t widest = *std::max_element(st.ratio.begin(), st.ratio.end());
            const double far =
                double(*std::max_element(dist.begin(), dist.end())) * widest / k_ratio_one;
            if (far >= range - 100) {
                VX_LOG_AS(VX_LOG_ERR, k_fn,
                          "[%s]%.0f mm at the image corners is beyond the range of %u Hz (%u mm)\n",
                          far, freq, range);
                return 0;
            }
            b.width = uint16_t(st.w);
            b.height = uint16_t(st.h);
            b.ratio = st.ratio;
        }
        b.truth_mm.push_back(float(dist[k]));
        b.meas_cb.push_back(int16_t(std::lround(r.tcb)));
        b.meas_ib.push_back(int16_t(std::lround(r.tib)));
        b.phases.insert(b.phases.end(), r.phases.begin(), r.phases.end());
        if (!drift) cal_cb += r.tcb, cal_ib += r.tib;
        (drift ? b.nf : b.nc).push_back(uint8_t(k));
    }
    // The distance sweep sets the calibration temperatures and fits the pixels and the cyclic
    // error; every measurement fits the line and the temperature coefficients.
    b.t_cb = int16_t(std::lround(cal_cb / cfg.n_distances));
    b.t_ib = int16_t(std::lround(cal_ib / cfg.n_distances));
    b.ns = b.nc;
    b.nf.insert(b.nf.begin(), b.nc.begin(), b.nc.end());
    b.lists = true;
    if (!cfg.measurements && !tevix::epc::calc_coeff(b)) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]fit of %u Hz failed\n", freq);
        return 0;
    }
    blocks.push_back({tevix::epc::k_block_type, tevix::epc::block_payload(b), {}, {}});
    return 1;
}

int _station(tevix_dev_t *dev, const tevix_station_cfg_t &cfg, const char *out_path) {
    const char *chip = nullptr;
    tevix_dev_get_driver(dev, &chip);
    if (!chip || chip[0] != 'E') {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]the station calibrates EPC cameras only (chip %s)\n",
                  chip ? chip : "?");
        return 0;
    }
    if (dev->session->capturing) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]stop the capture first\n");
        return 0;
    }
    std::vector<uint32_t> freqs(cfg.freqs, cfg.freqs + cfg.n_freqs);
    if (freqs.empty()) {
        tevix_param_item_t it{};
        it.id = TEVIX_PARAM_MOD_FREQ;
        it.len = 4;
        if (!tevix_param_batch_get(dev, &it, 1) || it.value.u32[0] == 0) {
            VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]cannot read the camera's MOD_FREQ\n");
            return 0;
        }
        freqs.push_back(it.value.u32[0]);
    }
    for (uint32_t f : freqs)
        if (tevix::epc::range_mm(f) == 0 || f > 100000000) {
            VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]bad frequency %u Hz\n", f);
            return 0;
        }
    station st(dev, cfg);
    st.reorder = std::strcmp(chip, "E5") != 0;
    const uint32_t per_freq = cfg.n_distances + cfg.n_temps;
    const uint32_t steps = per_freq * uint32_t(freqs.size());
    const uint32_t ts = cfg.ts ? cfg.ts : uint32_t(std::time(nullptr));
    VX_LOG_AS(VX_LOG_INF, k_fn, "[%s]%zu frequencies, %u steps, into %s\n", freqs.size(), steps,
              out_path);
    // Uncalibrated distances without the user's offset: the offset filter off while measuring.
    tevix_filter_disable(dev, k_filter_offset);
    std::vector<tevix::calib::param_block> blocks;
    int result = 1;
    for (size_t i = 0; i < freqs.size() && result == 1; ++i)
        result = _calibrate(st, freqs[i], uint32_t(i) * per_freq, steps, ts, blocks);
    tevix_filter_arg_t none{};
    tevix_filter_enable(dev, k_filter_offset, &none);
    if (result != 1) return result;
    tevix::calib::param_container c;
    c.ts = ts;
    c.par_ts = ts;
    c.blocks = std::move(blocks);
    if (!tevix::calib::param_container_write(out_path, c)) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]cannot write %s\n", out_path);
        return 0;
    }
    VX_LOG_AS(VX_LOG_INF, k_fn, "[%s]calibration of %zu frequencies written to %s (ts %u)\n",
              freqs.size(), out_path, ts);
    return 1;
}

}  // namespace

extern "C" int tevix_calib_station(tevix_dev_t *dev, const tevix_station_cfg_t *cfg,
                                   const char *out_path) noexcept {
    if (!dev_check(dev, k_fn)) return 0;
    if (!_cfg_ok(cfg, out_path)) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]Wrong params\n");
        return 0;
    }
    tevix::api::busy_guard busy(dev);
    try {
        return _station(dev, *cfg, out_path);
    } catch (const std::bad_alloc &) {
        VX_LOG_AS(VX_LOG_ERR, k_fn, "[%s]out of memory\n");
        return 0;
    }
}
