#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "oni_test_util.h"

namespace oni = tevix::oni;
using tevix::test::depth_frame;
using tevix::test::get_at;
using tevix::test::log_capture;
using tevix::test::read_file;
using tevix::test::record_offsets;
using tevix::test::set_at;
using tevix::test::temp_dir;
using tevix::test::testdata;
using tevix::test::write_depth_file;
using tevix::test::write_text;

namespace {

struct prop {
    uint32_t node;
    uint32_t kind;
    std::string name;
    std::vector<uint8_t> value;
};

void _collect(oni::reader *r, uint32_t kind, const char *name, const void *v, uint32_t size,
              void *user) {
    const auto *b = static_cast<const uint8_t *>(v);
    static_cast<std::vector<prop> *>(user)->push_back(
        {r->last().node_id, kind, name, std::vector<uint8_t>(b, b + size)});
}

// Walks everything a reader can give: every record and every decodable frame.
void _walk(oni::reader &r) {
    std::vector<uint16_t> px;
    for (int i = 0; i < 100000; ++i) {
        const int t = r.read_next();
        if (t <= 0) break;
        if (t == 10) r.decode_frame(r.last().node_id, r.last().payload, px);
    }
    for (uint32_t id = 1; id <= r.max_node_id(); ++id) {
        r.seek(id, 1, 0);
        r.seek(id, -1, 2);
    }
}

class OniFile : public testing::Test {
  protected:
    temp_dir dir_;
    log_capture log_;
    std::string path_ = dir_.file("rec.oni");
};

TEST_F(OniFile, WriterAndReaderAgreeOnNodesPropertiesAndFrames) {
    {
        auto w = oni::writer::create(path_.c_str());
        ASSERT_TRUE(w);
        oni::stream_desc dev;
        dev.type = 1;
        const int d = w->add_node("Device", dev, 0);
        oni::stream_desc depth{2, 100, 9000, 8, 4, 2, 25};
        const int z = w->add_node("Depth", depth, oni::k_codec_16zt);
        oni::stream_desc ir{5, 203, 0, 8, 4, 2, 25};
        const int g = w->add_node("IR", ir, oni::k_codec_none);
        ASSERT_EQ(d, 1);
        ASSERT_EQ(z, 2);
        ASSERT_EQ(g, 3);
        EXPECT_TRUE(w->write_int(d, "VX_DEV_ID", 0x1122334455667788ull));
        EXPECT_TRUE(w->write_real(d, "VX_REP_VER", 1.5));
        EXPECT_TRUE(w->write_string(d, "VX_PRODUCT", "cam-x"));
        const uint8_t raw[3] = {9, 0, 7};
        EXPECT_TRUE(w->write_general(d, "VX_DEV_VER", raw, sizeof raw));
        EXPECT_TRUE(w->write_string(d, "empty", ""));
        for (uint32_t k = 0; k < 5; ++k) {
            const auto px = depth_frame(8, 4, k);
            EXPECT_TRUE(w->write_data(z, px.data(), 64, 1000 + k));
            if (k < 2) {
                EXPECT_TRUE(w->write_data(g, px.data(), 64, 1000 + k));
            }
        }
        EXPECT_FALSE(w->write_data(z, "abc", 3, 0));  // odd length cannot be 16zT
        EXPECT_TRUE(log_.has("compress data failed"));
        EXPECT_FALSE(w->write_int(4, "x", 1));
        EXPECT_TRUE(w->finish());
    }
    const std::string f = read_file(path_);
    EXPECT_EQ(f.substr(0, 8), std::string("NI10\x01\x00\x01\x00", 8));
    EXPECT_EQ(get_at<uint64_t>(f, 12), 1004u);
    EXPECT_EQ(get_at<uint32_t>(f, 20), 3u);
    EXPECT_EQ(f.substr(f.size() - 28, 8), std::string("NIR\0\x0b\0\0\0", 8));

    std::vector<prop> props;
    auto r = oni::reader::open(path_.c_str(), _collect, &props);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->max_node_id(), 3u);
    EXPECT_EQ(r->version_maintenance(), 1);
    std::vector<std::string> depth_names;
    for (const prop &p : props)
        if (p.node == 2) depth_names.push_back(p.name);
    EXPECT_EQ(depth_names,
              (std::vector<std::string>{
                  "oniRequiredFrameSize", "xnIsGenerating", "xnDeviceMaxDepth",
                  "xnSupportedMapOutputModesCount", "xnSupportedMapOutputModes", "xnMapOutputMode",
                  "xnSupportedPixelFormats", "xnPixelFormat", "oniPixelFormat", "xnCropping"}));
    _walk(*r);  // properties written after the nodes arrive while reading on
    std::map<std::string, prop> by_name;
    for (const prop &p : props) by_name[std::to_string(p.node) + p.name] = p;
    EXPECT_EQ(by_name["2oniRequiredFrameSize"].value[0], 64);
    EXPECT_EQ(by_name["3xnSupportedPixelFormats"].value, (std::vector<uint8_t>{8, 0, 0, 0}));
    EXPECT_EQ(by_name["3xnPixelFormat"].value[0], 4);
    EXPECT_EQ(by_name["1VX_DEV_ID"].kind, 3u);
    EXPECT_EQ(
        get_at<uint64_t>(
            std::string(by_name["1VX_DEV_ID"].value.begin(), by_name["1VX_DEV_ID"].value.end()), 0),
        0x1122334455667788ull);
    EXPECT_EQ(by_name["1VX_REP_VER"].kind, 4u);
    EXPECT_EQ(by_name["1VX_PRODUCT"].value, (std::vector<uint8_t>{'c', 'a', 'm', '-', 'x', 0}));
    EXPECT_EQ(by_name["1VX_DEV_VER"].value, (std::vector<uint8_t>{9, 0, 7}));
    EXPECT_EQ(by_name["1empty"].value, (std::vector<uint8_t>{0}));

