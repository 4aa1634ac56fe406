// The EPC driver through its operation table, on a fake camera behind the camera interface.
#include <malloc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <tuple>
#include <vector>

#include "algo/simd.h"
#include "calib/calib_writer.h"
#include "drivers/drv.h"
#include "drivers/drv_fixture.h"
#include "drivers/epc/epc_calib.h"
#include "drivers/epc/epc_kernels.h"
#include "drivers/epc/epc_priv.h"
#include "platform/platform.h"
#include "scene/scene.h"
#include "scene_accuracy.h"
#include "test_util.h"
#include "tevix/tevix.h"

using tevix::test::fake_device;
using tevix::test::log_capture;

namespace {

constexpr uint32_t k_w = 320, k_h = 240, k_n = k_w * k_h;
constexpr int32_t k_full = 2 * k_n;  // what a full-size decode returns

// The scene renderer as the accuracy count reads a renderer.
struct epc_scene {
    const tevix::emu::scene_renderer &r;
    uint32_t width() const { return k_w; }
    uint32_t height() const { return k_h; }
    bool under_header(uint32_t x, uint32_t y) const { return r.under_header(x, y); }
    const std::vector<float> &truth_mm() const { return r.truth_mm(); }
};

// A driver row initialised on a fake camera, released at the end.
class epc_fixture : public tevix::test::drv_fixture {
  protected:
    void open(const char *product = "VXCAM-E1-R1", int row = 1, uint32_t type = 0) {
        make(product, type);
        init(row);
    }
    void open_20mhz() {
        open();
        if (drv_->priv) ops()->on_update_mod_freq(drv_, 20000000, 0);
    }
    tevix::epc::epc_priv *p() { return tevix::epc::priv_of(drv_); }
    // Frame 3 of the scene decoded as `kind`, against the scene's truth.
    tevix::test::accuracy round_trip(const tevix::emu::scene_config &cfg, uint16_t fmt,
                                     uint32_t kind) {
        tevix::emu::scene_renderer scene(cfg, fmt);
        const auto raw = tevix::test::render(scene, 3);
        std::vector<uint16_t> out;
        EXPECT_EQ(decode(raw, kind, out, info_of(raw)), k_full);
        return tevix::test::scene_accuracy(epc_scene{scene}, out, 1e9);
    }
};

constexpr uint16_t k_flat[4] = {2000, 2000, 2000, 2000};  // every plane alike

// Raw frame of `planes` planes with every pixel's samples d[0..planes-1] and a header.
std::vector<uint8_t> _frame(uint16_t format, uint32_t planes, const uint16_t *d, int16_t tcb = 300,
                            int16_t tib = 350, uint16_t index = 1, uint32_t w = k_w,
                            uint32_t h = k_h) {
    const uint32_t n = w * h;
    std::vector<uint16_t> s(planes * n);
    for (uint32_t p = 0; p < planes; ++p)
        std::fill(s.begin() + p * n, s.begin() + (p + 1) * n, d[p]);
    // Header words: size (two), index, format, width, height, temperatures.
    const uint32_t size = 2 * planes * n;
    const uint16_t hdr[8] = {uint16_t(size), uint16_t(size >> 16), index,         format,
                             uint16_t(w),    uint16_t(h),          uint16_t(tcb), uint16_t(tib)};
    std::copy(hdr, hdr + 8, s.begin());
    std::vector<uint8_t> raw(s.size() * 2);
    std::memcpy(raw.data(), s.data(), raw.size());
    return raw;
}

// Sets the samples of image pixel (x, y) of a 4-plane frame, the image row mapped to its sensor
// row.
void _set_pixel(std::vector<uint8_t> &raw, uint32_t x, uint32_t y, const uint16_t *d) {
    const uint32_t half = k_h / 2;
    const uint32_t sr = y < half ? 2 * (half - 1 - y) : 2 * (y - half) + 1;
    for (uint32_t p = 0; p < 4; ++p)
        std::memcpy(raw.data() + 2 * (p * k_n + sr * k_w + x), &d[p], 2);
}

uint16_t _u16(const std::array<uint8_t, 18> &v) {
    return uint16_t(v[0] | v[1] << 8);
}

// Init sets the chip's registers up and the defaults; the chip code of the product decides the
// rest (E3 caches frames for binned frame rates, E5 is the 160x60 sensor); a camera whose
// registers fail is not taken.
TEST_F(epc_fixture, InitSetsTheChipUpPerProduct) {
    log_capture log;
    make("VXCAM-E1-R1");
    cam().regs[34] = 0x1;
    cam().regs[40] = 0x100;
    init(1);
    EXPECT_EQ(drv_->dev, dev_->dev());
    ASSERT_NE(drv_->priv, nullptr);
    const std::vector<std::pair<uint32_t, uint32_t>> want = {
        {139, 2},   {113, 0},   {114, 0},    {115, 0},   {174, 4},
        {34, 0x31}, {37, 0x30}, {40, 0x130}, {43, 0x30}, {17, 250}};
    EXPECT_EQ(cam().reg_writes, want);
    EXPECT_EQ(p()->sensor_mode, 2u);
    EXPECT_EQ(p()->width, 320u);
    EXPECT_EQ(p()->grey_size, 153600u);
    EXPECT_EQ(p()->minamp, 1);
    EXPECT_EQ(p()->minamp_th, 30);
    EXPECT_EQ(p()->temp_mon_val, 75);
    EXPECT_EQ(cam().writes_of(TEVIX_PARAM_HOST_CLOCK).size(), 1u);
    EXPECT_EQ(ops()->lens_bin_get(drv_), nullptr);
    uint32_t list[4], count = 9;
    EXPECT_EQ(ops()->calib_freq_list_get(drv_, list, &count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    ops()->uninit(drv_);

    open("CAM-E3-R2", 3);
    EXPECT_EQ(p()->bfps, 1);
    EXPECT_EQ(log.count("bfps enabled for model: CAM-E3"), 1);
    ops()->uninit(drv_);
    open("CAM-E5-R2", 8);
    EXPECT_EQ(p()->sensor_mode, 4u);
    EXPECT_EQ(p()->width, 160u);
    EXPECT_EQ(p()->height, 60u);
    EXPECT_EQ(p()->grey_size, 19200u);
    auto raw = _frame(2, 4, k_flat, 300, 350, 1, 160, 60);
    std::memset(raw.data() + 8, 0, 4);  // width and height 0: the mode's default
    tevix_frame_info_t info = info_of(raw);
    EXPECT_EQ(info.width, 160u);
    EXPECT_EQ(info.height, 60u);

    fake_device bad;
    bad.cam().fail_reg = true;
    tevix_drv_t *row = &tevix_drv_table()[2];
    EXPECT_FALSE(row->ops->init(row, bad.dev()));
    EXPECT_EQ(row->priv, nullptr);
    EXPECT_EQ(log.count("[_epc_reg_rw]reg write fail!"), 1);
}

// The record's fields and their checks; the frame rate is measured over three seconds of frames,
// taken from the host when it sets one, and forgotten when the capture stops.
TEST_F(epc_fixture, FrameInformation) {
    log_capture log;
    open();
    auto raw = _frame(2, 4, k_flat, 300, -20, 77);
    const uint32_t tw = tevix::emu::scene_time_word(1, 2, 3, 640);
    std::memcpy(raw.data() + 16, &tw, 4);
    tevix_frame_info_t info = info_of(raw);
    EXPECT_EQ(info.size, 614400u);
    EXPECT_EQ(info.format, 2);
    EXPECT_EQ(info.index, 77);
    EXPECT_EQ(info.depth, 8u);
    EXPECT_EQ(info.temperature, (static_cast<uint32_t>(static_cast<uint16_t>(-20)) << 16) | 300u);
    // The time of day joins the host's date: either side of a midnight met during the call.
    int64_t before = 0, after = 0;
    uint32_t us = 0;
    tevix::plat::now_utc(&before, &us);
    info = info_of(raw);
    tevix::plat::now_utc(&after, &us);
    const auto at = [](int64_t t) { return static_cast<uint32_t>(t - t % 86400 + 3723); };
    EXPECT_TRUE(info.ts_sec == at(before) || info.ts_sec == at(after)) << info.ts_sec;
    EXPECT_EQ(info.ts_usec, 640u);
    for (uint8_t b : info.reserved) ASSERT_EQ(b, 0);
    raw = _frame(300, 4, k_flat);
    std::memcpy(raw.data() + 16, &tw, 4);
    EXPECT_EQ(info_of(raw).depth, tw);

    raw = _frame(2, 4, k_flat);
    const uint32_t bad = 614401;
    std::memcpy(raw.data(), &bad, 4);
    EXPECT_FALSE(ops()->frame_get_info(drv_, &info, raw.data()));
    EXPECT_EQ(log.count("Wrong frame size 614401"), 1);
    const uint16_t fmt = 171;
    std::memcpy(raw.data() + 6, &fmt, 2);
    EXPECT_TRUE(ops()->frame_get_info(drv_, &info, raw.data()));
    EXPECT_FALSE(ops()->frame_get_info(drv_, &info, nullptr));
    EXPECT_FALSE(ops()->frame_get_info(drv_, nullptr, raw.data()));

    raw = _frame(2, 4, k_flat);
    info_of(raw);
    EXPECT_EQ(p()->fps, 0.0f);
    // 90 frames counted since a start three seconds ago: the next frame makes 91 in 3 s or more.
    p()->meas_ms = tevix::plat::mono_ms() - 3000;
    p()->meas_cnt = static_cast<uint16_t>(p()->frame_cnt - 90);
    info_of(raw);
    EXPECT_GT(p()->fps, 29.0f);
    EXPECT_LE(p()->fps, 91.0f / 3.0f);
    ops()->on_cap_state(drv_, 0);
    EXPECT_EQ(p()->fps, 0.0f);
    EXPECT_EQ(p()->frame_cnt, 0u);
    EXPECT_EQ(p()->meas_ms, 0u);
    ops()->on_update_fps(drv_, 15);
    info_of(raw);
    EXPECT_EQ(p()->fps, 15.0f);
}

// Header temperatures: a jump from the median of the last seven frames is replaced by it; the
// monitor reports with the first frame, then at most every nine seconds, switched off never.
// Replayed frames skip the median: implausible values are corrected, each fault reported once.
TEST_F(epc_fixture, Temperatures) {
    log_capture log;
    open();
    auto steady = _frame(2, 4, k_flat, 300, 350);
    auto jump = _frame(2, 4, k_flat, 450, 350);
    for (int i = 0; i < 6; ++i) info_of(steady);
    EXPECT_EQ(info_of(jump).temperature & 0xFFFF, 450u);  // ring not yet full
    for (int i = 0; i < 7; ++i) info_of(steady);
    EXPECT_EQ(info_of(jump).temperature & 0xFFFF, 300u);
    EXPECT_EQ(log.count("cb temp jump: Tcb in hdr=450, Tcb filterd=300"), 1);
    const char *line = "Tib:35.00, Tcb:30.00, FPS:";
    EXPECT_EQ(log.count(line), 1);
    p()->temp_report_ms -= 9001;  // nine seconds later
    info_of(steady);
    EXPECT_EQ(log.count(line), 2);
    ASSERT_TRUE(ops()->filter_disable(drv_, 7));
    p()->temp_report_ms -= 9001;
    info_of(steady);
    EXPECT_EQ(log.count(line), 2);

    ops()->uninit(drv_);
    open("VXCAM-E1-R1", 1, TEVIX_DEV_FILE);
    for (int i = 0; i < 8; ++i) info_of(steady);
    EXPECT_EQ(p()->ring_full, 0);
    auto bad = _frame(2, 4, k_flat, 300, 950);
    for (int i = 0; i < 3; ++i) {
        tevix_frame_info_t info = info_of(bad);
        EXPECT_EQ(static_cast<int16_t>(info.temperature >> 16), 200);
        EXPECT_EQ(static_cast<int16_t>(info.temperature & 0xFFFF), 300);
    }
    EXPECT_EQ(log.count("wrong IB temp 950 detected: corrected to temp_cb - 10"), 1);
    EXPECT_EQ(info_of(steady).temperature >> 16, 350u);
    info_of(bad);
    EXPECT_EQ(log.count("wrong IB temp 950"), 2);
    // |Tib - Tcb| above 600 is a fault as well.
    auto apart = _frame(2, 4, k_flat, -320, 290);
    EXPECT_EQ(static_cast<int16_t>(info_of(apart).temperature >> 16), -420);
    auto hot_cb = _frame(2, 4, k_flat, 1010, 850);
    EXPECT_EQ(info_of(hot_cb).temperature & 0xFFFF, 1010u);
    EXPECT_EQ(log.count("wrong CB temp 1010 detected"), 1);
}

TEST_F(epc_fixture, AutomaticIntegrationTime) {
    open();
    ASSERT_TRUE(enable(5, {.u16 = {10}}));
    const uint16_t mid[4] = {2048, 2048, 2048, 2048};
    auto frame = _frame(2, 4, mid);
    const tevix_frame_info_t info = info_of(frame);
    std::vector<uint16_t> out;
    // The first integration time now, a decode past the process-wide 2 ms pause: what it wrote.
    auto written = [&](const std::vector<uint8_t> &f, uint16_t now) {
        cam().set_u32(TEVIX_PARAM_INTG1, now);
        tevix::plat::sleep_ms(3);
        cam().param_writes.clear();
        decode(f, 0, out, info);
        std::vector<uint16_t> v;
        for (const auto &w : cam().writes_of(TEVIX_PARAM_INTG1)) v.push_back(_u16(w));
        return v;
    };
    using u16s = std::vector<uint16_t>;
    EXPECT_EQ(written(frame, 1480), u16s{1500});
    EXPECT_EQ(written(frame, 1500), u16s{});  // 1500 + 50 stays 1500
    // 25 per mille of the samples saturated: step -20.
    auto sat = frame;
    const uint32_t samples = 4 * k_n, nbad = samples * 25 / 1000;
    for (uint32_t i = 10; i < 10 + nbad; ++i) {
        const uint16_t v = 4095;
        std::memcpy(sat.data() + 2 * i, &v, 2);
    }
    EXPECT_EQ(written(sat, 60), u16s{50});
    // HDR on: no adjustment.
    ops()->on_update_intg_time(drv_, 300, 1);
    EXPECT_EQ(written(frame, 1000), u16s{});
}

TEST_F(epc_fixture, ReducedLayoutPlanesFollowTheFrequency) {
    open();
    ops()->on_update_frame_format(drv_, 1);  // sport mode: the reduced layout
    ASSERT_EQ(p()->sport, 1);
    // Pair (0,1) gives phase 16384, pair (1,2) 24576, pair (2,3) 8192.
    const uint16_t d[4] = {1948, 2048, 2048, 1948};
    auto raw = _frame(2, 4, d);
    tevix_frame_info_t info = info_of(raw);
    std::vector<uint16_t> out;
    struct {
        uint32_t f, phase;
    } cases[] = {{12000000, 24576}, {12000001, 8192}, {24000000, 8192}, {24000001, 16384}};
    for (auto c : cases) {
        ops()->on_update_mod_freq(drv_, c.f, 0);
        const uint32_t r = tevix::epc::range_mm(c.f);
        ASSERT_EQ(decode(raw, 0, out, info), k_full);
        EXPECT_EQ(out[100 * k_w + 100], (c.phase * r) >> 15) << c.f;
    }
}

TEST_F(epc_fixture, BinningFourGivesHalfWidthQuarterHeight) {
    log_capture log;
    open();
    tevix_roi_t roi{0, 239, 0, 319, 4, {}};
    ops()->on_update_roi(drv_, &roi);
    EXPECT_EQ(p()->width, 160u);
    EXPECT_EQ(p()->height, 60u);
    EXPECT_EQ(p()->roi_w, 320u);
    EXPECT_EQ(log.count("roi updated: 160x60 @ (0, 0), binning=4"), 1);
    EXPECT_EQ(p()->bpf.width, 160u);
    roi.binning = 2;
    ops()->on_update_roi(drv_, &roi);
    EXPECT_EQ(p()->width, 80u);
    EXPECT_EQ(p()->height, 60u);
    roi.binning = 5;
    ops()->on_update_roi(drv_, &roi);
    EXPECT_EQ(log.count("roi wrong mode: 5"), 1);
    EXPECT_EQ(p()->width, 80u);
}

TEST_F(epc_fixture, ModulationFrequency) {
    log_capture log;
    open_20mhz();
    EXPECT_EQ(p()->range, 7494u);
    EXPECT_EQ(p()->freq, 20000000u);
    EXPECT_EQ(p()->c3_ph, 295u * 32768u / 7494u);
    EXPECT_EQ(log.count("MOD_FREQ change: [0, 0] -> [20000000, 0] HZ"), 1);
    ops()->on_update_mod_freq(drv_, 30000000, 60000000);
    EXPECT_EQ(log.count("MOD_FREQ [30000000, 60000000] HZ not support"), 1);
    EXPECT_EQ(p()->freq, 20000000u);
    cam().set_u32(TEVIX_PARAM_MOD_FREQ, 12000000);
    EXPECT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    EXPECT_EQ(p()->range, 12491u);
    EXPECT_EQ(log.count("MOD_FREQ [12000000, 0] HZ: try loading calib data"), 1);
    // The system calibration is read again after every frequency change, a dual one too.
    set_sys_calib(1.5f, 3.0f);
    ops()->on_update_mod_freq(drv_, 20000000, 40000000);
    EXPECT_EQ(p()->sys_scale, 1.5f);
    EXPECT_EQ(p()->sys_offset, 3.0f);
}

// Opening allocates the driver's buffers, not an undistortion map of its own: the frame access
// keeps the device's map.
TEST_F(epc_fixture, InitAllocatesNoUndistortionMap) {
    const size_t before = mallinfo2().uordblks;
    open();
    const size_t taken = mallinfo2().uordblks - before;
    // Bilateral state and grey buffer come to less than one 320x240 map (two float positions
    // and a nearest index per pixel), which opening used to build besides them.
    EXPECT_LT(taken, size_t{k_n} * 3 * sizeof(float)) << taken;
}

TEST_F(epc_fixture, DecodeRejectsBadInput) {
    log_capture log;
    open_20mhz();
    auto raw = _frame(2, 4, k_flat);
    tevix_frame_info_t info = info_of(raw);
    std::vector<uint16_t> out(k_n);
    auto *o = reinterpret_cast<uint8_t *>(out.data());
    EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 3, raw.data(), 614400, &info), -1);
    EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 0, nullptr, 614400, &info), -1);
    EXPECT_EQ(ops()->frame_decode(drv_, nullptr, k_n * 2, 0, raw.data(), 614400, &info), -1);
    EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 0, raw.data(), 614400, nullptr), -1);
    EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2 - 1, 0, raw.data(), 614400, &info), -1);
    EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 0, raw.data(), 614399, &info), -1);
    for (uint16_t fmt : {0, 8, 11, 171, 3}) {
        tevix_frame_info_t other = info;
        other.format = fmt;
        EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 1, raw.data(), 614400, &other), -1);
    }
    EXPECT_EQ(log.count("Calibration data frame,size:614400"), 1);
    tevix_frame_info_t huge = info;
    huge.width = 65535;
    huge.height = 65535;
    EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 1, raw.data(), 614400, &huge), -1);
    huge.width = 0;
    EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 1, raw.data(), 614400, &huge), -1);
    EXPECT_EQ(ops()->frame_decode(drv_, o, k_n * 2, 0, raw.data(), 614400, &info), k_full);
}

