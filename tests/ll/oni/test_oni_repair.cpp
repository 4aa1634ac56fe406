// Recovery of unfinished recordings: the file a writer leaves when its process dies, cut at any
// byte, gives back every whole frame and property, and a repaired file equals the one the writer
// would have finished.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ll/oni/oni.h"
#include "ll/oni/oni_test_util.h"
#include "tevix/tevix.h"

namespace oni = tevix::oni;
using tevix::test::depth_frame;
using tevix::test::read_file;
using tevix::test::record_offsets;
using tevix::test::temp_dir;
using tevix::test::write_text;

namespace {

constexpr uint32_t k_w = 6, k_h = 4, k_frames = 5;

// Everything a reader sees of a recording, in file order.
struct contents {
    std::vector<std::string> props;                   // "node kind name=value bytes"
    std::vector<std::vector<std::string>> frames{9};  // payloads by node id
};

void _prop(oni::reader *r, uint32_t kind, const char *name, const void *v, uint32_t size,
           void *user) {
    auto *c = static_cast<contents *>(user);
    c->props.push_back(std::to_string(r->last().node_id) + " " + std::to_string(kind) + " " + name +
                       "=" + std::string(static_cast<const char *>(v), size));
}

bool _read(const std::string &path, contents &c) {
    auto r = oni::reader::open(path.c_str(), _prop, &c);
    if (!r) return false;
    for (int t; (t = r->read_next()) > 0;)
        if (t == static_cast<int>(oni::rec::new_data))
            c.frames[r->last().node_id].emplace_back(r->last().payload.begin(),
                                                     r->last().payload.end());
    return true;
}

// A recording as the capture engine writes it: a device node with its description, a raw node
// with a property before every frame, a 16zT depth node; `unfinished` is the file as it stood on
// disk before finish(), `finished` the file after it.
class OniRepair : public ::testing::Test {
  protected:
    void SetUp() override {
        path_ = dir_.file("rec.oni");
        auto w = oni::writer::create(path_.c_str());
        ASSERT_TRUE(w);
        oni::stream_desc dev;
        dev.type = static_cast<uint32_t>(oni::node_type::device);
        const int d = w->add_node("Device", dev, oni::k_codec_none);
        ASSERT_TRUE(w->write_string(d, "VX_PRODUCT", "VXCAM-E1-R1"));
        ASSERT_TRUE(w->write_int(d, "VX_DEV_MAX_FPS", 60));
        oni::stream_desc raw;
        raw.type = 0xFFFFFFFFu;
        const int r = w->add_node("VX_REPLAY", raw, oni::k_codec_none);
        oni::stream_desc depth;
        depth.type = static_cast<uint32_t>(oni::node_type::depth);
        depth.pixel_format = 100;
        depth.xres = k_w;
        depth.yres = k_h;
        depth.bytes_per_pixel = 2;
        depth.fps = 30;
        const int z = w->add_node("VX_DEPTH", depth, oni::k_codec_16zt);
        ASSERT_EQ(z, 3);
        for (uint32_t k = 0; k < k_frames; ++k) {
            const auto px = depth_frame(k_w, k_h, k);
            ASSERT_TRUE(w->write_general(r, "VX_FRAME_INFO", &k, sizeof k));
            ASSERT_TRUE(w->write_data(r, px.data(), k_w * k_h * 2, 1000 + k));
            ASSERT_TRUE(w->write_data(z, px.data(), k_w * k_h * 2, 1000 + k));
        }
        unfinished_ = read_file(path_);
        ASSERT_TRUE(w->finish());
        finished_ = read_file(path_);
        ASSERT_TRUE(_read(path_, want_));
        ASSERT_EQ(want_.frames[2].size(), k_frames);
    }

