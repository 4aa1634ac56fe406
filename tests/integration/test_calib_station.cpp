// The calibration station end to end against a virtual camera with its unit's own systematic
// errors: the station drives target and temperatures through the camera's scene control, writes
// the container, which is downloaded, fetched back at the next open and mounted. The errors
// against the scene's truth before and after, per frequency, with and without noise, and over a
// temperature sweep.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "vcam_env.h"

namespace {

namespace fs = std::filesystem;
using station_env = tevix::test::vcam_env;

constexpr uint32_t k_w = 320, k_h = 240, k_n = k_w * k_h;
constexpr uint32_t k_freqs[] = {12000000, 20000000};
constexpr int16_t k_cal_cb = 350, k_cal_ib = 420;  // the virtual camera's own temperatures

tevix::emu::scene_config _unit() {
    tevix::emu::scene_config sc;
    sc.unit_errors = true;
    const tevix::emu::camera_config cam;
    sc.unit_seed = cam.uid[0] ^ cam.uid[1] ^ cam.uid[2];  // as tevix-vcam draws it
    return sc;
}
::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(
    new station_env({station_env::scene_unit(station_env::at_fps(0), _unit())}, "STATION_LOG"));

// The scene control of the virtual camera (parameter 224), set over USB.
bool _scene(tevix_dev_t *dev, uint32_t target_mm, int16_t tcb, int16_t tib, bool noise) {
    tevix_param_item_t it{};
    it.id = tevix::emu::k_par_scene;
    it.len = tevix::emu::k_scene_ctl_len;
    std::memcpy(it.value.u8, &target_mm, 4);
    std::memcpy(it.value.u8 + 4, &tcb, 2);
    std::memcpy(it.value.u8 + 6, &tib, 2);
    it.value.u8[8] = noise ? tevix::emu::k_scene_noise : 0;
    return tevix_param_batch_set(dev, &it, 1) == 1;
}

struct stats {
    double mean = 0, p95 = 0;
};

stats _stats(std::vector<double> e) {
    stats s;
    if (e.empty()) return s;
    std::sort(e.begin(), e.end());
    for (double v : e) s.mean += v;
    s.mean /= double(e.size());
    s.p95 = e[e.size() * 95 / 100];
    return s;
}

bool _valid(uint16_t d) {
    return d > 0 && d < 60001;
}

// Errors of the uncalibrated (kind 0) and calibrated (kind 1) distances of the same frames against
// the room's truth: over the per-pixel mean of `frames` frames (the accuracy), and of the first
// frame alone. Pixels count where both are valid in every frame.
struct errors {
    stats raw, cal, raw_one, cal_one;
};

errors _measure(tevix_dev_t *dev, uint32_t frames) {
    std::vector<uint8_t> buf(8u << 20);
    std::vector<uint16_t> a(k_n), b(k_n);
    std::vector<double> sa(k_n, 0.0), sb(k_n, 0.0);
    std::vector<uint32_t> ok(k_n, 0);
    std::vector<double> one_a, one_b;
    EXPECT_EQ(tevix_cap_start(dev), 1);
    uint32_t got = 0, seen = 0;
    const auto &truth = station_env::scene()->truth_mm();
    for (int tries = 0; got < frames && tries < int(frames) * 3 + 20; ++tries) {
        tevix_frame_info_t info{};
        if (tevix::test::pull(dev, buf, &info) != 1) continue;
        if (++seen <= 2) continue;  // frames made before the scene changed
        if (tevix_frame_get_dist_raw(dev, a.data(), k_n, buf.data(), info.size, &info) <= 0 ||
            tevix_frame_get_dist_u16(dev, b.data(), k_n, buf.data(), info.size, &info) <= 0)
            continue;
        for (uint32_t i = 0; i < k_n; ++i) {
            if (!_valid(a[i]) || !_valid(b[i])) continue;
            sa[i] += a[i], sb[i] += b[i], ++ok[i];
            if (got == 0 && truth[i] > 0 && !station_env::scene()->under_header(i % k_w, i / k_w)) {
                one_a.push_back(std::fabs(a[i] - truth[i]));
                one_b.push_back(std::fabs(b[i] - truth[i]));
            }
        }
        ++got;
    }
    tevix_cap_stop(dev);
    EXPECT_EQ(got, frames);
    std::vector<double> ea, eb;
    for (uint32_t i = 0; i < k_n; ++i) {
        if (ok[i] != got || truth[i] <= 0 || station_env::scene()->under_header(i % k_w, i / k_w))
            continue;
        ea.push_back(std::fabs(sa[i] / got - truth[i]));
        eb.push_back(std::fabs(sb[i] / got - truth[i]));
    }
    EXPECT_GT(ea.size(), k_n * 9 / 10);
    return {_stats(ea), _stats(eb), _stats(one_a), _stats(one_b)};
}

tevix_dev_t *_open() {
    // The camera re-enumerates after a download: give it a moment to come back.
    for (int i = 0; i < 50; ++i) {
        if (tevix_dev_t *dev = tevix_dev_open(nullptr)) return dev;
        usleep(100000);
    }
    return nullptr;
}

TEST(calib_station, calibrate_download_fetch_and_measure) {
    const tevix::test::calib_dirs dirs;
    const std::string out = dirs.work.file("station.bin");

    tevix_dev_t *dev = _open();
    ASSERT_NE(dev, nullptr);
    // The station: 15 distances from 0.5 m to 4 m at the camera's own temperatures, then a drift
    // sweep at 2.25 m over board and sensor temperatures that move apart, in 5 C steps.
    std::vector<uint32_t> dist;
    for (uint32_t d = 500; d <= 4000; d += 250) dist.push_back(d);
    const int16_t temps[] = {300, 370, 300, 420, 350, 470, 400, 470, 400, 420};
    tevix_station_cfg_t cfg{};
    cfg.freqs = k_freqs;
    cfg.n_freqs = 2;
    cfg.distances_mm = dist.data();
    cfg.n_distances = uint32_t(dist.size());
    cfg.cal_tcb = k_cal_cb;
    cfg.cal_tib = k_cal_ib;
    cfg.temps = temps;
    cfg.n_temps = 5;
    cfg.frames = 30;
    cfg.ts = 4242;
    // The virtual camera's target and temperatures, with shot noise as a real sensor has it.
    cfg.place = [](tevix_dev_t *dev, const tevix_station_step_t *step, void *) {
        return _scene(dev, step->distance_mm, step->tcb, step->tib, true) ? 0 : 1;
    };
    uint32_t reports = 0;
    cfg.report = [](const tevix_station_step_t *step, uint32_t valid, float centre, int16_t tcb,
                    int16_t, void *user) {
        ++*static_cast<uint32_t *>(user);
        // The centre pixel looks straight at the target (off by the unit's errors).
        EXPECT_NEAR(centre, step->distance_mm, 200) << step->index;
        EXPECT_GT(valid, k_n * 9 / 10) << step->index;
        if (step->tcb != TEVIX_STATION_TEMP_ASIS) {
            EXPECT_NEAR(tcb, step->tcb, 1) << step->index;
        }
    };
    cfg.report_user = &reports;
    ASSERT_EQ(tevix_calib_station(dev, &cfg, out.c_str()), 1);
    EXPECT_EQ(reports, 2 * (dist.size() + 5));
    tevix_param_handle_t h{};
    ASSERT_TRUE(tevix_param_open_file(&h, out.c_str()));
    EXPECT_EQ(uint32_t(h.hdr.ts), 4242u);  // copied out of the packed header
    EXPECT_EQ(int32_t(h.hdr.blk_cnt), 2);
    tevix_param_close(&h);

    // Download, forget the local copy, open: the driver fetches, caches and mounts it.
    ASSERT_TRUE(tevix_calib_bin_data_pk_and_download_ex(dev, true, true, out.c_str()));
    tevix_dev_close(dev);
    dev = _open();
    ASSERT_NE(dev, nullptr);
    const std::string cached = tevix::test::param_path(dev);
    tevix_dev_close(dev);
    fs::remove(cached);
    dev = _open();
    ASSERT_NE(dev, nullptr);
    EXPECT_TRUE(tevix::test::read_file(cached) == tevix::test::read_file(out));
    uint32_t freqs[4] = {};
    ASSERT_EQ(tevix_dev_get_calib_freqs(dev, freqs, 4), 2);
    EXPECT_EQ(freqs[0], k_freqs[0]);
    EXPECT_EQ(freqs[1], k_freqs[1]);
    // Pixel calibration (filter 1) brings in each pixel's offset.
    tevix_filter_arg_t on{};
    ASSERT_EQ(tevix_filter_enable(dev, 1, &on), 0);
    EXPECT_FALSE(fs::exists(dirs.work.file("tmp.zip")));
    EXPECT_FALSE(fs::exists(dirs.prefix + "calibration.bin"));

    // The room at each frequency, without and with noise (the accuracy over the mean of 50
    // frames, and one frame alone).
    std::printf(
        "| frequency | frames | uncalibrated mean / p95 (mm) | calibrated mean / p95 (mm) |\n");
    for (uint32_t f : k_freqs) {
        ASSERT_TRUE(tevix::test::set_u32(dev, TEVIX_PARAM_MOD_FREQ, f));
        for (bool noise : {false, true}) {
            ASSERT_TRUE(_scene(dev, 0, k_cal_cb, k_cal_ib, noise));
            const errors e = _measure(dev, noise ? 50 : 3);
            std::printf("| %u MHz | %s | %.2f / %.2f | %.2f / %.2f |\n", f / 1000000,
                        noise ? "noise, mean of 50" : "noiseless", e.raw.mean, e.raw.p95,
                        e.cal.mean, e.cal.p95);
            if (noise)
                std::printf("| %u MHz | noise, one frame | %.2f / %.2f | %.2f / %.2f |\n",
                            f / 1000000, e.raw_one.mean, e.raw_one.p95, e.cal_one.mean,
                            e.cal_one.p95);
            const std::string at = std::to_string(f) + (noise ? " noise" : " noiseless");
            EXPECT_LE(e.cal.mean, e.raw.mean / 5) << at;
            EXPECT_LE(e.cal.p95, e.raw.p95 / 5) << at;
            if (!noise) {
                EXPECT_LE(e.cal.mean, 2.0) << at;
            }
        }
    }
    // A temperature sweep at 20 MHz: the drift shows uncalibrated and is gone calibrated.
    std::printf(
        "| board / sensor (C) | uncalibrated mean / p95 (mm) | calibrated mean / p95 (mm) |\n");
    const int16_t sweep[][2] = {{300, 370}, {350, 420}, {400, 470}, {450, 520}, {450, 470}};
    double worst_raw = 0;
    for (const auto &t : sweep) {
        ASSERT_TRUE(_scene(dev, 0, t[0], t[1], false));
        const errors e = _measure(dev, 3);
        std::printf("| %.1f / %.1f | %.2f / %.2f | %.2f / %.2f |\n", t[0] / 10.0, t[1] / 10.0,
                    e.raw.mean, e.raw.p95, e.cal.mean, e.cal.p95);
        worst_raw = std::max(worst_raw, e.raw.mean);
        EXPECT_LE(e.cal.mean, 2.0) << t[0] << "/" << t[1];
    }
    EXPECT_GT(worst_raw, 40.0);  // the drift itself: centimetres over 10 C
    ASSERT_TRUE(_scene(dev, 0, k_cal_cb, k_cal_ib, false));
    tevix_dev_close(dev);
}

}  // namespace
