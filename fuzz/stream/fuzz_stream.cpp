// Feeds arbitrary bytes in arbitrary chunks into a frame stream assembler and checks every frame
// that comes out: its descriptor must come from a valid header of the input, and it must hold
// exactly frlen bytes.
//
// Input: 8 control bytes (ready list capacity, chunking seed, options), then the stream bytes.
// With TEVIX_FUZZ_WRITE_SEEDS=<dir> in the environment the program writes its seed inputs, built
// with the header maker, into dir and exits.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "stream_builder.h"
#include "tevix/vx_log.h"
#include "tevix/vx_stream.h"

namespace {

constexpr size_t kCtl = 8;

#define CHECK(cond)                                                         \
    do {                                                                    \
        if (!(cond)) {                                                      \
            std::fprintf(stderr, "fuzz_stream: check failed: %s\n", #cond); \
            __builtin_trap();                                               \
        }                                                                   \
    } while (0)

struct rng {
    uint32_t x;
    uint32_t next() {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        return x;
    }
};

// Valid headers of the input: the only possible origins of a frame's descriptor.
std::vector<vx_stream_hdr_t> valid_headers(const uint8_t *p, size_t n) {
    std::vector<vx_stream_hdr_t> out;
    for (size_t i = 0; i + VX_STREAM_HDR_SIZE <= n; ++i) {
        if (p[i] != 0xFB || p[i + 1] != 0x98) continue;
        vx_stream_hdr_t h;
        std::memcpy(&h, p + i, sizeof h);
        if (h.hdr_cksum != vx_stream_hash16(p + i, 34, 0)) continue;
        if (h.len - 1u > VX_STREAM_LEN_MAX - 1u || h.desc.frlen - 1u > VX_STREAM_FRLEN_MAX - 1u)
            continue;
        out.push_back(h);
    }
    return out;
}

bool from_some_header(const vx_frame_desc_t &d, const std::vector<vx_stream_hdr_t> &hdrs) {
    for (const auto &h : hdrs) {
        vx_frame_desc_t a = d, b = h.desc;
        a.fridx = b.fridx = 0;
        if (std::memcmp(&a, &b, sizeof a) != 0) continue;
        // Frames of a payload count up from the header's index; when the payload first completes
        // a frame begun by an earlier packet, the frames after it count from one more.
        const uint32_t per_packet = h.len > h.desc.frlen ? h.len / h.desc.frlen : 1;
        if (static_cast<uint16_t>(d.fridx - h.desc.fridx) <= per_packet) return true;
    }
    return false;
}

// Checks the oldest ready frame through two peeks with different fillings: bytes that a peek
// did not write would differ, and nothing may be written past frlen.
void check_oldest(vx_stream_t *s, const std::vector<vx_stream_hdr_t> &hdrs) {
    uint8_t dummy = 0;
    vx_frame_desc_t d{};
    if (vx_stream_fetch_frames(s, &dummy, 0, 1, &d, true) != 1) return;
    CHECK(from_some_header(d, hdrs));
    std::vector<uint8_t> a(size_t{d.frlen} + 8, 0x00), b(size_t{d.frlen} + 8, 0xFF);
    CHECK(vx_stream_fetch_frames(s, a.data(), static_cast<int32_t>(a.size()), 1, nullptr, true) ==
          1);
    CHECK(vx_stream_fetch_frames(s, b.data(), static_cast<int32_t>(b.size()), 1, nullptr, true) ==
          1);
    CHECK(std::memcmp(a.data(), b.data(), d.frlen) == 0);
    for (size_t i = d.frlen; i < a.size(); ++i) CHECK(a[i] == 0x00 && b[i] == 0xFF);
}

void write_seeds(const char *dir) {
    using tevix::test::stream_builder;
    auto save = [dir](const char *name, uint32_t cfg, uint32_t seed, uint8_t opts,
                      const std::vector<uint8_t> &bytes) {
        std::vector<uint8_t> in(kCtl);
        in[0] = static_cast<uint8_t>(cfg);
        std::memcpy(&in[1], &seed, 4);
        in[5] = opts;
        in.insert(in.end(), bytes.begin(), bytes.end());
        const std::string path = std::string(dir) + "/" + name;
        FILE *f = std::fopen(path.c_str(), "wb");
        if (!f || std::fwrite(in.data(), 1, in.size(), f) != in.size()) std::perror(path.c_str());
        if (f) std::fclose(f);
    };
    {
        stream_builder b;
        for (uint16_t i = 0; i < 3; ++i) b.frame(i, 48, 48);
        save("single_packets", 4, 1, 0, b.bytes());
    }
    {
        stream_builder b;
        b.frame(7, 100, 30);
        b.frame(8, 100, 30);
        save("spanning", 2, 77, 1, b.bytes());
    }
    {
        stream_builder b;
        b.multi(0xFFFE, 24, 3);
        b.multi(1, 24, 2);
        save("multi_frame", 3, 5, 2, b.bytes());
    }
    {
        stream_builder b(true);
        b.frame(1, 64, 32);
        b.frame(2, 64, 64);
        save("data_cksum", 4, 12345, 0, b.bytes());
    }
    {
        stream_builder b;
        b.raw({0xFB, 0x98, 0x00, 0xFB, 0x11, 0xFB});
        b.frame(3, 40, 20);
        b.frame(5, 40, 40);
        auto bytes = b.bytes();
        std::vector<uint8_t> cont(bytes.begin() + 6 + 56, bytes.end());  // starts mid-frame
        cont.insert(cont.end(), bytes.begin(), bytes.end());
        save("garbage_and_gaps", 1, 999, 4, cont);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (const char *dir = std::getenv("TEVIX_FUZZ_WRITE_SEEDS")) {
        write_seeds(dir);
        std::exit(0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < kCtl) return 0;
    const uint32_t cfg = data[0] % 9;
    rng r{0};
    std::memcpy(&r.x, data + 1, 4);
    r.x |= 1;
    const uint8_t opts = data[5];
    const uint32_t max_chunk = (opts & 1) ? 4096 : (opts & 2) ? 64 : 40;
    // Formatting every trace line is slow; an eighth of the inputs runs with it.
    static bool log_open = vx_log_init(nullptr, "/dev/null", "VX") != nullptr;
    if (log_open) {
        vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
        vx_log_cfg(nullptr, VX_LOG_TARGET_FILE, (opts & 0x38) == 0x38 ? 0 : VX_LOG_OFF, 0);
    }
    const uint8_t *p = data + kCtl;
    const size_t n = size - kCtl;
    const auto hdrs = valid_headers(p, n);

    vx_stream_t *s = vx_stream_create(&cfg);
    CHECK(s);
    size_t pos = 0;
    while (pos < n) {
        const size_t k = std::min<size_t>(1 + r.next() % max_chunk, n - pos);
        const bool any = vx_stream_feed_input(s, p + pos, static_cast<uint32_t>(k));
        pos += k;
        vx_stream_state_t st{};
        CHECK(vx_stream_get_state(s, &st) == &st);
        CHECK(st.ready <= cfg);
        CHECK(any == (st.ready > 0));
        CHECK(st.readied <= st.completed);
        switch (r.next() % 5) {
            case 0:
                CHECK(vx_stream_fetch_frames(s, nullptr, 0, 9, nullptr, true) == st.ready);
                break;
            case 1:
                check_oldest(s, hdrs);
                break;
            case 2:
                check_oldest(s, hdrs);
                vx_stream_fetch_frames(s, nullptr, 0, 1, nullptr, false);
                break;
            case 3:
                if (opts & 4) {
                    vx_stream_fetch_frames(s, nullptr, 0, UINT32_MAX, nullptr, false);
                    vx_stream_reset(s);
                }
                break;
            default:
                break;
        }
    }
    while (vx_stream_fetch_frames(s, nullptr, 0, 1, nullptr, true)) {
        check_oldest(s, hdrs);
        vx_stream_fetch_frames(s, nullptr, 0, 1, nullptr, false);
    }
    vx_stream_destroy(s);
    return 0;
}