    tevix::test::log_capture log_;
    temp_dir dir_;
    std::string path_, unfinished_, finished_;
    contents want_;
};

TEST_F(OniRepair, UnfinishedFileIsRefusedByTheReaderAndRepairsToTheFinishedFile) {
    const std::string in = dir_.file("crashed.oni"), out = dir_.file("repaired.oni");
    write_text(in, unfinished_);
    EXPECT_FALSE(oni::reader::open(in.c_str(), nullptr, nullptr));
    oni::scan_result found;
    EXPECT_EQ(oni::repair(in.c_str(), out.c_str(), &found), 2 * k_frames);
    EXPECT_FALSE(found.finished);
    EXPECT_EQ(found.valid_end, unfinished_.size());
    EXPECT_EQ(found.nodes[1].properties, k_frames);
    // Byte for byte what the writer would have finished; the input stays as it was.
    EXPECT_EQ(read_file(out), finished_);
    EXPECT_EQ(read_file(in), unfinished_);
    // In place, through the public call.
    EXPECT_EQ(tevix_oni_repair(in.c_str(), in.c_str()), 2 * k_frames);
    EXPECT_EQ(read_file(in), finished_);
    // A finished file needs nothing: it is copied as it is.
    EXPECT_EQ(oni::repair(in.c_str(), out.c_str(), &found), 2 * k_frames);
    EXPECT_TRUE(found.finished);
    EXPECT_EQ(read_file(out), finished_);
}

TEST_F(OniRepair, FileCutAnywhereKeepsEveryWholeFrameAndProperty) {
    const auto recs = record_offsets(unfinished_);
    const std::string in = dir_.file("cut.oni"), out = dir_.file("out.oni");
    // Whole records before each cut, and what they hold.
    for (size_t cut = 0; cut <= unfinished_.size(); ++cut) {
        SCOPED_TRACE(cut);
        write_text(in, unfinished_.substr(0, cut));
        const int64_t got = oni::repair(in.c_str(), out.c_str());
        size_t whole = 0;
        while (whole < recs.size() &&
               (whole + 1 < recs.size() ? recs[whole + 1] : unfinished_.size()) <= cut)
            ++whole;
        const size_t end = whole < recs.size() ? recs[whole] : unfinished_.size();
        if (whole == 0) {
            EXPECT_EQ(got, -1);
            continue;
        }
        contents c;
        ASSERT_TRUE(_read(out, c));
        size_t frames = 0;
        for (size_t i = 0; i < whole; ++i)
            if (static_cast<uint8_t>(unfinished_[recs[i] + 4]) == 10) ++frames;
        EXPECT_EQ(got, static_cast<int64_t>(frames));
        // A prefix of the finished file's frames and properties, nothing else.
        for (uint32_t id = 1; id <= 3; ++id) {
            ASSERT_LE(c.frames[id].size(), want_.frames[id].size());
            for (size_t k = 0; k < c.frames[id].size(); ++k)
                EXPECT_EQ(c.frames[id][k], want_.frames[id][k]);
        }
        ASSERT_LE(c.props.size(), want_.props.size());
        EXPECT_TRUE(std::equal(c.props.begin(), c.props.end(), want_.props.begin()));
        // Frame and property records stay where they were, byte for byte (node headers and
        // data-begin counts are rewritten).
        const std::string o = read_file(out);
        for (size_t i = 0; i < whole; ++i) {
            const auto type = static_cast<uint8_t>(unfinished_[recs[i] + 4]);
            if (type == 8 || type == 13) continue;
            const size_t len = (i + 1 < recs.size() ? recs[i + 1] : end) - recs[i];
            EXPECT_EQ(o.compare(recs[i], len, unfinished_, recs[i], len), 0) << "record " << i;
        }
    }
}

TEST_F(OniRepair, DamageStopsTheScanAndBadInputIsRefused) {
    const auto recs = record_offsets(unfinished_);
    const std::string in = dir_.file("bad.oni"), out = dir_.file("out.oni");
    // A record whose magic is gone: everything before it is kept, nothing after.
    std::string f = unfinished_;
    const size_t hit = recs[recs.size() - 4];
    f[hit] = 'X';
    write_text(in, f);
    oni::scan_result found;
    const int64_t got = oni::repair(in.c_str(), out.c_str(), &found);
    EXPECT_EQ(found.valid_end, hit);
    EXPECT_EQ(found.stop, "bytes that are no record");
    contents c;
    ASSERT_TRUE(_read(out, c));
    EXPECT_EQ(got, static_cast<int64_t>(c.frames[2].size() + c.frames[3].size()));
    EXPECT_LT(got, 2 * k_frames);

    // A node header with a wrong length, a frame of a node never added, an absurd record size.
    auto at = [&](size_t rec, size_t off) { return recs[rec] + off; };
    struct bad {
        size_t pos;
        uint32_t value;
        const char *stop;
    } cases[] = {
        {at(0, 12), 27, "a record of impossible size"},
        {at(0, 8), 9, "a node id outside 1..8"},
        {at(0, 16), 0x7FFFFFFF, "a record of impossible size"},
    };
    for (const bad &b : cases) {
        SCOPED_TRACE(b.stop);
        std::string g = unfinished_;
        std::memcpy(g.data() + b.pos, &b.value, 4);
        write_text(in, g);
        EXPECT_EQ(oni::repair(in.c_str(), out.c_str(), &found), -1);
        EXPECT_EQ(found.stop, b.stop);
    }
    write_text(in, "NI10");
    EXPECT_EQ(oni::repair(in.c_str(), out.c_str(), &found), -1);
    write_text(in, std::string(64, 'x'));
    EXPECT_EQ(oni::repair(in.c_str(), out.c_str(), &found), -1);
    EXPECT_EQ(found.stop, "not an ONI recording");
    std::string old = unfinished_;
    old[4] = 1, old[5] = old[6] = old[7] = 0;
    write_text(in, old);
    EXPECT_EQ(oni::repair(in.c_str(), out.c_str(), &found), -1);
    EXPECT_EQ(tevix_oni_repair(dir_.file("absent.oni").c_str(), out.c_str()), -1);
    write_text(in, unfinished_);
    EXPECT_EQ(tevix_oni_repair(in.c_str(), dir_.file("no/such/dir.oni").c_str()), -1);
}

}  // namespace

