#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "stream/stream_internal.h"
#include "stream/stream_sum.h"
#include "stream_builder.h"
#include "test_util.h"
#include "tevix/vx_log.h"
#include "tevix/vx_stream.h"

using tevix::test::frame_bytes;
using tevix::test::make_desc;
using tevix::test::stream_builder;

namespace {

struct frame {
    vx_frame_desc_t desc;
    std::vector<uint8_t> data;
};

using stream_ptr = std::unique_ptr<vx_stream_t, void (*)(vx_stream_t *)>;

stream_ptr make_stream(uint32_t cfg = 64) {
    return {vx_stream_create(&cfg), vx_stream_destroy};
}

std::vector<frame> fetch_all(vx_stream_t *s) {
    std::vector<frame> out;
    for (;;) {
        // A peek without a destination only counts; a zero-sized one brings the descriptor.
        vx_frame_desc_t d{};
        uint8_t none = 0;
        if (vx_stream_fetch_frames(s, &none, 0, 1, &d, true) == 0) break;
        std::vector<uint8_t> buf(d.frlen);
        vx_frame_desc_t again{};
        EXPECT_EQ(vx_stream_fetch_frames(s, buf.data(), static_cast<int32_t>(buf.size()), 1, &again,
                                         false),
                  1u);
        EXPECT_EQ(std::memcmp(&d, &again, sizeof d), 0);
        out.push_back({d, std::move(buf)});
    }
    return out;
}

vx_stream_state_t state_of(vx_stream_t *s) {
    vx_stream_state_t st{};
    EXPECT_EQ(vx_stream_get_state(s, &st), &st);
    return st;
}

// Feeds bytes cut at the given chunk sizes (cycled).
void feed_chunks(vx_stream_t *s, const std::vector<uint8_t> &b,
                 const std::vector<uint32_t> &sizes) {
    size_t pos = 0;
    for (size_t k = 0; pos < b.size(); ++k) {
        const auto n =
            static_cast<uint32_t>(std::min<size_t>(sizes[k % sizes.size()], b.size() - pos));
        vx_stream_feed_input(s, b.data() + pos, n);
        pos += n;
    }
}

void feed(vx_stream_t *s, const std::vector<uint8_t> &b) {
    vx_stream_feed_input(s, b.data(), static_cast<uint32_t>(b.size()));
}

// Feeds the bytes to a new stream: its statistics before any fetch and the frames it gives.
struct fed {
    vx_stream_state_t st;
    std::vector<frame> got;
};
fed run(const std::vector<uint8_t> &bytes, uint32_t cfg = 64) {
    auto s = make_stream(cfg);
    feed(s.get(), bytes);
    fed r{state_of(s.get()), {}};
    r.got = fetch_all(s.get());
    return r;
}

// Node allocations through the hook are counted; the fail_at-th one fails (0: none).
std::atomic<int> g_allocs{0};
int g_fail_at = 0;
void count_allocs(int fail_at = 0) {
    g_allocs = 0;
    g_fail_at = fail_at;
    tevix::stream::set_node_alloc(
        [](size_t n) -> void * { return ++g_allocs == g_fail_at ? nullptr : std::malloc(n); });
}

// hdr_fridx: index named by the packet header (the first frame of a multi-frame payload), whose
// other descriptor fields every frame of the payload carries.
void expect_frame(const frame &f, uint16_t fridx, uint32_t frlen, int hdr_fridx = -1) {
    EXPECT_EQ(f.desc.fridx, fridx);
    EXPECT_EQ(f.desc.frlen, frlen);
    const auto want = make_desc(frlen, static_cast<uint16_t>(hdr_fridx < 0 ? fridx : hdr_fridx));
    EXPECT_EQ(f.desc.time, want.time);
    EXPECT_EQ(f.desc.tcb, want.tcb);
    EXPECT_TRUE(f.data == frame_bytes(fridx, frlen)) << "frame " << fridx;
}

// Header fields after mkhdr, with a valid checksum recomputed after a change.
vx_stream_hdr_t hdr_at(const std::vector<uint8_t> &b, size_t ofs) {
    vx_stream_hdr_t h;
    std::memcpy(&h, b.data() + ofs, sizeof h);
    return h;
}
void put_hdr(std::vector<uint8_t> &b, size_t ofs, vx_stream_hdr_t h, bool fix_cksum = true) {
    std::memcpy(b.data() + ofs, &h, sizeof h);
    if (fix_cksum) {
        h.hdr_cksum = vx_stream_hash16(b.data() + ofs, 34, 0);
        std::memcpy(b.data() + ofs, &h, sizeof h);
    }
}

// Every test writes the trace log to a file of its own, so that log lines can be checked.
class StreamTest : public ::testing::Test {
  protected:
    bool logged(const std::string &text) const { return log_.has(text); }
    void quiet() { log_.quiet(); }

