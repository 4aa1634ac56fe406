// The SONY driver through its operation table, on a fake camera behind the camera interface, with
// frames of the scene rendered in each SONY format.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iostream>
#include <random>
#include <vector>

#include "algo/simd.h"
#include "calib/calib_writer.h"
#include "drivers/drv.h"
#include "drivers/drv_calib.h"
#include "drivers/drv_fixture.h"
#include "drivers/epc/epc_kernels.h"
#include "drivers/sony/imx_format.h"
#include "drivers/sony/imx_priv.h"
#include "scene/sony_scene.h"
#include "scene_accuracy.h"
#include "tele/vxtele.h"
#include "test_util.h"
#include "tevix/tevix.h"

using tevix::test::log_capture;

namespace {

constexpr uint32_t k_w = 640, k_h = 480, k_n = k_w * k_h;
constexpr int32_t k_full = 2 * k_n;  // what a full-size decode returns

class imx_fixture : public tevix::test::drv_fixture {
  protected:
    void open() {
        make("VXCAM-S1-R1");
        set_lens(tevix::emu::k_sony_lens);
        cam().set_u32(TEVIX_PARAM_FRM_FMT, 2);
        init(4);
    }
    // The nine lens floats in the three parameters of 4, 4 and 1.
    void set_lens(const float *v) {
        const uint8_t ids[3] = {TEVIX_PARAM_LENS0, TEVIX_PARAM_LENS1, TEVIX_PARAM_LENS2};
        for (int k = 0; k < 3; ++k) {
            cam().params[ids[k]] = {};
            std::memcpy(cam().params[ids[k]].data(), v + 4 * k, k < 2 ? 16 : 4);
        }
    }
    tevix::imx::imx_priv *p() { return tevix::imx::priv_of(drv_); }

