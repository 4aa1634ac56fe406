// ONI reader: every record of the input, every frame decoded, a few seeks. The reader takes a
// file name, so each input goes through a scratch file of this process.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ll/oni/oni.h"
#include "tevix/vx_log.h"

namespace {

std::string g_path;

void _touch(tevix::oni::reader *, uint32_t, const char *name, const void *v, uint32_t size,
            void *user) {
    auto *sum = static_cast<uint64_t *>(user);
    const auto *b = static_cast<const uint8_t *>(v);
    for (uint32_t i = 0; i < size; ++i) *sum += b[i];
    while (*name) *sum += static_cast<uint8_t>(*name++);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vx_log_init(nullptr, nullptr, "FZ");
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
    g_path = "/tmp/fuzz_oni_" + std::to_string(getpid()) + ".oni";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::FILE *fp = std::fopen(g_path.c_str(), "wb");
    if (!fp) return 0;
    const bool ok = std::fwrite(data, 1, size, fp) == size;
    std::fclose(fp);
    if (!ok) return 0;
    uint64_t sum = 0;
    auto r = tevix::oni::reader::open(g_path.c_str(), _touch, &sum);
    if (!r) return 0;
    std::vector<uint16_t> px;
    for (int i = 0; i < 4096; ++i) {
        const int t = r->read_next();
        if (t <= 0) break;
        if (t == 10) r->decode_frame(r->last().node_id, r->last().payload, px);
    }
    for (uint32_t id = 1; id <= r->max_node_id(); ++id) {
        r->seek(id, 1, 0);
        if (r->read_frame(id) == 1) r->decode_frame(id, r->last().payload, px);
        r->seek(id, -1, 2);
        r->seek(id, 0, 0);
        r->read_frame(id);
    }
    return 0;
}