    const oni::node *zn = r->node_at(2);
    ASSERT_NE(zn, nullptr);
    EXPECT_EQ(zn->name, "Depth");
    EXPECT_EQ(zn->desc.codec, oni::k_codec_16zt);
    EXPECT_EQ(zn->desc.frames, 5u);
    EXPECT_EQ(zn->desc.min_ts, 1000u);
    EXPECT_EQ(zn->desc.max_ts, 1004u);
    EXPECT_TRUE(zn->has_seek);
    EXPECT_EQ(zn->xres, 8u);
    EXPECT_EQ(r->node_at(3)->desc.frames, 2u);
    EXPECT_EQ(r->node_at(1)->desc.frames, 0u);

    ASSERT_TRUE(r->rewind());
    std::vector<uint16_t> px;
    for (uint32_t k = 0; k < 5; ++k) {
        ASSERT_EQ(r->read_frame(2), 1);
        EXPECT_EQ(r->last().frame_no, k + 1);
        EXPECT_EQ(r->last().timestamp, 1000u + k);
        ASSERT_EQ(r->decode_frame(2, r->last().payload, px), 32);
        EXPECT_EQ(px, depth_frame(8, 4, k));
    }
    EXPECT_EQ(r->read_frame(2), 0);
    EXPECT_EQ(r->read_frame(2), 0);
}

TEST_F(OniFile, NodeAddedRecordHasTheDocumentedLayout) {
    ASSERT_TRUE(write_depth_file(path_, oni::k_codec_none, 4, 2, 3));
    const std::string f = read_file(path_);
    EXPECT_EQ(get_at<uint32_t>(f, 24), oni::k_record_magic);
    EXPECT_EQ(get_at<uint32_t>(f, 28), 13u);
    EXPECT_EQ(get_at<uint32_t>(f, 32), 1u);
    EXPECT_EQ(get_at<uint32_t>(f, 36), 74u);
    EXPECT_EQ(f.substr(52, 10), std::string("\x06\0\0\0Depth\0", 10));
    EXPECT_EQ(f.substr(66, 4), "NONE");
    EXPECT_EQ(get_at<uint32_t>(f, 70), 3u);
    const uint64_t seek = get_at<uint64_t>(f, 90);
    EXPECT_EQ(get_at<uint32_t>(f, seek + 4), 14u);
    EXPECT_EQ(get_at<uint32_t>(f, seek + 16), 4u * 20u);
    // Each data record is where its seek entry says, with its frame number.
    for (uint32_t k = 1; k <= 3; ++k) {
        const uint64_t at = get_at<uint64_t>(f, seek + 28 + 20 * k + 12);
        EXPECT_EQ(get_at<uint32_t>(f, at + 4), 10u);
        EXPECT_EQ(get_at<uint32_t>(f, at + 36), k);
    }
}

