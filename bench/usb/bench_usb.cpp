// Capture through the USB backend from the virtual camera over the real libusb: sustained
// throughput at the backend callback (bytes/s and transfers/s), the time from cap_start to the
// first data callback, and the process CPU while a device is open but idle. No reference
// implementation exists for these, so no "ref=" label is given.
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>

#include "ll/dispatch.h"
#include "ll/usb/usb_ll.h"
#include "tevix/tevix_ll.h"
#include "tevix/vx_log.h"
#include "vcam.h"

namespace {

std::unique_ptr<tevix::emu::testbed> g_tb;

struct counter {
    std::mutex m;
    std::condition_variable cv;
    uint64_t bytes = 0;
    uint64_t transfers = 0;

    static void cb(tevix_ll_dev_t *, int32_t status, uint8_t *, uint32_t len, void *user) {
        auto *c = static_cast<counter *>(user);
        if (status != 0 || len == 0) return;
        {
            std::lock_guard lk(c->m);
            c->bytes += len;
            ++c->transfers;
        }
        c->cv.notify_all();
    }
    void wait_bytes(uint64_t n) {
        std::unique_lock lk(m);
        cv.wait(lk, [&] { return bytes >= n; });
    }
};

void set_fps(uint32_t fps) {
    uint8_t v[4];
    std::memcpy(v, &fps, 4);
    g_tb->at(0)->with_firmware(
        [&](tevix::emu::firmware &fw) { fw.set_param(tevix::emu::k_par_fps, v); });
}

struct open_dev {
    tevix_ll_dev_t d{};
    open_dev() {
        d.is_listed = 1;
        d.info.usb.bus = 1;
        d.info.usb.port = 2;
        d.info.usb.addr = 255;
        ok = usb_ll_ops.dev_open(&d) != nullptr;
    }
    ~open_dev() {
        if (ok) usb_ll_ops.dev_close(&d);
    }
    void stop() {
        usb_ll_ops.cap_stop(&d);
        while (tevix::usb::in_flight(&d)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    bool ok = false;
};

// The camera streams as fast as the host takes data; each iteration receives 32 MiB.
void bm_capture_throughput(benchmark::State &state) {
    set_fps(0);
    open_dev dev;
    if (!dev.ok) return state.SkipWithError("no virtual camera");
    counter c;
    usb_ll_ops.cap_start(&dev.d, 0, counter::cb, &c);
    c.wait_bytes(1);
    constexpr uint64_t chunk = 32ull << 20;
    uint64_t target, start_bytes, start_transfers;
    {
        std::lock_guard lk(c.m);
        start_bytes = c.bytes;
        start_transfers = c.transfers;
        target = c.bytes;
    }
    for (auto _ : state) {
        target += chunk;
        c.wait_bytes(target);
    }
    uint64_t bytes, transfers;
    {
        std::lock_guard lk(c.m);
        bytes = c.bytes - start_bytes;
        transfers = c.transfers - start_transfers;
    }
    dev.stop();
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["transfers/s"] =
        benchmark::Counter(static_cast<double>(transfers), benchmark::Counter::kIsRate);
    state.counters["bytes/transfer"] = benchmark::Counter(
        static_cast<double>(bytes) / static_cast<double>(transfers ? transfers : 1));
}
BENCHMARK(bm_capture_throughput)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

// cap_start (16 transfers submitted, the start command and its status) to the first data callback.
void bm_start_to_first_data(benchmark::State &state) {
    set_fps(30);
    open_dev dev;
    if (!dev.ok) return state.SkipWithError("no virtual camera");
    for (auto _ : state) {
        counter c;
        const auto t0 = std::chrono::steady_clock::now();
        usb_ll_ops.cap_start(&dev.d, 0, counter::cb, &c);
        c.wait_bytes(1);
        const auto t1 = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        dev.stop();
    }
}
BENCHMARK(bm_start_to_first_data)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(50);

// Process CPU time per wall second with the device open (event thread running) and not capturing,
// and while capturing at 30 frames/s.
void cpu_share(benchmark::State &state, bool capture) {
    set_fps(30);
    open_dev dev;
    if (!dev.ok) return state.SkipWithError("no virtual camera");
    counter c;
    if (capture) usb_ll_ops.cap_start(&dev.d, 0, counter::cb, &c);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto cpu = [] {
        rusage ru{};
        getrusage(RUSAGE_SELF, &ru);
        return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
               static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
    };
    double used = 0, wall = 0;
    for (auto _ : state) {
        const double c0 = cpu();
        const auto t0 = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        used += cpu() - c0;
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    if (capture) dev.stop();
    state.counters["cpu_%"] = benchmark::Counter(100.0 * used / wall);
}
void bm_cpu_idle_open(benchmark::State &state) {
    cpu_share(state, false);
}
void bm_cpu_capture_30fps(benchmark::State &state) {
    cpu_share(state, true);
}
BENCHMARK(bm_cpu_idle_open)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(bm_cpu_capture_30fps)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace

int main(int argc, char **argv) {
    // The testbed must exist before libusb starts, and outlive every device.
    g_tb = std::make_unique<tevix::emu::testbed>();
    g_tb->add(tevix::emu::camera_config{});
    vx_log_init(nullptr, nullptr, "VX");
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    vx_log_uninit(nullptr);
    g_tb.reset();
    return 0;
}
