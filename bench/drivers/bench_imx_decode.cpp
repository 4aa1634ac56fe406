// SONY decode speed on 640x480 scene frames with shot noise, through the driver's operation table:
// single frequency (format 2, four planes) and dual frequency (format 17, packed 12-bit I/Q of
// 100 + 80 MHz, unwrapped), kind 0 and the kind-1 default chain, each against a plain scalar
// reference (float std::atan2 per pixel; for the pair a brute-force unwrapping in double). The
// chains are also counted in pixels, against the EPC driver's default chain on its 320x240 frames
// in the same run, and the I/Q unpacking runs at each instruction-set tier against its scalar
// tier.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "algo/simd.h"
#include "drivers/drv.h"
#include "drivers/epc_test_backend.h"
#include "drivers/sony/imx_format.h"
#include "scene/scene.h"
#include "scene/sony_scene.h"
#include "tevix/vx_log.h"

namespace {

constexpr uint32_t k_w = 640, k_h = 480, k_n = k_w * k_h;

struct frame {
    std::vector<uint8_t> raw;
    tevix_frame_info_t info{};
};

struct rig {
    tevix::test::fake_device dev{"VXCAM-S1-R1"};
    tevix_drv_t *drv = &tevix_drv_table()[4];
    frame single, dual;
    std::vector<uint16_t> out = std::vector<uint16_t>(k_n);

    rig() {
        vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
        drv->ops->init(drv, dev.dev());
        dev.bind(drv);
        tevix::emu::scene_config cfg = tevix::emu::sony_scene_config();
        cfg.noise = true;
        cfg.room_back_mm = 6200;
        tevix::emu::sony_renderer r(cfg);
        r.set_freqs(100000000, 80000000);
        for (auto [f, fmt] : {std::pair{&single, uint16_t(2)}, std::pair{&dual, uint16_t(17)}}) {
            r.set_format(fmt);
            f->raw.resize(r.frame_bytes());
            vx_frame_desc_t desc{};
            r.render(1, f->raw, desc);
            drv->ops->frame_get_info(drv, &f->info, f->raw.data());
        }
    }
    ~rig() {
        drv->ops->uninit(drv);
        drv->dev = nullptr;
    }
    int32_t decode(uint32_t kind, const frame &f) {
        return drv->ops->frame_decode(drv, reinterpret_cast<uint8_t *>(out.data()), k_n * 2, kind,
                                      f.raw.data(), static_cast<uint32_t>(f.raw.size()), &f.info);
    }
    void frequencies(bool pair) {
        drv->ops->on_update_mod_freq(drv, 100000000, pair ? 80000000 : 0);
    }
};

rig &_rig() {
    static rig r;
    return r;
}

void _fps(benchmark::State &state, const char *ref = nullptr, uint32_t pixels = 0) {
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * (pixels ? pixels : 1));
    if (ref) state.SetLabel(std::string("ref=") + ref);
    state.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_imx_single_kind0(benchmark::State &state) {
    rig &r = _rig();
    r.frequencies(false);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(0, r.single));
    _fps(state, "BM_imx_ref_single");
}
BENCHMARK(BM_imx_single_kind0);

void BM_imx_single_kind1(benchmark::State &state) {
    rig &r = _rig();
    r.frequencies(false);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(1, r.single));
    _fps(state, "BM_imx_ref_single");
}
BENCHMARK(BM_imx_single_kind1);

void BM_imx_dual_kind0(benchmark::State &state) {
    rig &r = _rig();
    r.frequencies(true);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(0, r.dual));
    _fps(state, "BM_imx_ref_dual");
}
BENCHMARK(BM_imx_dual_kind0);

void BM_imx_dual_kind1(benchmark::State &state) {
    rig &r = _rig();
    r.frequencies(true);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(1, r.dual));
    _fps(state, "BM_imx_ref_dual");
}
BENCHMARK(BM_imx_dual_kind1);

// Cost per pixel: the SONY default chains and the EPC one, counted in pixels.
void BM_imx_chain_px(benchmark::State &state) {
    rig &r = _rig();
    r.frequencies(false);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(1, r.single));
    _fps(state, "BM_epc_chain_px", k_n);
}
BENCHMARK(BM_imx_chain_px);

void BM_imx_dual_chain_px(benchmark::State &state) {
    rig &r = _rig();
    r.frequencies(true);
    for (auto _ : state) benchmark::DoNotOptimize(r.decode(1, r.dual));
    _fps(state, "BM_epc_chain_px", k_n);
}
BENCHMARK(BM_imx_dual_chain_px);