    tevix::test::log_capture log_{0};
};

TEST(StreamHash, MatchesBytewiseFletcherAndContinuesFromASeed) {
    const uint8_t b[] = {0x01, 0x02};
    EXPECT_EQ(vx_stream_hash16(b, 2, 0), 0x0403);
    EXPECT_EQ(vx_stream_hash16(b, 0, 0xBEEF), 0xBEEF);
    EXPECT_EQ(vx_stream_hash16(nullptr, 5, 0x1234), 0x1234);
    // Seeding with the hash of a prefix continues the hash.
    EXPECT_EQ(vx_stream_hash16(b + 1, 1, vx_stream_hash16(b, 1, 0)), 0x0403);
    std::mt19937 rng(7);
    for (uint32_t len : {1u, 4095u, 4096u, 4097u, 20000u}) {
        std::vector<uint8_t> b(len);
        for (auto &x : b) x = static_cast<uint8_t>(rng() | 0xF0);  // large bytes stress the sums
        const auto seed = static_cast<uint16_t>(rng());
        uint32_t s1 = seed & 0xFF, s2 = seed >> 8;
        for (uint8_t x : b) {
            s1 = (s1 + x) % 255;
            s2 = (s2 + s1) % 255;
        }
        EXPECT_EQ(vx_stream_hash16(b.data(), len, seed), s1 | s2 << 8) << len;
    }
}

TEST(StreamSum, FastPathMatchesScalarAtAnyAlignment) {
    std::mt19937 rng(11);
    std::vector<uint8_t> b(5000);
    for (auto &x : b) x = static_cast<uint8_t>(rng());
    for (uint32_t ofs = 0; ofs < 4; ++ofs)
        for (uint32_t words : {0u, 1u, 31u, 32u, 33u, 127u, 128u, 1000u, 1249u})
            EXPECT_EQ(tevix::stream::sum_u32le(b.data() + ofs, words),
                      tevix::stream::sum_u32le_scalar(b.data() + ofs, words))
                << ofs << " " << words;
    const uint8_t le[8] = {0x04, 0x03, 0x02, 0x01, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(tevix::stream::sum_u32le_scalar(le, 2), 0x01020303u);
}

TEST_F(StreamTest, HeaderMakerFields) {
    auto *os = vx_ostream_create();
    ASSERT_NE(os, nullptr);
    uint8_t cfg = 0xFF;
    EXPECT_EQ(vx_ostream_get_cfg(os, &cfg), &cfg);
    EXPECT_EQ(cfg, 0);
    cfg = 1;
    vx_ostream_set_cfg(os, &cfg);

    const uint32_t payload[3] = {0x01020304u, 0xFFFFFFFFu, 2u};
    auto d = make_desc(20, 7);
    uint8_t raw[36];
    vx_stream_hdr_t h;
    auto mkhdr = [&](int32_t len) {
        EXPECT_EQ(vx_ostream_mkhdr(os, raw, &d, payload, len), len);
        std::memcpy(&h, raw, sizeof h);
    };
    mkhdr(11);
    EXPECT_EQ(raw[0], 0xFB);
    EXPECT_EQ(raw[1], 0x98);
    EXPECT_EQ(h.idx, 0);
    EXPECT_EQ(h.len, 11u);
    EXPECT_EQ(std::memcmp(&h.desc, &d, sizeof d), 0);
    EXPECT_EQ(h.data_cksum, 0x01020303u);  // two whole words, wrapping
    EXPECT_EQ(h.flags0, VX_STREAM_FLAG0_BOUND);
    EXPECT_EQ(h.flags1, VX_STREAM_FLAG1_CKSUM);
    EXPECT_EQ(h.hdr_cksum, vx_stream_hash16(raw, 34, 0));

    // The same index continues the frame; a new one starts the next.
    mkhdr(9);
    EXPECT_EQ(h.idx, 1);
    EXPECT_EQ(h.flags0, 0);
    // ofs 20 has reached the frame size: the next piece of "frame 7" starts a frame again.
    mkhdr(3);
    EXPECT_EQ(h.flags0, VX_STREAM_FLAG0_BOUND);
    EXPECT_EQ(h.data_cksum, 0u);
    EXPECT_TRUE(logged("vx_ostream: ofs 20 > frame size 20, force fr_bound\n"));

    vx_ostream_reset(os);
    EXPECT_EQ(vx_ostream_get_cfg(os, &cfg), &cfg);
    EXPECT_EQ(cfg, 1);
    mkhdr(0);
    EXPECT_EQ(h.idx, 0);
    EXPECT_EQ(h.flags0, VX_STREAM_FLAG0_BOUND);
    vx_ostream_destroy(os);
}

// A stream mixing frames that span packets, whole-frame packets and multi-frame packets, behind
// some garbage without sync bytes.
std::vector<uint8_t> mixed_stream() {
    stream_builder b;
    b.raw({0x00, 0x11, 0x22, 0x98, 0x33});
    b.frame(0, 1000, 400);
    b.frame(1, 1000, 1000);
    b.multi(2, 300, 3);
    b.frame(5, 77, 77);
    b.frame(6, 5000, 1536);
    b.multi(7, 35, 4);
    b.frame(11, 37, 36);
    return b.bytes();
}

TEST_F(StreamTest, EveryChunkingGivesTheSameFramesAndStatistics) {
    quiet();
    const auto bytes = mixed_stream();
    const auto [ref_st, ref] = run(bytes);
    ASSERT_EQ(ref.size(), 12u);
    const uint32_t frlen[12] = {1000, 1000, 300, 300, 300, 77, 5000, 35, 35, 35, 35, 37};
    const int hdr_fridx[12] = {0, 1, 2, 2, 2, 5, 6, 7, 7, 7, 7, 11};
    for (uint16_t i = 0; i < 12; ++i) expect_frame(ref[i], i, frlen[i], hdr_fridx[i]);
    EXPECT_EQ(ref_st.completed, 12u);
    EXPECT_EQ(ref_st.readied, 12u);
    EXPECT_EQ(ref_st.ready, 12u);
    EXPECT_EQ(ref_st.discarded, 0u);
    EXPECT_EQ(ref_st.discarded_bytes, 5u);

    std::mt19937 rng(1234);
    std::vector<std::vector<uint32_t>> chunkings = {
        {1}, {35}, {36}, {37}, {2}, {3}, {7}, {13}, {101}, {997}, {4099}, {3, 5, 7, 11, 13}};
    for (int r = 0; r < 4; ++r) {
        std::vector<uint32_t> sizes(50);
        for (auto &x : sizes) x = 1 + rng() % (r < 2 ? 64 : 3000);
        chunkings.push_back(sizes);
    }
    for (const auto &sizes : chunkings) {
        SCOPED_TRACE("first chunk size " + std::to_string(sizes[0]));
        auto s = make_stream();
        feed_chunks(s.get(), bytes, sizes);
        const auto st = state_of(s.get());
        EXPECT_EQ(std::memcmp(&st, &ref_st, 9 * sizeof(uint32_t)), 0);
        const auto got = fetch_all(s.get());
        ASSERT_EQ(got.size(), ref.size());
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(std::memcmp(&got[i].desc, &ref[i].desc, sizeof(vx_frame_desc_t)), 0);
            EXPECT_TRUE(got[i].data == ref[i].data) << i;
        }
    }
}

// The second packet's header arrives in pieces, from a lone sync byte behind the first packet on.
TEST_F(StreamTest, HeaderSplitOverSeveralChunks) {
    stream_builder b;
    b.frame(0, 50, 50);
    b.frame(1, 64, 64);
    const auto &bytes = b.bytes();
    for (const std::vector<uint32_t> &cuts :
         {std::vector<uint32_t>{1, 35}, {10, 26}, {1, 1, 34}, std::vector<uint32_t>(36, 1)}) {
        SCOPED_TRACE(cuts.size());
        auto s = make_stream();
        uint32_t pos = 86;  // the first packet
        EXPECT_TRUE(vx_stream_feed_input(s.get(), bytes.data(), pos));
        ASSERT_EQ(fetch_all(s.get()).size(), 1u);
        for (uint32_t c : cuts) {
            EXPECT_FALSE(vx_stream_feed_input(s.get(), bytes.data() + pos, c));
            pos += c;
        }
        EXPECT_TRUE(vx_stream_feed_input(s.get(), bytes.data() + pos, 64));
        const auto got = fetch_all(s.get());
        ASSERT_EQ(got.size(), 1u);
        expect_frame(got[0], 1, 64);
        EXPECT_EQ(state_of(s.get()).discarded_bytes, 0u);
    }
    EXPECT_TRUE(logged("HDR found: idx/len=1/64(frlen:64,fridx=1,frfmt=2)\n"));
    EXPECT_TRUE(logged("partial hdr found: 1/35.\n"));
    EXPECT_TRUE(logged("partial hdr found: 10/26.\n"));
}

TEST_F(StreamTest, MultiFramePayloadGivesConsecutiveIndices) {
    stream_builder b;
    b.multi(0xFFFE, 40, 3);  // the indices wrap at 16 bits
    b.multi(1, 40, 3);
    const auto got = run(b.bytes()).got;
    ASSERT_EQ(got.size(), 6u);
    const uint16_t want[] = {0xFFFE, 0xFFFF, 0, 1, 2, 3};
    for (size_t i = 0; i < 6; ++i) expect_frame(got[i], want[i], 40, i < 3 ? 0xFFFE : 1);
    // The second packet follows on: frames per packet is 3.
    EXPECT_FALSE(logged("missing frame"));
}

TEST_F(StreamTest, RejectedHeadersArePassedOver) {
    stream_builder good;
    good.frame(9, 16, 16);
    const auto packet = good.bytes();
    const auto base = hdr_at(packet, 0);

    std::vector<std::vector<uint8_t>> bad;
    for (auto change : {0, 1, 2, 3}) {
        std::vector<uint8_t> b(packet.begin(), packet.begin() + 36);
        auto h = base;
        if (change == 0) h.len = 0;
        if (change == 1) h.len = 0xA00000;
        if (change == 2) h.desc.frlen = 0x8000000;
        if (change == 3) h.desc.frlen = 0;
        put_hdr(b, 0, h);
        bad.push_back(b);
    }
    std::vector<uint8_t> broken(packet.begin(), packet.begin() + 36);
    broken[35] ^= 0x01;
    bad.push_back(broken);
    // A rejected candidate that overlaps the real header two bytes later.
    bad.push_back({0xFB, 0x98});

    for (size_t k = 0; k < bad.size(); ++k) {
        auto bytes = bad[k];
        bytes.insert(bytes.end(), packet.begin(), packet.end());
        const auto [st, got] = run(bytes);
        ASSERT_EQ(got.size(), 1u) << k;
        expect_frame(got[0], 9, 16);
        EXPECT_EQ(st.discarded_bytes, bad[k].size()) << k;
    }
    // The payload length limit itself is accepted (the frame length's: HostileHeaders).
    auto bytes = packet;
    auto h = base;
    h.len = VX_STREAM_LEN_MAX;
    put_hdr(bytes, 0, h);
    auto s = make_stream();
    feed(s.get(), bytes);
    EXPECT_TRUE(logged("HDR found: idx/len=0/10485759 (frlen:16,fridx=9,frfmt=2,b=1,e=0)\n"));
    EXPECT_TRUE(logged("raw @ 0/52: sync hdr use 36 [valid=1, len=36, skip=0]\n"));
}

// A new stream, or one reset inside a frame, waits for a header with fr_bound.
TEST_F(StreamTest, FirstHeaderAfterResetNeedsFrameBound) {
    stream_builder b;
    b.frame(4, 100, 60);  // two packets; only the first carries fr_bound
    b.frame(5, 100, 100);
    const auto &bytes = b.bytes();
    auto s = make_stream();
    feed(s.get(), std::vector<uint8_t>(bytes.begin() + 96, bytes.end()));
    EXPECT_TRUE(logged("HDR skip: no fr-bound @ 0/212 \n"));
    auto got = fetch_all(s.get());
    ASSERT_EQ(got.size(), 1u);
    expect_frame(got[0], 5, 100);
    EXPECT_EQ(state_of(s.get()).discarded_bytes, 40u);  // the skipped payload

    vx_stream_feed_input(s.get(), bytes.data(), 96 + 10);  // frame 4 half done
    vx_stream_reset(s.get());
    EXPECT_TRUE(logged(" stream reset\n"));
    const auto st = state_of(s.get());
    EXPECT_EQ(st.completed, 0u);
    EXPECT_EQ(st.discarded_bytes, 0u);
    EXPECT_NE(st.reset_sec, 0u);
    EXPECT_LT(st.reset_usec, 1000000u);
    feed(s.get(), std::vector<uint8_t>(bytes.begin() + 96 + 10, bytes.end()));
    got = fetch_all(s.get());
    ASSERT_EQ(got.size(), 1u);
    expect_frame(got[0], 5, 100);
    EXPECT_EQ(state_of(s.get()).discarded, 0u);
}

TEST_F(StreamTest, OverflowDropsTheOldestFrames) {
    stream_builder b;
    for (uint16_t i = 0; i < 5; ++i) b.frame(i, 32, 32);
    const auto [st, got] = run(b.bytes(), 2);
    EXPECT_EQ(st.overflow, 3u);
    EXPECT_EQ(st.ready, 2u);
    EXPECT_EQ(st.ready_max, 3u);
    EXPECT_EQ(st.completed, 5u);
    EXPECT_EQ(st.readied, 5u);
    EXPECT_EQ(st.discarded_bytes, 3u * 32u);
    EXPECT_TRUE(logged("discard frames: frame buffer is full (1/3)\n"));
    EXPECT_TRUE(logged("discard frame: idx = 2\n"));
    ASSERT_EQ(got.size(), 2u);
    expect_frame(got[0], 3, 32);
    expect_frame(got[1], 4, 32);
}

TEST_F(StreamTest, DataChecksumMismatchDiscardsAndResynchronises) {
    stream_builder b(true);
    b.frame(0, 64, 64);
    b.frame(1, 64, 32);  // two packets; the second gets corrupted
    b.frame(2, 64, 64);
    b.frame(3, 64, 64);
    auto bytes = b.bytes();
    bytes[100 + 68 + 36 + 5] ^= 0x40;
    auto s = make_stream();
    feed(s.get(), bytes);
    EXPECT_TRUE(logged("discard frame: verify data checksum failed: sidx=2\n"));
    EXPECT_TRUE(logged("discard frame: idx = 1\n"));
    const auto got = fetch_all(s.get());
    ASSERT_EQ(got.size(), 3u);
    expect_frame(got[0], 0, 64);
    expect_frame(got[1], 2, 64);
    expect_frame(got[2], 3, 64);
    const auto st = state_of(s.get());
    EXPECT_EQ(st.discarded, 1u);
    EXPECT_EQ(st.discarded_bytes, 64u);  // the first half in the node and the corrupted half

    // The sum is taken per piece: pieces on 4-byte boundaries agree with the producer's sum.
    quiet();
    stream_builder whole(true);
    for (uint16_t i = 0; i < 4; ++i) whole.frame(i, 400, 400);
    s = make_stream();
    feed_chunks(s.get(), whole.bytes(), {36, 100, 8, 292});
    EXPECT_EQ(fetch_all(s.get()).size(), 4u);
    // Pieces of other sizes leave tail bytes out and fail the check.
    s = make_stream();
    feed_chunks(s.get(), whole.bytes(), {37});
    EXPECT_EQ(fetch_all(s.get()).size(), 0u);
    EXPECT_EQ(state_of(s.get()).completed, 0u);
}

// Packets lost or changed on the way: the broken frame is discarded, a missing one only logged.
TEST_F(StreamTest, BrokenContinuationsDiscardTheFrame) {
    stream_builder b;
    for (uint16_t i = 0; i < 5; ++i) b.frame(i, 90, 30);  // packets 3i, 3i+1, 3i+2
    const size_t pkt = 66;
    struct damage {
        size_t drop_from, drop_to;  // packets left out
        size_t renamed;             // packet whose header names frame 7 (0: none)
        const char *message;
        std::vector<uint16_t> kept;
        int discarded;  // -1: not checked (the renamed packets start nodes of their own)
    };
    const damage damages[] = {
        // Packet 4 missing: packet 5 continues frame 1 with a wrong header idx.
        {4, 5, 0, "discard frame: stream hdr idx not correct (prev=3, cur=5)\n", {0, 2, 3, 4}, 1},
        // Packet 8 missing: the next header starts frame 3 while frame 2 is incomplete.
        {8, 9, 0, "discard frame: frame bound met, prev not complete\n", {0, 1, 3, 4}, 1},
        // A continuation that names another frame.
        {0, 0, 4, "discard frame: frame idx not consist (prev=1, cur=7)\n", {0, 2, 3, 4}, -1},
        // Frame 2 missing whole: frame 3 is kept.
        {6, 9, 0, "missing frame: jumpping frame idx (prev=2, cur=3)\n", {0, 1, 3, 4}, 0},
    };
    for (const damage &d : damages) {
        SCOPED_TRACE(d.message);
        auto bytes = b.bytes();
        if (d.renamed) {
            auto h = hdr_at(bytes, d.renamed * pkt);
            h.desc.fridx = 7;
            put_hdr(bytes, d.renamed * pkt, h);
        }
        bytes.erase(bytes.begin() + d.drop_from * pkt, bytes.begin() + d.drop_to * pkt);
        const auto [st, got] = run(bytes);
        EXPECT_TRUE(logged(d.message));
        ASSERT_EQ(got.size(), d.kept.size());
        for (size_t k = 0; k < got.size(); ++k) expect_frame(got[k], d.kept[k], 90);
        if (d.discarded >= 0) {
            EXPECT_EQ(st.discarded, static_cast<uint32_t>(d.discarded));
        }
    }
}

TEST_F(StreamTest, FetchPeekDropAndCut) {
    stream_builder b;
    for (uint16_t i = 0; i < 4; ++i) b.frame(i, 10, 10);
    auto s = make_stream();
    EXPECT_TRUE(
        vx_stream_feed_input(s.get(), b.bytes().data(), static_cast<uint32_t>(b.bytes().size())));

    EXPECT_EQ(vx_stream_fetch_frames(s.get(), nullptr, 0, 9, nullptr, true), 4u);
    EXPECT_EQ(vx_stream_fetch_frames(s.get(), nullptr, 0, 0, nullptr, false), 0u);
    std::vector<uint8_t> dst(25, 0xEE);
    vx_frame_desc_t d{};
    EXPECT_EQ(vx_stream_fetch_frames(s.get(), dst.data(), 25, 3, &d, true), 3u);
    EXPECT_EQ(d.fridx, 0);
    auto want = frame_bytes(0, 10);
    for (uint16_t i : {1, 2}) {
        const auto f = frame_bytes(i, 10);
        want.insert(want.end(), f.begin(), f.end());
    }
    want.resize(25);
    EXPECT_TRUE(dst == want);
    EXPECT_EQ(state_of(s.get()).ready, 4u);

    EXPECT_EQ(vx_stream_fetch_frames(s.get(), nullptr, 0, 2, &d, false), 2u);  // dropped
    EXPECT_EQ(d.fridx, 0);
    EXPECT_EQ(state_of(s.get()).ready, 2u);
    EXPECT_EQ(vx_stream_fetch_frames(s.get(), dst.data(), -5, 1, &d, false), 1u);
    EXPECT_EQ(d.fridx, 2);
    EXPECT_EQ(vx_stream_fetch_frames(s.get(), dst.data(), 25, 5, &d, false), 1u);
    EXPECT_EQ(d.fridx, 3);
    EXPECT_TRUE(std::equal(dst.begin(), dst.begin() + 10, frame_bytes(3, 10).begin()));
    EXPECT_EQ(vx_stream_fetch_frames(s.get(), dst.data(), 25, 5, &d, false), 0u);
}

TEST_F(StreamTest, NodeAllocationFailureDropsTheBytes) {
    stream_builder b;
    b.multi(0, 20, 3);   // nodes 1, 2 (fails), 3
    b.frame(3, 20, 10);  // node 4
    b.frame(4, 20, 20);  // node 5
    count_allocs(2);
    auto s = make_stream();
    feed(s.get(), b.bytes());
    tevix::stream::set_node_alloc(nullptr);
    EXPECT_TRUE(logged("malloc failed: 68 bytes\n"));
    const auto got = fetch_all(s.get());
    ASSERT_EQ(got.size(), 3u);
    expect_frame(got[0], 0, 20);
    expect_frame(got[1], 3, 20);
    expect_frame(got[2], 4, 20);
    EXPECT_EQ(state_of(s.get()).discarded_bytes, 40u);
}

TEST_F(StreamTest, HostileHeadersKeepMemoryBounded) {
    quiet();
    // Headers that declare the largest frame but deliver one byte each: every node is
    // discarded when the next frame starts, so at most one lives at a time.
    stream_builder b;
    const uint8_t one = 0x5A;
    for (uint16_t i = 0; i < 50; ++i) b.packet(make_desc(VX_STREAM_FRLEN_MAX, i), &one, 1);
    const auto st = run(b.bytes()).st;
    EXPECT_EQ(st.discarded, 49u);
    EXPECT_EQ(st.ready, 0u);
}

// One feeder and one fetcher at once, as the event thread and the capture thread run.
TEST_F(StreamTest, ConcurrentFeederAndFetcher) {
    quiet();
    constexpr uint16_t kFrames = 400;
    constexpr uint32_t kLen = 3000;
    stream_builder b(true);
    for (uint16_t i = 0; i < kFrames; ++i) b.frame(i, kLen, i % 3 ? kLen : 1024);
    const auto bytes = b.bytes();
    auto s = make_stream(8);
    std::atomic<bool> done{false};
    std::thread feeder([&] {
        size_t pos = 0;
        std::mt19937 rng(5);
        while (pos < bytes.size()) {
            const auto n =
                static_cast<uint32_t>(std::min<size_t>(4 * (1 + rng() % 2000), bytes.size() - pos));
            vx_stream_feed_input(s.get(), bytes.data() + pos, n);
            pos += n;
        }
        done = true;
    });
    uint32_t fetched = 0;
    int last = -1;
    std::vector<uint8_t> buf(kLen);
    for (;;) {
        const bool finished = done.load();
        vx_stream_state_t st;
        vx_stream_get_state(s.get(), &st);
        EXPECT_LE(st.ready, 9u);
        vx_frame_desc_t d{};
        if (vx_stream_fetch_frames(s.get(), buf.data(), kLen, 1, &d, false) == 1) {
            EXPECT_GT(static_cast<int>(d.fridx), last);
            last = d.fridx;
            EXPECT_TRUE(buf == frame_bytes(d.fridx, kLen)) << d.fridx;
            ++fetched;
        } else if (finished) {
            break;
        }
    }
    feeder.join();
    const auto st = state_of(s.get());
    EXPECT_EQ(st.completed, kFrames);
    EXPECT_EQ(fetched + st.overflow, kFrames);
    EXPECT_EQ(st.ready, 0u);
}

TEST_F(StreamTest, FetchedNodesAreReusedAndNeverTooSmall) {
    count_allocs();
    auto s = make_stream(4);
    // Frame by frame with a fetch in between: the first nodes come back and are refilled.
    auto one = [&](uint16_t fridx, uint32_t len, uint32_t packet_len) {
        stream_builder b;
        b.frame(fridx, len, packet_len);
        feed(s.get(), b.bytes());
        const auto got = fetch_all(s.get());
        ASSERT_EQ(got.size(), 1u);
        expect_frame(got[0], fridx, len);
    };
    for (uint16_t i = 0; i < 50; ++i) one(i, 40, 16);
    EXPECT_LE(g_allocs.load(), 2);
    // Larger frames after smaller ones need new nodes; smaller ones fit the spares.
    for (uint32_t len : {400u, 4000u, 8u, 4000u}) one(7, len, 100);
    // Overflow drops and discarded partial frames return their nodes too.
    stream_builder b;
    for (uint16_t i = 0; i < 8; ++i) b.frame(i, 4000, 1000);
    b.bytes().resize(b.bytes().size() - 1036);  // frame 7 lacks its last packet
    const int before = g_allocs.load();
    feed(s.get(), b.bytes());
    stream_builder more;
    more.frame(8, 4000, 4000);
    feed(s.get(), more.bytes());
    tevix::stream::set_node_alloc(nullptr);
    EXPECT_LE(g_allocs.load() - before, 4);  // a node per frame makes 9
    const auto got = fetch_all(s.get());
    ASSERT_EQ(got.size(), 4u);
    for (size_t k = 0; k < got.size(); ++k)
        expect_frame(got[k], static_cast<uint16_t>(k == 3 ? 8 : 4 + k), 4000);
}

}  // namespace
