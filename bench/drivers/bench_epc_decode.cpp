// EPC decode speed on a 320x240 4-plane scene frame: kind 0, the kind-1 chain with default
// filters and with smoothing, grey from the planes and from the confidence cache. Each is set
// against a straightforward scalar reference (float std::atan2 / std::sqrt per pixel), named in
// its label for bench/run.sh. The reduced-layout decode and the HDR merge run at each
// instruction-set tier against their scalar tier.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "algo/simd.h"
#include "drivers/drv.h"
#include "drivers/epc/epc_calib.h"
#include "drivers/epc/epc_kernels.h"
#include "drivers/epc_test_backend.h"
#include "scene/scene.h"
#include "tevix/vx_log.h"

namespace {

constexpr uint32_t k_w = 320, k_h = 240, k_n = k_w * k_h;

struct rig {
    tevix::test::fake_device dev{"VXCAM-E1-R1"};
    tevix_drv_t *drv = &tevix_drv_table()[1];
    std::vector<uint8_t> raw;
    tevix_frame_info_t info{};
    std::vector<uint16_t> out = std::vector<uint16_t>(k_n);

    rig() {
        vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
        drv->ops->init(drv, dev.dev());
        dev.bind(drv);
        drv->ops->on_update_mod_freq(drv, 20000000, 0);
        tevix::emu::scene_config cfg;
        cfg.noise = true;
        raw = tevix::emu::scene_render_frame(cfg, 2, 1);
        drv->ops->frame_get_info(drv, &info, raw.data());
    }
    ~rig() {
        drv->ops->uninit(drv);
        drv->dev = nullptr;
    }
    int32_t decode(uint32_t kind, const tevix_frame_info_t &i) {
        return drv->ops->frame_decode(drv, reinterpret_cast<uint8_t *>(out.data()), k_n * 2, kind,
                                      raw.data(), static_cast<uint32_t>(raw.size()), &i);
    }
};

rig &_rig() {
    static rig r;
    return r;
}

// Frames as items (bench/run.sh prints M items/s and the ratio to the labelled reference).
void _fps(benchmark::State &state, const char *ref = nullptr) {
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    if (ref) state.SetLabel(std::string("ref=") + ref);
    state.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_epc_kind0(benchmark::State &state) {
    rig &r = _rig();
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(0, r.info));
    _fps(state, "BM_ref_distance");
}
BENCHMARK(BM_epc_kind0);

void BM_epc_kind1_default(benchmark::State &state) {
    rig &r = _rig();
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(1, r.info));
    _fps(state, "BM_ref_distance");
}
BENCHMARK(BM_epc_kind1_default);

void BM_epc_kind1_smooth(benchmark::State &state) {
    rig &r = _rig();
    tevix_filter_arg_t arg{};  // variant 0: median of level 5, then the bilateral filter
    r.drv->ops->filter_enable(r.drv, 2, &arg);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(1, r.info));
    r.drv->ops->filter_disable(r.drv, 2);
    _fps(state, "BM_ref_distance");
}
BENCHMARK(BM_epc_kind1_smooth);

// The default chain with a mounted calibration block: phase table and per-pixel table (filter 1).
void BM_epc_kind1_calibrated(benchmark::State &state) {
    rig &r = _rig();
    auto *p = tevix::epc::priv_of(r.drv);
    auto b = std::make_unique<tevix::epc::calib_block>();
    b->freq = 20000000;
    b->noneed_calc_coeff = 1;
    b->lut.assign(tevix::epc::k_phase_lut, 12);
    b->width = 320;
    b->height = 240;
    b->pixels.assign(320 * 240, -7);
    p->slot.block = std::move(b);
    p->calib_mounted = 1;
    tevix_filter_arg_t arg{};
    r.drv->ops->filter_enable(r.drv, 1, &arg);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(1, r.info));
    r.drv->ops->filter_disable(r.drv, 1);
    p->slot.block.reset();
    p->calib_mounted = 0;
    _fps(state, "BM_epc_kind1_default");
}
BENCHMARK(BM_epc_kind1_calibrated);

void BM_epc_grey_planes(benchmark::State &state) {
    rig &r = _rig();
    tevix_frame_info_t other = r.info;
    other.index++;  // no cached confidence for this frame
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(2, other));
    _fps(state, "BM_ref_grey");
}
BENCHMARK(BM_epc_grey_planes);

void BM_epc_grey_cache(benchmark::State &state) {
    rig &r = _rig();
    r.decode(0, r.info);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(2, r.info));
    _fps(state, "BM_ref_grey");
}
BENCHMARK(BM_epc_grey_cache);