    // Frame 3 of the renderer through frame_get_info and frame_decode.
    int32_t decode(tevix::emu::sony_renderer &r, uint32_t kind, std::vector<uint16_t> &out) {
        const auto raw = tevix::test::render(r, 3);
        return decode(raw, kind, out, info_of(raw));
    }
    using drv_fixture::decode;
};

using tevix::test::accuracy;
using tevix::test::scene_accuracy;

TEST_F(imx_fixture, InitReadsTheLensAndRegistersItsSettings) {
    log_capture log;
    open();
    EXPECT_TRUE(cam().reg_writes.empty());  // no register set-up
    EXPECT_EQ(cam().writes_of(TEVIX_PARAM_HOST_CLOCK).size(), 1u);
    const tevix_lens_param_t &l = ops()->lens;
    EXPECT_FLOAT_EQ(float(l.cx), tevix::emu::k_sony_lens[0]);
    EXPECT_FLOAT_EQ(float(l.fy), tevix::emu::k_sony_lens[3]);
    EXPECT_FLOAT_EQ(float(l.dcoef[4]), tevix::emu::k_sony_lens[8]);
    EXPECT_EQ(l.n_dcoef, 5u);
    EXPECT_EQ(l.width, k_w);
    EXPECT_TRUE(p()->lens_from_dev);
    EXPECT_EQ(log.count("cx:321.500000, cy:242.250000, fx:562.000000, fy:561.000000"), 1);
    EXPECT_EQ(p()->width, k_w);
    EXPECT_EQ(p()->grey_size, 614400u);
    EXPECT_TRUE(p()->bpf_ok);
    EXPECT_EQ(p()->bpf.width, k_w);
    EXPECT_FLOAT_EQ(p()->bpf.sigma_spatial, 0.01f);
    EXPECT_FLOAT_EQ(p()->bpf.sigma_range, 0.02f);
    EXPECT_EQ(p()->saved_fmt, -1);
    const struct {
        const char *name;
        uint8_t type;
        const void *loc;
    } settings[] = {
        {"f_en_hysteresis", 5, &p()->en_hyst},
        {"f_param_hysteresis", 6, &p()->hyst_val},
        {"f_en_flyfilter", 5, &p()->en_fly},
        {"f_param_flyfilter_th", 7, &p()->fly_th},
        {"f_en_fill_hole", 5, &p()->en_fill},
        {"f_en_bpf2d_iir", 5, &p()->en_bpf},
        {"f_param_bpf_sigma_spatial", 9, &p()->bpf_ss},
        {"f_param_bpf_sigma_range", 9, &p()->bpf_sr},
        {"f_param_bpf_range_min", 6, &p()->bpf_min},
        {"f_param_bpf_range_max", 6, &p()->bpf_max},
        {"f_en_gaus_iir", 5, &p()->en_gauss},
        {"f_param_gaus_iir_sigma", 9, &p()->gauss_sigma},
    };
    for (const auto &s : settings) {
        const tevix::tele::item *it = vxtele_find(p()->tele, s.name);
        ASSERT_NE(it, nullptr) << s.name;
        EXPECT_EQ(it->type, s.type) << s.name;
        EXPECT_EQ(it->loc, s.loc) << s.name;
    }
    EXPECT_EQ(p()->hyst_val, 10);
    EXPECT_EQ(p()->bpf_max, 256);
    EXPECT_FALSE(p()->en_bpf || p()->en_fly || p()->en_fill || p()->en_gauss || p()->en_hyst);
    const int32_t handle = p()->tele;
    ops()->uninit(drv_);
    EXPECT_EQ(vxtele_find(handle, "f_en_flyfilter"), nullptr);  // unregistered with the driver

    // Intrinsics that are not all positive leave the built-in lens; a lens file in the parameter
    // directory overrides what the device reports.
    const float bad[9] = {321.5f, 0.0f, 562.0f, 561.0f, 0, 0, 0, 0, 0};
    set_lens(bad);
    init(4);
    EXPECT_FALSE(p()->lens_from_dev);
    EXPECT_DOUBLE_EQ(ops()->lens.fx, k_imx_default_lens.fx);
    ops()->uninit(drv_);
    use_param_dir();
    ASSERT_TRUE(
        tevix::test::write_text(prefix_ + "lens_param.txt", "320 240 600 600 0.1 0.01 640 480\n"));
    set_lens(tevix::emu::k_sony_lens);
    init(4);
    EXPECT_TRUE(p()->lens_from_dev && p()->lens_file);
    EXPECT_DOUBLE_EQ(ops()->lens.fx, 600.0);
    EXPECT_EQ(ops()->lens.n_dcoef, 2u);
}

// Flying-pixel threshold and bilateral sigmas follow f0 from the table, row by row; single and
// dual frequency set the ranges, the unwrapping and the temperature coefficients.
TEST_F(imx_fixture, FrequencyTuningAndEvents) {
    open();
    const struct {
        uint32_t f0;
        uint32_t threshold;
        float spatial;
    } cases[] = {
        {100000000, 2, 0.01f}, {99999999, 3, 0.02f}, {80000000, 3, 0.02f}, {50000000, 3, 0.04f},
        {30000000, 4, 0.06f},  {24000000, 4, 0.08f}, {20000000, 10, 0.1f}, {12000000, 10, 0.2f},
        {11000000, 0, 0.2f},  // below 12 MHz: no threshold, the sigmas as they were
    };
    for (const auto &c : cases) {
        const uint32_t changes = vxtele_changes(p()->tele);
        ops()->on_update_mod_freq(drv_, c.f0, 0);
        EXPECT_EQ(p()->fly_th, c.threshold) << c.f0;
        EXPECT_FLOAT_EQ(p()->bpf_ss, c.spatial) << c.f0;
        EXPECT_FLOAT_EQ(p()->bpf_sr, 0.05f) << c.f0;
        EXPECT_EQ(vxtele_changes(p()->tele), changes + 1) << c.f0;
    }
    // The host's own bilateral parameters (smoothing variant 240) stay through a change.
    ASSERT_TRUE(enable(TEVIX_FILTER_SMOOTH, {.u8 = {240, 50}}));
    EXPECT_TRUE(p()->en_bpf);
    log_capture log;
    ops()->on_update_mod_freq(drv_, 100000000, 0);
    EXPECT_FLOAT_EQ(p()->bpf_ss, 0.5f);
    EXPECT_EQ(p()->fly_th, 0u);

    EXPECT_EQ(p()->f0, 100000000u);
    EXPECT_EQ(p()->r0, tevix::epc::range_mm(100000000));
    EXPECT_FALSE(p()->dual);
    EXPECT_EQ(log.count("MOD_FREQ change: [11000000, 0] -> [100000000, 0] HZ"), 1);
    EXPECT_EQ(log.count(" * tcoef: f=100.0 MHz, cb/ib=13.8/1.2 mm/deg"), 1);
    ops()->on_update_mod_freq(drv_, 100000000, 80000000);
    EXPECT_TRUE(p()->dual);
    EXPECT_EQ(p()->r0, 1498u);
    EXPECT_EQ(p()->r1, 1873u);
    EXPECT_EQ(p()->unwrap.n0, 5u);
    // The coefficients are phase units: in millimetres they scale with each frequency's range.
    EXPECT_EQ(log.count(" tcoef: f0=100.0 MHz, cb/ib=13.8/1.2 mm/deg, 0.3/fps"), 1);
    EXPECT_EQ(log.count("        f1=80.0 MHz, cb/ib=17.2/1.5 mm/deg, 0.4/fps"), 1);
    // The same pair again with nothing to mount: another try at the calibration, said so.
    ops()->on_update_mod_freq(drv_, 100000000, 80000000);
    EXPECT_EQ(log.count("MOD_FREQ [100000000, 80000000] HZ: try loading calib data"), 1);
    ops()->on_update_mod_freq(drv_, 0, 80000000);  // no event
    EXPECT_TRUE(p()->dual);
    ops()->on_update_mod_freq(drv_, 20000000, 0);
    EXPECT_FALSE(p()->dual);
    EXPECT_EQ(p()->f1, 0u);
    EXPECT_EQ(p()->unwrap.n0, 0u);
}

// A second integration time needs format 15: switched once, and the format before it comes back
// when the second time is cleared.
TEST_F(imx_fixture, SecondIntegrationTimeSwitchesToFormat15AndBack) {
    open();
    cam().set_u32(TEVIX_PARAM_FRM_FMT, 13);
    log_capture log;
    ops()->on_update_intg_time(drv_, 300, 1);
    EXPECT_EQ(param_u32(TEVIX_PARAM_FRM_FMT), 15u);
    EXPECT_EQ(p()->saved_fmt, 13);
    EXPECT_TRUE(p()->hdr);
    ops()->on_update_intg_time(drv_, 400, 1);
    EXPECT_EQ(cam().writes_of(TEVIX_PARAM_FRM_FMT).size(), 1u);
    EXPECT_EQ(log.count("fmt auto change: 13->15"), 1);
    ops()->on_update_intg_time(drv_, 0, 1);
    EXPECT_EQ(param_u32(TEVIX_PARAM_FRM_FMT), 13u);
    EXPECT_FALSE(p()->hdr);
    EXPECT_EQ(log.count("fmt auto change: 15->13"), 1);
    ops()->on_update_intg_time(drv_, 0, 1);
    EXPECT_EQ(cam().writes_of(TEVIX_PARAM_FRM_FMT).size(), 2u);
    ops()->on_update_intg_time(drv_, 500, 0);  // the first integration time changes nothing
    EXPECT_EQ(param_u32(TEVIX_PARAM_FRM_FMT), 13u);
    cam().fail_param_set = true;
    ops()->on_update_intg_time(drv_, 300, 1);
    EXPECT_EQ(log.count("set to fmt 15 failed"), 1);
}

TEST(ImxFormat, LayoutWords) {
    const struct {
        uint16_t format;
        uint32_t word, min_n;
    } cases[] = {{2, 4, 8},      {10, 769, 2},  {138, 769, 2}, {130, 769, 2}, {13, 514, 4},
                 {142, 1028, 4}, {14, 1284, 4}, {15, 8, 4},    {16, 1538, 3}, {145, 1796, 6},
                 {17, 2052, 6},  {1, 0, 0},     {3, 0, 0},     {11, 0, 0},    {171, 0, 0}};
    for (const auto &c : cases) {
        const tevix::imx::layout l = tevix::imx::layout_of(c.format);
        EXPECT_EQ(l.word, c.word) << c.format;
        EXPECT_EQ(l.min_n, c.min_n) << c.format;
    }
}

// Every format decodes at exactly its minimum length; one byte less is refused with the line,
// and so is an output buffer below 2N. Each gives the scene's distances at 20 MHz (the dual
// formats with 16 MHz beside it).
TEST_F(imx_fixture, EachFormatDecodesAndRefusesShortFrames) {
    open();
    tevix::emu::sony_renderer r(tevix::emu::sony_scene_config());
    const struct {
        uint16_t format;
        uint32_t f1;
        double tol;  // p95 error, mm: whole-count samples, eight bits for formats 14 and 15
    } cases[] = {{2, 0, 2},           {10, 0, 1},        {13, 0, 2},
                 {15, 0, 30},         {16, 0, 2},        {14, 16000000, 30},
                 {142, 16000000, 30}, {17, 16000000, 2}, {145, 16000000, 2}};
    log_capture log;
    for (const auto &c : cases) {
        ops()->on_update_mod_freq(drv_, 20000000, c.f1);
        r.set_freqs(20000000, c.f1 ? c.f1 : 20000000);
        r.set_format(c.format);
        const auto raw = tevix::test::render(r, 1);
        ASSERT_EQ(raw.size(), tevix::imx::layout_of(c.format).min_n * k_n);
        const tevix_frame_info_t info = info_of(raw);
        std::vector<uint16_t> out(k_n + 1);
        auto *o = reinterpret_cast<uint8_t *>(out.data());
        const uint32_t len = static_cast<uint32_t>(raw.size());
        ASSERT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 0, raw.data(), len, &info), k_full)
            << c.format;
        const accuracy a = scene_accuracy(r, out, 1e9);
        EXPECT_GT(a.valid, a.checked * 99 / 100) << c.format;
        EXPECT_LE(a.p95, c.tol) << c.format;
        const int before = log.count("wrong data len");
        p()->frame_pending = 1;
        EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 1, raw.data(), len - 1, &info), -1);
        EXPECT_FALSE(p()->frame_pending);
        EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2 - 1, 1, raw.data(), len, &info), -1);
        EXPECT_EQ(log.count("wrong data len"), before + 2) << c.format;
    }
    EXPECT_EQ(log.count("HDR frame received"), 3);
}

