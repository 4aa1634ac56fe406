// Frame files: the input as a file, read through each of the three loaders from its start until
// they stop (header parse, geometry checks, frame reads of every sample type).
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

#include "tevix/tevix.h"
#include "tevix/vx_log.h"

namespace {

int g_fd = -1;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vx_log_init(nullptr, nullptr, "FZ");
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
    g_fd = memfd_create("fuzz_frame_file", MFD_CLOEXEC);
    return g_fd >= 0 ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (ftruncate(g_fd, 0) != 0 || pwrite(g_fd, data, size, 0) != ssize_t(size)) return 0;
    // Small enough that a frame bigger than the input never gets a buffer of its size.
    std::vector<uint16_t> raw(1u << 16);
    std::vector<float> values(1u << 16);
    for (int pass = 0; pass < 3; ++pass) {
        if (lseek(g_fd, 0, SEEK_SET) != 0) return 0;
        for (int frames = 0; frames < 64; ++frames) {
            uint32_t w = 0, h = 0, s = 0;
            const int got =
                pass == 0 ? tevix_frame_load_raw(g_fd, raw.data(), uint32_t(raw.size()), &w, &h, &s)
                : pass == 1
                    ? tevix_frame_load_distance(g_fd, values.data(), uint32_t(values.size()), &w,
                                                &h)
                    : tevix_frame_load_gray(g_fd, values.data(), uint32_t(values.size()), &w, &h);
            if (got <= 0) break;
            if (uint64_t(w) * h * (pass == 0 ? s : 1) != uint64_t(got)) __builtin_trap();
        }
    }
    return 0;
}