TEST_F(epc_fixture, ConsistencyCheckWritesOncePerSecond) {
    open_20mhz();
    ASSERT_TRUE(enable(6));
    const uint16_t bad[4] = {1000, 1000, 1000, 1000};
    auto raw = _frame(2, 4, bad);
    tevix_frame_info_t info = info_of(raw);
    std::vector<uint16_t> out;
    // The time of the last write is process-wide: decode until the once-a-second write comes
    // (at most a second after any earlier one), then the next decode within the second passes.
    int32_t refused = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (cam().writes_of(TEVIX_PARAM_CONSIST).empty() && std::chrono::steady_clock::now() < until)
        refused = decode(raw, 0, out, info);
    const auto writes = cam().writes_of(TEVIX_PARAM_CONSIST);
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(refused, -1);
    EXPECT_EQ(writes[0][0], 0);
    EXPECT_EQ(writes[0][2], 1);  // the flag byte of value 0
    EXPECT_EQ(decode(raw, 0, out, info), k_full);
    EXPECT_EQ(cam().writes_of(TEVIX_PARAM_CONSIST).size(), 1u);
    const uint16_t good[4] = {2000, 2000, 2050, 2100};
    auto ok = _frame(2, 4, good);
    EXPECT_EQ(decode(ok, 0, out, info_of(ok)), k_full);
}

