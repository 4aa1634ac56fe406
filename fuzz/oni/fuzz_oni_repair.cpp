// Recording repair: the scan of an unfinished recording from memory, then a whole repair of the
// same bytes through scratch files, and the repaired file read back record by record.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ll/oni/oni.h"
#include "tevix/vx_log.h"

namespace {

std::string g_in, g_out;

struct memory {
    const uint8_t *data;
    size_t size;
};

size_t _read(void *src, uint64_t pos, void *dst, size_t size) {
    const auto *m = static_cast<const memory *>(src);
    if (pos >= m->size || size == 0) return 0;
    const size_t n = std::min<size_t>(size, m->size - static_cast<size_t>(pos));
    std::memcpy(dst, m->data + pos, n);
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vx_log_init(nullptr, nullptr, "FZ");
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
    g_in = "/tmp/fuzz_oni_repair_in_" + std::to_string(getpid()) + ".oni";
    g_out = "/tmp/fuzz_oni_repair_out_" + std::to_string(getpid()) + ".oni";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    memory m{data, size};
    tevix::oni::scan_result found;
    tevix::oni::scan(_read, &m, size, found);
    if (found.valid_end > size) __builtin_trap();

    std::FILE *fp = std::fopen(g_in.c_str(), "wb");
    if (!fp) return 0;
    const bool ok = std::fwrite(data, 1, size, fp) == size;
    std::fclose(fp);
    if (!ok || tevix::oni::repair(g_in.c_str(), g_out.c_str()) < 0) return 0;
    auto r = tevix::oni::reader::open(g_out.c_str(), nullptr, nullptr);
    if (!r) return 0;
    std::vector<uint16_t> px;
    for (int i = 0; i < 4096; ++i) {
        const int t = r->read_next();
        if (t <= 0) break;
        if (t == 10) r->decode_frame(r->last().node_id, r->last().payload, px);
    }
    return 0;
}
