// Colour mapping, pixel conversions and point clouds at 640x480 on one core, each beside
// references in the same run. Each benchmark names its reference with the label "ref=<name>"
// (see bench/run.sh): a routine with an OpenCV equivalent names that one, its "_vs_scalar" twin
// names the plain scalar run, and a conversion's "_vs_memcpy" twin names a memcpy moving as many
// bytes as the conversion reads and writes together.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <string>
#include <vector>

#include "algo/palettes.h"
#include "algo/simd.h"
#include "tevix/vx_cmap.h"
#include "tevix/vx_pcl.h"

namespace {

using tevix::simd::level;

constexpr int W = 640, H = 480, N = W * H;

// A room-like depth image in millimetres with noise and a few invalid pixels.
const std::vector<uint16_t> &depth_mm() {
    static const std::vector<uint16_t> img = [] {
        std::vector<uint16_t> v(N);
        std::mt19937 rng(7);
        std::normal_distribution<float> noise(0.0f, 8.0f);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                float d = x < W / 2 ? 2500.0f + 0.5f * y : 3200.0f - 0.8f * x;
                if (x > 200 && x < 400 && y > 150 && y < 330) d = 1400.0f;
                v[y * W + x] = rng() % 50 == 0 ? 65500 : static_cast<uint16_t>(d + noise(rng));
            }
        return v;
    }();
    return img;
}

const std::vector<float> &depth_m() {
    static const std::vector<float> img = [] {
        std::vector<float> v(N);
        for (int i = 0; i < N; ++i) v[i] = depth_mm()[i] * 0.001f;
        return v;
    }();
    return img;
}

void reg(const std::string &name, const std::string &ref,
         std::function<void(benchmark::State &)> fn, int64_t bytes_per_pixel = 0) {
    benchmark::RegisterBenchmark(name.c_str(), [fn, ref, bytes_per_pixel](benchmark::State &s) {
        fn(s);
        s.SetItemsProcessed(int64_t(s.iterations()) * N);
        if (bytes_per_pixel) s.SetBytesProcessed(int64_t(s.iterations()) * N * bytes_per_pixel);
        if (!ref.empty()) s.SetLabel("ref=" + ref);
    })->Unit(benchmark::kMicrosecond);
}

// The renderer's per-pixel arithmetic written as a plain loop, without the per-range table.
void plain_u16_to_rgb(const float *pal, const uint16_t *src, uint8_t *rgb, uint16_t min,
                      uint16_t max) {
    const float scale = 255.0f / static_cast<float>(max - min);
    for (int i = 0; i < N; ++i) {
        uint8_t *o = rgb + i * 3;
        const uint16_t p = src[i];
        if (p <= min) {
            o[0] = o[1] = o[2] = 0;
            continue;
        }
        const float v = static_cast<float>(std::min(p, max) - min) * scale;
        const int k = static_cast<int>(v);
        const float f = v - static_cast<float>(k);
        const float *row = pal + k * 3;
        const float *next = pal + (std::min(k, 253) + 1) * 3;
        for (int c = 0; c < 3; ++c)
            o[c] = static_cast<uint8_t>((next[c] * f + row[c] * (1.0f - f)) * 255.0f + 0.5f);
    }
}