// The smoothing (median, then bilateral) and the flying-pixel filter change the kind-1 result
// exactly as the routines do on the unfiltered result of a frame without holes or gated pixels.
TEST_F(epc_fixture, SmoothingAndFlyingPixelFiltersRunInTheChain) {
    open_20mhz();
    tevix::emu::scene_config cfg;
    cfg.noise = true;
    cfg.seed = 5;
    tevix::emu::scene_renderer scene(cfg, 2);
    const auto raw = tevix::test::render(scene, 0);
    ASSERT_TRUE(ops()->filter_disable(drv_, 4));  // no minimum amplitude: no holes to fill
    const tevix_frame_info_t info = info_of(raw);
    std::vector<uint16_t> plain, got;
    ASSERT_GT(decode(raw, 1, plain, info), 0);
    ASSERT_EQ(std::count(plain.begin(), plain.end(), uint16_t{0}), 0);

    ASSERT_TRUE(enable(2));  // the default variant: median 5x5
    ASSERT_EQ(p()->smooth_level, 5);
    ASSERT_GT(decode(raw, 1, got, info), 0);
    std::vector<uint16_t> want = plain, tmp(k_n);
    ASSERT_TRUE(vx_median2d_u16(want.data(), k_w, k_h, 5));
    vx_bpf2d_iir_t bpf{};
    ASSERT_TRUE(
        vx_bpf2d_iir_init(&bpf, k_w, k_h, p()->bpf_ss, p()->bpf_sr, p()->bpf_min, p()->bpf_max));
    vx_bpf2d_iir(&bpf, tmp.data(), want.data(), k_w, k_h);
    vx_bpf2d_iir_uninit(&bpf);
    ASSERT_TRUE(vx_fhole_u16_k3(tmp.data(), k_w, k_h, 0));
    EXPECT_NE(got, plain);
    EXPECT_EQ(got, tmp);
    ASSERT_TRUE(ops()->filter_disable(drv_, 2));

    ASSERT_TRUE(enable(13, {.u8 = {20}}));
    ASSERT_GT(decode(raw, 1, got, info), 0);
    want = plain;
    ASSERT_TRUE(vx_flypix_u16_k3(want.data(), k_w, k_h, 11));
    ASSERT_TRUE(vx_fhole_u16_k3(want.data(), k_w, k_h, 0));
    EXPECT_NE(got, plain);
    EXPECT_EQ(got, want);
}

