// The library's CPU per camera with four virtual cameras (320x240 at 30 fps) captured at once:
// the USB event threads' CPU (named tevix-usb-evt) and the pulling threads' own CPU, measured
// per thread, so that the emulator's threads in the same process do not count.
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "scene/scene.h"
#include "tevix/tevix.h"
#include "vcam.h"

namespace {

constexpr int k_cams = 4;
const char *const k_chips[k_cams] = {"E1", "E2", "E4", "E5"};

double _thread_cpu_s() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

// CPU seconds of this process's threads of that name.
double _named_cpu_s(const char *name) {
    double total = 0.0;
    const long tick = sysconf(_SC_CLK_TCK);
    DIR *d = opendir("/proc/self/task");
    if (!d) return 0.0;
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        const std::string base = std::string("/proc/self/task/") + e->d_name;
        std::string comm;
        std::getline(std::ifstream(base + "/comm"), comm);
        if (comm != name) continue;
        std::string stat;
        std::getline(std::ifstream(base + "/stat"), stat);
        const size_t close = stat.rfind(')');
        if (close == std::string::npos) continue;
        unsigned long long ut = 0, st = 0;
        // Fields after the name: state is field 3; utime and stime are fields 14 and 15.
        std::sscanf(stat.c_str() + close + 2,
                    "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &ut, &st);
        total += static_cast<double>(ut + st) / static_cast<double>(tick);
    }
    closedir(d);
    return total;
}

void BM_multicam_cpu_per_camera(benchmark::State &state) {
    const double seconds = 10.0;
    tevix::emu::testbed tb;
    for (int i = 0; i < k_cams; ++i) {
        tevix::emu::camera_config cfg;
        cfg.bus = static_cast<uint8_t>(1 + i / 2);
        cfg.port = cfg.addr = static_cast<uint8_t>(2 + i % 2);
        cfg.uid[2] += static_cast<uint32_t>(i);
        cfg.product = std::string("VXCAM-") + k_chips[i] + "-R1";
        tb.add(cfg, std::make_unique<tevix::emu::scene_renderer>(tevix::emu::scene_config{}, 2));
    }
    tevix_init("");
    tevix_log_cfg(7, 7, 7);
    std::vector<tevix_dev_t *> devs;
    for (int i = 0; i < k_cams; ++i) {
        char uri[64];
        std::snprintf(uri, sizeof uri, "usb://%03d:%03d:%03d", 1 + i / 2, 2 + i % 2, 2 + i % 2);
        devs.push_back(tevix_dev_open_by_uri(uri));
    }
    std::atomic<double> pull_cpu{0.0};
    std::atomic<long> frames{0};
    for (auto _ : state) {
        for (tevix_dev_t *d : devs)
            if (d) tevix_cap_start(d);
        const double evt0 = _named_cpu_s("tevix-usb-evt");
        std::vector<std::thread> pullers;
        for (tevix_dev_t *d : devs)
            pullers.emplace_back([&, d] {
                if (!d) return;
                std::vector<uint8_t> raw(8u << 20);
                const double c0 = _thread_cpu_s();
                const auto until =
                    std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
                long n = 0;
                while (std::chrono::steady_clock::now() < until)
                    if (tevix_cap_get_frames(d, 1, raw.data(), raw.size(), nullptr) == 1) ++n;
                frames += n;
                double expected = pull_cpu.load();
                while (!pull_cpu.compare_exchange_weak(expected, expected + _thread_cpu_s() - c0)) {
                }
            });
        for (auto &t : pullers) t.join();
        const double evt = _named_cpu_s("tevix-usb-evt") - evt0;
        for (tevix_dev_t *d : devs)
            if (d) tevix_cap_stop(d);
        state.SetIterationTime(seconds);
        state.counters["evt_pct_per_cam"] = 100.0 * evt / seconds / k_cams;
        state.counters["pull_pct_per_cam"] = 100.0 * pull_cpu.load() / seconds / k_cams;
        state.counters["lib_pct_per_cam"] = 100.0 * (evt + pull_cpu.load()) / seconds / k_cams;
        state.counters["fps_per_cam"] = static_cast<double>(frames.load()) / seconds / k_cams;
    }
    for (tevix_dev_t *d : devs)
        if (d) tevix_dev_close(d);
    tevix_uninit();
}
BENCHMARK(BM_multicam_cpu_per_camera)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
