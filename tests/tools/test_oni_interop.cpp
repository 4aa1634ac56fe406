// Interop with the ONI format's origin: OpenNI2's file player reads our recordings, our export
// of a foreign recording gives the pixels OpenNI2 gives, and files OpenNI2's recorder writes read
// back with the pixels it was given.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../ll/oni/oni_test_util.h"
#include "openni_play.h"
#include "tevix/tevix.h"

namespace oni = tevix::oni;
using tevix::test::depth_frame;
using tevix::test::get_at;
using tevix::test::read_file;
using tevix::test::temp_dir;
using tevix::test::testdata;
using tevix::test::write_depth_file;

namespace {

struct played {
    int width = 0, height = 0;
    std::vector<std::vector<uint16_t>> frames;
};

// OpenNI2's player in a child process: the depth stream's pixels, frame by frame, through a pipe.
// Its file player's thread now and then crashes while the device closes after the last frame (in
// OpenNI2's own code, more often on a loaded machine); a child that dies of a signal is run again.
played _play(const std::string &path) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        int fds[2];
        if (::pipe(fds) != 0) return {};
        const pid_t pid = ::fork();
        if (pid < 0) return {};
        if (pid == 0) {
            ::close(fds[0]);
            std::FILE *out = ::fdopen(fds[1], "wb");
            if (openni::OpenNI::initialize() != openni::STATUS_OK) ::_exit(1);
            tevix::test::openni_play(
                path.c_str(), openni::SENSOR_DEPTH, [&](const openni::VideoFrameRef &f) {
                    const int32_t head[3] = {f.getWidth(), f.getHeight(), f.getDataSize()};
                    std::fwrite(head, sizeof head, 1, out);
                    std::fwrite(f.getData(), 1, f.getDataSize(), out);
                });
            std::fflush(out);
            openni::OpenNI::shutdown();
            ::_exit(0);
        }
        ::close(fds[1]);
        played got;
        std::FILE *in = ::fdopen(fds[0], "rb");
        int32_t head[3];
        while (std::fread(head, sizeof head, 1, in) == 1 && head[2] >= 0) {
            got.width = head[0];
            got.height = head[1];
            std::vector<uint16_t> px(static_cast<size_t>(head[2]) / 2);
            if (std::fread(px.data(), 2, px.size(), in) != px.size()) break;
            got.frames.push_back(std::move(px));
        }
        std::fclose(in);
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (!WIFSIGNALED(status)) return got;
        std::fprintf(stderr, "OpenNI2's player died of signal %d; playing again\n",
                     WTERMSIG(status));
    }
    return {};
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
    const auto type = static_cast<uint32_t>(grey ? oni::node_type::ir : oni::node_type::depth);
    const oni::stream_desc d{type, grey ? 203u : 100u, grey ? 0u : 10000u, k_rw, k_rh, 2, 30};
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
        const std::string out = dir_.file(std::to_string(k) + ".raw");
        const std::string cmd = std::string(TEVIX_TOOL_PATH) + " oni export '" + sample +
                                "' --node Depth1 --frame " + std::to_string(k) + " --out '" + out +
                                "' > /dev/null";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
        const std::string raw = read_file(out);
        ASSERT_EQ(raw.size(), 640u * 480u * 2u);
        EXPECT_EQ(std::memcmp(raw.data(), p.frames[k].data(), raw.size()), 0) << "frame " << k;
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
        std::unique_ptr<oni::reader> rd;
        for (int settle_ms : {200, 1000, 3000}) {
            got = _rerecord(src, out, c.sensor, settle_ms);
            rd = oni::reader::open(out.c_str(), nullptr, nullptr);
            if (got == static_cast<int>(k_rframes) && rd && rd->node_at(1) &&
                rd->node_at(1)->desc.frames == k_rframes)
                break;
        }
        ASSERT_EQ(got, static_cast<int>(k_rframes));
        ASSERT_NE(rd, nullptr);
        const uint32_t id = rd->find_node(c.grey ? "IR" : "Depth");
        ASSERT_NE(id, 0u);
        const oni::node *n = rd->node_at(id);
        EXPECT_EQ(n->desc.frames, k_rframes);
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
    }
}

#if defined(TEVIX_VCAM_PATH) && defined(TEVIX_KILL_WRITER_PATH)
// What the killed writer confirmed: each frame's raw bytes and distance image.
struct confirmed {
    std::string raw;
    std::vector<uint16_t> dist;
};