// Distances against the scene's truth, mode by mode (the README's accuracy table): noiseless,
// single frequency within 2 mm everywhere in its range (at 100 MHz before a near wall, 1.4 m),
// dual 100 + 80 MHz on a room deeper than either range alone within 2 mm (8-bit formats: p95 8 mm)
// out to 6 m in both arrangements; with shot noise nearly every pixel kept, centimetre-free
// errors. With a weak signal, pixels whose two phases disagree are marked invalid rather than
// unwrapped to a wrong wrap. With no filter and no calibration kind 1 gives kind 0.
TEST_F(imx_fixture, AccuracyPerMode) {
    open();
    const double r20 = tevix::epc::range_mm(20000000) - 5,
                 r100 = tevix::epc::range_mm(100000000) - 5;
    const struct {
        const char *mode;
        bool noise;
        uint16_t format;
        uint32_t f0, f1;
        double room_mm, limit_mm, max_mm, p95_mm;
        uint32_t valid_pm = 1000;  // valid pixels above, per mille (1000: every one)
        uint16_t amp_max = 0;      // 0: the scene's usual
        double far_mm = 100;
        uint32_t seed = 17;
    } cases[] = {
        {"single 20 MHz", false, 2, 20000000, 0, 4800, r20, 2, 1e9},
        {"single 100 MHz (near wall)", false, 2, 100000000, 0, 1400, r100, 2, 1e9},
        {"dual format 17", false, 17, 100000000, 80000000, 6200, 6000, 2, 1e9},
        {"dual format 145", false, 145, 100000000, 80000000, 6200, 6000, 2, 1e9},
        {"dual format 14", false, 14, 100000000, 80000000, 6200, 6000, 1e9, 8},
        {"dual format 142", false, 142, 100000000, 80000000, 6200, 6000, 1e9, 8},
        {"noisy single 20 MHz, format 2", true, 2, 20000000, 0, 4800, 1e9, 1e9, 12, 999},
        {"noisy single 100 MHz, format 16 (near wall)", true, 16, 100000000, 0, 1400, 1490, 1e9, 3,
         999},
        {"noisy dual 100 + 80 MHz, format 17", true, 17, 100000000, 80000000, 6200, 6000, 1e9, 8,
         999},
        {"noisy dual 100 + 80 MHz, format 14", true, 14, 100000000, 80000000, 6200, 6000, 1e9, 10,
         999},
        {"weak dual 100 + 80 MHz, format 17", true, 17, 100000000, 80000000, 6200, 7000, 1e9, 1e9,
         800, 70, 250, 1},
    };
    for (const auto &c : cases) {
        tevix::emu::scene_config cfg = tevix::emu::sony_scene_config();
        cfg.noise = c.noise;
        cfg.seed = c.seed;
        cfg.room_back_mm = c.room_mm;
        if (c.amp_max) cfg.amp_max = c.amp_max;
        tevix::emu::sony_renderer r(cfg, c.format);
        r.set_freqs(c.f0, c.f1 ? c.f1 : c.f0);
        ops()->on_update_mod_freq(drv_, c.f0, c.f1);
        std::vector<uint16_t> d0, d;
        ASSERT_EQ(decode(r, 0, d0), k_full);
        ASSERT_EQ(decode(r, 1, d), k_full);
        EXPECT_EQ(d0, d) << c.mode;
        const accuracy a = scene_accuracy(r, d, c.limit_mm, c.far_mm);
        std::cout << c.mode << ": " << a.valid << "/" << a.checked << " valid, mean " << a.mean
                  << " mm, p95 " << a.p95 << " mm, max " << a.max << " mm, invalid "
                  << 100.0 * (a.checked - a.valid) / a.checked << " %\n";
        EXPECT_GT(a.checked, 1000u) << c.mode;
        if (c.valid_pm == 1000)
            EXPECT_EQ(a.valid, a.checked) << c.mode;
        else
            EXPECT_GT(a.valid, a.checked * c.valid_pm / 1000) << c.mode;
        EXPECT_TRUE(c.valid_pm >= 999 || a.valid < a.checked) << c.mode;  // some marked
        EXPECT_LE(a.max, c.max_mm) << c.mode;
        EXPECT_LT(a.p95, c.p95_mm) << c.mode;
        EXPECT_EQ(a.far_off, 0u) << c.mode;
    }
    // Most of the deep room lies beyond 1.5 m, where f0 alone (format 16 at 100 MHz) wraps.
    tevix::emu::scene_config cfg = tevix::emu::sony_scene_config();
    cfg.room_back_mm = 6200;
    tevix::emu::sony_renderer r(cfg, 16);
    r.set_freqs(100000000, 100000000);
    ops()->on_update_mod_freq(drv_, 100000000, 0);
    std::vector<uint16_t> d;
    ASSERT_EQ(decode(r, 1, d), k_full);
    const accuracy wrapped = scene_accuracy(r, d, 6000);
    EXPECT_GT(wrapped.checked, 100000u);
    EXPECT_GT(wrapped.far_off, wrapped.checked / 2);
}

