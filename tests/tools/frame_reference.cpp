// The library's own output, for the tests of its clients (the ROS node, the Python package) to
// compare theirs with; a plain C loop over the public interface.
//
// tevix_frame_reference REC.oni OUT: every frame of a recording, replayed in sync mode.
// tevix_frame_reference --live SECONDS [images]: pulls and decodes (distance, grey, point cloud;
//   with "images" the u16 distance and grey only, as the viewer does) from the first camera and
//   prints the process CPU time, the baseline of a client's overhead.
// tevix_frame_reference --rate REC.oni FRAMES: pulls and decodes the distance of FRAMES frames of
//   a recording (from its start again at its end) as fast as it can and prints frames/s.
// Replays in sync mode (every frame, no pacing) and writes OUT as: "TVXREF1\0", u32 width, height,
// lens record (tevix_lens_t), then per frame u32 index, ts_sec, ts_usec, u16 depth[w*h], u16
// grey[w*h], u16 undistorted depth[w*h], f32 xyz[3*w*h].
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tevix/tevix.h"

namespace {

struct decoded {
    std::vector<uint16_t> depth, grey, rect;
    std::vector<float> metres, xyz;
};

// Distance and grey as u16; unless images_only, the distance in metres and the point cloud too.
bool _decode(tevix_dev_t *dev, const std::vector<uint8_t> &raw, const tevix_frame_info_t &info,
             decoded &d, bool images_only = false) {
    const uint32_t w = info.width, h = info.height, n = w * h;
    d.depth.resize(n);
    d.grey.resize(n);
    if (tevix_frame_get_dist_u16(dev, d.depth.data(), n, raw.data(), info.size, &info) <= 0 ||
        tevix_frame_get_gray_u16(dev, d.grey.data(), n, raw.data(), info.size, &info) <= 0)
        return false;
    if (images_only) return true;
    d.rect.resize(n);
    d.metres.resize(n);
    d.xyz.resize(3 * n);
    return tevix_frame_get_dist_f32(dev, d.metres.data(), n, raw.data(), info.size, &info) > 0 &&
           tevix_frame_get_pcl(dev, d.xyz.data(), 3 * n, d.metres.data(), n, w, h, nullptr) > 0;
}

tevix_dev_t *_open_replay(const char *path) {
    tevix_dev_t *dev = tevix_dev_open_by_uri((std::string("file://") + path).c_str());
    if (!dev) return nullptr;
    tevix_param_item_t sync{TEVIX_PARAM_FPS, 4, {}};  // frame rate 0: one frame per pull
    tevix_param_batch_set(dev, &sync, 1);
    return dev;
}

double _cpu_s() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
           (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
}

int _live(double seconds, bool images_only) {
    tevix_dev_t *dev = tevix_dev_open(nullptr);
    if (!dev || !tevix_cap_start(dev)) return 1;
    std::vector<uint8_t> raw(8u << 20);
    decoded d;
    const double cpu0 = _cpu_s();
    const auto t0 = std::chrono::steady_clock::now();
    int frames = 0;
    while (std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() < seconds) {
        tevix_frame_info_t info{};
        if (tevix_cap_get_frames(dev, 1, raw.data(), raw.size(), &info) == 1 &&
            _decode(dev, raw, info, d, images_only))
            ++frames;
    }
    const double cpu = _cpu_s() - cpu0;
    tevix_cap_stop(dev);
    tevix_dev_close(dev);
    std::printf("frames %d cpu_s %.3f\n", frames, cpu);
    return frames > 0 ? 0 : 1;
}

int _rate(const char *path, int frames) {
    tevix_dev_t *dev = _open_replay(path);
    if (!dev) return 1;
    tevix_cap_cfg_t cfg{};
    tevix_cap_config_get(dev, &cfg);
    cfg.file_replay_mode = 1;  // start over at the end
    tevix_cap_config_set(dev, &cfg);
    if (!tevix_cap_start(dev)) return 1;
    std::vector<uint8_t> raw(8u << 20);
    std::vector<uint16_t> depth;
    const auto t0 = std::chrono::steady_clock::now();
    int done = 0;
    while (done < frames) {
        tevix_frame_info_t info{};
        if (tevix_cap_get_frames(dev, 1, raw.data(), raw.size(), &info) != 1) continue;
        depth.resize(info.width * info.height);
        if (tevix_frame_get_dist_u16(dev, depth.data(), depth.size(), raw.data(), info.size,
                                     &info) > 0)
            ++done;
    }
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    tevix_cap_stop(dev);
    tevix_dev_close(dev);
    std::printf("frames %d seconds %.4f fps %.1f\n", done, s, done / s);
    return 0;
}

int _record(const char *path, const char *out_path) {
    tevix_dev_t *dev = _open_replay(path);
    if (!dev) {
        std::fprintf(stderr, "tevix_frame_reference: cannot open %s\n", path);
        return 1;
    }
    std::FILE *out = std::fopen(out_path, "wb");
    if (!out || !tevix_cap_start(dev)) return 1;
    std::vector<uint8_t> raw(8u << 20);
    decoded d;
    int frames = 0;
    for (;; ++frames) {
        tevix_frame_info_t info{};
        if (tevix_cap_get_frames(dev, 1, raw.data(), raw.size(), &info) != 1) break;
        const uint32_t w = info.width, h = info.height, n = w * h;
        if (!_decode(dev, raw, info, d) ||
            tevix_lens_calib_apply_dist_u16(dev, d.rect.data(), n, d.depth.data(), n, 0, &info,
                                            nullptr) != 1)
            return 1;
        if (frames == 0) {
            tevix_lens_t lens{};
            tevix_lens_param_get(dev, &lens);
            std::fwrite("TVXREF1", 1, 8, out);
            std::fwrite(&w, 4, 1, out);
            std::fwrite(&h, 4, 1, out);
            std::fwrite(&lens, sizeof lens, 1, out);
        }
        const uint32_t head[3] = {info.index, info.ts_sec, info.ts_usec};
        std::fwrite(head, 4, 3, out);
        std::fwrite(d.depth.data(), 2, n, out);
        std::fwrite(d.grey.data(), 2, n, out);
        std::fwrite(d.rect.data(), 2, n, out);
        std::fwrite(d.xyz.data(), 4, 3 * n, out);
    }
    tevix_cap_stop(dev);
    tevix_dev_close(dev);
    std::printf("%d frames\n", frames);
    return std::fclose(out) == 0 && frames > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    const bool rate = argc == 4 && std::strcmp(argv[1], "--rate") == 0;
    const bool live = (argc == 3 || argc == 4) && std::strcmp(argv[1], "--live") == 0;
    if (!rate && !live && argc != 3) {
        std::fprintf(stderr,
                     "usage: tevix_frame_reference REC.oni OUT | --live SECONDS [images] | "
                     "--rate REC.oni FRAMES\n");
        return 2;
    }
    tevix_init("");
    tevix_log_cfg(7, 7, 7);
    const bool images = live && argc == 4 && std::strcmp(argv[3], "images") == 0;
    const int rc = rate   ? _rate(argv[2], std::atoi(argv[3]))
                   : live ? _live(std::atof(argv[2]), images)
                          : _record(argv[1], argv[2]);
    tevix_uninit();
    return rc;
}
