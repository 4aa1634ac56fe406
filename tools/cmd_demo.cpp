// The main job: capture a few seconds from a camera while recording to an ONI file, replay the
// recording as a camera, and export one frame as a colour depth PNG, an infrared PNG and a PLY
// point cloud.
#include "cmd_demo.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "frame_export.h"
#include "tevix/tevix.h"
#include "tool_lib.h"

namespace {

constexpr int k_exit_ok = 0;
constexpr int k_exit_failed = 1;
constexpr uint32_t k_frame_buf = 8u << 20;

// Captures for the given time while the engine records every raw frame into file.
bool _capture_and_record(const demo_cmd &d, const std::string &file) {
    tool_device camera(d.uri);
    tevix_dev_t *dev = camera.get();
    if (!dev) return false;
    char uri[300];
    std::printf("camera    %s  %s  serial %s\n", tevix_dev_get_uri(dev, uri, sizeof uri),
                dev->product, dev->serial);
    tevix_cap_cfg_t cfg{};
    tevix_cap_config_get(dev, &cfg);
    cfg.save_replay = 1;
    cfg.save_file = file.c_str();
    tevix_cap_config_set(dev, &cfg);
    if (!tevix_cap_start(dev)) {
        std::fprintf(stderr, "demo: capture did not start\n");
        return false;
    }
    std::vector<uint8_t> buf(k_frame_buf);
    uint32_t frames = 0;
    auto t0 = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    };
    while (elapsed() < d.seconds) {
        int n = tevix_cap_get_frames(dev, 1, buf.data(), k_frame_buf, nullptr);
        if (n < 0) {
            std::fprintf(stderr, "demo: capture ended: %s\n", tevix_error_name(n));
            break;
        }
        frames += static_cast<uint32_t>(n);
    }
    tevix_cap_stop(dev);
    double s = elapsed();
    std::printf("captured  %u frames in %.1f s (%.1f fps), recorded to %s\n", frames, s,
                s > 0 ? frames / s : 0.0, file.c_str());
    return frames > 0;
}

// Replays the recording and exports one frame.
bool _replay_and_export(const demo_cmd &d, const std::string &file) {
    tool_device recording("file://" + file);
    tevix_dev_t *rec = recording.get();
    if (!rec) return false;
    if (!tevix_cap_start(rec)) return false;
    std::vector<uint8_t> raw(k_frame_buf);
    tevix_frame_info_t info{};
    // The frame from the middle of the first second: past any start-up frames.
    int got = 0;
    for (int i = 0; i < 15; ++i) {
        int n = tevix_cap_get_frames(rec, 1, raw.data(), k_frame_buf, &info);
        if (n <= 0) break;
        got = n;
    }
    tevix_cap_stop(rec);
    if (got <= 0 || info.width == 0 || info.height == 0) {
        std::fprintf(stderr, "demo: the recording delivered no frame\n");
        return false;
    }
    std::printf("replayed  frame #%u of %s: %ux%u, format %u\n", info.index, file.c_str(),
                info.width, info.height, info.format);
    std::filesystem::path out(d.out);
    const export_paths paths{(out / "depth.png").string(), (out / "ir.png").string(),
                             (out / "points.ply").string()};
    std::string err;
    if (!export_frame(rec, raw, info, paths, err)) {
        std::fprintf(stderr, "demo: %s\n", err.c_str());
        return false;
    }
    std::printf("depth     %s (colour, 0..%u mm)\n", paths.depth.c_str(), k_export_depth_max_mm);
    std::printf("infrared  %s\n", paths.ir.c_str());
    std::printf("points    %s\n", paths.points.c_str());
    return true;
}

}  // namespace

void tool_add_demo(CLI::App &app, demo_cmd &d) {
    d.app = app.add_subcommand(
        "demo", "capture with recording, replay the recording, export depth, infrared and points");
    d.app->add_option("uri", d.uri, "camera (default: the first one)");
    d.app->add_option("-o,--out", d.out, "output folder")->capture_default_str();
    d.app->add_option("-s,--seconds", d.seconds, "capture time")
        ->check(CLI::Range(0.1, 3600.0))
        ->capture_default_str();
}

int tool_run_demo(const demo_cmd &d) {
    if (!d.app || !d.app->parsed()) return -1;
    std::error_code ec;
    std::filesystem::create_directories(d.out, ec);
    if (ec) {
        std::fprintf(stderr, "demo: cannot create %s: %s\n", d.out.c_str(), ec.message().c_str());
        return k_exit_failed;
    }
    std::string file = (std::filesystem::path(d.out) / "capture.oni").string();
    tool_library lib(d.verbosity);
    if (!_capture_and_record(d, file)) return k_exit_failed;
    return _replay_and_export(d, file) ? k_exit_ok : k_exit_failed;
}