TEST_F(imx_fixture, GreyFromTheConfidenceCacheAndFromTheSamples) {
    open();
    ops()->on_update_mod_freq(drv_, 20000000, 0);
    tevix::emu::sony_renderer r(tevix::emu::sony_scene_config(), 13);
    r.set_freqs(20000000, 20000000);
    std::vector<uint16_t> grey, dist;
    log_capture log;
    ASSERT_EQ(decode(r, 2, grey), k_full);
    EXPECT_EQ(log.count("use confid hash to calc gray"), 0);
    ASSERT_EQ(decode(r, 1, dist), k_full);
    std::vector<uint16_t> cached;
    ASSERT_EQ(decode(r, 2, cached), k_full);
    EXPECT_EQ(log.count("use confid hash to calc gray"), 1);
    for (uint32_t i = 5000; i < k_n; i += 997) {
        const double amp = r.amplitude()[i];
        EXPECT_NEAR(grey[i], amp / 2, amp * 0.03 + 2) << i;
        EXPECT_NEAR(cached[i], amp, amp * 0.06 + 2) << i;  // fast_sqrt(x^2 + y^2)
    }
}

// Every tier expands the same I and Q (odd counts and odd starts included) and decodes the same
// phases as the scalar path; markers decode as nothing measured.
TEST(ImxFormat, ExpansionAndPhaseTiersAgreeAndMarkersAreInvalid) {
    std::mt19937 rng(5);
    for (uint32_t n : {203u, 64u}) {
        for (uint16_t fmt : {13, 14, 142, 15, 16, 17, 145}) {
            const tevix::imx::layout l = tevix::imx::layout_of(fmt);
            std::vector<uint8_t> raw(l.min_n * n);
            for (auto &b : raw) b = uint8_t(rng());
            for (uint32_t set = 0; set < l.sets; ++set) {
                std::vector<int16_t> want(6 * n), got(6 * n);
                std::vector<int32_t> ph_want(n), ph_got(n);
                std::vector<uint32_t> c_want(n), c_got(n);
                tevix::imx::expand_iq_scalar(l, raw.data(), n, set, want.data(), want.data() + n,
                                             want.data() + 2 * n);
                tevix::epc::phase_xy_scalar(want.data(), want.data() + n, n, ph_want.data(),
                                            c_want.data());
                for (auto tier : {tevix::simd::level::sse41, tevix::simd::level::avx2}) {
                    tevix::simd::scoped_limit cap(tier);
                    tevix::imx::expand_iq(l, raw.data(), n, set, got.data(), got.data() + n,
                                          got.data() + 2 * n);
                    tevix::epc::phase_xy(got.data(), got.data() + n, n, ph_got.data(),
                                         c_got.data());
                    EXPECT_TRUE(std::equal(got.begin(), got.begin() + 2 * n, want.begin()))
                        << fmt << " " << n;
                    EXPECT_EQ(ph_got, ph_want) << fmt << " " << n;
                    EXPECT_EQ(c_got, c_want) << fmt << " " << n;
                }
            }
        }
    }
    // Pixel 0 of a 16 frame carries the marker; pixel 1 keeps its I and Q; the phase of (x, y)
    // is the 4-plane decode's.
    const int16_t s12[4] = {-2048, 300, 0, -400};
    uint8_t packed[6];
    tevix::imx::pack12(s12, 4, packed);
    int16_t xy[4 + 8];
    tevix::imx::expand_iq(tevix::imx::layout_of(16), packed, 2, 0, xy, xy + 2, xy + 4);
    EXPECT_EQ(xy[0], -32768);
    EXPECT_EQ(xy[1], 300);
    EXPECT_EQ(xy[3], -400);
    int32_t ph[2];
    uint32_t conf[2];
    tevix::epc::phase_xy(xy, xy + 2, 2, ph, conf);
    EXPECT_EQ(ph[0], 65500);
    EXPECT_EQ(conf[0], 0u);
    EXPECT_EQ(ph[1], int32_t(tevix::epc::phase_4dcs(300, -400)));
    EXPECT_EQ(conf[1], 250000u);
}

