// tevix export REC.oni (--frame N | --all) [--depth D.png] [--ir I.png] [--points P.ply|P.pcd]
//
// The recording is opened as a camera ("file://"), so its raw frames decode through the recorded
// device's driver exactly as in replay. With --all every frame is written, the frame index
// (from 0, six digits) inserted before each file's extension.
#include "cmd_export.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <vector>

#include "tool_lib.h"

namespace {

constexpr int k_ok = 0;
constexpr int k_failed = 1;
constexpr int k_usage = 2;
// Frames pulled before the one exported, so that the driver's per-frame history (the temperature
// filter) is what it is when the recording plays from the start.
constexpr int64_t k_lead_in = 8;

std::string _numbered(const std::string &path, int64_t k) {
    if (path.empty()) return path;
    const size_t dot = path.rfind('.'), slash = path.rfind('/');
    const size_t at =
        dot != std::string::npos && (slash == std::string::npos || dot > slash) ? dot : path.size();
    char num[32];
    std::snprintf(num, sizeof num, "_%06" PRId64, k);
    return path.substr(0, at) + num + path.substr(at);
}

void _progress(int64_t done, int64_t total) {
    constexpr int k_width = 40;
    const int fill = total > 0 ? static_cast<int>(done * k_width / total) : k_width;
    std::fprintf(stderr, "\rexport [%.*s%*s] %" PRId64 "/%" PRId64, fill,
                 "########################################", k_width - fill, "", done, total);
}

}  // namespace

void tool_add_export(CLI::App &app, export_cmd &e) {
    e.app = app.add_subcommand(
        "export", "decode recorded frames into a depth PNG, an infrared PNG and a point cloud");
    e.app->add_option("FILE", e.file, "recording (.oni)")->required();
    auto *frame =
        e.app->add_option("--frame", e.frame, "frame index from 0")->check(CLI::NonNegativeNumber);
    auto *all = e.app->add_flag("--all", e.all, "every frame, numbered file names");
    frame->excludes(all);
    e.app->add_option("--depth", e.paths.depth, "colour-mapped distance, PNG");
    e.app->add_option("--ir", e.paths.ir, "infrared picture, PNG");
    e.app->add_option("--points", e.paths.points, "point cloud in metres, PLY or PCD");
}

int tool_run_export(const export_cmd &e) {
    if (!e.app || !e.app->parsed()) return -1;
    if (const std::string why = export_check(e.paths); !why.empty()) {
        std::fprintf(stderr, "export: %s\n", why.c_str());
        return k_usage;
    }
    tool_library lib(e.verbosity);
    const std::string uri = e.file.rfind("file://", 0) == 0 ? e.file : "file://" + e.file;
    tevix_dev_t *dev = tevix_dev_open_by_uri(uri.c_str());
    if (!dev) {
        std::fprintf(stderr, "export: %s is no recording with raw frames (-v for details)\n",
                     e.file.c_str());
        return k_failed;
    }
    tevix_param_item_t sync{};
    sync.id = TEVIX_PARAM_FPS;
    sync.len = 4;  // frame rate 0: one frame per pull, none skipped
    tevix_param_batch_set(dev, &sync, 1);
    int rc = k_failed;
    std::vector<uint8_t> raw(8u << 20);
    std::string err;
    if (tevix_cap_start(dev)) {
        const int64_t count = tevix_cap_seek_frame(dev, 0, 2);
        const int64_t first = e.all ? 0 : std::max<int64_t>(0, e.frame - k_lead_in);
        const int64_t last = e.all ? count - 1 : e.frame;
        const bool tty = e.all && isatty(STDERR_FILENO) == 1;
        if (count <= 0) {
            std::fprintf(stderr, "export: %s holds no frame\n", e.file.c_str());
        } else if (last >= count) {
            std::fprintf(stderr, "export: %s has %" PRId64 " frames (0..%" PRId64 ")\n",
                         e.file.c_str(), count, count - 1);
        } else if (tevix_cap_seek_frame(dev, static_cast<uint32_t>(first), 0) == first) {
            rc = k_ok;
            for (int64_t k = first; k <= last && rc == k_ok; ++k) {
                tevix_frame_info_t info{};
                if (tevix_cap_get_frames(dev, 1, raw.data(), static_cast<uint32_t>(raw.size()),
                                         &info) != 1) {
                    std::fprintf(stderr, "\nexport: frame %" PRId64 " of %s cannot be read\n", k,
                                 e.file.c_str());
                    rc = k_failed;
                    break;
                }
                if (!e.all && k < last) continue;
                const export_paths p =
                    e.all ? export_paths{_numbered(e.paths.depth, k), _numbered(e.paths.ir, k),
                                         _numbered(e.paths.points, k)}
                          : e.paths;
                if (!export_frame(dev, raw, info, p, err)) {
                    std::fprintf(stderr, "%sexport: frame %" PRId64 ": %s\n", tty ? "\n" : "", k,
                                 err.c_str());
                    rc = k_failed;
                }
                if (tty) _progress(k + 1, count);
            }
            if (tty) std::fprintf(stderr, "\n");
            if (rc == k_ok && e.all)
                std::printf("exported %" PRId64 " frames of %s\n", count, e.file.c_str());
            else if (rc == k_ok)
                std::printf("exported frame %" PRId64 " of %s\n", e.frame, e.file.c_str());
        } else {
            std::fprintf(stderr, "export: cannot seek in %s\n", e.file.c_str());
        }
        tevix_cap_stop(dev);
    } else {
        std::fprintf(stderr, "export: %s does not play\n", e.file.c_str());
    }
    tevix_dev_close(dev);
    return rc;
}
