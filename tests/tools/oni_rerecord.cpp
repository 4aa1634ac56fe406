// Plays a recording with OpenNI2 and records one of its streams again with OpenNI2's own
// recorder. Runs in a process of its own: OpenNI2 does not survive a recorder in a process that
// goes on using it.
// Usage: oni_rerecord IN OUT depth|ir SETTLE_MS; prints the frames read, exit status 0 on success.
#include <OpenNI.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

// OpenNI2 keeps allocations of its drivers past shutdown.
extern "C" const char *__asan_default_options() {
    return "detect_leaks=0";
}

namespace {

int _rerecord(const char *in, const char *out, openni::SensorType sensor, int settle_ms) {
    openni::Device dev;
    if (dev.open(in) != openni::STATUS_OK) return -1;
    int got = -1;
    openni::PlaybackControl *pc = dev.getPlaybackControl();
    openni::VideoStream vs;
    if (pc && vs.create(dev, sensor) == openni::STATUS_OK) {
        pc->setRepeatEnabled(false);
        pc->setSpeed(-1);  // frames advance only as they are read
        const int n = pc->getNumberOfFrames(vs);
        openni::Recorder rec;
        // The recorder starts on its own thread and drops frames that come before that.
        if (rec.create(out) == openni::STATUS_OK && rec.attach(vs) == openni::STATUS_OK &&
            rec.start() == openni::STATUS_OK) {
            std::this_thread::sleep_for(std::chrono::milliseconds(settle_ms));
            if (vs.start() == openni::STATUS_OK) {
                got = 0;
                for (int i = 0; i < n; ++i) {
                    openni::VideoStream *streams[] = {&vs};
                    int ready = -1;
                    openni::VideoFrameRef f;
                    if (openni::OpenNI::waitForAnyStream(streams, 1, &ready, 5000) !=
                            openni::STATUS_OK ||
                        vs.readFrame(&f) != openni::STATUS_OK)
                        break;
                    ++got;
                }
            }
            rec.stop();
        }
        rec.destroy();
        vs.stop();
        vs.destroy();
    }
    dev.close();
    return got;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s IN OUT depth|ir SETTLE_MS\n", argv[0]);
        return 2;
    }
    const openni::SensorType sensor =
        std::strcmp(argv[3], "ir") == 0 ? openni::SENSOR_IR : openni::SENSOR_DEPTH;
    if (openni::OpenNI::initialize() != openni::STATUS_OK) {
        std::fprintf(stderr, "%s\n", openni::OpenNI::getExtendedError());
        return 1;
    }
    const int got = _rerecord(argv[1], argv[2], sensor, std::atoi(argv[4]));
    openni::OpenNI::shutdown();
    std::printf("%d\n", got);
    return got < 0 ? 1 : 0;
}