// The chain in its order: bilateral, median, Gaussian, flying pixel, hole filling.
TEST_F(imx_fixture, PostProcessingOrder) {
    open();
    ops()->on_update_mod_freq(drv_, 20000000, 0);
    tevix::emu::scene_config cfg = tevix::emu::sony_scene_config();
    cfg.noise = true;
    tevix::emu::sony_renderer r(cfg, 2);
    r.set_freqs(20000000, 20000000);
    std::vector<uint16_t> plain, got;
    ASSERT_EQ(decode(r, 1, plain), k_full);
    ASSERT_TRUE(ops()->filter_enable(drv_, TEVIX_FILTER_SMOOTH, nullptr));
    ASSERT_TRUE(enable(TEVIX_FILTER_FLYING_PIXEL, {.u8 = {20}}));
    p()->en_gauss = 1;
    p()->en_fill = 1;
    ASSERT_EQ(decode(r, 1, got), k_full);
    std::vector<uint16_t> want(k_n);
    vx_bpf2d_iir(&p()->bpf, want.data(), plain.data(), k_w, k_h);
    ASSERT_TRUE(vx_median2d_u16(want.data(), k_w, k_h, 5));
    ASSERT_TRUE(vx_gauss2d_iir_u16(want.data(), k_w, k_h, 0.1f));
    ASSERT_TRUE(vx_flypix_u16_k5(want.data(), k_w, k_h, 11));
    ASSERT_TRUE(vx_fhole_u16_k3(want.data(), k_w, k_h, 0));
    EXPECT_EQ(got, want);
    ASSERT_TRUE(ops()->filter_disable(drv_, TEVIX_FILTER_SMOOTH));
    ASSERT_TRUE(ops()->filter_disable(drv_, TEVIX_FILTER_FLYING_PIXEL));
    p()->en_gauss = p()->en_fill = 0;
    EXPECT_FALSE(p()->en_bpf || p()->en_fly);
    ASSERT_EQ(decode(r, 1, got), k_full);
    EXPECT_EQ(got, plain);
}