TEST_F(OniFile, SeekDeliversTheRequestedFrameNext) {
    ASSERT_TRUE(write_depth_file(path_, oni::k_codec_16zt, 6, 4, 8));
    auto r = oni::reader::open(path_.c_str(), nullptr, nullptr);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->seek(1, 3, 0), 3);
    ASSERT_EQ(r->read_frame(1), 1);
    EXPECT_EQ(r->last().frame_no, 4u);
    EXPECT_EQ(r->seek(1, 2, 1), 6);  // position 4 after the read, plus 2
    ASSERT_EQ(r->read_frame(1), 1);
    EXPECT_EQ(r->last().frame_no, 7u);
    EXPECT_EQ(r->seek(1, static_cast<int32_t>(-1), 2), 7);
    ASSERT_EQ(r->read_frame(1), 1);
    EXPECT_EQ(r->last().frame_no, 8u);
    EXPECT_EQ(r->seek(1, 100, 0), 8);  // clamped: next read is the end
    EXPECT_EQ(r->read_frame(1), 0);
    EXPECT_EQ(r->seek(1, 0, 0), 0);
    ASSERT_EQ(r->read_frame(1), 1);
    EXPECT_EQ(r->last().frame_no, 1u);
    EXPECT_EQ(r->seek(1, -5, 0), 0);
    EXPECT_EQ(r->seek(1, 0, 9), 0);  // other whence keeps the position
    EXPECT_EQ(r->seek(9, 0, 0), -1);
}

TEST_F(OniFile, SampleRecordingsDecodeAndUseTheirSeekTables) {
    std::vector<prop> props;
    auto r =
        oni::reader::open(testdata("kinect-depth-image-12frames.oni").c_str(), _collect, &props);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->version_minor(), 0);
    EXPECT_EQ(r->version_maintenance(), 1);
    const uint32_t depth = r->find_node("Depth1");
    const uint32_t image = r->find_node("Image1");
    ASSERT_NE(depth, 0u);
    ASSERT_NE(image, 0u);
    EXPECT_EQ(r->node_at(depth)->desc.codec, oni::k_codec_16zt);
    EXPECT_EQ(r->node_at(image)->desc.codec, oni::k_codec_jpeg);
    EXPECT_EQ(r->node_at(depth)->desc.frames, 12u);
    EXPECT_TRUE(r->node_at(depth)->has_seek);
    EXPECT_EQ(r->node_at(depth)->xres, 640u);
    EXPECT_EQ(r->node_at(depth)->yres, 480u);
    EXPECT_GT(props.size(), 50u);

    std::vector<std::vector<uint16_t>> frames;
    std::vector<uint16_t> px;
    while (r->read_frame(depth) == 1) {
        EXPECT_EQ(r->last().frame_no, frames.size() + 1);
        ASSERT_EQ(r->decode_frame(depth, r->last().payload, px), 640 * 480);
        frames.push_back(px);
    }
    ASSERT_EQ(frames.size(), 12u);
    EXPECT_NE(frames[0], frames[11]);
    ASSERT_EQ(r->seek(depth, 5, 0), 5);
    ASSERT_EQ(r->read_frame(depth), 1);
    EXPECT_EQ(r->last().frame_no, 6u);
    ASSERT_EQ(r->decode_frame(depth, r->last().payload, px), 640 * 480);
    EXPECT_EQ(px, frames[5]);

    ASSERT_TRUE(r->rewind());
    ASSERT_EQ(r->read_frame(image), 1);
    ASSERT_GE(r->last().payload.size(), 2u);
    EXPECT_EQ(r->last().payload[0], 0xFF);
    EXPECT_EQ(r->last().payload[1], 0xD8);
    EXPECT_EQ(r->decode_frame(image, r->last().payload, px), -1);

    // An image node without frames opens and ends cleanly.
    r = oni::reader::open(testdata("image-node-no-frames.oni").c_str(), nullptr, nullptr);
    ASSERT_TRUE(r);
    ASSERT_NE(r->node_at(1), nullptr);
    EXPECT_EQ(r->node_at(1)->name, "Image1");
    EXPECT_EQ(r->node_at(1)->desc.frames, 0u);
    EXPECT_EQ(r->read_frame(1), 0);
    EXPECT_EQ(r->read_next(), 0);
}