// A mounted block for freq whose phase table adds lut_mm everywhere; the calibration temperatures
// are the driver's current ones (no drift).
void _mount(tevix::epc::epc_priv *p, uint32_t freq, int16_t lut_mm) {
    auto b = std::make_unique<tevix::epc::calib_block>();
    b->freq = freq;
    b->noneed_calc_coeff = 1;
    b->t_cb = p->tcb;
    b->t_ib = p->tib;
    b->lut.assign(tevix::epc::k_phase_lut, lut_mm);
    p->slot.block = std::move(b);
    p->calib_mounted = 1;
}

// The 160x60 sensor is read out in image order: nothing is reordered, and the calibrated decode
// handles the 4-plane, 2-plane and 1-plane layouts (words 516, 770, 769) alike.
TEST_F(epc_fixture, SensorModeFourKeepsRowOrderAndItsLayoutWords) {
    open("CAM-E5-R2", 8);
    ops()->on_update_mod_freq(drv_, 20000000, 0);
    constexpr uint32_t w = 160, h = 60, n = w * h;
    const uint16_t base[4] = {1948, 2048, 2148, 2048};  // 3747 mm
    auto raw = _frame(2, 4, base, 300, 350, 1, w, h);
    const uint16_t other[4] = {2048, 2148, 2048, 1948};
    for (uint32_t p4 = 0; p4 < 4; ++p4)
        for (uint32_t x = 0; x < w; ++x)
            std::memcpy(raw.data() + 2 * (p4 * n + 7 * w + x), &other[p4], 2);
    std::vector<uint16_t> out;
    ASSERT_GT(decode(raw, 0, out, info_of(raw)), 0);
    EXPECT_EQ(out[7 * w + 40], out[7 * w + 41]);
    EXPECT_NE(out[7 * w + 40], 3747);  // sensor row 7 is image row 7
    EXPECT_EQ(out[8 * w + 40], 3747);
    const uint16_t lit[4] = {1948, 1948, 2148, 2148};  // every plane pair sees the light
    for (auto [format, planes, word] : {std::tuple{2, 4u, 516}, {1, 2u, 770}, {4, 1u, 769}}) {
        auto f = _frame(static_cast<uint16_t>(format), planes, lit, 300, 350, 1, w, h);
        const tevix_frame_info_t info = info_of(f);
        p()->calib_mounted = 0;
        ASSERT_GT(decode(f, 1, out, info), 0);
        const int plain = out[30 * w + 80];
        ASSERT_TRUE(plain > 0 && plain < 65500) << "layout " << word;
        _mount(p(), 20000000, 100);
        ASSERT_GT(decode(f, 1, out, info), 0);
        EXPECT_NEAR(out[30 * w + 80], plain + 100, 1) << "layout " << word;
    }
}

// Grey of the frame whose distances were just decoded comes from their confidences; of any other
// frame from its planes, which give half the scene's amplitude.
TEST_F(epc_fixture, GreyFromConfidenceCacheAndFromPlanes) {
    log_capture log;
    open_20mhz();
    const uint16_t d[4] = {1998, 2018, 2098, 2078};  // x = 100, y = 60
    auto raw = _frame(2, 4, d);
    tevix_frame_info_t info = info_of(raw);
    std::vector<uint16_t> dist, grey;
    ASSERT_GT(decode(raw, 0, dist, info), 0);
    ASSERT_EQ(decode(raw, 2, grey, info), k_full);
    EXPECT_EQ(grey[100 * k_w + 50], 117);  // fast_sqrt(13600)
    EXPECT_EQ(log.count("use confid hash to calc gray"), 1);
    tevix_frame_info_t next = info;
    next.index++;
    ASSERT_EQ(decode(raw, 2, grey, next), k_full);
    EXPECT_EQ(grey[100 * k_w + 50], 58);  // fast_sqrt(13600 >> 2)
    EXPECT_EQ(log.count("use confid hash to calc gray"), 1);

    tevix::emu::scene_renderer scene(tevix::emu::scene_config{}, 2);
    raw = tevix::test::render(scene, 0);
    ASSERT_GT(decode(raw, 2, grey, info_of(raw)), 0);
    for (uint32_t i = 0; i < k_n; i += 131) {
        if (scene.under_header(i % k_w, i / k_w)) continue;
        ASSERT_NEAR(grey[i], scene.amplitude()[i] / 2, scene.amplitude()[i] * 0.04 + 2) << i;
    }
}

TEST_F(epc_fixture, HdrMergeOnlyForKindOne) {
    open_20mhz();
    cam().param_writes.clear();
    ASSERT_TRUE(enable(8, {.u16 = {400, 100}}));
    ASSERT_EQ(cam().param_writes.size(), 2u);
    EXPECT_EQ(cam().param_writes[0].first, TEVIX_PARAM_INTG1);
    EXPECT_EQ(_u16(cam().param_writes[0].second), 400);
    EXPECT_EQ(cam().param_writes[1].first, TEVIX_PARAM_INTG2);
    EXPECT_EQ(_u16(cam().param_writes[1].second), 100);
    // Rows of the first integration time: x = 200, y = 0 (amplitude 200); of the second:
    // x = 0, y = -600 (amplitude 600, chosen).
    const uint16_t a[4] = {1948, 2048, 2148, 2048}, b[4] = {2048, 2348, 2048, 1748};
    auto raw = _frame(2, 4, a);
    for (uint32_t p = 0; p < 4; ++p)  // sensor rows 2 and 3 of every four
        for (uint32_t i = 0; i < k_n; ++i)
            if (i / k_w % 4 >= 2) std::memcpy(raw.data() + 2 * (p * k_n + i), &b[p], 2);
    tevix_frame_info_t info = info_of(raw);
    const uint16_t da = static_cast<uint16_t>((16384u * 7494u) >> 15);
    const uint16_t db = static_cast<uint16_t>((8192u * 7494u) >> 15);
    std::vector<uint16_t> out;
    ASSERT_GT(decode(raw, 0, out, info), 0);
    EXPECT_EQ(out[119 * k_w + 50], da);  // sensor row 0
    EXPECT_EQ(out[118 * k_w + 50], db);  // sensor row 2
    ASSERT_GT(decode(raw, 1, out, info), 0);
    EXPECT_EQ(out[119 * k_w + 50], db);
    EXPECT_EQ(out[118 * k_w + 50], db);
    EXPECT_EQ(out[120 * k_w + 50], db);
    ASSERT_TRUE(enable(8, {.u32 = {23205}}));  // the setting that leaves frames unmerged
    ASSERT_GT(decode(raw, 1, out, info), 0);
    EXPECT_EQ(out[119 * k_w + 50], da);
    cam().fail_param_set = true;
    log_capture log;
    EXPECT_FALSE(ops()->filter_disable(drv_, 8));
    EXPECT_EQ(log.count("disable HDR failed"), 1);
    cam().fail_param_set = false;
    EXPECT_TRUE(ops()->filter_disable(drv_, 8));
    EXPECT_EQ(p()->hdr, 0);
}

// Post-processing order: an isolated low-amplitude pixel is cleared by the minimum-amplitude
// filter and then filled by the hole filling; an isolated pixel at 50 mm is cleared by the range
// gate, which runs last, so it stays 0. In any other order one of the two would differ.
TEST_F(epc_fixture, PostProcessingOrderAndPingPong) {
    open_20mhz();
    const uint16_t base[4] = {1948, 2048, 2148, 2048};  // x = 200, y = 0: 3747 mm
    const uint16_t weak[4] = {2038, 2048, 2058, 2048};  // x = 20: confidence 400 < 900
    const uint16_t near[4] = {2248, 2056, 1848, 2039};  // x = -400, y = -17: phase 221, 50 mm
    auto raw = _frame(2, 4, base);
    _set_pixel(raw, 50, 50, weak);
    _set_pixel(raw, 80, 80, near);
    tevix_frame_info_t info = info_of(raw);
    std::vector<uint16_t> k0, k1;
    ASSERT_GT(decode(raw, 0, k0, info), 0);
    EXPECT_EQ(k0[50 * k_w + 50], 3747);
    EXPECT_EQ(k0[80 * k_w + 80], 50);
    ASSERT_EQ(decode(raw, 1, k1, info), k_full);
    EXPECT_EQ(k1[50 * k_w + 50], 3747);
    EXPECT_EQ(k1[80 * k_w + 80], 0);
    EXPECT_EQ(k1[10 * k_w + 10], 3747);

    // Minimum amplitude off: the weak pixel keeps its own value, and with one stage fewer the
    // result still lands in the output buffer.
    ASSERT_TRUE(ops()->filter_disable(drv_, 4));
    ASSERT_EQ(decode(raw, 1, k1, info), k_full);
    EXPECT_EQ(k1[50 * k_w + 50], 3747);
    EXPECT_EQ(k1[80 * k_w + 80], 0);
    EXPECT_EQ(k1[10 * k_w + 10], 3747);
    EXPECT_EQ(std::count(k1.begin(), k1.end(), 0xEEEE), 0);
}