TEST_F(imx_fixture, FilterSwitchesRoiAndFrameInformation) {
    open();
    log_capture log;
    cam().fail_param_get = true;
    EXPECT_FALSE(enable(TEVIX_FILTER_AUTO_INTG, {.u16 = {100}}));
    EXPECT_EQ(log.count("enable AUTO_INTG failed"), 1);
    cam().fail_param_get = false;
    EXPECT_TRUE(enable(TEVIX_FILTER_AUTO_INTG, {.u16 = {100}}));
    EXPECT_TRUE(ops()->filter_disable(drv_, TEVIX_FILTER_AUTO_INTG));
    EXPECT_EQ(log.count("disable AUTO intg"), 1);
    set_sys_calib(1.25f, -7.5f);
    EXPECT_TRUE(ops()->filter_enable(drv_, TEVIX_FILTER_SYS_CALIB, nullptr));
    EXPECT_EQ(log.count("scale/offset_mm: 1.000/0 -> 1.250/-7"), 1);

    // Binning halves the image per step; a mode beyond 3 is refused and changes nothing.
    tevix_roi_t roi{0, 479, 0, 639, 1, {}};
    ops()->on_update_roi(drv_, &roi);
    EXPECT_EQ(p()->width, 320u);
    EXPECT_EQ(p()->bpf.width, 320u);
    roi.binning = 4;
    ops()->on_update_roi(drv_, &roi);
    EXPECT_EQ(log.count("roi wrong mode: binning=4"), 1);
    EXPECT_EQ(p()->height, 240u);

    // A header without geometry takes the binned size; the lines of the frame.
    uint8_t raw[20] = {0x00, 0x58, 0x02, 0, 7, 0, 13, 0};
    tevix_frame_info_t info{};
    ASSERT_TRUE(ops()->frame_get_info(drv_, &info, raw));
    EXPECT_EQ(info.width, 320u);
    EXPECT_EQ(log.count("frame: fmt=13, sz=153600, wxh = 320x240"), 1);
    EXPECT_EQ(log.count("idx:7,0x0"), 1);
}

