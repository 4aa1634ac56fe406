// Capture path: frames from the virtual camera (running as fast as the host takes them) through
// libusb, the USB backend, the stream assembler and a pull, with and without the distance
// decode. Process CPU time is measured, so the event thread's work counts too. The latency case
// paces the camera at 60 fps and times each frame to the pull that returns it, from two points:
// the bulk transfer carrying its last byte reaching the USB backend (the library's own latency),
// and that byte leaving the virtual camera (adds the emulated bus).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

#include "api/session.h"
#include "platform/platform.h"
#include "scene/scene.h"
#include "tevix/tevix.h"
#include "vcam.h"

namespace {

constexpr uint32_t k_w = 320, k_h = 240;

// Data events pass through here on their way to the capture engine: the arrival time of each.
std::atomic<uint64_t> g_data_at_us{0};
tevix_ll_evt_cb g_engine_cb = nullptr;
tevix_ll_ops g_timed_ops{};
const tevix_ll_ops *g_usb_ops = nullptr;

void _timed_event(tevix_ll_dev_t *dev, int32_t status, uint8_t *data, uint32_t len, void *user) {
    if (status == TEVIX_LL_EVT_DATA && len) g_data_at_us = tevix::plat::mono_us();
    g_engine_cb(dev, status, data, len, user);
}

int _timed_cap_start(tevix_ll_dev_t *dev, uint32_t mode, tevix_ll_evt_cb cb, void *user) {
    g_engine_cb = cb;
    return g_usb_ops->cap_start(dev, mode, _timed_event, user);
}

struct rig {
    std::unique_ptr<tevix::emu::testbed> tb = std::make_unique<tevix::emu::testbed>();
    tevix::emu::camera *cam = nullptr;
    tevix_dev_t *dev = nullptr;
    std::vector<uint8_t> raw = std::vector<uint8_t>(8u << 20);
    rig() {
        tevix::emu::scene_config sc;
        tevix::emu::camera_config cfg;
        cfg.fps = 0;
        cam = tb->add(cfg, std::make_unique<tevix::emu::scene_renderer>(sc, 2));
        tevix_init("");
        tevix_log_cfg(7, 7, 7);
        dev = tevix_dev_open(nullptr);
        if (!dev) return;
        g_usb_ops = dev->session->ll.ops;
        g_timed_ops = *g_usb_ops;
        g_timed_ops.cap_start = _timed_cap_start;
        dev->session->ll.ops = &g_timed_ops;
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
    // Sets the camera's frame rate through the library (0: as fast as the host takes data).
    void set_fps(uint32_t fps) {
        tevix_cap_stop(dev);
        tevix_param_item_t f{};
        f.id = TEVIX_PARAM_FPS;
        f.len = 4;
        f.value.u32[0] = fps;
        tevix_param_batch_set(dev, &f, 1);
        tevix_cap_start(dev);
    }
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
    uint64_t bytes = 0;
    for (auto _ : state) {
        int n = tevix_cap_get_frames(r.dev, 1, r.raw.data(), static_cast<uint32_t>(r.raw.size()),
                                     &info);
        if (n != 1 || tevix_frame_get_dist_u16(r.dev, mm.data(), k_w * k_h, r.raw.data(), info.size,
                                               &info) <= 0) {
            state.SkipWithError("pull or decode failed");
            break;
        }
        bytes += info.size;
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetLabel("ref=capture_pull");
}
BENCHMARK(capture_pull_decode)->MeasureProcessCPUTime()->UseRealTime()->MinTime(2.0);

double _mean(const std::vector<double> &v) {
    double sum = 0;
    for (double x : v) sum += x;
    return v.empty() ? 0 : sum / static_cast<double>(v.size());
}

// Paced frames leave the camera 16.7 ms apart and a pull waits for each, so the frame a pull
// returns was completed by the last data event before it.
void capture_latency(benchmark::State &state) {
    rig &r = _rig();
    if (!r.dev) {
        state.SkipWithError("no virtual camera");
        return;
    }
    static std::array<std::atomic<uint64_t>, 65536> sent_us;
    for (auto &t : sent_us) t = 0;
    r.cam->set_frame_tap([](std::span<const uint8_t> bytes) {
        vx_stream_hdr_t h;
        if (bytes.size() < sizeof h) return;
        std::memcpy(&h, bytes.data(), sizeof h);
        sent_us[h.desc.fridx] = tevix::plat::mono_us();
    });
    r.set_fps(60);
    tevix_frame_info_t info{};
    std::vector<double> lib, wire;
    for (auto _ : state) {
        int n = tevix_cap_get_frames(r.dev, 1, r.raw.data(), static_cast<uint32_t>(r.raw.size()),
                                     &info);
        const uint64_t now = tevix::plat::mono_us();
        if (n != 1) {
            state.SkipWithError("pull failed");
            break;
        }
        const uint64_t arrived = g_data_at_us, sent = sent_us[info.index].exchange(0);
        if (arrived && now >= arrived) lib.push_back(static_cast<double>(now - arrived));
        if (sent && now >= sent) wire.push_back(static_cast<double>(now - sent));
    }
    r.cam->set_frame_tap(nullptr);
    r.set_fps(0);
    if (lib.empty()) return;
    std::sort(lib.begin(), lib.end());
    state.counters["latency_us"] = _mean(lib);
    state.counters["latency_p50_us"] = lib[lib.size() / 2];
    state.counters["latency_p99_us"] = lib[lib.size() * 99 / 100];
    state.counters["from_camera_us"] = _mean(wire);
}
BENCHMARK(capture_latency)->UseRealTime()->Iterations(600);

}  // namespace

BENCHMARK_MAIN();