// Without frame caching distance frames pass raw-frame processing untouched. Grey frames from the
// device are scaled into the grey buffer by the frame count (switched off: zeros), which grows
// for a larger frame.
TEST_F(epc_fixture, GreyFrameFromTheDeviceAndNoFrameCache) {
    log_capture log;
    open();
    auto flat = _frame(2, 4, k_flat);
    tevix_frame_info_t flat_info = info_of(flat);
    EXPECT_EQ(ops()->frame_raw_proc(drv_, flat.data(), 1, &flat_info), 0);  // bfps off
    std::vector<uint8_t> cached(flat.size());
    EXPECT_FALSE(ops()->need_data(drv_, cached.data(), 1, &flat_info));

    const uint16_t d[1] = {2048 + 1000};
    auto raw = _frame(11, 1, d);
    tevix_frame_info_t info = info_of(raw);
    // Pixel 500 of the grey buffer after processing the frame.
    auto grey = [&] {
        EXPECT_EQ(ops()->frame_raw_proc(drv_, raw.data(), 1, &info), 56506);
        int16_t g;
        std::memcpy(&g, p()->grey + 2 * 500, 2);
        return g;
    };
    EXPECT_EQ(grey(), 5);  // (3048 - 2048) / 200
    ops()->on_update_frame_count(drv_, 0);
    EXPECT_EQ(p()->grey_div, 1);
    ASSERT_TRUE(ops()->filter_disable(drv_, 12));
    EXPECT_EQ(grey(), 0);  // switch off: scaled by 0
    ASSERT_TRUE(enable(12, {.u16 = {10}}));
    EXPECT_EQ(grey(), 100);
    // A larger grey frame grows the buffer.
    const uint16_t d2[2] = {3048, 3048};
    auto big = _frame(11, 2, d2);
    std::memcpy(big.data() + 6, "\x0b\x00", 2);
    tevix_frame_info_t binfo = info_of(big);
    EXPECT_EQ(ops()->frame_raw_proc(drv_, big.data(), 1, &binfo), 56506);
    EXPECT_EQ(p()->grey_size, 307200u);
    EXPECT_EQ(log.count("change gray size to 307200"), 1);
    EXPECT_EQ(ops()->frame_raw_proc(drv_, raw.data(), 2, &info), 0);
    EXPECT_EQ(ops()->frame_raw_proc(drv_, nullptr, 1, &info), 0);
}

// Binned frame rates show each frame four times, a quarter of the next one more each time; a
// frame of another size reallocates the cache once.
TEST_F(epc_fixture, FrameCachingShowsEachFrameFourTimes) {
    log_capture log;
    open("CAM-E3-R1", 3);
    ops()->on_update_fps(drv_, 30);
    auto a = _frame(2, 4, k_flat);
    tevix_frame_info_t info = info_of(a);
    const uint32_t fs = info.size, q = fs / 4;
    std::vector<uint8_t> fa(fs, 0x11), fb(fs, 0x22);
    std::vector<uint8_t> out(fs);
    tevix_frame_info_t got{};
    auto check = [&](const std::vector<uint8_t> &buf, uint32_t new_bytes) {
        for (uint32_t i = 0; i < fs; i += 997) ASSERT_EQ(buf[i], i < new_bytes ? 0x22 : 0x11) << i;
    };
    EXPECT_EQ(ops()->frame_raw_proc(drv_, fa.data(), 1, &info), 0);
    check(fa, 0);
    EXPECT_FALSE(ops()->need_data(drv_, out.data(), 1, &got));
    tevix_frame_info_t info_b = info;
    info_b.index++;
    info_b.ts_usec = 999000;
    EXPECT_EQ(ops()->frame_raw_proc(drv_, fb.data(), 1, &info_b), 0);
    check(fb, q);
    EXPECT_FALSE(ops()->need_data(drv_, out.data(), 0, &got));
    ASSERT_TRUE(ops()->need_data(drv_, out.data(), 1, &got));
    check(out, 2 * q);
    EXPECT_EQ(got.index, info_b.index);
    EXPECT_EQ(got.ts_sec, info_b.ts_sec + 1);  // 999000 us + 7 ms carries
    EXPECT_EQ(got.ts_usec, 6000u);
    ASSERT_TRUE(ops()->need_data(drv_, out.data(), 1, &got));
    check(out, 3 * q);
    EXPECT_EQ(got.ts_usec, 13000u);
    ASSERT_TRUE(ops()->need_data(drv_, out.data(), 1, &got));
    check(out, fs);
    EXPECT_FALSE(ops()->need_data(drv_, out.data(), 1, &got));

    auto small = _frame(2, 4, k_flat, 300, 350, 1, 160, 120);
    tevix_frame_info_t si = info_of(small);
    ops()->frame_raw_proc(drv_, small.data(), 1, &si);
    ops()->frame_raw_proc(drv_, small.data(), 1, &si);
    EXPECT_EQ(p()->bfps_fs, small.size());
    EXPECT_EQ(p()->bfps_len, 2 * small.size());
    EXPECT_EQ(log.count("realloc bfps buffer since frame size changed : 614400 -> 153600"), 1);
    // Sport mode and low frame rates bypass the cache.
    ops()->on_update_fps(drv_, 10);
    tevix_frame_info_t tmp{};
    ops()->frame_get_info(drv_, &tmp, a.data());
    EXPECT_EQ(ops()->frame_raw_proc(drv_, fa.data(), 1, &info), 1);
}