// The kernels alone at each instruction-set tier against their own scalar tier: the reduced-layout
// (2-plane) decode and the HDR merge of a 320x240 image.
struct kernel_data {
    std::vector<uint16_t> planes = std::vector<uint16_t>(2 * k_n);
    std::vector<int32_t> dist = std::vector<int32_t>(k_n);
    std::vector<uint32_t> conf = std::vector<uint32_t>(k_n);
    kernel_data() {
        const auto raw = tevix::emu::scene_render_frame(tevix::emu::scene_config{}, 1, 1);
        std::memcpy(planes.data(), raw.data(), planes.size() * 2);
    }
};

kernel_data &_kd() {
    static kernel_data d;
    return d;
}

void _pair(benchmark::State &state, tevix::simd::level l, const char *ref) {
    tevix::simd::scoped_limit cap(l);
    kernel_data &d = _kd();
    const auto pp = tevix::epc::reduced_pair(20000000);
    for (auto _ : state) {
        tevix::epc::decode_pair(d.planes.data(), d.planes.data() + k_n, d.planes.data(),
                                d.planes.data() + k_n, k_n, pp, 7494, 0, d.dist.data(),
                                d.conf.data());
        benchmark::ClobberMemory();
    }
    _fps(state, ref);
}

void _hdr(benchmark::State &state, tevix::simd::level l, const char *ref) {
    tevix::simd::scoped_limit cap(l);
    kernel_data &d = _kd();
    for (auto _ : state) {
        tevix::epc::hdr_merge(d.dist.data(), d.conf.data(), k_w, k_h);
        benchmark::ClobberMemory();
    }
    _fps(state, ref);
}

void BM_epc_pair_decode(benchmark::State &s) {
    _pair(s, tevix::simd::level::avx2, "BM_epc_pair_decode_scalar");
}
void BM_epc_pair_decode_sse41(benchmark::State &s) {
    _pair(s, tevix::simd::level::sse41, "BM_epc_pair_decode_scalar");
}
void BM_epc_pair_decode_scalar(benchmark::State &s) {
    _pair(s, tevix::simd::level::scalar, nullptr);
}
void BM_epc_hdr_merge(benchmark::State &s) {
    _hdr(s, tevix::simd::level::avx2, "BM_epc_hdr_merge_scalar");
}
void BM_epc_hdr_merge_sse41(benchmark::State &s) {
    _hdr(s, tevix::simd::level::sse41, "BM_epc_hdr_merge_scalar");
}
void BM_epc_hdr_merge_scalar(benchmark::State &s) {
    _hdr(s, tevix::simd::level::scalar, nullptr);
}
BENCHMARK(BM_epc_pair_decode);
BENCHMARK(BM_epc_pair_decode_sse41);
BENCHMARK(BM_epc_pair_decode_scalar);
BENCHMARK(BM_epc_hdr_merge);
BENCHMARK(BM_epc_hdr_merge_sse41);
BENCHMARK(BM_epc_hdr_merge_scalar);

// Scalar references: the same outputs computed the plain way.
void _ref_distance(const uint16_t *raw, uint16_t *out, float range) {
    const uint16_t *p0 = raw, *p1 = raw + k_n, *p2 = raw + 2 * k_n, *p3 = raw + 3 * k_n;
    for (uint32_t i = 0; i < k_n; ++i) {
        const int d0 = p0[i], d1 = p1[i], d2 = p2[i], d3 = p3[i];
        if (d0 < 2 || d0 > 4093 || d1 < 2 || d1 > 4093 || d2 < 2 || d2 > 4093 || d3 < 2 ||
            d3 > 4093) {
            out[i] = 65500;
            continue;
        }
        const float ph = std::atan2(static_cast<float>(d3 - d1), static_cast<float>(d2 - d0));
        out[i] = static_cast<uint16_t>((ph + 3.14159265f) / 6.2831853f * range);
    }
}

void BM_ref_distance(benchmark::State &state) {
    rig &r = _rig();
    const auto *raw = reinterpret_cast<const uint16_t *>(r.raw.data());
    for (auto _ : state) {
        _ref_distance(raw, r.out.data(), 7494.0f);
        benchmark::ClobberMemory();
    }
    _fps(state);
}
BENCHMARK(BM_ref_distance);

void BM_ref_grey(benchmark::State &state) {
    rig &r = _rig();
    const auto *raw = reinterpret_cast<const uint16_t *>(r.raw.data());
    for (auto _ : state) {
        for (uint32_t i = 0; i < k_n; ++i) {
            const float a = static_cast<float>(raw[2 * k_n + i] - raw[i]);
            const float b = static_cast<float>(raw[3 * k_n + i] - raw[k_n + i]);
            r.out[i] = static_cast<uint16_t>(std::sqrt(a * a + b * b) * 0.5f);
        }
        benchmark::ClobberMemory();
    }
    _fps(state);
}
BENCHMARK(BM_ref_grey);

}  // namespace

BENCHMARK_MAIN();
