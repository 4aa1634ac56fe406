// Data transfer over the virtual camera: a 1 MiB download into its flash (4 KiB packets, each
// acknowledged) and the upload back (4084-byte pieces over control transfers), through libusb
// and the emulated bus.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tevix/tevix.h"
#include "vcam.h"

namespace {

struct rig {
    std::unique_ptr<tevix::emu::testbed> tb = std::make_unique<tevix::emu::testbed>();
    tevix::emu::camera *cam = nullptr;
    tevix_dev_t *dev = nullptr;
    rig() {
        cam = tb->add(tevix::emu::camera_config{});
        tevix_init("");
        tevix_log_cfg(7, 7, 7);
        dev = tevix_dev_open(nullptr);
    }
    ~rig() {
        if (dev) tevix_dev_close(dev);
        tevix_uninit();
    }
};

rig &_rig() {
    static rig r;
    return r;
}

// A 1 MiB data download into the camera's flash (4 KiB packets, each acknowledged), and its
// upload back (4084-byte pieces over control transfers), through the emulated bus.
void data_download_1MiB(benchmark::State &state) {
    rig &r = _rig();
    const std::string path = "/tmp/tevix_bench_xfer_" + std::to_string(getpid()) + ".bin";
    {
        std::vector<char> data(1u << 20, 'x');
        std::FILE *f = std::fopen(path.c_str(), "wb");
        if (!f || std::fwrite(data.data(), 1, data.size(), f) != data.size()) {
            state.SkipWithError("cannot write the test file");
            if (f) std::fclose(f);
            return;
        }
        std::fclose(f);
    }
    for (auto _ : state)
        if (tevix_data_download(r.dev, path.c_str(), 3, 1, 0) != 1) state.SkipWithError("failed");
    state.SetBytesProcessed(int64_t(state.iterations()) << 20);
    std::remove(path.c_str());
}
BENCHMARK(data_download_1MiB)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void data_upload_1MiB(benchmark::State &state) {
    rig &r = _rig();
    r.cam->with_firmware([](tevix::emu::firmware &fw) {
        fw.set_store(3, {1, 0, std::vector<uint8_t>(1u << 20, 7)});
    });
    const std::string path = "/tmp/tevix_bench_xfer_up_" + std::to_string(getpid()) + ".bin";
    for (auto _ : state)
        if (tevix_data_upload(r.dev, 3, path.c_str()) != 1) state.SkipWithError("failed");
    state.SetBytesProcessed(int64_t(state.iterations()) << 20);
    std::remove(path.c_str());
}
BENCHMARK(data_upload_1MiB)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