TEST_F(epc_fixture, FilterSwitches) {
    log_capture log;
    open();
    EXPECT_FALSE(enable(15));
    EXPECT_FALSE(enable(3));
    EXPECT_FALSE(ops()->filter_disable(drv_, 3));
    EXPECT_FALSE(ops()->filter_disable(drv_, 15));

    for (uint8_t level : {0, 1, 2}) {
        cam().param_writes.clear();
        ASSERT_TRUE(enable(10, {.u8 = {level}})) << int(level);
        ASSERT_EQ(cam().writes_of(TEVIX_PARAM_FRM_FMT).size(), 1u);
        EXPECT_EQ(cam().writes_of(TEVIX_PARAM_FRM_FMT)[0][0], level == 0 ? 1 : level == 1 ? 4 : 2);
        EXPECT_EQ(p()->sport_level, level);
    }
    EXPECT_FALSE(enable(10, {.u8 = {3}}));
    EXPECT_EQ(log.count("wrong SPORT MODE: 3"), 1);
    ASSERT_TRUE(ops()->filter_disable(drv_, 10));
    EXPECT_EQ(p()->sport, 0);
    EXPECT_EQ(param_u32(TEVIX_PARAM_FRM_FMT), 2u);
    cam().fail_param_set = true;
    EXPECT_FALSE(enable(10, {.u8 = {1}}));
    EXPECT_EQ(log.count("enable SPORT MODE 1 failed"), 1);
    EXPECT_FALSE(enable(8));
    EXPECT_EQ(log.count("enable HDR failed"), 1);
    cam().fail_param_set = false;

    EXPECT_FALSE(enable(11));
    EXPECT_EQ(log.count("Sys calib param not valid"), 1);
    set_sys_calib(1.5f, -2.0f);
    EXPECT_TRUE(enable(11));
    EXPECT_EQ(p()->sys_scale, 1.5f);
    EXPECT_EQ(p()->sys_offset, -2.0f);

    ASSERT_TRUE(enable(13, {.u8 = {200}}));
    EXPECT_EQ(p()->flypix_level, 31);
    ASSERT_TRUE(enable(9, {.s16 = {-25}}));
    EXPECT_EQ(p()->offset_mm, -25);
    EXPECT_EQ(log.count("offset_mm: 0 -> -25"), 1);

    // Smoothing variant 240: the strength picks the median level; the reversed range pair
    // cannot build a bilateral filter.
    ASSERT_TRUE(enable(2, {.u8 = {240, 50}}));
    EXPECT_EQ(p()->smooth, 1);
    EXPECT_EQ(p()->smooth_level, 3);
    EXPECT_EQ(p()->bpf_sr, 0.05f);
    EXPECT_EQ(p()->bpf_min, 4096);
    EXPECT_EQ(p()->bpf_max, 0);
    EXPECT_EQ(log.count("vx_bpf2d_iir_init failed"), 1);
    ASSERT_TRUE(enable(2, {.u8 = {240, 80}}));
    EXPECT_EQ(p()->smooth_level, 5);
    ASSERT_TRUE(enable(2, {.u8 = {240, 5}}));
    EXPECT_EQ(p()->smooth, 0);
    EXPECT_EQ(p()->smooth_level, 0);
    ASSERT_TRUE(ops()->filter_disable(drv_, 2));
    EXPECT_EQ(p()->smooth_strength, 0);

    ops()->on_update_intg_time(drv_, 500, 1);
    EXPECT_EQ(log.count("intg2: 500, hdr_en=1"), 1);
    ops()->on_update_frame_format(drv_, 4);
    EXPECT_EQ(p()->sport_level, 1);
    ops()->on_update_frame_format(drv_, 2);
    EXPECT_EQ(p()->sport, 0);
    EXPECT_EQ(ops()->reserved9(drv_), 0);
    EXPECT_EQ(ops()->reserved19(drv_), 1);
}

// Each layout and decode kind against the scene's truth, noiseless and with shot noise. One plane
// (format 4) pairs neighbouring rows, so edges blur; two (format 1) decode the frequency's pair.
TEST_F(epc_fixture, SceneRoundTrips) {
    open_20mhz();
    const struct {
        const char *name;
        bool noise;
        uint16_t format;
        uint32_t kind;
        uint32_t valid_pm;  // valid pixels at least, per mille
        double max, mean, p95;
    } cases[] = {
        {"noiseless 4-plane", false, 2, 1, 990, 2, 1e9, 1e9},
        {"noiseless 4-plane, kind 0", false, 2, 0, 1000, 2, 1e9, 1e9},
        {"noisy 4-plane", true, 2, 1, 950, 1e9, 20, 50},
        {"2-plane", false, 1, 0, 1000, 3, 1e9, 1e9},
        {"1-plane", false, 4, 0, 950, 1e9, 1e9, 50},
    };
    for (const auto &c : cases) {
        tevix::emu::scene_config cfg;
        cfg.noise = c.noise;
        cfg.seed = 11;
        const tevix::test::accuracy rt = round_trip(cfg, c.format, c.kind);
        std::cout << c.name << ": valid " << rt.valid << "/" << rt.checked << ", mean " << rt.mean
                  << " mm, p95 " << rt.p95 << " mm, max " << rt.max << " mm\n";
        EXPECT_GE(uint64_t{rt.valid} * 1000, uint64_t{rt.checked} * c.valid_pm) << c.name;
        EXPECT_LE(rt.max, c.max) << c.name;
        EXPECT_LT(rt.mean, c.mean) << c.name;
        EXPECT_LT(rt.p95, c.p95) << c.name;
    }
}

// A unit with its systematic errors: without calibration the decoded distances are off by
// exactly those errors (per pixel, cyclic, temperature), different for each unit, the same for
// the same one.
TEST_F(epc_fixture, SceneUnitErrorsShowUncalibrated) {
    open_20mhz();
    tevix::emu::scene_config cfg;
    cfg.unit_errors = true;
    cfg.unit_seed = 0x56583031;
    EXPECT_GT(round_trip(cfg, 2, 0).mean, 5.0);  // centimetre-scale errors, as before a calibration
    tevix::emu::scene_renderer a(cfg, 2), b(cfg, 2);
    cfg.unit_seed ^= 1;
    tevix::emu::scene_renderer c(cfg, 2);
    EXPECT_EQ(a.errors().pixel_mm, b.errors().pixel_mm);
    EXPECT_NE(a.errors().pixel_mm, c.errors().pixel_mm);
    // The error model itself: the cyclic part swings over the phase, the drift with temperature.
    const auto &e = a.errors();
    const double range = tevix::epc::range_mm(20000000);
    EXPECT_NE(e.at(0, 1000, range, 350, 420), e.at(0, 1000 + range / 16, range, 350, 420));
    // The cyclic part follows the phase the other errors lead to: 10 C warmer reads as the
    // distance the drift adds would.
    const double drift = 10 * e.drift_board_mm;
    EXPECT_NEAR(e.at(0, 1000, range, 450, 420), e.at(0, 1000 + drift, range, 350, 420) + drift,
                1e-9);
}

// ---- Calibration files: blocks per frequency, the frequency decision at load, the composition.

struct block_args {
    uint32_t freq;
    int16_t lut_mm = 0;
    int16_t pix_mm = 0;  // with a per-pixel table of k_w x k_h when non-zero
    uint8_t noneed = 1;
    int32_t scale_um = 1000, offset_mm = 0;
};

// A block payload in the camera maker's layout (epc_calib.h): the 37-byte driver header, then the
// phase table and the per-pixel table.
std::vector<uint8_t> _block(const block_args &b) {
    std::vector<uint8_t> v;
    auto add = [&](auto... x) {
        (v.insert(v.end(), reinterpret_cast<const uint8_t *>(&x),
                  reinterpret_cast<const uint8_t *>(&x + 1)),
         ...);
    };
    const uint16_t w = b.pix_mm ? k_w : 0, h = b.pix_mm ? k_h : 0;
    // Frequency, version, time stamp, coefficients fitted, box length, temperatures, scale,
    // offset, temperature coefficients, table size and the tables present.
    add(b.freq, uint8_t{1}, uint32_t{77}, b.noneed, uint16_t{1200}, int16_t{300}, int16_t{350});
    add(b.scale_um, b.offset_mm, 13.78f, 1.183f, w, h, uint8_t(1 | (b.pix_mm ? 2 : 0)));
    for (uint32_t i = 0; i < tevix::epc::k_phase_lut; ++i) add(b.lut_mm);
    for (uint32_t i = 0; b.pix_mm && i < k_n; ++i) add(b.pix_mm);
    return v;
}

class epc_calib_file : public epc_fixture {
  protected:
    void SetUp() override {
        open();
        use_param_dir();
        cam().set_u32(TEVIX_PARAM_MOD_FREQ, 20000000);
        set_dev_info(1, 50);  // the device's copy is older than the local file's (ts 100)
    }
    void set_dev_info(uint8_t valid, uint32_t ts) {
        std::array<uint8_t, 18> v{};
        v[0] = valid;
        v[1] = valid;  // data present
        v[2] = 181;
        std::memcpy(v.data() + 12, &ts, 4);
        cam().params[TEVIX_PARAM_CALIB_INFO] = v;
    }
    int centre(uint32_t kind = 1) {
        const uint16_t d[4] = {1948, 2048, 2148, 2048};
        auto raw = _frame(2, 4, d);
        tevix_frame_info_t info = info_of(raw);
        std::vector<uint16_t> out;
        EXPECT_GT(decode(raw, kind, out, info), 0);
        return out[100 * k_w + 100];
    }
};

