// Distance-image filters and undistortion at 640x480 on one core, each beside references in the
// same run: the library's own scalar path (SIMD switched off) and OpenCV where it has an
// equivalent. Each benchmark names its reference with the label "ref=<name>" (see bench/run.sh):
// a routine with an OpenCV equivalent names that one, and its "_vs_scalar" twin names the scalar
// run; the others name their scalar run.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <string>
#include <vector>

#include "algo/simd.h"
#include "algo/unwrap.h"
#include "tevix/vx_filter.h"

namespace {

using tevix::simd::level;

constexpr uint32_t W = 640, H = 480;

// A room-like depth image: two planes and a box, millimetre noise, 2% of the pixels invalid.
const std::vector<uint16_t> &depth() {
    static const std::vector<uint16_t> img = [] {
        std::vector<uint16_t> v(W * H);
        std::mt19937 rng(7);
        std::normal_distribution<float> noise(0.0f, 8.0f);
        std::uniform_real_distribution<float> u(0, 1);
        for (uint32_t y = 0; y < H; ++y)
            for (uint32_t x = 0; x < W; ++x) {
                float d = x < W / 2 ? 2500.0f + 0.5f * y : 3200.0f - 0.8f * x;
                if (x > 200 && x < 400 && y > 150 && y < 330) d = 1400.0f;
                uint16_t q = uint16_t(d + noise(rng));
                const float r = u(rng);
                if (r < 0.01f)
                    q = 0;
                else if (r < 0.02f)
                    q = VX_DIST_INVALID;
                v[y * W + x] = q;
            }
        return v;
    }();
    return img;
}

const double lens_k[5] = {0.079031, 3.44739, -0.000478177, -0.00588696, -33.6074};
const vx_lens_t lens = {335.591, 256.24, 1378.12, 1377.11, lens_k, 5, 640, 480};

void _finish(benchmark::State &state, const std::string &ref) {
    state.SetItemsProcessed(int64_t(state.iterations()) * W * H);
    if (!ref.empty()) state.SetLabel("ref=" + ref);
}

// An in-place filter on a fresh copy of the depth image per iteration (the copy is timed too).
void _inplace(benchmark::State &state, level l, const std::function<void(uint16_t *)> &fn,
              const std::string &ref) {
    tevix::simd::scoped_limit cap(l);
    std::vector<uint16_t> work(W * H);
    for (auto _ : state) {
        std::memcpy(work.data(), depth().data(), W * H * sizeof(uint16_t));
        fn(work.data());
        benchmark::DoNotOptimize(work.data());
    }
    _finish(state, ref);
}

void _reg(const std::string &name, const std::string &ref,
          std::function<void(benchmark::State &)> fn) {
    benchmark::RegisterBenchmark(name.c_str(), [fn, ref](benchmark::State &s) {
        fn(s);
        _finish(s, ref);
    })->Unit(benchmark::kMicrosecond);
}

// The routine at full SIMD and with SIMD off; the SIMD run is compared with `ref` when given,
// else with its scalar run, and the scalar run with nothing.
void _pair(const std::string &name, const std::string &ref,
           const std::function<void(uint16_t *)> &fn) {
    const std::string scalar = name + "_scalar";
    _reg(name, ref.empty() ? scalar : ref,
         [fn](benchmark::State &s) { _inplace(s, level::avx2, fn, ""); });
    _reg(scalar, "", [fn](benchmark::State &s) { _inplace(s, level::scalar, fn, ""); });
    if (!ref.empty())
        _reg(name + "_vs_scalar", scalar,
             [fn](benchmark::State &s) { _inplace(s, level::avx2, fn, ""); });
}

void _register() {
    // Bilateral: sigma_spatial 0.0047 gives alpha 0.63 along rows, an exponential kernel of
    // deviation about 3 pixels; OpenCV runs with sigmaSpace 3 (an 11x11 window) and sigmaColor
    // 50 mm, against a range table decaying over 51 mm.
    static vx_bpf2d_iir_t bpf{};
    vx_bpf2d_iir_init(&bpf, W, H, 0.0047f, 0.2f, 0, 256);
    _pair("filter/bpf2d_iir", "opencv/bilateralFilter_32f",
          [](uint16_t *img) { vx_bpf2d_iir(&bpf, img, img, W, H); });
    _reg("opencv/bilateralFilter_32f", "", [](benchmark::State &s) {
        cv::Mat src16(H, W, CV_16U, const_cast<uint16_t *>(depth().data())), src, dst;
        src16.convertTo(src, CV_32F);
        for (auto _ : s) {
            cv::bilateralFilter(src, dst, -1, 50.0, 3.0);
            benchmark::DoNotOptimize(dst.data);
        }
    });

    for (int k : {3, 5}) {
        const std::string cvname = "opencv/medianBlur_16u_k" + std::to_string(k);
        _pair("filter/median2d_k" + std::to_string(k), cvname,
              [k](uint16_t *img) { vx_median2d_u16(img, W, H, uint32_t(k)); });
        _reg(cvname, "", [k](benchmark::State &s) {
            cv::Mat src(H, W, CV_16U, const_cast<uint16_t *>(depth().data())), dst;
            for (auto _ : s) {
                cv::medianBlur(src, dst, k);
                benchmark::DoNotOptimize(dst.data);
            }
        });
    }

    _pair("filter/flypix_k3", "", [](uint16_t *img) { vx_flypix_u16_k3(img, W, H, 21); });
    _pair("filter/flypix_k5", "", [](uint16_t *img) { vx_flypix_u16_k5(img, W, H, 21); });
    _pair("filter/fhole_k3", "", [](uint16_t *img) { vx_fhole_u16_k3(img, W, H, 0); });

    // Gaussian: sigma 0.01 is 6.4 x 4.8 pixels, beside OpenCV's (unmasked) Gaussian blur of the
    // same deviation on a float image; 0.1 is the drivers' default.
    _pair("filter/gauss2d_iir_s0.01", "opencv/GaussianBlur_32f_s0.01",
          [](uint16_t *img) { vx_gauss2d_iir_u16(img, W, H, 0.01f); });
    _reg("opencv/GaussianBlur_32f_s0.01", "", [](benchmark::State &s) {
        cv::Mat src16(H, W, CV_16U, const_cast<uint16_t *>(depth().data())), src, dst;
        src16.convertTo(src, CV_32F);
        for (auto _ : s) {
            cv::GaussianBlur(src, dst, cv::Size(), 6.4, 4.8);
            benchmark::DoNotOptimize(dst.data);
        }
    });
    _pair("filter/gauss2d_iir_s0.1", "",
          [](uint16_t *img) { vx_gauss2d_iir_u16(img, W, H, 0.1f); });

    // Undistortion with the default SONY lens; OpenCV remaps through the same float maps.
    static vx_calib_len_map_t map{};
    vx_calib_len_init_map(&map, &lens, W, H);
    static cv::Mat mx(H, W, CV_32F, map.map_x), my(H, W, CV_32F, map.map_y);
    _reg("filter/undistort_u16", "opencv/remap_16u_nearest", [](benchmark::State &s) {
        std::vector<uint16_t> dst(W * H);
        for (auto _ : s) {
            vx_calib_len_undistort_u16(&map, dst.data(), depth().data(), W, H);
            benchmark::DoNotOptimize(dst.data());
        }
    });
    _reg("opencv/remap_16u_nearest", "", [](benchmark::State &s) {
        cv::Mat src(H, W, CV_16U, const_cast<uint16_t *>(depth().data())), dst;
        for (auto _ : s) {
            cv::remap(src, dst, mx, my, cv::INTER_NEAREST, cv::BORDER_CONSTANT, 0);
            benchmark::DoNotOptimize(dst.data);
        }
    });
    _reg("filter/undistort_f32_bilinear", "opencv/remap_32f_linear", [](benchmark::State &s) {
        std::vector<float> src(depth().begin(), depth().end()), dst(W * H);
        for (auto _ : s) {
            vx_calib_len_undistort_f32(&map, dst.data(), src.data(), W, H, 1);
            benchmark::DoNotOptimize(dst.data());
        }
    });
    _reg("opencv/remap_32f_linear", "", [](benchmark::State &s) {
        cv::Mat src16(H, W, CV_16U, const_cast<uint16_t *>(depth().data())), src, dst;
        src16.convertTo(src, CV_32F);
        for (auto _ : s) {
            cv::remap(src, dst, mx, my, cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
            benchmark::DoNotOptimize(dst.data);
        }
    });
    _reg("filter/calib_len_init_map", "", [](benchmark::State &s) {
        vx_calib_len_map_t m{};
        for (auto _ : s) {
            vx_calib_len_init_map(&m, &lens, W, H);
            vx_calib_len_uninit_map(&m);
        }
    });

    // Dual-frequency unwrapping of 100 and 80 MHz distances of a room up to 7 m.
    auto unwrap = [](level l) {
        return [l](benchmark::State &s) {
            tevix::simd::scoped_limit cap(l);
            static tevix::algo::dual_freq u;
            tevix::algo::dual_freq_init(u, 100000000, 80000000);
            std::vector<uint16_t> d0(W * H), d1(W * H), out(W * H);
            for (size_t i = 0; i < d0.size(); ++i) {
                const double mm = 500.0 + double(i % W) * 10.0;
                d0[i] = uint16_t(std::fmod(mm, u.r0_mm));
                d1[i] = uint16_t(std::fmod(mm, u.r1_mm));
            }
            for (auto _ : s) {
                tevix::algo::dual_freq_unwrap(u, d0.data(), d1.data(), out.data(), out.size());
                benchmark::DoNotOptimize(out.data());
            }
        };
    };
    _reg("filter/dual_freq_unwrap", "filter/dual_freq_unwrap_scalar", unwrap(level::avx2));
    _reg("filter/dual_freq_unwrap_scalar", "", unwrap(level::scalar));
}

}  // namespace

int main(int argc, char **argv) {
    cv::setNumThreads(0);  // OpenCV on one thread, as the library
    _register();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