TEST_F(OniFile, OldFormatUsesShortHeadersAndHasNoSeekTable) {
    // Version 1.0.0.x: 24-byte record headers, 28-byte node descriptions.
    std::string f("NI10\x01\x00\x00\x00\x05\x00\x00\x00", 12);
    f += std::string(8, '\0') + std::string("\x01\0\0\0", 4);
    auto rec = [&](uint32_t type, const std::string &fields, const std::string &payload) {
        std::string h(24, '\0');
        set_at<uint32_t>(h, 0, oni::k_record_magic);
        set_at<uint32_t>(h, 4, type);
        set_at<uint32_t>(h, 8, 1);
        set_at<uint32_t>(h, 12, static_cast<uint32_t>(24 + fields.size()));
        set_at<uint32_t>(h, 16, static_cast<uint32_t>(payload.size()));
        f += h + fields + payload;
    };
    std::string added("\x02\0\0\0A\0", 6);
    added += std::string("\x02\0\0\0NONE\x02\0\0\0", 12) + std::string(16, '\0');
    rec(13, added, "");
    rec(8, std::string("\x02\0\0\0", 4) + std::string(8, '\0'), "");
    std::string nd(12, '\0');
    set_at<uint32_t>(nd, 8, 1);
    rec(10, nd, std::string("\x01\x00\x02\x00", 4));
    set_at<uint32_t>(nd, 8, 2);
    rec(10, nd, std::string("\x03\x00\x04\x00", 4));
    rec(11, "", "");
    write_text(path_, f);

    auto r = oni::reader::open(path_.c_str(), nullptr, nullptr);
    ASSERT_TRUE(r);
    EXPECT_TRUE(r->old_format());
    EXPECT_FALSE(r->node_at(1)->has_seek);
    std::vector<uint16_t> px;
    ASSERT_EQ(r->read_frame(1), 1);
    ASSERT_EQ(r->decode_frame(1, r->last().payload, px), 2);
    EXPECT_EQ(px, (std::vector<uint16_t>{1, 2}));
    ASSERT_EQ(r->read_frame(1), 1);
    EXPECT_EQ(r->last().frame_no, 2u);
    EXPECT_EQ(r->seek(1, 1, 0), -1);
    EXPECT_EQ(r->read_frame(1), 0);   // refused seeks leave the position alone
    EXPECT_EQ(r->seek(1, 0, 0), -1);  // index 0 rewinds all the same
    ASSERT_EQ(r->read_frame(1), 1);
    EXPECT_EQ(r->last().frame_no, 1u);
}

// One field of a small recording overwritten (size 0: the file cut there instead), the message
// the reader logs, and whether it still opens the file.
struct damage {
    const char *what;
    int rec;  // record the offset counts from (-1: the file start)
    size_t at;
    uint64_t value;
    size_t size;
    const char *message;
    bool opens = false;
};

// Record 0 adds node 1, record 1 is its first property; the node's name (6 bytes with its size)
// starts at 28, its seek table offset at 66.
const damage k_damages[] = {
    {"file magic", -1, 0, 'X', 1, "wrong oni file: id="},
    {"short header", -1, 20, 0, 0, "parse file header failed: fpos=20"},
    {"node count", -1, 20, 9, 4, "max node id too large: 9"},
    {"record type 15", 1, 4, 15, 4, "unsupported record type: 0xf"},
    {"record type 2", 1, 4, 2, 4, "rec type not support: 0x2"},
    {"huge fields", 1, 12, 0x7FFFFFF0u, 4, "No more space in rdbuf"},
    {"huge payload", 1, 16, 0xFFFFFFFFu, 4, "No more space in rdbuf"},
    {"fields below header", 1, 12, 4, 4, "parse record failed: type=0x3"},
    {"name size", 0, 28, 1000, 4, "wrong string (size outrange): nsize=1000"},
    {"name not terminated", 0, 28 + 4 + 5, 'X', 1, "wrong string (not terminated): nsize=6", true},
    {"seek table outside", 0, 66, uint64_t{1} << 40, 8, "expect RECORD_SEEK_TABLE but get 0x0"},
    {"seek table short", 0, 46, 500, 4, "parse record failed: type=0xe"},
};