void BM_epc_chain_px(benchmark::State &state) {
    tevix::test::fake_device dev{"VXCAM-E1-R1"};
    tevix_drv_t *drv = &tevix_drv_table()[1];
    drv->ops->init(drv, dev.dev());
    dev.bind(drv);
    drv->ops->on_update_mod_freq(drv, 20000000, 0);
    tevix::emu::scene_config cfg;
    cfg.noise = true;
    const std::vector<uint8_t> raw = tevix::emu::scene_render_frame(cfg, 2, 1);
    tevix_frame_info_t info{};
    drv->ops->frame_get_info(drv, &info, raw.data());
    std::vector<uint16_t> out(320 * 240);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            drv->ops->frame_decode(drv, reinterpret_cast<uint8_t *>(out.data()), 320 * 240 * 2, 1,
                                   raw.data(), static_cast<uint32_t>(raw.size()), &info));
    drv->ops->uninit(drv);
    drv->dev = nullptr;
    _fps(state, nullptr, 320 * 240);
}
BENCHMARK(BM_epc_chain_px);

// The 12-bit I/Q expansion of one frequency at each tier.
void _unpack(benchmark::State &state, tevix::simd::level l, const char *ref) {
    tevix::simd::scoped_limit cap(l);
    rig &r = _rig();
    const tevix::imx::layout lay = tevix::imx::layout_of(17);
    std::vector<int16_t> iq(6 * k_n);
    for (auto _ : state) {
        tevix::imx::expand_iq(lay, r.dual.raw.data(), k_n, 1, iq.data(), iq.data() + k_n,
                              iq.data() + 2 * k_n);
        benchmark::ClobberMemory();
    }
    _fps(state, ref);
}
void BM_imx_unpack12(benchmark::State &s) {
    _unpack(s, tevix::simd::level::avx2, "BM_imx_unpack12_scalar");
}
void BM_imx_unpack12_sse41(benchmark::State &s) {
    _unpack(s, tevix::simd::level::sse41, "BM_imx_unpack12_scalar");
}
void BM_imx_unpack12_scalar(benchmark::State &s) {
    _unpack(s, tevix::simd::level::scalar, nullptr);
}
BENCHMARK(BM_imx_unpack12);
BENCHMARK(BM_imx_unpack12_sse41);
BENCHMARK(BM_imx_unpack12_scalar);

// Scalar references: the same distances computed the plain way.
float _phase(float y, float x) {
    return (std::atan2(y, x) + 3.14159265f) / 6.2831853f;  // turns
}

void BM_imx_ref_single(benchmark::State &state) {
    rig &r = _rig();
    const auto *p = reinterpret_cast<const uint16_t *>(r.single.raw.data());
    for (auto _ : state) {
        for (uint32_t i = 0; i < k_n; ++i) {
            const int d0 = p[i], d1 = p[k_n + i], d2 = p[2 * k_n + i], d3 = p[3 * k_n + i];
            const bool bad = d0 < 2 || d0 > 4093 || d1 < 2 || d1 > 4093 || d2 < 2 || d2 > 4093 ||
                             d3 < 2 || d3 > 4093;
            r.out[i] =
                bad ? 65500
                    : static_cast<uint16_t>(_phase(float(d3 - d1), float(d2 - d0)) * 1499.0f);
        }
        benchmark::ClobberMemory();
    }
    _fps(state);
}
BENCHMARK(BM_imx_ref_single);

int _s12(const uint8_t *s, uint32_t j) {
    const uint8_t *g = s + (j >> 1) * 3;
    const int v = (j & 1) ? (g[1] >> 4) | (g[2] << 4) : g[0] | ((g[1] & 0xF) << 8);
    return v >= 2048 ? v - 4096 : v;
}

void BM_imx_ref_dual(benchmark::State &state) {
    rig &r = _rig();
    const uint8_t *s = r.dual.raw.data();
    const double r0 = 1498.96, r1 = 1873.7;
    for (auto _ : state) {
        for (uint32_t i = 0; i < k_n; ++i) {
            const double a = _phase(float(-_s12(s, k_n + i)), float(-_s12(s, i))) * r0;
            const double b =
                _phase(float(-_s12(s, 3 * k_n + i)), float(-_s12(s, 2 * k_n + i))) * r1;
            double best = 1e9, d = 0;
            for (int k0 = 0; k0 < 5; ++k0) {
                const double c0 = a + k0 * r0, c1 = b + std::round((c0 - b) / r1) * r1;
                if (std::fabs(c0 - c1) < best) best = std::fabs(c0 - c1), d = 0.61 * c0 + 0.39 * c1;
            }
            r.out[i] = best < 94 ? static_cast<uint16_t>(d) : 65500;
        }
        benchmark::ClobberMemory();
    }
    _fps(state);
}
BENCHMARK(BM_imx_ref_dual);

}  // namespace

BENCHMARK_MAIN();
