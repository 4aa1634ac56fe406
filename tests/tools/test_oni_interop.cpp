// Interop with the ONI format's origin: OpenNI2's file player reads our recordings, our export
// of a foreign recording gives the pixels OpenNI2 gives, and files OpenNI2's recorder writes read
// back with the pixels it was given.
#include <OpenNI.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../ll/oni/oni_test_util.h"

namespace oni = tevix::oni;
using tevix::test::depth_frame;
using tevix::test::read_file;
using tevix::test::temp_dir;
using tevix::test::testdata;
using tevix::test::write_depth_file;

// OpenNI2 keeps allocations of its drivers, which it unloads at shutdown, so their leaks cannot
// even be attributed; our code's leaks are checked by the other suites.
extern "C" const char *__asan_default_options() {
    return "detect_leaks=0";
}

namespace {

struct played {
    int width = 0, height = 0;
    std::vector<std::vector<uint16_t>> frames;
};

// Plays the depth stream frame by frame (speed -1: frames advance only as they are read).
played _play(const std::string &path) {
    played out;
    if (openni::OpenNI::initialize() != openni::STATUS_OK) return out;
    openni::Device dev;
    if (dev.open(path.c_str()) != openni::STATUS_OK) return out;
    openni::PlaybackControl *pc = dev.getPlaybackControl();
    openni::VideoStream vs;
    if (pc && vs.create(dev, openni::SENSOR_DEPTH) == openni::STATUS_OK) {
        pc->setRepeatEnabled(false);
        pc->setSpeed(-1);
        const int n = pc->getNumberOfFrames(vs);
        if (vs.start() == openni::STATUS_OK) {
            for (int i = 0; i < n; ++i) {
                openni::VideoStream *streams[] = {&vs};
                int ready = -1;
                if (openni::OpenNI::waitForAnyStream(streams, 1, &ready, 5000) != openni::STATUS_OK)
                    break;
                openni::VideoFrameRef f;
                if (vs.readFrame(&f) != openni::STATUS_OK) break;
                out.width = f.getWidth();
                out.height = f.getHeight();
                const auto *px = static_cast<const uint16_t *>(f.getData());
                out.frames.emplace_back(px, px + f.getDataSize() / 2);
            }
            vs.stop();
        }
        vs.destroy();
    }
    dev.close();
    return out;
}

// OpenNI2's recorder writes the stream of `sensor` ("depth" or "ir") of `in` into `out`, in a
// helper process. The frames it read, or -1.
int _rerecord(const std::string &in, const std::string &out, const char *sensor, int settle_ms) {
    std::ostringstream cmd;
    cmd << TEVIX_RERECORD_PATH << " '" << in << "' '" << out << "' " << sensor << ' ' << settle_ms;
    std::FILE *p = ::popen(cmd.str().c_str(), "r");
    if (!p) return -1;
    int got = -1;
    if (std::fscanf(p, "%d", &got) != 1) got = -1;
    return ::pclose(p) == 0 ? got : -1;
}

// A frame that exercises the depth codec: slopes, invalid pixels, a far jump, and a frame end
// where equal pixels are still pending as a run when a last, different one follows. Every value
// stays below the node's maximum depth, which OpenNI2's recorder leaves out of its tables.
constexpr uint32_t k_rw = 64, k_rh = 48, k_rframes = 8;

std::vector<uint16_t> _codec_frame(uint32_t k) {
    auto px = depth_frame(k_rw, k_rh, k);
    for (uint32_t x = 0; x < k_rw / 2; ++x) px[5 * k_rw + x + k] = 0;
    px[10 * k_rw + 7] = static_cast<uint16_t>(9000 - k);
    const uint32_t tail = 2 + k;  // every run length and parity at the end
    const uint16_t v = px[px.size() - tail - 1];
    for (uint32_t i = 1; i <= tail; ++i) px[px.size() - i] = v;
    px.back() = static_cast<uint16_t>(v + 1);
    return px;
}

// Grey pixels may use the whole 16-bit range.
std::vector<uint16_t> _grey_frame(uint32_t k) {
    std::vector<uint16_t> px(size_t{k_rw} * k_rh);
    for (size_t i = 0; i < px.size(); ++i) px[i] = static_cast<uint16_t>(i * 2654435761u + k);
    px[0] = 0xFFFF;
    return px;
}

bool _write_source(const std::string &path, bool grey) {
    auto wr = oni::writer::create(path.c_str());
    if (!wr) return false;
    oni::stream_desc d;
    d.type = static_cast<uint32_t>(grey ? oni::node_type::ir : oni::node_type::depth);
    d.pixel_format = grey ? 203 : 100;
    d.max_depth = grey ? 0 : 10000;
    d.xres = k_rw;
    d.yres = k_rh;
    d.bytes_per_pixel = 2;
    d.fps = 30;
    const int id =
        wr->add_node(grey ? "IR" : "Depth", d, grey ? oni::k_codec_none : oni::k_codec_16zt);
    if (id < 1) return false;
    for (uint32_t k = 0; k < k_rframes; ++k) {
        const auto px = grey ? _grey_frame(k) : _codec_frame(k);
        if (!wr->write_data(id, px.data(), static_cast<uint32_t>(px.size() * 2),
                            33333ull * (k + 1)))
            return false;
    }
    return wr->finish();
}

// 16z payload whose last two bytes are padding, then a run: the order OpenNI's recorders use.
bool _ends_pad_then_run(std::span<const uint8_t> z) {
    const size_t n = z.size();
    return n >= 2 && z[n - 2] < 0xE0 && (z[n - 2] & 0x0F) == 0x0D && z[n - 1] >= 0xE0 &&
           z[n - 1] < 0xFF;
}

class OniInterop : public testing::Test {
  protected:
    void TearDown() override { openni::OpenNI::shutdown(); }
    temp_dir dir_;
};

TEST_F(OniInterop, OpenNI2PlaysOurRecordingsWithTheSamePixels) {
    for (uint32_t codec : {oni::k_codec_none, oni::k_codec_16zt}) {
        SCOPED_TRACE(codec == oni::k_codec_none ? "NONE" : "16zT");
        const std::string path = dir_.file(codec == oni::k_codec_none ? "none.oni" : "16zt.oni");
        ASSERT_TRUE(write_depth_file(path, codec, 64, 48, 5));
        const played p = _play(path);
        ASSERT_EQ(p.frames.size(), 5u);
        EXPECT_EQ(p.width, 64);
        EXPECT_EQ(p.height, 48);
        for (uint32_t k = 0; k < 5; ++k) EXPECT_EQ(p.frames[k], depth_frame(64, 48, k)) << k;
    }
}

TEST_F(OniInterop, ExportOfTheKinectSampleMatchesOpenNI2) {
    const std::string sample = testdata("kinect-depth-image-12frames.oni");
    const played p = _play(sample);
    ASSERT_EQ(p.frames.size(), 12u);
    ASSERT_EQ(p.width, 640);
    ASSERT_EQ(p.height, 480);
    for (size_t k = 0; k < p.frames.size(); ++k) {
        std::ostringstream name, cmd;
        name << "f" << k << ".raw";
        const std::string out = dir_.file(name.str());
        cmd << TEVIX_TOOL_PATH << " oni export '" << sample << "' --node Depth1 --frame " << k
            << " --out '" << out << "' > /dev/null";
        ASSERT_EQ(std::system(cmd.str().c_str()), 0) << cmd.str();
        const std::string raw = read_file(out);
        ASSERT_EQ(raw.size(), 640u * 480u * 2u);
        std::vector<uint16_t> px(640 * 480);
        std::memcpy(px.data(), raw.data(), raw.size());
        EXPECT_EQ(px, p.frames[k]) << "frame " << k;
    }
}

TEST_F(OniInterop, RecordingsOpenNI2WritesReadBackWithTheSourcePixels) {
    // Depth is recorded with OpenNI2's default depth codec, grey 16-bit pixels as they are.
    struct kind {
        bool grey;
        const char *sensor;
        uint32_t codec;
    };
    for (const kind c :
         {kind{false, "depth", oni::k_codec_16zt}, kind{true, "ir", oni::k_codec_none}}) {
        SCOPED_TRACE(c.grey ? "IR / NONE" : "Depth / 16zT");
        const std::string src = dir_.file(c.grey ? "src_ir.oni" : "src_depth.oni");
        const std::string out = dir_.file(c.grey ? "openni_ir.oni" : "openni_depth.oni");
        ASSERT_TRUE(_write_source(src, c.grey));
        // A loaded machine may start the recorder late, and OpenNI2 now and then fails in a
        // step of its own: settle longer and record again.
        int got = -1;
        size_t recorded = 0;
        for (int settle_ms : {200, 1000, 3000}) {
            got = _rerecord(src, out, c.sensor, settle_ms);
            auto rd = oni::reader::open(out.c_str(), nullptr, nullptr);
            recorded = rd && rd->node_at(1) ? rd->node_at(1)->desc.frames : 0;
            if (got == static_cast<int>(k_rframes) && recorded == k_rframes) break;
        }
        ASSERT_EQ(got, static_cast<int>(k_rframes));
        ASSERT_EQ(recorded, k_rframes);

        auto rd = oni::reader::open(out.c_str(), nullptr, nullptr);
        ASSERT_NE(rd, nullptr);
        const uint32_t id = rd->find_node(c.grey ? "IR" : "Depth");
        ASSERT_NE(id, 0u);
        const oni::node *n = rd->node_at(id);
        EXPECT_EQ(n->desc.codec, c.codec);
        EXPECT_EQ(n->xres, k_rw);
        EXPECT_EQ(n->yres, k_rh);
        ASSERT_TRUE(n->has_seek);
        uint32_t k = 0, pad_then_run = 0;
        std::vector<uint16_t> px;
        while (rd->read_frame(id) == 1) {
            ASSERT_LT(k, k_rframes);
            EXPECT_EQ(rd->last().frame_no, k + 1);
            const auto payload = rd->last().payload;
            if (c.codec == oni::k_codec_16zt && _ends_pad_then_run(payload)) ++pad_then_run;
            ASSERT_EQ(rd->decode_frame(id, payload, px), int64_t{k_rw} * k_rh);
            EXPECT_EQ(px, c.grey ? _grey_frame(k) : _codec_frame(k)) << "frame " << k;
            ++k;
        }
        EXPECT_EQ(k, k_rframes);
        if (c.codec == oni::k_codec_16zt) {
            EXPECT_GT(pad_then_run, 0u) << "no frame end exercised the recorder's trailer order";
        }

        // OpenNI2's seek table takes us to any frame.
        ASSERT_EQ(rd->seek(id, 5, 0), 5);
        ASSERT_EQ(rd->read_frame(id), 1);
        EXPECT_EQ(rd->last().frame_no, 6u);
        ASSERT_GT(rd->decode_frame(id, rd->last().payload, px), 0);
        EXPECT_EQ(px, c.grey ? _grey_frame(5) : _codec_frame(5));

        // The tool's export reads it the same way.
        const std::string raw = dir_.file("last.raw");
        std::ostringstream cmd;
        cmd << TEVIX_TOOL_PATH << " oni export '" << out << "' --node " << (c.grey ? "ir" : "depth")
            << " --frame " << (k_rframes - 1) << " --out '" << raw << "' > /dev/null";
        ASSERT_EQ(std::system(cmd.str().c_str()), 0) << cmd.str();
        const std::string bytes = read_file(raw);
        const auto want = c.grey ? _grey_frame(k_rframes - 1) : _codec_frame(k_rframes - 1);
        ASSERT_EQ(bytes.size(), want.size() * 2);
        EXPECT_EQ(std::memcmp(bytes.data(), want.data(), bytes.size()), 0);
    }
}

}  // namespace