TEST_F(OniFile, DamagedFilesAreRefusedWithTheirMessage) {
    ASSERT_TRUE(write_depth_file(path_, oni::k_codec_16zt, 4, 3, 3));
    const std::string good = read_file(path_);
    const auto recs = record_offsets(good);
    auto refused = [&](const std::string &f, const char *message, bool opens) {
        write_text(path_, f);
        log_.clear();
        auto r = oni::reader::open(path_.c_str(), nullptr, nullptr);
        if (r) _walk(*r);
        EXPECT_TRUE(log_.has(message)) << log_.text();
        EXPECT_EQ(bool(r), opens);
    };
    for (const damage &d : k_damages) {
        SCOPED_TRACE(d.what);
        std::string f = good;
        const size_t at = (d.rec < 0 ? 0 : recs[d.rec]) + d.at;
        if (d.size == 0) f.resize(at);
        std::memcpy(f.data() + at, &d.value, d.size);
        refused(f, d.message, d.opens);
    }
    // A seek table offset that names a property record.
    std::string f = good;
    set_at<uint64_t>(f, recs[0] + 66, recs[1]);
    refused(f, "expect RECORD_SEEK_TABLE but get 0x3", false);
    EXPECT_FALSE(oni::reader::open(dir_.file("missing.oni").c_str(), nullptr, nullptr));
    EXPECT_TRUE(log_.has("open file failed: "));
}

TEST_F(OniFile, GarbageBetweenRecordsIsSkipped) {
    ASSERT_TRUE(write_depth_file(path_, oni::k_codec_none, 4, 3, 2));
    std::string f = read_file(path_);
    const auto recs = record_offsets(f);
    f.insert(recs[1], 300, '\x55');  // moves later offsets; the seek table is not used here
    write_text(path_, f);
    log_.clear();
    auto r = oni::reader::open(path_.c_str(), nullptr, nullptr);
    EXPECT_TRUE(log_.has("ONI: unknown")) << log_.text();
    (void)r;
}

TEST_F(OniFile, TruncatedFilesNeverCrash) {
    ASSERT_TRUE(write_depth_file(path_, oni::k_codec_16zt, 5, 4, 4));
    const std::string good = read_file(path_);
    const auto recs = record_offsets(good);
    std::vector<size_t> cuts;
    for (size_t i = 0; i < recs.size(); ++i) {
        cuts.push_back(recs[i]);
        const size_t next = i + 1 < recs.size() ? recs[i + 1] : good.size();
        cuts.push_back(recs[i] + 3);
        cuts.push_back(recs[i] + 20);
        cuts.push_back((recs[i] + next) / 2);
        cuts.push_back(next - 1);
    }
    const std::string cut_path = dir_.file("cut.oni");
    for (size_t cut : cuts) {
        SCOPED_TRACE(cut);
        write_text(cut_path, good.substr(0, cut));
        auto r = oni::reader::open(cut_path.c_str(), nullptr, nullptr);
        // The seek table sits near the end, so a file cut before End loses it. Fewer than four
        // bytes after the file header hold no record at all.
        if (cut > recs[0] + 3 && cut < recs.back()) {
            EXPECT_FALSE(r);
        }
        if (cut <= recs[0] + 3 && r) {
            EXPECT_EQ(r->node_at(1), nullptr);
        }
        if (r) _walk(*r);
    }
    // A file whose records are intact up to a cut data record reads up to the cut.
    std::string f = good;
    set_at<uint64_t>(f, recs[0] + 28 + 10 + 28, 0);  // no seek table
    std::vector<size_t> data;
    for (size_t at : recs)
        if (get_at<uint32_t>(f, at + 4) == 10) data.push_back(at);
    ASSERT_EQ(data.size(), 4u);
    write_text(cut_path, f.substr(0, data[2] + 30));
    auto r = oni::reader::open(cut_path.c_str(), nullptr, nullptr);
    ASSERT_TRUE(r);
    int frames = 0, t;
    while ((t = r->read_frame(1)) == 1) ++frames;
    EXPECT_EQ(t, -1);
    EXPECT_EQ(frames, 2);
}

}  // namespace