TEST_F(epc_calib_file, BlocksMountPerFrequency) {
    write_container({{1, _block({20000000, 50, 7})}, {1, _block({30000000, -20})}});
    log_capture log;
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    EXPECT_EQ(log.count("adapting to device MOD_FREQ : [20000000, 0] HZ"), 1);
    EXPECT_EQ(log.count("Calib data loaded [freq=20.0, DRNU_LUT]: box_len: 120.0 cm, temp: cb=300, "
                        "ib=350, scale_um/offset_mm = 1000/0"),
              1);
    uint32_t list[4], count = 0;
    ops()->calib_freq_list_get(drv_, list, &count);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(list[1], 30000000u);
    EXPECT_TRUE(tevix::epc::calib_valid(p()));
    EXPECT_NEAR(centre(), 3747 + 50, 1);
    EXPECT_EQ(centre(0), 3747);  // raw distances stay uncalibrated
    ASSERT_TRUE(enable(1));
    EXPECT_NEAR(centre(), 3747 + 57, 1);
    // Sport mode level 1 (format 4) refuses the per-pixel table.
    ops()->on_update_frame_format(drv_, 4);
    EXPECT_FALSE(enable(1));
    ops()->on_update_frame_format(drv_, 2);
    ops()->on_update_mod_freq(drv_, 30000000, 0);
    const int plain30 = int((16384u * tevix::epc::range_mm(30000000)) >> 15);
    EXPECT_NEAR(centre(), plain30 - 20, 1);
    // A frequency the file has no block for: the defaults, said so.
    ops()->on_update_mod_freq(drv_, 12000000, 0);
    EXPECT_EQ(log.count("No calib data : freq=12000000. Use default scale_um/offset_mm = 1000/0"),
              1);
    EXPECT_FALSE(tevix::epc::calib_valid(p()));
    EXPECT_EQ(centre(), int((16384u * tevix::epc::range_mm(12000000)) >> 15));
    EXPECT_FALSE(enable(1));
}

TEST_F(epc_calib_file, LoadDecidesFileAndFrequency) {
    write_container({{1, _block({20000000, 50})}});
    log_capture log;
    // The device holds newer data: the local file is not trusted (and the device's copy
    // cannot be fetched), so the device's frequency runs uncalibrated.
    set_dev_info(1, 200);
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    EXPECT_EQ(log.count("local param (ts=100) is not up-to-date (dev ts=200)"), 1);
    EXPECT_EQ(log.count("---- Load calibration data from device failed"), 1);
    EXPECT_EQ(log.count("calib not valid: set freq to 20000000"), 1);
    EXPECT_FALSE(tevix::epc::calib_valid(p()));

    // A device at a frequency the file lacks is set to the file's.
    set_dev_info(0, 0);
    cam().set_u32(TEVIX_PARAM_MOD_FREQ, 15000000);
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    EXPECT_EQ(log.count("No valid calib data on dev, use local cache!"), 1);
    EXPECT_EQ(log.count("set device freq to calibrated freq: [20000000, 0]"), 1);
    EXPECT_EQ(param_u32(TEVIX_PARAM_MOD_FREQ), 20000000u);
    EXPECT_EQ(p()->freq, 20000000u);
    EXPECT_TRUE(tevix::epc::calib_valid(p()));

    // No file and an unreadable frequency: 12 MHz on the device, defaults.
    std::filesystem::remove(path_);
    cam().fail_param_get = true;
    ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
    cam().fail_param_get = false;
    EXPECT_EQ(log.count("calib not valid: set freq to 12000000"), 1);
    EXPECT_EQ(param_u32(TEVIX_PARAM_MOD_FREQ), 12000000u);
    EXPECT_EQ(p()->range, tevix::epc::range_mm(12000000));
    EXPECT_FALSE(tevix::epc::calib_valid(p()));
}

// A damaged block leaves the defaults, its fault logged: file blocks that do not hold together,
// station measurements that do not add up, and measurements that decide nothing (no valid pixel,
// or one phase everywhere).
TEST_F(epc_calib_file, DamagedBlocksLeaveTheDefaults) {
    auto cut = _block({20000000, 50});
    cut.pop_back();
    tevix::epc::calib_block m;  // two measurements of 4 x 2 pixels, with their index lists
    m.freq = 20000000;
    m.width = 4;
    m.height = 2;
    m.truth_mm = {1000, 2000};
    m.meas_cb = {300, 300};
    m.meas_ib = {350, 350};
    m.phases.assign(16, 4000);
    m.lists = true;
    m.ns = {0};
    m.nf = m.nc = {0, 1};
    const std::vector<uint8_t> good = tevix::epc::block_payload(m);
    const size_t lists_at = good.size() - 8;  // three lists: 1 + 1, 1 + 2, 1 + 2 bytes
    auto damaged = [&](const std::function<void(std::vector<uint8_t> &)> &f) {
        std::vector<uint8_t> v = good;
        f(v);
        return v;
    };
    auto measured = [&](uint16_t phase) {
        tevix::epc::calib_block b = m;
        b.phases.assign(16, phase);
        return tevix::epc::block_payload(b);
    };
    const struct {
        tevix::calib::param_block block;
        const char *line;
    } cases[] = {
        {{1, cut}, "parse calib file failed: payload size does not match its tables"},
        {{2, _block({20000000, 50})}, "wrong blk param type: 2 for (ver"},
        {{1, {1, 2, 3}}, "read par_drv_hdr failed"},
        {{1, _block({20000000, 50, 0, 1, -5})}, "parse calib file failed: scale out of range"},
        {{1, measured(65500)}, "LSR FIT failed: 2 measurements of 4x2"},
        {{1, measured(9000)}, "LSR FIT failed: 2 measurements of 4x2"},
        {{1, damaged([](auto &v) { v.pop_back(); })},
         "payload size does not match its measurements"},
        {{1, damaged([](auto &v) { v[37] = 1; })}, "measurement count out of range"},
        {{1, damaged([](auto &v) { v[37] = 65, v[38] = 0; })}, "measurement count out of range"},
        {{1, damaged([](auto &v) { std::memset(v.data() + 39, 0xFF, 4); })},
         "true distance out of range"},
        {{1, damaged([](auto &v) { v[55] = 2; })}, "unknown geometry"},
        {{1, damaged([&](auto &v) { v[lists_at + 1] = 2; })}, "measurement index out of range"},
        {{1, damaged([&](auto &v) {
              v.resize(lists_at + 2), v.insert(v.end(), {0, 1, 0});
          })},
         "empty measurement list"},
        {{1, damaged([](auto &v) { v[32] = v[33] = 0; })}, "bad table size"},
    };
    for (const auto &c : cases) {
        write_container({c.block});
        log_capture log;
        ASSERT_EQ(ops()->calib_load(drv_, 0, 0, 2), 0);
        // Tried at the device's frequency, for whatever the file offers, at the device's again.
        EXPECT_GE(log.count(c.line), 1) << c.line;
        EXPECT_GE(log.count("No calib data : freq="), 1) << c.line;
        EXPECT_FALSE(tevix::epc::calib_valid(p())) << c.line;
        EXPECT_EQ(centre(), 3747) << c.line;
    }
}

