// Resident memory of a capturing device: what an open, capturing camera costs beyond the library,
// and that a long capture (TEVIX_MEMORY_SECONDS, default 600, at 60 frames/s with the distance
// decode) keeps it flat. A long test: ctest -L long.
//
// The virtual camera runs in this process: its frame producer builds a fresh 600 KiB packet per
// frame and buffers up to 4 MiB ahead of the host, in the producer thread's own malloc arena,
// which glibc trims only now and then. Measured per arena (malloc_info), that arena swings between
// one and three packets of free space over minutes while the library's arenas stay put, so every
// reading first returns free arena pages to the system (malloc_trim), and the drift is taken from
// a reading after the arenas have settled. Per-frame allocation churn in the library, which the
// trim would hide, is caught directly by counting the assembler's frame-node allocations.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "platform/platform.h"
#include "stream/stream_internal.h"
#include "vcam_env.h"

namespace {

// Sanitizer runtimes keep freed memory in quarantine and map shadow memory: resident figures mean
// nothing there, while the run still checks the capture path and the node reuse.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool k_sanitized = true;
#elif defined(__has_feature)
constexpr bool k_sanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool k_sanitized = false;
#endif

std::atomic<uint64_t> g_node_allocs{0};

void *_counting_alloc(size_t bytes) {
    g_node_allocs.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(bytes);
}

double _rss_mib() {
    malloc_trim(0);
    long pages = 0, resident = 0;
    std::FILE *f = std::fopen("/proc/self/statm", "r");
    if (!f) return 0;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

// Heap in use across all arenas, for the log: real growth shows here, allocator slack does not.
double _heap_mib() {
    const struct mallinfo2 mi = mallinfo2();
    return static_cast<double>(mi.uordblks + mi.hblkhd) / 1048576.0;
}

using tevix::test::vcam_env;
::testing::Environment *const g_env =
    ::testing::AddGlobalTestEnvironment(new vcam_env({vcam_env::scene_unit(vcam_env::at_fps(60))}));

}  // namespace

TEST(memory, capture_costs_little_and_stays_flat) {
    tevix::stream::set_node_alloc(_counting_alloc);
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
        const int n = tevix::test::pull(dev, raw, &info);
        if (n == 1)
            tevix_frame_get_dist_u16(dev, mm.data(), 320 * 240, raw.data(), info.size, &info);
        return n;
    };
    for (int i = 0; i < 300; ++i) ASSERT_EQ(pull(), 1);
    const double warm = _rss_mib();
    std::printf("resident: library %.1f MiB, capturing %.1f MiB (+%.1f MiB)\n", base, warm,
                warm - base);
    if (!k_sanitized) {
        EXPECT_LE(warm - base, 32.0);
    }

    const char *env = std::getenv("TEVIX_MEMORY_SECONDS");
    const uint64_t seconds = env ? std::strtoull(env, nullptr, 10) : 600;
    ASSERT_GE(seconds, 20u) << "TEVIX_MEMORY_SECONDS too short for two windows";
    // A minute lets the arenas of the event, producer and pulling threads reach their working
    // size. Whenever the pull falls behind, the ready list (10 frames) and the camera's send queue
    // (4 MiB) hold frames for a while, so a level is the lowest reading of a window: the level
    // after settling against the level of the last window.
    const uint64_t window_ms = std::min<uint64_t>(60, seconds / 4) * 1000;
    const uint64_t start = tevix::plat::mono_ms();
    const uint64_t end = start + seconds * 1000;
    const uint64_t settled_end = start + 2 * window_ms, last_start = end - window_ms;
    uint64_t frames = 0, settled_frames = 0, settled_allocs = 0;
    double settled = 1e9, last = 1e9, peak = 0;
    uint64_t next_reading = start + window_ms, next_log = start + 60000;
    while (tevix::plat::mono_ms() < end) {
        ASSERT_EQ(pull(), 1);
        ++frames;
        const uint64_t now = tevix::plat::mono_ms();
        if (now >= next_reading) {
            next_reading += 2000;
            const double r = _rss_mib();
            peak = std::max(peak, r);
            if (now < settled_end) settled = std::min(settled, r);
            if (now >= last_start) last = std::min(last, r);
            if (!settled_frames) {
                settled_frames = frames;
                settled_allocs = g_node_allocs.load();
            }
        }
        if (now >= next_log) {
            next_log += 60000;
            std::printf("  %3llu s: %.1f MiB resident, %.1f MiB heap in use\n",
                        static_cast<unsigned long long>((now - start) / 1000), _rss_mib(),
                        _heap_mib());
        }
    }
    ASSERT_LT(settled, 1e9);
    ASSERT_LT(last, 1e9);
    const uint64_t allocs = g_node_allocs.load() - settled_allocs;
    std::printf(
        "after %llu frames in %llu s: %.1f MiB, settled %.1f MiB, drift %+.1f MiB (peak "
        "%.1f MiB); %llu frame-node allocations after settling\n",
        static_cast<unsigned long long>(frames), static_cast<unsigned long long>(seconds), last,
        settled, last - settled, peak, static_cast<unsigned long long>(allocs));
    if (!k_sanitized) {
        EXPECT_LE(last - settled, 2.0);
    }
    // A steady capture refills the assembler's few nodes; a lagging pull may add some.
    EXPECT_LT(allocs * 10, frames - settled_frames);
    tevix_cap_stop(dev);
    tevix_dev_close(dev);
    tevix::stream::set_node_alloc(nullptr);
}
