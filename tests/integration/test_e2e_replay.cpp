// Record and replay end to end: a capture from the virtual camera over the real libusb is
// recorded, and the recording, opened as a "file://" device, gives back the same raw frames,
// frame information and distance images, seeks and ends once through the public calls.
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "ll/oni/oni.h"
#include "vcam_env.h"

namespace {

constexpr uint32_t k_freq = 20000000;
constexpr uint32_t k_w = 320, k_h = 240, k_n = k_w * k_h;
constexpr uint32_t k_frames = 30;

using tevix::test::cap_errors;
using tevix::test::pull;
using tevix::test::vcam_env;

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(
    new vcam_env({vcam_env::scene_unit(vcam_env::at_fps(60))}, "E2E_LOG"));

// What the live capture delivered, frame by frame.
struct captured {
    std::vector<uint8_t> raw;
    tevix_frame_info_t info;
    std::vector<uint16_t> dist;
};

// Records k_frames frames once; every test replays that recording.
class e2e_replay : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<tevix::test::temp_dir>();
        path_ = dir_->file("capture.oni");
        record();
    }
    static void TearDownTestSuite() { dir_.reset(); }

    static void record() {
        tevix_dev_t list[4] = {};
        ASSERT_EQ(tevix_dev_list(list, 4), 1);
        tevix_dev_t *dev = tevix_dev_open(&list[0]);
        ASSERT_NE(dev, nullptr);
        EXPECT_TRUE(tevix::test::set_u32(dev, TEVIX_PARAM_MOD_FREQ, k_freq));
        ASSERT_TRUE(tevix::test::cap_configure(dev, [](tevix_cap_cfg_t &c) {
            c.save_replay = 1;
            c.save_dist = 1;
            c.save_file = path_.c_str();
        }));
        ASSERT_EQ(tevix_cap_start(dev), 1);
        std::vector<uint8_t> buf(8u << 20);
        for (uint32_t k = 0; k < k_frames; ++k) {
            captured c{};
            const int n = pull(dev, buf, &c.info);
            ASSERT_EQ(n, 1) << "frame " << k << ": " << tevix_error_name(n);
            ASSERT_GT(c.info.size, 0u);
            c.raw.assign(buf.begin(), buf.begin() + c.info.size);
            c.dist = tevix::test::decode(tevix_frame_get_dist_u16, dev, buf, c.info, k_n);
            live_.push_back(std::move(c));
        }
        ASSERT_EQ(tevix_cap_stop(dev), 1);
        tevix_dev_close(dev);
        auto rd = tevix::oni::reader::open(path_.c_str(), nullptr, nullptr);
        ASSERT_NE(rd, nullptr);
        const uint32_t node = rd->find_node("VX_REPLAY");
        while (node && rd->read_frame(node) == 1) rec_ts_.push_back(rd->last().timestamp);
        ASSERT_EQ(rec_ts_.size(), k_frames);
    }

    void SetUp() override {
        ASSERT_EQ(live_.size(), k_frames) << "the recording failed";
        ASSERT_EQ(rec_ts_.size(), k_frames);
        cap_errors::reset();
    }

    // Pulls one frame and checks it is recorded frame k: the live capture's bytes and distance
    // image. Its information comes from the replay's stream header: the recording's frame number
    // (from 1) as index, the recorded time of day, the frame's size and geometry.
    void expect_frame(tevix_dev_t *dev, uint32_t k) {
        SCOPED_TRACE("recorded frame " + std::to_string(k + 1));
        const captured &want = live_[k];
        std::vector<uint8_t> buf(8u << 20);
        tevix_frame_info_t info{};
        const int n = pull(dev, buf, &info);
        ASSERT_EQ(n, 1) << tevix_error_name(n);
        ASSERT_EQ(info.size, want.info.size);
        EXPECT_EQ(std::memcmp(buf.data(), want.raw.data(), info.size), 0);
        EXPECT_EQ(info.index, k + 1);
        EXPECT_EQ(info.format, want.info.format);
        EXPECT_EQ(info.width, want.info.width);
        EXPECT_EQ(info.height, want.info.height);
        EXPECT_EQ(info.depth, want.info.depth);
        EXPECT_EQ(info.temperature, want.info.temperature);
        const uint64_t ts = rec_ts_[k];
        EXPECT_EQ(info.ts_sec % 86400, ts / 1000000 % 86400);
        EXPECT_EQ(info.ts_usec, ts % 1000000 / 64 * 64);
        EXPECT_TRUE(tevix::test::decode(tevix_frame_get_dist_u16, dev, buf, info, k_n) == want.dist)
            << "distance image differs";
    }

    static inline std::unique_ptr<tevix::test::temp_dir> dir_;
    static inline std::string path_;
    static inline std::vector<captured> live_;
    static inline std::vector<uint64_t> rec_ts_;  // recorded timestamps, microseconds
};

}  // namespace