// Scale, the block's offset, the temperature drift since calibration, the system calibration and
// the distance offset, composed in the camera maker's order.
TEST_F(epc_fixture, CalibrationComposition) {
    open_20mhz();
    _mount(p(), 20000000, 10);
    p()->slot.block->scale_um = 1010;
    p()->slot.block->offset_mm = -30;
    p()->slot.block->t_cb = 250;  // 5 C colder board than now
    p()->slot.block->t_ib = 300;  // 5 C colder sensor
    p()->tcb = 300;
    p()->tib = 350;
    p()->sys_scale = 1.5f;
    p()->sys_offset = 3.7f;
    p()->offset_mm = 12;
    std::vector<int32_t> phase = {8192, 0, 32767, int32_t(tevix::epc::k_dist_invalid)};
    tevix::epc::apply_calibration(p(), phase.data(), 4, 1, false);
    const double factor = 1.010 * p()->range / 32768.0;
    const double drift = std::round(double(float(50 * p()->c1) / 10.0f) + 50 * p()->c2 / 10.0);
    for (int i = 0; i < 3; ++i) {
        const int ph = i == 0 ? 8192 : i == 1 ? 0 : 32767;
        const double want = (ph * factor + 10) * 1.5 + 3 - 30 - drift + 12;
        // Taken in float through a table of every phase: within a rounding step.
        EXPECT_NEAR(phase[i], std::clamp(want, 0.0, 65499.0), 1.0) << i;
    }
    EXPECT_EQ(phase[3], int32_t(tevix::epc::k_dist_invalid));

    // Every tier gives the scalar bits, with and without the per-pixel table.
    p()->slot.block->width = 37;
    p()->slot.block->height = 3;
    p()->slot.block->pixels.assign(37 * 3, 0);
    for (size_t i = 0; i < p()->slot.block->pixels.size(); ++i)
        p()->slot.block->pixels[i] = int16_t(int(i * 37 % 200) - 100);
    std::vector<int32_t> phases(37 * 3);
    for (size_t i = 0; i < phases.size(); ++i)
        phases[i] = i % 11 == 0 ? int32_t(tevix::epc::k_dist_invalid) : int32_t(i * 2963 % 32768);
    for (bool pixels : {false, true}) {
        std::vector<int32_t> want = phases, got = phases;
        {
            tevix::simd::scoped_limit cap(tevix::simd::level::scalar);
            tevix::epc::apply_calibration(p(), want.data(), 37, 3, pixels);
        }
        tevix::epc::apply_calibration(p(), got.data(), 37, 3, pixels);
        EXPECT_EQ(got, want) << pixels;
    }
}

// A calibration station's measurements of a flat target (a unit with a scale error, an offset,
// a fixed offset per pixel, a cyclic error and a drift with both temperatures), stored as a
// measurement block, read back and fitted at mount: the calibrated decode gives the true
// distances back at every temperature; data that decide nothing are refused.
TEST(EpcCalibFit, MeasurementsFitIntoTables) {
    const uint32_t freq = 20000000, range = tevix::epc::range_mm(freq), w = 16, h = 8, px = w * h;
    struct meas {
        float target;
        int16_t cb, ib;
    };
    // A distance sweep at the calibration temperatures, then a drift sweep at one distance.
    const std::vector<meas> ms = {{600, 300, 350},  {1100, 300, 350}, {1700, 300, 350},
                                  {2300, 300, 350}, {2900, 300, 350}, {3600, 300, 350},
                                  {4300, 300, 350}, {5000, 300, 350}, {2300, 350, 380},
                                  {2300, 400, 470}, {2300, 250, 360}, {2300, 450, 420}};
    const double c1 = 9.5, c2 = 1.7;  // mm per C of board and sensor
    auto ratio = [](size_t i) { return uint16_t(16384 + (i * 97) % 4900); };
    auto truth = [&](const meas &m, size_t i) { return m.target * (ratio(i) / 16384.0); };
    // What the unit adds to the line at a phase and temperature.
    auto error_of = [&](size_t i, double phase, const meas &m) {
        const double a = 4.0 * 2.0 * M_PI * phase / 32768.0;
        return double(int(i % 7) * 6 - 18) + 9.0 * std::sin(a + 0.4) + c1 * (m.cb - 300) / 10.0 +
               c2 * (m.ib - 350) / 10.0;
    };
    tevix::epc::calib_block b;
    b.freq = freq;
    b.ts = 9;
    b.width = w;
    b.height = h;
    b.t_cb = 300;
    b.t_ib = 350;
    b.c1 = 13.78f;
    b.c2 = 1.183f;
    for (size_t i = 0; i < px; ++i) b.ratio.push_back(ratio(i));
    for (const meas &m : ms) {
        b.truth_mm.push_back(m.target);
        b.meas_cb.push_back(m.cb);
        b.meas_ib.push_back(m.ib);
        for (size_t i = 0; i < px; ++i) {
            if (i == 37) {
                b.phases.push_back(65500);  // a pixel that never sees the target
                continue;
            }
            // true = 1.02 x measured - 25 - error: solved for the phase by iteration.
            double phase = truth(m, i) * 32768.0 / range;
            for (int it = 0; it < 20; ++it)
                phase = (truth(m, i) + 25.0 + error_of(i, phase, m)) / 1.02 * 32768.0 / range;
            b.phases.push_back(uint16_t(std::lround(phase)));
        }
    }
    const std::vector<uint16_t> phases = b.phases;
    // Through the payload and back, first with the lists (the drift sweep out of the pixels' and
    // the sine's fits), then without (every fit takes all).
    for (bool lists : {true, false}) {
        tevix::epc::calib_block m = b;
        m.lists = lists;
        m.ns = m.nc = {0, 1, 2, 3, 4, 5, 6, 7};
        m.nf = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
        tevix::epc::calib_block f;
        const char *why = nullptr;
        ASSERT_TRUE(tevix::epc::parse_block(tevix::epc::block_payload(m), f, &why)) << why;
        EXPECT_EQ(f.lists, lists);
        EXPECT_EQ(f.phases, phases);
        log_capture log;
        ASSERT_TRUE(tevix::epc::calc_coeff(f));
        EXPECT_EQ(log.count("No Ns/Nf/Nc in calib data: use default Nc=arange(12)"), lists ? 0 : 1);
        EXPECT_EQ(log.count("LSR FIT (r="), 1);
        EXPECT_EQ(log.count("MLF FIT (r="), 1);
        EXPECT_EQ(log.count("SIN FIT (r="), 1);
        EXPECT_EQ(log.count("bad pixel blks: cnt = 1, fixed to use global (s, o)"), 1);
        EXPECT_NEAR(f.scale_um, 1020, 2) << lists;
        EXPECT_NEAR(f.offset_mm, -25, 4) << lists;
        EXPECT_NEAR(f.c1, c1, 0.3) << lists;
        EXPECT_NEAR(f.c2, c2, 0.3) << lists;
        ASSERT_EQ(f.lut.size(), tevix::epc::k_phase_lut);
        ASSERT_EQ(f.pixels.size(), size_t{px});
        EXPECT_EQ(f.pixels[37], 0);  // never seen: the line alone
        // The fitted tables survive the payload too.
        tevix::epc::calib_block again;
        ASSERT_TRUE(tevix::epc::parse_block(tevix::epc::block_payload(f), again, &why)) << why;
        EXPECT_EQ(again.pixels, f.pixels);
        EXPECT_EQ(again.lut, f.lut);

        // Decoding the measured phases at their temperatures gives the truth.
        tevix::epc::epc_priv p;
        p.range = range;
        p.freq = freq;
        p.c1 = f.c1;
        p.c2 = f.c2;
        p.slot.block = std::make_unique<tevix::epc::calib_block>(f);
        p.calib_mounted = 1;
        double worst = 0;
        for (size_t k = 0; k < ms.size(); ++k) {
            p.tcb = ms[k].cb;
            p.tib = ms[k].ib;
            std::vector<int32_t> d(phases.begin() + k * px, phases.begin() + (k + 1) * px);
            tevix::epc::apply_calibration(&p, d.data(), w, h, true);
            for (size_t i = 0; i < px; ++i)
                if (i != 37) worst = std::max(worst, std::abs(d[i] - truth(ms[k], i)));
            EXPECT_EQ(d[37], 65500);
        }
        EXPECT_LE(worst, 3.0) << lists;
    }
}

}  // namespace