// ---- Calibration: type-2 blocks per frequency in the device's container.

class imx_calib : public imx_fixture {
  protected:
    void SetUp() override {
        open();
        use_param_dir();
        cam().set_u32(TEVIX_PARAM_MOD_FREQ, 100000000);
    }
    void write(const std::vector<tevix::drv::calib_block> &blocks) {
        std::vector<tevix::calib::param_block> c;
        for (const auto &b : blocks) c.push_back({2, tevix::drv::block_payload(b)});
        write_container(std::move(c));
    }
    static tevix::drv::calib_block tables(uint32_t f, int16_t lut_mm, int16_t pix_mm) {
        tevix::drv::calib_block b;
        b.freq = f;
        b.ver = 1;
        b.noneed_calc_coeff = 1;
        b.box_len_mm = 1200;
        b.t_cb = 350;
        b.t_ib = 420;
        b.width = k_w;
        b.height = k_h;
        b.tables = 3;
        b.lut.assign(tevix::drv::k_phase_lut, lut_mm);
        b.pixels.assign(k_n, pix_mm);
        return b;
    }
};

// Blocks mount for f0 alone and for a pair; a frequency the file lacks leaves the defaults; the
// decode follows: the phase table always, the per-pixel table with pixel calibration on.
TEST_F(imx_calib, SingleAndDualBlocksMount) {
    write({tables(100000000, 20, 7), tables(80000000, 30, 7)});
    log_capture log;
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    EXPECT_EQ(log.count("adapting to device MOD_FREQ : [100000000, 0] HZ"), 1);
    EXPECT_TRUE(tevix::imx::calib_valid(p()));

    tevix::emu::scene_config cfg = tevix::emu::sony_scene_config();
    cfg.room_back_mm = 1400;
    tevix::emu::sony_renderer r(cfg, 13);
    r.set_freqs(100000000, 100000000);
    std::vector<uint16_t> raw0, lut, drnu;
    ASSERT_EQ(decode(r, 0, raw0), k_full);
    ASSERT_EQ(decode(r, 1, lut), k_full);
    ASSERT_TRUE(ops()->filter_enable(drv_, TEVIX_FILTER_PIX_CALIB, nullptr));
    ASSERT_EQ(decode(r, 1, drnu), k_full);
    const uint32_t c = (k_h / 2) * k_w + k_w / 2;
    EXPECT_NEAR(lut[c], raw0[c] + 20, 1);
    EXPECT_NEAR(drnu[c], raw0[c] + 27, 1);

    // The pair: both blocks, R0 and R1 each; 80 MHz alone is in the file too.
    ops()->on_update_mod_freq(drv_, 100000000, 80000000);
    EXPECT_TRUE(tevix::imx::calib_valid(p()));
    ASSERT_NE(p()->slot1.block, nullptr);
    EXPECT_EQ(p()->slot1.block->freq, 80000000u);
    ops()->on_update_mod_freq(drv_, 100000000, 20000000);
    EXPECT_FALSE(tevix::imx::calib_valid(p()));
    EXPECT_EQ(log.count("No calib data : freq=100000000. Use default scale_um/offset_mm = 1000/0"),
              1);
    EXPECT_FALSE(ops()->filter_enable(drv_, TEVIX_FILTER_PIX_CALIB, nullptr));
}

