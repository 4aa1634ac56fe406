// Plays a recording with OpenNI2 and records one of its streams again with OpenNI2's own
// recorder. Runs in a process of its own: OpenNI2 does not survive a recorder in a process that
// goes on using it.
// Usage: oni_rerecord IN OUT depth|ir SETTLE_MS; prints the frames read, exit status 0 on success.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "openni_play.h"

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
    const int got = tevix::test::openni_play(
        argv[1], sensor, [](const openni::VideoFrameRef &) {}, argv[2], std::atoi(argv[4]));
    openni::OpenNI::shutdown();
    std::printf("%d\n", got);
    return got < 0 ? 1 : 0;
}
