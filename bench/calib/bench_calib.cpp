// Distance calibration costs for a 320x240 camera: a calibration block applied to the decoded
// phases of a frame (the calibrated decode's own share, against its scalar tier), and mounting a
// block from the container on disk, either fitted tables (parse and table build) or a
// calibration station's measurements (the coefficient computation at mount).
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "algo/simd.h"
#include "calib/calib_writer.h"
#include "drivers/drv.h"
#include "drivers/epc/epc_calib.h"
#include "drivers/epc/epc_kernels.h"
#include "drivers/epc_test_backend.h"
#include "tevix/vx_log.h"

namespace {

constexpr uint32_t k_w = 320, k_h = 240, k_n = k_w * k_h, k_freq = 20000000;

// A station's measurements of a unit with a scale error, an offset, pixel offsets, a cyclic
// error and a drift: 15 distances and 5 temperatures, as tevix calibrate takes them.
tevix::epc::calib_block _measured() {
    tevix::epc::calib_block b;
    b.freq = k_freq;
    b.ver = 1;
    b.ts = 1;
    b.width = k_w;
    b.height = k_h;
    b.t_cb = 350;
    b.t_ib = 420;
    b.c1 = 13.78f;
    b.c2 = 1.183f;
    const double range = tevix::epc::range_mm(k_freq);
    for (uint32_t i = 0; i < k_n; ++i) b.ratio.push_back(uint16_t(16384 + (i * 7) % 8000));
    const int16_t temps[][2] = {{300, 370}, {300, 420}, {350, 470}, {400, 470}, {400, 420}};
    for (int k = 0; k < 20; ++k) {
        const float d = k < 15 ? 500.0f + 250.0f * k : 2250.0f;
        const int16_t cb = k < 15 ? 350 : temps[k - 15][0], ib = k < 15 ? 420 : temps[k - 15][1];
        b.truth_mm.push_back(d);
        b.meas_cb.push_back(cb);
        b.meas_ib.push_back(ib);
        for (uint32_t i = 0; i < k_n; ++i) {
            const double t = d * b.ratio[i] / 16384.0;
            const double m = 1.01 * t + 20 + (i % 13) + 9 * std::sin(8 * M_PI * t / range) +
                             12 * (cb - 350) / 10.0 + 1.5 * (ib - 420) / 10.0;
            b.phases.push_back(uint16_t(std::lround(m * 32768 / range)) & 0x7FFF);
        }
        (k < 15 ? b.nc : b.nf).push_back(uint8_t(k));
    }
    b.ns = b.nc;
    b.nf.insert(b.nf.begin(), b.nc.begin(), b.nc.end());
    b.lists = true;
    return b;
}

// The EPC driver on a fake camera, its calibration container in a scratch directory.
struct rig {
    tevix::test::fake_device dev{"VXCAM-E1-R1"};
    tevix_drv_t *drv = &tevix_drv_table()[1];
    std::string dir;

    rig() {
        vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
        drv->ops->init(drv, dev.dev());
        dev.bind(drv);
        drv->ops->on_update_mod_freq(drv, k_freq, 0);
        dir = (std::filesystem::temp_directory_path() / "tevix_bench_calib").string();
        std::filesystem::create_directories(dir);
    }
    ~rig() {
        drv->ops->uninit(drv);
        drv->dev = nullptr;
        std::filesystem::remove_all(dir);
    }
    tevix::epc::epc_priv *p() { return static_cast<tevix::epc::epc_priv *>(drv->priv); }
    // Writes a container of one block and points the driver at it.
    void container(const tevix::epc::calib_block &b) {
        tevix::calib::param_container c;
        c.ts = 1;
        c.blocks = {{tevix::epc::k_block_type, tevix::epc::block_payload(b), {}, {}}};
        const std::string path = dir + "/tevix_param.bin";
        tevix::calib::param_container_write(path, c);
        std::snprintf(p()->param_path, sizeof p()->param_path, "%s", path.c_str());
        p()->local_valid = 1;
    }
    void mount_loop(benchmark::State &state) {
        std::vector<int32_t> phases(k_n, 9000);
        for (auto _ : state) {
            std::lock_guard<std::mutex> lock(p()->calib_mtx);
            tevix::epc::calib_unmount(p());
            if (tevix::epc::calib_mount(p()) != 1) state.SkipWithError("not mounted");
            tevix::epc::apply_calibration(p(), phases.data(), k_w, k_h, true);  // table build
        }
        std::lock_guard<std::mutex> lock(p()->calib_mtx);
        tevix::epc::calib_unmount(p());
    }
};

rig &_rig() {
    static rig r;
    return r;
}

tevix::epc::calib_block &_fitted() {
    static tevix::epc::calib_block b = [] {
        tevix::epc::calib_block f = _measured();
        tevix::epc::calc_coeff(f);
        return f;
    }();
    return b;
}

void _apply(benchmark::State &state, tevix::simd::level l, const char *ref) {
    tevix::simd::scoped_limit cap(l);
    rig &r = _rig();
    r.p()->slot.block = std::make_unique<tevix::epc::calib_block>(_fitted());
    r.p()->calib_mounted = 1;
    std::vector<int32_t> src(k_n), dist(k_n);
    for (uint32_t i = 0; i < k_n; ++i) src[i] = i % 97 == 0 ? 65500 : int32_t(i * 2963 % 32768);
    for (auto _ : state) {
        dist = src;
        tevix::epc::apply_calibration(r.p(), dist.data(), k_w, k_h, true);
        benchmark::ClobberMemory();
    }
    r.p()->slot = {};
    r.p()->calib_mounted = 0;
    state.SetItemsProcessed(int64_t(state.iterations()) * k_n);
    if (ref) state.SetLabel(std::string("ref=") + ref);
}

void BM_calib_apply(benchmark::State &s) {
    _apply(s, tevix::simd::level::avx2, "BM_calib_apply_scalar");
}
void BM_calib_apply_scalar(benchmark::State &s) {
    _apply(s, tevix::simd::level::scalar, nullptr);
}
BENCHMARK(BM_calib_apply);
BENCHMARK(BM_calib_apply_scalar);

// Mounting fitted tables: container walk, block parse, and the table the decode reads.
void BM_calib_mount_fitted(benchmark::State &state) {
    rig &r = _rig();
    r.container(_fitted());
    r.mount_loop(state);
}
BENCHMARK(BM_calib_mount_fitted)->Unit(benchmark::kMillisecond);

// Mounting a station's measurements: the fits of 20 measurements of 320x240 at every mount.
void BM_calib_mount_measurements(benchmark::State &state) {
    rig &r = _rig();
    r.container(_measured());
    r.mount_loop(state);
}
BENCHMARK(BM_calib_mount_measurements)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