void register_cmap() {
    static vx_cmap_t ctx{};
    vx_cmap_init(&ctx, 1024);
    vx_cmap_set_palette(&ctx, 8);
    constexpr uint16_t lo = 500, hi = 4500;
    auto ours_u16 = [](benchmark::State &s) {
        std::vector<uint8_t> rgb(N * 3);
        for (auto _ : s) {
            vx_cmap_u16_to_rgb(&ctx, depth_mm().data(), N, &rgb[0], &rgb[1], &rgb[2], 3, lo, hi, 0);
            benchmark::DoNotOptimize(rgb.data());
        }
    };
    reg("cmap/u16_to_rgb", "opencv/applyColorMap_16u", ours_u16);
    reg("cmap/u16_to_rgb_vs_scalar", "cmap/u16_to_rgb_scalar", ours_u16);
    reg("cmap/u16_to_rgb_scalar", "", [](benchmark::State &s) {
        std::vector<uint8_t> rgb(N * 3);
        for (auto _ : s) {
            plain_u16_to_rgb(tevix::cmap::palette(8), depth_mm().data(), rgb.data(), lo, hi);
            benchmark::DoNotOptimize(rgb.data());
        }
    });
    // OpenCV needs the values scaled to 8 bits before its 256-entry colour lookup.
    reg("opencv/applyColorMap_16u", "", [](benchmark::State &s) {
        cv::Mat src(H, W, CV_16U, const_cast<uint16_t *>(depth_mm().data())), u8, rgb;
        for (auto _ : s) {
            src.convertTo(u8, CV_8U, 255.0 / (hi - lo), -255.0 * lo / (hi - lo));
            cv::applyColorMap(u8, rgb, cv::COLORMAP_TURBO);
            benchmark::DoNotOptimize(rgb.data);
        }
    });
    auto ours_f32 = [](level l) {
        return [l](benchmark::State &s) {
            tevix::simd::scoped_limit cap(l);
            std::vector<uint8_t> rgb(N * 3);
            for (auto _ : s) {
                vx_cmap_f32_to_rgb(&ctx, depth_m().data(), N, &rgb[0], &rgb[1], &rgb[2], 3, 0.5f,
                                   4.5f, 0);
                benchmark::DoNotOptimize(rgb.data());
            }
        };
    };
    reg("cmap/f32_to_rgb", "opencv/applyColorMap_32f", ours_f32(level::avx2));
    reg("cmap/f32_to_rgb_vs_scalar", "cmap/f32_to_rgb_scalar", ours_f32(level::avx2));
    reg("cmap/f32_to_rgb_scalar", "", ours_f32(level::scalar));
    reg("opencv/applyColorMap_32f", "", [](benchmark::State &s) {
        cv::Mat src(H, W, CV_32F, const_cast<float *>(depth_m().data())), u8, rgb;
        for (auto _ : s) {
            src.convertTo(u8, CV_8U, 255.0 / 4.0, -255.0 * 0.5 / 4.0);
            cv::applyColorMap(u8, rgb, cv::COLORMAP_TURBO);
            benchmark::DoNotOptimize(rgb.data);
        }
    });
}

// One conversion: the library at full SIMD, with SIMD off, OpenCV's convertTo between the
// nearest OpenCV types, and memcpy of the same traffic.
template <class D, class S, class P>
void conversion(const std::string &name, int (*fn)(D *, const S *, int32_t, P), P param,
                const std::vector<S> &src, int cv_src, int cv_dst, double cv_scale) {
    const std::string base = "conv/" + name;
    const std::string cvname = "opencv/convertTo_" + name;
    const std::string copy = "memcpy/" + std::to_string((sizeof(S) + sizeof(D)) * N / 2);
    const S *in = src.data();  // the sources are static images
    auto run = [fn, param, in](level l) {
        return [fn, param, in, l](benchmark::State &s) {
            tevix::simd::scoped_limit cap(l);
            std::vector<D> dst(N);
            for (auto _ : s) {
                fn(dst.data(), in, N, param);
                benchmark::DoNotOptimize(dst.data());
            }
        };
    };
    constexpr int64_t bytes = sizeof(S) + sizeof(D);
    reg(base, cvname, run(level::avx2), bytes);
    reg(base + "_vs_scalar", base + "_scalar", run(level::avx2), bytes);
    reg(base + "_vs_memcpy", copy, run(level::avx2), bytes);
    reg(base + "_scalar", "", run(level::scalar), bytes);
    reg(
        cvname, "",
        [in, cv_src, cv_dst, cv_scale](benchmark::State &s) {
            cv::Mat m(H, W, cv_src, const_cast<S *>(in)), out;
            for (auto _ : s) {
                m.convertTo(out, cv_dst, cv_scale);
                benchmark::DoNotOptimize(out.data);
            }
        },
        bytes);
    // Registered once per size: the same traffic as the conversion (half read, half written).
    static std::vector<std::string> copies;
    if (std::find(copies.begin(), copies.end(), copy) != copies.end()) return;
    copies.push_back(copy);
    reg(
        copy, "",
        [](benchmark::State &s) {
            const size_t n = (sizeof(S) + sizeof(D)) * N / 2;
            std::vector<uint8_t> a(n, 1), b(n);
            for (auto _ : s) {
                std::memcpy(b.data(), a.data(), n);
                benchmark::DoNotOptimize(b.data());
            }
        },
        bytes);
}