TEST_F(e2e_replay, recording_holds_every_distance_image) {
    // The camera numbers its frames itself: one after another, whatever the pulls kept.
    for (uint32_t k = 1; k < k_frames; ++k)
        EXPECT_GT(static_cast<uint16_t>(live_[k].info.index - live_[k - 1].info.index), 0) << k;

    // The raw frames are checked through the replay; the distance images only here.
    auto rd = tevix::oni::reader::open(path_.c_str(), nullptr, nullptr);
    ASSERT_NE(rd, nullptr);
    const uint32_t dist = rd->find_node("VX_DEPTH");
    ASSERT_NE(dist, 0u);
    EXPECT_EQ(rd->node_at(dist)->desc.frames, k_frames);
    std::vector<uint16_t> px;
    for (uint32_t k = 0; k < k_frames; ++k) {
        ASSERT_EQ(rd->read_frame(dist), 1);
        ASSERT_EQ(rd->decode_frame(dist, rd->last().payload, px), static_cast<int64_t>(k_n));
        EXPECT_TRUE(px == live_[k].dist) << "distance frame " << k;
    }
}

// A frame, seeks forward, back and to the start, then the whole recording frame by frame; its end
// reaches the error callback once and the pulls deliver nothing; a seek past the end stops there.
TEST_F(e2e_replay, sync_replay_seeks_gives_the_capture_back_then_ends_once) {
    // The recording in sync mode (one frame per pull), with the error callback set.
    tevix_dev_t *dev = tevix_dev_open_by_uri(("file://" + path_).c_str());
    ASSERT_NE(dev, nullptr);
    EXPECT_TRUE(tevix::test::set_u32(dev, TEVIX_PARAM_FPS, 0));
    EXPECT_TRUE(tevix::test::cap_configure(
        dev, [](tevix_cap_cfg_t &c) { c.on_cap_err = cap_errors::note; }));
    ASSERT_EQ(tevix_cap_start(dev), 1);
    expect_frame(dev, 0);
    EXPECT_EQ(tevix_cap_seek_frame(dev, 17, 0), 17);
    expect_frame(dev, 17);
    expect_frame(dev, 18);
    EXPECT_EQ(tevix_cap_seek_frame(dev, static_cast<uint32_t>(-5), 1), 14);  // back from 19
    expect_frame(dev, 14);
    EXPECT_EQ(tevix_cap_seek_frame(dev, 0, 0), 0);
    for (uint32_t k = 0; k < k_frames && !HasFatalFailure(); ++k) expect_frame(dev, k);
    std::vector<uint8_t> buf(8u << 20);
    EXPECT_EQ(pull(dev, buf), 0);
    EXPECT_EQ(pull(dev, buf), 0);
    const auto errs = cap_errors::all();
    ASSERT_EQ(errs.size(), 1u);
    EXPECT_EQ(errs[0].first, TEVIX_ERR_CAP_EOF);
    EXPECT_EQ(tevix_cap_seek_frame(dev, 1000, 0), static_cast<int>(k_frames));
    tevix_cap_stop(dev);
    tevix_dev_close(dev);
}

#ifdef TEVIX_TOOL_PATH
// The tool's frame files: "save" of the recording keeps its raw frames byte for byte and its
// distances to the millimetre, "load" pictures a saved frame, a damaged file fails cleanly.
TEST_F(e2e_replay, tool_saves_recorded_frames_into_frame_files) {
    auto tool = [](const std::string &args) {
        const std::string cmd = std::string(TEVIX_TOOL_PATH) + " " + args + " >/dev/null 2>&1";
        const int st = std::system(cmd.c_str());
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    };
    const std::string raw = dir_->file("raw.bin"), mm = dir_->file("mm.bin");
    const std::string rec = "file://" + path_;
    ASSERT_EQ(tool("save " + rec + " " + raw + " --kind raw -n 5"), 0);
    ASSERT_EQ(tool("save " + rec + " " + mm + " --kind dist --format 2 -n 5"), 0);

    const std::string file = tevix::test::read_file(raw);
    const std::string header =
        "VX_RAW,U16,320,240,4,format" + std::to_string(live_[0].info.format) + "\n";
    ASSERT_EQ(file.substr(0, header.size()), header);
    ASSERT_EQ(file.size(), header.size() + 5 * size_t{live_[0].info.size});
    for (size_t k = 0; k < 5; ++k) {
        const std::vector<uint8_t> &want = live_[k].raw;
        EXPECT_EQ(
            std::memcmp(file.data() + header.size() + k * want.size(), want.data(), want.size()), 0)
            << "raw frame " << k;
    }
    const int fd = tevix_file_open(mm.c_str(), "rb");
    std::vector<float> metres(k_n);
    for (size_t k = 0; k < 5; ++k) {
        ASSERT_EQ(tevix_frame_load_distance(fd, metres.data(), k_n, nullptr, nullptr), int(k_n));
        size_t differ = 0;
        for (uint32_t i = 0; i < k_n; ++i) {
            const uint16_t live = live_[k].dist[i];
            if (live != 0 && live < 65500 && std::lround(metres[i] * 1000.0f) != live) ++differ;
        }
        EXPECT_EQ(differ, 0u) << "distance frame " << k;
    }
    tevix_file_close(fd);

    EXPECT_EQ(tool("load " + mm + " --frame 4 --out " + dir_->file("d.png")), 0);
    EXPECT_GT(tevix::test::read_file(dir_->file("d.png")).size(), 1000u);
    EXPECT_EQ(tool("load " + raw + " --out " + dir_->file("r.png")), 0);
    EXPECT_EQ(tool("load " + mm + " --frame 5 --out " + dir_->file("x.png")), 1);
    EXPECT_EQ(tool("load " + path_ + " --out " + dir_->file("x.png")), 1);
    EXPECT_EQ(tool("save " + rec + " " + dir_->file("x.bin") + " --kind gray --format 0"), 2);
}
#endif
