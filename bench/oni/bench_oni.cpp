// The 16zT codec on scene frames (the depth frames of the OpenNI 1.x sample recording, or a
// synthetic scene when it is absent), beside memcpy of the same bytes. Rates are in raw pixel
// bytes; "compression" is raw bytes / coded bytes.
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ll/oni/oni.h"
#include "tevix/vx_log.h"

namespace {

namespace oni = tevix::oni;

struct scene {
    uint32_t w = 640, h = 480;
    std::vector<std::vector<uint16_t>> frames;
    std::vector<std::vector<uint8_t>> coded;
};

std::vector<std::vector<uint16_t>> _sample_frames() {
    std::vector<std::vector<uint16_t>> out;
    const std::string path =
        std::string(TEVIX_TESTDATA_DIR) + "/oni/kinect-depth-image-12frames.oni";
    auto r = oni::reader::open(path.c_str(), nullptr, nullptr);
    if (!r) return out;
    const uint32_t id = r->find_node("Depth1");
    std::vector<uint16_t> px;
    while (id && r->read_frame(id) == 1)
        if (r->decode_frame(id, r->last().payload, px) == 640 * 480) out.push_back(px);
    return out;
}

const scene &_scene() {
    static const scene s = [] {
        vx_log_init(nullptr, nullptr, "BN");
        vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
        scene s;
        s.frames = _sample_frames();
        if (s.frames.empty()) {
            for (uint32_t k = 0; k < 4; ++k) {
                std::vector<uint16_t> px(size_t{s.w} * s.h);
                for (uint32_t y = 0; y < s.h; ++y)
                    for (uint32_t x = 0; x < s.w; ++x)
                        px[size_t{y} * s.w + x] = static_cast<uint16_t>(
                            (x + y + k) % 97 == 0 ? 0 : 800 + y * 4 + (x / 16) * 9 + (x * y % 5));
                s.frames.push_back(std::move(px));
            }
        }
        for (const auto &f : s.frames) {
            std::vector<uint8_t> z;
            oni::z16t_encode(f, z);
            s.coded.push_back(std::move(z));
        }
        return s;
    }();
    return s;
}

double _ratio(const scene &s) {
    size_t raw = 0, coded = 0;
    for (size_t i = 0; i < s.frames.size(); ++i) {
        raw += s.frames[i].size() * 2;
        coded += s.coded[i].size();
    }
    return coded ? static_cast<double>(raw) / static_cast<double>(coded) : 0.0;
}

void BM_memcpy(benchmark::State &state) {
    const scene &s = _scene();
    std::vector<uint16_t> dst(s.frames[0].size());
    size_t i = 0;
    for (auto _ : state) {
        const auto &f = s.frames[i++ % s.frames.size()];
        std::memcpy(dst.data(), f.data(), f.size() * 2);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.frames[0].size() * 2));
}
BENCHMARK(BM_memcpy);

void BM_16zt_encode(benchmark::State &state) {
    const scene &s = _scene();
    std::vector<uint8_t> z;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(oni::z16t_encode(s.frames[i++ % s.frames.size()], z));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.frames[0].size() * 2));
    state.counters["compression"] = _ratio(s);
    state.SetLabel("ref=BM_memcpy");
}
BENCHMARK(BM_16zt_encode);

void BM_16zt_decode(benchmark::State &state) {
    const scene &s = _scene();
    std::vector<uint16_t> px(s.frames[0].size());
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(oni::z16t_decode(s.coded[i++ % s.coded.size()], px));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.frames[0].size() * 2));
    state.counters["compression"] = _ratio(s);
    state.SetLabel("ref=BM_memcpy");
}
BENCHMARK(BM_16zt_decode);

}  // namespace

BENCHMARK_MAIN();
