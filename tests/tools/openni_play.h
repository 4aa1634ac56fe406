// Playback of a recording through OpenNI2, shared by the interop test and the re-recording helper.
#pragma once

#include <OpenNI.h>

#include <chrono>
#include <thread>

// For each program that includes this: OpenNI2 keeps allocations of its drivers, which it unloads
// at shutdown, so their leaks cannot even be attributed; our code's leaks are checked elsewhere.
extern "C" const char *__asan_default_options() {
    return "detect_leaks=0";
}

namespace tevix::test {

// Plays the `sensor` stream of the recording at `path` frame by frame (speed -1: frames advance
// only as they are read) and gives each frame to on_frame. With `record_to`, OpenNI2's recorder
// writes the stream there; it starts on a thread of its own and drops the frames that come before
// it runs, so the stream starts settle_ms later. OpenNI2 must be initialised. The frames read, or
// -1 when the recording, the stream or the recorder cannot be opened.
template <class F>
int openni_play(const char *path, openni::SensorType sensor, F &&on_frame,
                const char *record_to = nullptr, int settle_ms = 0) {
    openni::Device dev;
    if (dev.open(path) != openni::STATUS_OK) return -1;
    int got = -1;
    openni::PlaybackControl *pc = dev.getPlaybackControl();
    openni::VideoStream vs;
    if (pc && vs.create(dev, sensor) == openni::STATUS_OK) {
        pc->setRepeatEnabled(false);
        pc->setSpeed(-1);
        const int n = pc->getNumberOfFrames(vs);
        openni::Recorder rec;
        const bool recording = record_to && rec.create(record_to) == openni::STATUS_OK &&
                               rec.attach(vs) == openni::STATUS_OK &&
                               rec.start() == openni::STATUS_OK;
        if (recording) std::this_thread::sleep_for(std::chrono::milliseconds(settle_ms));
        if ((recording || !record_to) && vs.start() == openni::STATUS_OK) {
            for (got = 0; got < n; ++got) {
                openni::VideoStream *streams[] = {&vs};
                int ready = -1;
                openni::VideoFrameRef f;
                if (openni::OpenNI::waitForAnyStream(streams, 1, &ready, 5000) !=
                        openni::STATUS_OK ||
                    vs.readFrame(&f) != openni::STATUS_OK)
                    break;
                on_frame(f);
            }
        }
        if (recording) rec.stop();
        rec.destroy();
        vs.stop();
        vs.destroy();
    }
    dev.close();
    return got;
}

}  // namespace tevix::test
