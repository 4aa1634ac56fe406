// oni_kill_writer OUT.oni SIDE [dist]: records the first camera into OUT.oni (raw frames and
// distance; with "dist" the distance stream only) until it is killed. After every frame the
// recording holds, the frame's raw bytes and distance image go to SIDE and "frame N" to standard
// output, so that whoever kills this process knows which frames the recording must keep. The first
// line is "pid P".
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "tevix/tevix.h"

int main(int argc, char **argv) {
    if (argc != 3 && argc != 4) return 2;
    tevix_init("");
    tevix_log_cfg(7, 7, 7);
    tevix_dev_t *dev = tevix_dev_open(nullptr);
    std::FILE *side = std::fopen(argv[2], "wb");
    if (!dev || !side) return 1;
    tevix_cap_cfg_t cfg{};
    tevix_cap_config_get(dev, &cfg);
    cfg.save_replay = argc == 3;
    cfg.save_dist = 1;
    cfg.save_file = argv[1];
    tevix_cap_config_set(dev, &cfg);
    if (!tevix_cap_start(dev)) return 1;
    std::printf("pid %d\n", static_cast<int>(getpid()));
    std::fflush(stdout);
    std::vector<uint8_t> raw(8u << 20);
    std::vector<uint16_t> dist;
    for (uint32_t n = 1;; ++n) {
        tevix_frame_info_t info{};
        if (tevix_cap_get_frames(dev, 1, raw.data(), raw.size(), &info) != 1) return 1;
        dist.resize(info.width * info.height);
        // Decoding records the distance image.
        if (tevix_frame_get_dist_u16(dev, dist.data(), dist.size(), raw.data(), info.size, &info) <=
            0)
            return 1;
        const uint32_t sizes[2] = {info.size, static_cast<uint32_t>(dist.size())};
        std::fwrite(sizes, 4, 2, side);
        std::fwrite(raw.data(), 1, info.size, side);
        std::fwrite(dist.data(), 2, dist.size(), side);
        std::fflush(side);
        std::printf("frame %u\n", n);
        std::fflush(stdout);
    }
}