namespace {

void _count_prop(uint32_t node, uint32_t kind, const char *name, const void *, uint32_t size,
                 void *user) {
    static_cast<std::vector<std::string> *>(user)->push_back(std::to_string(node) + " " +
                                                             std::to_string(kind) + " " + name +
                                                             " " + std::to_string(size));
}

TEST_F(OniRepair, RecordingsOpenForRandomAccessThroughThePublicCalls) {
    tevix_oni_t *rec = tevix_oni_open(path_.c_str());
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(tevix_oni_node_count(rec), 3);
    tevix_oni_node_t n{};
    ASSERT_EQ(tevix_oni_node_info(rec, 3, &n), 1);
    EXPECT_STREQ(n.name, "VX_DEPTH");
    EXPECT_EQ(n.codec, oni::k_codec_16zt);
    EXPECT_EQ(n.frames, k_frames);
    EXPECT_EQ(n.width * n.height, k_w * k_h);
    EXPECT_EQ(n.min_ts, 1000u);
    EXPECT_EQ(n.max_ts, 1000u + k_frames - 1);
    EXPECT_EQ(tevix_oni_node_info(rec, 4, &n), 0);
    EXPECT_EQ(tevix_oni_node_info(rec, 0, &n), 0);

    std::vector<std::string> props;
    EXPECT_EQ(tevix_oni_properties(rec, _count_prop, &props), static_cast<int>(want_.props.size()));
    ASSERT_EQ(props.size(), want_.props.size());
    EXPECT_EQ(props[0], "1 5 VX_PRODUCT 12");

    // Frames by index in any order, raw and decoded; the size first when asked with no room.
    uint64_t ts = 0;
    ASSERT_EQ(tevix_oni_read_frame(rec, 2, 3, nullptr, 0, &ts), k_w * k_h * 2);
    EXPECT_EQ(ts, 1003u);
    std::string raw(k_w * k_h * 2, '\0');
    ASSERT_EQ(tevix_oni_read_frame(rec, 2, 3, raw.data(), raw.size(), nullptr), k_w * k_h * 2);
    EXPECT_EQ(raw, want_.frames[2][3]);
    std::vector<uint16_t> px(k_w * k_h);
    for (uint32_t k : {4u, 0u, 2u}) {
        ASSERT_EQ(tevix_oni_decode_frame(rec, 3, k, px.data(), px.size()), k_w * k_h);
        EXPECT_EQ(px, depth_frame(k_w, k_h, k));
    }
    EXPECT_EQ(tevix_oni_decode_frame(rec, 3, 0, px.data(), px.size() - 1), -1);
    EXPECT_EQ(tevix_oni_decode_frame(rec, 3, k_frames, px.data(), px.size()), -1);
    EXPECT_EQ(tevix_oni_read_frame(rec, 1, 0, nullptr, 0, nullptr), -1);  // the device node
    tevix_oni_close(rec);
    EXPECT_EQ(tevix_oni_open(dir_.file("absent.oni").c_str()), nullptr);
}

}  // namespace
