// Resident memory of a capturing device: what an open, capturing camera costs beyond the library,
// and that a long capture (TEVIX_MEMORY_SECONDS, default 600, at 60 frames/s with the distance
// decode) keeps it flat. A long test: ctest -L long.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "scene/scene.h"
#include "tevix/tevix.h"
#include "vcam.h"

namespace {

double _rss_mib() {
    long pages = 0, resident = 0;
    std::FILE *f = std::fopen("/proc/self/statm", "r");
    if (!f) return 0;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

}  // namespace

TEST(memory, capture_costs_little_and_stays_flat) {
    auto tb = std::make_unique<tevix::emu::testbed>();
    tevix::emu::camera_config cfg;
    cfg.fps = 60;
    tb->add(cfg, std::make_unique<tevix::emu::scene_renderer>(tevix::emu::scene_config{}, 2));
    tevix_init("");
    tevix_log_cfg(7, 7, 7);
    std::vector<uint8_t> raw(8u << 20);
    std::vector<uint16_t> mm(320 * 240);
    for (auto &b : raw) b = 0;  // touch the buffers before the baseline
    for (auto &v : mm) v = 0;
    const double base = _rss_mib();

    tevix_dev_t *dev = tevix_dev_open(nullptr);
    ASSERT_NE(dev, nullptr);
    ASSERT_EQ(tevix_cap_start(dev), 1);
    auto pull = [&] {
        tevix_frame_info_t info{};
        int n = tevix_cap_get_frames(dev, 1, raw.data(), static_cast<uint32_t>(raw.size()), &info);
        if (n == 1)
            tevix_frame_get_dist_u16(dev, mm.data(), 320 * 240, raw.data(), info.size, &info);
        return n;
    };
    for (int i = 0; i < 300; ++i) ASSERT_EQ(pull(), 1);
    const double warm = _rss_mib();
    std::printf("resident: library %.1f MiB, capturing %.1f MiB (+%.1f MiB)\n", base, warm,
                warm - base);
    EXPECT_LE(warm - base, 32.0);

    const char *env = std::getenv("TEVIX_MEMORY_SECONDS");
    const uint64_t seconds = env ? std::strtoull(env, nullptr, 10) : 600;
    const uint64_t end = tevix::plat::mono_ms() + seconds * 1000;
    uint64_t frames = 0;
    double peak = warm;
    while (tevix::plat::mono_ms() < end) {
        ASSERT_EQ(pull(), 1);
        if (++frames % 600 == 0) peak = std::max(peak, _rss_mib());
    }
    const double last = _rss_mib();
    std::printf("after %llu frames in %llu s: %.1f MiB (peak %.1f MiB)\n",
                static_cast<unsigned long long>(frames), static_cast<unsigned long long>(seconds),
                last, peak);
    EXPECT_LE(last - warm, 2.0);
    tevix_cap_stop(dev);
    tevix_dev_close(dev);
    tevix_uninit();
    tb.reset();
}
