// Feeding the frame stream assembler with camera-like streams, beside memcpy of the same bytes in
// the same chunks. Each feed benchmark names its reference with the label "ref=<name>" (see
// bench/run.sh).
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "stream_builder.h"
#include "tevix/vx_log.h"
#include "tevix/vx_stream.h"

namespace {

constexpr uint32_t kUsbChunk = 153600;  // one USB bulk transfer
constexpr uint32_t kOddChunk = 4093;

struct workload {
    const char *name;
    uint32_t frlen;
    uint32_t frames_per_packet;  // > 1: several whole frames in one payload
    uint32_t packet_len;         // payload bytes per packet when a frame spans packets
    bool cksum;
    uint32_t chunk;
};

// About 2.4 MB (or 9.8 MB for the large frames) of stream.
std::vector<uint8_t> build(const workload &w) {
    tevix::test::stream_builder b(w.cksum);
    const uint32_t frames = 16;
    for (uint32_t i = 0; i < frames;) {
        if (w.frames_per_packet > 1) {
            b.multi(static_cast<uint16_t>(i), w.frlen, w.frames_per_packet);
            i += w.frames_per_packet;
        } else {
            b.frame(static_cast<uint16_t>(i), w.frlen, w.packet_len);
            ++i;
        }
    }
    return b.bytes();
}

std::string memcpy_name(uint32_t chunk) {
    return "memcpy_" + std::to_string(chunk);
}

void bm_feed(benchmark::State &state, const workload &w) {
    const auto bytes = build(w);
    const uint32_t cap = 64;
    vx_stream_t *s = vx_stream_create(&cap);
    int64_t frames = 0;
    for (auto _ : state) {
        for (size_t pos = 0; pos < bytes.size(); pos += w.chunk) {
            const auto n = static_cast<uint32_t>(std::min<size_t>(w.chunk, bytes.size() - pos));
            if (vx_stream_feed_input(s, bytes.data() + pos, n))
                frames += vx_stream_fetch_frames(s, nullptr, 0, cap, nullptr, false);
        }
    }
    vx_stream_destroy(s);
    if (frames != 16 * state.iterations()) state.SkipWithError("frames lost");
    state.SetBytesProcessed(static_cast<int64_t>(bytes.size() * state.iterations()));
    state.SetLabel("ref=" + memcpy_name(w.chunk));
}

// The same bytes in the same chunks copied into a frame-sized buffer.
void bm_memcpy(benchmark::State &state, uint32_t chunk) {
    const auto bytes = build({"", 153600, 1, 153600, false, chunk});
    std::vector<uint8_t> dst(153600 + chunk);
    for (auto _ : state) {
        size_t at = 0;
        for (size_t pos = 0; pos < bytes.size(); pos += chunk) {
            const size_t n = std::min<size_t>(chunk, bytes.size() - pos);
            if (at + n > dst.size()) at = 0;
            std::memcpy(dst.data() + at, bytes.data() + pos, n);
            at += n;
            benchmark::DoNotOptimize(dst.data());
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes.size() * state.iterations()));
}

const workload kWorkloads[] = {
    {"stream_feed_153600", 153600, 1, 153600, false, kUsbChunk},
    {"stream_feed_153600_cksum", 153600, 1, 153600, true, kUsbChunk},
    {"stream_feed_153600_x4", 153600, 4, 0, false, kUsbChunk},
    {"stream_feed_153600_x4_cksum", 153600, 4, 0, true, kUsbChunk},
    {"stream_feed_614400", 614400, 1, 614400, false, kUsbChunk},
    {"stream_feed_614400_cksum", 614400, 1, 614400, true, kUsbChunk},
    {"stream_feed_614400_split", 614400, 1, 153600, false, kUsbChunk},
    {"stream_feed_153600_odd", 153600, 1, 153600, false, kOddChunk},
    {"stream_feed_614400_odd", 614400, 1, 614400, false, kOddChunk},
    {"stream_feed_153600_x4_odd", 153600, 4, 0, false, kOddChunk},
};

[[maybe_unused]] const bool registered = [] {
    for (uint32_t chunk : {kUsbChunk, kOddChunk})
        benchmark::RegisterBenchmark(memcpy_name(chunk).c_str(), bm_memcpy, chunk);
    for (const auto &w : kWorkloads) benchmark::RegisterBenchmark(w.name, bm_feed, w);
    return true;
}();

}  // namespace

int main(int argc, char **argv) {
    // The log as a capture runs it: console only, trace lines filtered out by level.
    vx_log_init(nullptr, nullptr, "VX");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