void register_conv() {
    static const std::vector<uint16_t> &u16 = depth_mm();
    static const std::vector<float> &f32 = depth_m();
    static const std::vector<uint32_t> u32 = [] {
        std::vector<uint32_t> v(N);
        std::mt19937 rng(3);
        for (auto &x : v) x = static_cast<uint32_t>(rng()) >> 1;
        return v;
    }();
    // OpenCV has no unsigned 32-bit type: its signed one stands in.
    conversion<uint8_t, uint16_t, uint32_t>("u16_u8", vx_conv_u16_u8, 4u, u16, CV_16U, CV_8U,
                                            1.0 / 16);
    conversion<float, uint16_t, float>("u16_f32", vx_conv_u16_f32, 0.001f, u16, CV_16U, CV_32F,
                                       0.001);
    conversion<uint32_t, uint16_t, uint32_t>("u16_u32", vx_conv_u16_u32, 40000u, u16, CV_16U,
                                             CV_32S, 40000.0 / 65536);
    conversion<uint8_t, float, float>("f32_u8", vx_conv_f32_u8, 50.0f, f32, CV_32F, CV_8U, 50.0);
    conversion<uint16_t, float, float>("f32_u16", vx_conv_f32_u16, 1000.0f, f32, CV_32F, CV_16U,
                                       1000.0);
    conversion<uint32_t, float, float>("f32_u32", vx_conv_f32_u32, 1000.0f, f32, CV_32F, CV_32S,
                                       1000.0);
    conversion<float, uint32_t, float>("u32_f32", vx_conv_u32_f32, 0.5f, u32, CV_32S, CV_32F, 0.5);
}

// The point-cloud formula as a plain loop (x, y, z per pixel), for reference.
void plain_pcl(float *out, const float *dist, const float *k) {
    for (int v = 0; v < H; ++v)
        for (int u = 0; u < W; ++u) {
            const int i = v * W + u;
            float d = dist[i];
            if (!(d < 60.0f)) d = 0.0f;
            const float x = (u - k[0]) / k[2] * d, y = (v - k[1]) / k[3] * d;
            out[i * 3] = x;
            out[i * 3 + 1] = y;
            out[i * 3 + 2] = std::sqrt(d * d - x * x - y * y);
        }
}

// One point-cloud layout at a given instruction-set cap: 16-bit or float input, with or without
// the fourth component, x y z or z only.
std::function<void(benchmark::State &)> points(level l, bool u16, bool fourth, bool z_only) {
    return [=](benchmark::State &s) {
        static const float intr[4] = {320.5f, 240.5f, 520.0f, 520.0f};
        tevix::simd::scoped_limit cap(l);
        std::vector<float> out(N * (z_only ? 1 : fourth ? 4 : 3));
        const void *f4 = fourth ? depth_m().data() : nullptr;
        for (auto _ : s) {
            if (u16)
                vx_pcl_get_xyzd_u16(out.data(), depth_mm().data(), nullptr, W, H, intr, f4, z_only,
                                    z_only);
            else
                vx_pcl_get_xyzd_f32(out.data(), depth_m().data(), nullptr, W, H, intr, f4, z_only,
                                    z_only);
            benchmark::DoNotOptimize(out.data());
        }
    };
}

void register_pcl() {
    reg("pcl/xyz_f32", "pcl/xyz_f32_plain", points(level::avx2, false, false, false));
    reg("pcl/xyz_f32_vs_scalar", "pcl/xyz_f32_scalar", points(level::avx2, false, false, false));
    reg("pcl/xyz_f32_scalar", "", points(level::scalar, false, false, false));
    reg("pcl/xyz_f32_plain", "", [](benchmark::State &s) {
        const float intr[4] = {320.5f, 240.5f, 520.0f, 520.0f};
        std::vector<float> out(N * 3);
        for (auto _ : s) {
            plain_pcl(out.data(), depth_m().data(), intr);
            benchmark::DoNotOptimize(out.data());
        }
    });
    reg("pcl/xyzd_u16", "pcl/xyzd_u16_scalar", points(level::avx2, true, true, false));
    reg("pcl/xyzd_u16_scalar", "", points(level::scalar, true, true, false));
    reg("pcl/z_u16", "pcl/z_u16_scalar", points(level::avx2, true, false, true));
    reg("pcl/z_u16_scalar", "", points(level::scalar, true, false, true));
}

}  // namespace

int main(int argc, char **argv) {
    cv::setNumThreads(0);  // OpenCV on one thread, as the library
    register_cmap();
    register_conv();
    register_pcl();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
