// Capture path: frames from the virtual camera (running as fast as the host takes them) through
// libusb, the USB backend, the stream assembler and a pull, with and without the distance
// decode. Process CPU time is measured, so the event thread's work counts too.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "scene/scene.h"
#include "tevix/tevix.h"
#include "vcam.h"

namespace {

constexpr uint32_t k_w = 320, k_h = 240;

struct rig {
    std::unique_ptr<tevix::emu::testbed> tb = std::make_unique<tevix::emu::testbed>();
    tevix_dev_t *dev = nullptr;
    std::vector<uint8_t> raw = std::vector<uint8_t>(8u << 20);
    rig() {
        tevix::emu::scene_config sc;
        tevix::emu::camera_config cfg;
        cfg.fps = 0;
        tb->add(cfg, std::make_unique<tevix::emu::scene_renderer>(sc, 2));
        tevix_init("");
        tevix_log_cfg(7, 7, 7);
        dev = tevix_dev_open(nullptr);
        if (!dev) return;
        tevix_param_item_t f{};
        f.id = TEVIX_PARAM_MOD_FREQ;
        f.len = 4;
        f.value.u32[0] = sc.freq_hz;
        tevix_param_batch_set(dev, &f, 1);
        tevix_cap_start(dev);
    }
    ~rig() {
        if (dev) {
            tevix_cap_stop(dev);
            tevix_dev_close(dev);
        }
        tevix_uninit();
        tb.reset();
    }
    rig(const rig &) = delete;
    rig &operator=(const rig &) = delete;
};

rig &_rig() {
    static rig r;
    return r;
}

void capture_pull(benchmark::State &state) {
    rig &r = _rig();
    if (!r.dev) {
        state.SkipWithError("no virtual camera");
        return;
    }
    tevix_frame_info_t info{};
    uint64_t bytes = 0;
    for (auto _ : state) {
        int n = tevix_cap_get_frames(r.dev, 1, r.raw.data(), static_cast<uint32_t>(r.raw.size()),
                                     &info);
        if (n != 1) {
            state.SkipWithError("pull failed");
            break;
        }
        bytes += info.size;
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(capture_pull)->MeasureProcessCPUTime()->UseRealTime()->MinTime(2.0);

void capture_pull_decode(benchmark::State &state) {
    rig &r = _rig();
    if (!r.dev) {
        state.SkipWithError("no virtual camera");
        return;
    }
    std::vector<uint16_t> mm(k_w * k_h);
    tevix_frame_info_t info{};
    for (auto _ : state) {
        int n = tevix_cap_get_frames(r.dev, 1, r.raw.data(), static_cast<uint32_t>(r.raw.size()),
                                     &info);
        if (n != 1 || tevix_frame_get_dist_u16(r.dev, mm.data(), k_w * k_h, r.raw.data(), info.size,
                                               &info) <= 0) {
            state.SkipWithError("pull or decode failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel("ref=capture_pull");
}
BENCHMARK(capture_pull_decode)->MeasureProcessCPUTime()->UseRealTime()->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