// A device at a frequency the file does not calibrate is set to the first one it does.
TEST_F(imx_calib, DeviceSetToTheFirstCalibratedFrequency) {
    write({tables(80000000, 0, 0), tables(100000000, 0, 0)});
    cam().set_u32(TEVIX_PARAM_MOD_FREQ, 20000000);
    log_capture log;
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    EXPECT_EQ(log.count("set device freq to first calibrated freq: 80000000"), 1);
    EXPECT_EQ(param_u32(TEVIX_PARAM_MOD_FREQ), 80000000u);
    EXPECT_EQ(p()->f0, 80000000u);
    EXPECT_TRUE(tevix::imx::calib_valid(p()));
    // A dual format whose pair the device cannot tell: the single frequency, said so.
    cam().set_u32(TEVIX_PARAM_FRM_FMT, 17);
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    EXPECT_EQ(log.count("Get current dual mod freq failed"), 1);
    // No file at all and an unreadable frequency: the device runs at 100 MHz uncalibrated.
    std::remove(path_.c_str());
    cam().fail_param_get = true;
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    cam().fail_param_get = false;
    EXPECT_EQ(log.count("calib not valid: set freq to 100000000"), 1);
    EXPECT_FALSE(tevix::imx::calib_valid(p()));
}

// A unit with its systematic errors, calibrated by a station's measurements of each frequency:
// the calibrated decode removes most of the error, in single and in dual frequency.
TEST_F(imx_calib, StationCalibrationRemovesTheUnitsErrors) {
    tevix::emu::scene_config cfg = tevix::emu::sony_scene_config();
    cfg.unit_errors = true;
    cfg.unit_seed = 0x1234;
    cfg.room_back_mm = 6200;
    tevix::emu::sony_renderer r(cfg, 17);
    write({r.station_block(100000000, {150, 330, 520, 710, 900, 1090, 1280, 1440}),
           r.station_block(80000000, {150, 380, 610, 840, 1070, 1300, 1530, 1800})});
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    ASSERT_TRUE(ops()->filter_enable(drv_, TEVIX_FILTER_PIX_CALIB, nullptr));
    ops()->on_update_mod_freq(drv_, 100000000, 80000000);
    r.set_freqs(100000000, 80000000);
    ASSERT_TRUE(tevix::imx::calib_valid(p()));
    std::vector<uint16_t> raw, cal;
    ASSERT_EQ(decode(r, 0, raw), k_full);
    ASSERT_EQ(decode(r, 1, cal), k_full);
    const accuracy before = scene_accuracy(r, raw, 6000), after = scene_accuracy(r, cal, 6000);
    std::cout << "dual, unit errors: uncalibrated mean " << before.mean << " p95 " << before.p95
              << " mm; calibrated mean " << after.mean << " p95 " << after.p95 << " mm\n";
    EXPECT_GT(before.mean, 5.0);
    EXPECT_LT(after.mean, before.mean / 3);
    EXPECT_GT(after.valid, after.checked * 99 / 100);
    // f0 alone (format 16) through its block, on the same unit before a near wall.
    ops()->on_update_mod_freq(drv_, 100000000, 0);
    cfg.room_back_mm = 1400;
    tevix::emu::sony_renderer near(cfg, 16);
    near.set_freqs(100000000, 100000000);
    ASSERT_EQ(decode(near, 0, raw), k_full);
    ASSERT_EQ(decode(near, 1, cal), k_full);
    const accuracy b1 = scene_accuracy(near, raw, 1490), a1 = scene_accuracy(near, cal, 1490);
    std::cout << "100 MHz, unit errors: uncalibrated mean " << b1.mean << " mm; calibrated mean "
              << a1.mean << " p95 " << a1.p95 << " mm\n";
    EXPECT_GT(a1.checked, 100000u);
    EXPECT_LT(a1.mean, b1.mean / 3);
}

}  // namespace