std::vector<confirmed> _read_side(const std::string &path) {
    std::vector<confirmed> out;
    const std::string b = read_file(path);
    for (size_t at = 0; at + 8 <= b.size();) {
        const uint32_t raw = get_at<uint32_t>(b, at), px = get_at<uint32_t>(b, at + 4);
        const size_t end = at + 8 + raw + size_t{px} * 2;
        if (end > b.size()) break;  // the frame the kill interrupted
        confirmed c{b.substr(at + 8, raw), std::vector<uint16_t>(px)};
        std::memcpy(c.dist.data(), b.data() + at + 8 + raw, size_t{px} * 2);
        out.push_back(std::move(c));
        at = end;
    }
    return out;
}

// Records from the virtual camera in another process and kills it (SIGKILL) once it confirmed
// `frames` frames; raw frames and distance, or the distance stream only.
bool _record_and_kill(const std::string &rec, const std::string &side, uint32_t frames,
                      bool dist_only) {
    const std::string cmd = std::string(TEVIX_VCAM_PATH) + " --scene 2 --fps 60 -- " +
                            TEVIX_KILL_WRITER_PATH + " '" + rec + "' '" + side + "'" +
                            (dist_only ? " dist" : "");
    std::FILE *out = ::popen(cmd.c_str(), "r");
    int writer = -1;
    uint32_t n = 0;
    char line[64];
    while (out && std::fgets(line, sizeof line, out)) {
        if (std::sscanf(line, "pid %d", &writer) == 1) continue;
        if (std::sscanf(line, "frame %u", &n) == 1 && n >= frames) break;
    }
    if (writer > 0) ::kill(writer, SIGKILL);
    if (out) ::pclose(out);  // the virtual camera ends with its command
    return writer > 0 && n >= frames;
}

TEST_F(OniInterop, ARecordingWhoseWriterIsKilledIsRepairedWithEveryConfirmedFrame) {
    const std::string rec = dir_.file("killed.oni"), side = dir_.file("side.bin");
    const std::string fixed = dir_.file("repaired.oni");
    ASSERT_TRUE(_record_and_kill(rec, side, 30, false));
    const auto want = _read_side(side);
    ASSERT_GE(want.size(), 30u);
    EXPECT_FALSE(oni::reader::open(rec.c_str(), nullptr, nullptr));
    ASSERT_GE(tevix_oni_repair(rec.c_str(), fixed.c_str()), 2 * static_cast<int64_t>(want.size()));

    // Our reader: distance images pixel for pixel (the replay below checks the raw frames).
    auto r = oni::reader::open(fixed.c_str(), nullptr, nullptr);
    ASSERT_TRUE(r);
    const uint32_t depth_id = r->find_node("VX_DEPTH");
    ASSERT_NE(depth_id, 0u);
    std::vector<uint16_t> px;
    for (size_t i = 0; i < want.size(); ++i) {
        ASSERT_EQ(r->read_frame(depth_id), 1) << i;
        ASSERT_GT(r->decode_frame(depth_id, r->last().payload, px), 0);
        EXPECT_EQ(px, want[i].dist) << i;
    }

    // The replay backend plays it as a camera, frame by frame.
    tevix_init("");
    tevix_log_cfg(7, 7, 7);
    tevix_dev_t *dev = tevix_dev_open_by_uri(("file://" + fixed).c_str());
    ASSERT_TRUE(dev);
    tevix_param_item_t sync{TEVIX_PARAM_FPS, 4, {}};  // frame rate 0: one frame per pull
    ASSERT_TRUE(tevix_param_batch_set(dev, &sync, 1));
    ASSERT_TRUE(tevix_cap_start(dev));
    std::vector<uint8_t> buf(8u << 20);
    for (size_t i = 0; i < want.size(); ++i) {
        tevix_frame_info_t info{};
        ASSERT_EQ(tevix_cap_get_frames(dev, 1, buf.data(), buf.size(), &info), 1) << i;
        EXPECT_EQ(std::string(buf.begin(), buf.begin() + info.size), want[i].raw) << i;
    }
    tevix_cap_stop(dev);
    tevix_dev_close(dev);
    tevix_uninit();

    // OpenNI2's player refuses any recording with a node type it does not know, such as the raw
    // frames' node: it plays a repaired distance-only recording with the same pixels.
    ASSERT_TRUE(_record_and_kill(rec, side, 30, true));
    const auto dist = _read_side(side);
    ASSERT_GE(dist.size(), 30u);
    ASSERT_GE(tevix_oni_repair(rec.c_str(), fixed.c_str()), static_cast<int64_t>(dist.size()));
    const played p = _play(fixed);
    ASSERT_GE(p.frames.size(), dist.size());
    for (size_t i = 0; i < dist.size(); ++i) EXPECT_EQ(p.frames[i], dist[i].dist) << i;
}
#endif

}  // namespace
