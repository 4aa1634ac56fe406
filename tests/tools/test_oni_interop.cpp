// Interop with the ONI format's origin: OpenNI2's file player reads our recordings, and our
// export of a foreign recording gives the pixels OpenNI2 gives.
#include <OpenNI.h>

#include <cstdlib>
#include <cstring>
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

}  // namespace
