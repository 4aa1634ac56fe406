// tevix: command-line tool over the public library interface.
//
// Exit codes: 0 success, 1 the operation failed, 2 wrong usage.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "cmd_calib.h"
#include "cmd_camera.h"
#include "cmd_demo.h"
#include "cmd_export.h"
#include "cmd_frames.h"
#include "cmd_xfer.h"
#ifdef TEVIX_TOOL_VIEW
#include "view/cmd_view.h"
#endif
#include "cmd_oni.h"
#include "tevix/tevix_ll.h"
#include "tevix/tevix_version.h"
#include "tevix/vx_log.h"

namespace {

constexpr int k_exit_ok = 0;
constexpr int k_exit_failed = 1;
constexpr int k_exit_usage = 2;

const char *_speed_name(uint8_t speed) {
    switch (speed) {
        case 1:
            return "low (1.5 Mbit/s)";
        case 2:
            return "full (12 Mbit/s)";
        case 3:
            return "high (480 Mbit/s)";
        case 4:
            return "super (5 Gbit/s)";
        case 5:
            return "super+ (10 Gbit/s)";
        default:
            return "unknown";
    }
}

// Library set-up for one command: console diagnostics only at the chosen level.
struct session {
    explicit session(int verbosity) {
        vx_log_init(nullptr, nullptr, "VX");
        uint32_t level = verbosity >= 2 ? 0 : verbosity == 1 ? 4 : 7;
        vx_log_cfg(nullptr, 0, level, 1);
        ok = tevix_ll_init() != 0;
    }
    ~session() {
        tevix_ll_uninit();
        vx_log_uninit(nullptr);
    }
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    bool ok = false;
};

int _cmd_version() {
    std::printf("tevix %s (build %s, %s %s)\n", TEVIX_VERSION_TEXT, TEVIX_BUILD_REV, __DATE__,
                __TIME__);
    return k_exit_ok;
}

int _cmd_list(int verbosity) {
    session s(verbosity);
    if (!s.ok) {
        std::fprintf(stderr, "tevix: the transport layer failed to start\n");
        return k_exit_failed;
    }
    std::vector<tevix_ll_dev_t> list(32);
    int n = tevix_ll_dev_list(list.data(), static_cast<int>(list.size()));
    if (n <= 0) {
        std::printf("no camera found\n");
        return k_exit_ok;
    }
    std::printf("%d camera%s found\n", n, n == 1 ? "" : "s");
    for (int i = 0; i < n; ++i) {
        const tevix_ll_dev_t &d = list[static_cast<size_t>(i)];
        std::printf("  usb://%03u:%03u:%03u  speed %s  vendor \"%s\"  product \"%s\"\n",
                    d.info.usb.bus, d.info.usb.port, d.info.usb.addr, _speed_name(d.info.usb.speed),
                    d.info.usb.vendor, d.info.usb.product);
    }
    return k_exit_ok;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"tevix: list, configure and capture from USB time-of-flight cameras"};
    app.require_subcommand(1);
    int verbosity = 0;
    app.add_flag("-v,--verbose", verbosity, "library diagnostics on the console (-vv: all)");

    auto *version = app.add_subcommand("version", "print the library version and build");
    auto *list = app.add_subcommand("list", "list the cameras attached over USB");
    auto *oni = tool_add_oni(app);
    camera_cmds camera;
    tool_add_camera(app, camera);
    demo_cmd demo;
    tool_add_demo(app, demo);
    export_cmd exp;
    tool_add_export(app, exp);
    frames_cmd frames;
    tool_add_frames(app, frames);
    xfer_cmd xfer;
    tool_add_xfer(app, xfer);
    calib_cmd calib;
    tool_add_calib(app, calib);
#ifdef TEVIX_TOOL_VIEW
    view_cmd view;
    tool_add_view(app, view);
#endif

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        app.exit(e);
        return k_exit_usage;
    }

    if (version->parsed()) return _cmd_version();
    if (list->parsed()) return _cmd_list(verbosity);
    if (oni->parsed()) return tool_run_oni(oni, verbosity);
    camera.verbosity = demo.verbosity = exp.verbosity = frames.verbosity = xfer.verbosity =
        calib.verbosity = verbosity;
    if (int r = tool_run_camera(camera); r >= 0) return r;
    if (int r = tool_run_demo(demo); r >= 0) return r;
    if (int r = tool_run_export(exp); r >= 0) return r;
    if (int r = tool_run_frames(frames); r >= 0) return r;
    if (int r = tool_run_xfer(xfer); r >= 0) return r;
    if (int r = tool_run_calib(calib); r >= 0) return r;
#ifdef TEVIX_TOOL_VIEW
    if (int r = tool_run_view(view, verbosity); r >= 0) return r;
#endif
    return k_exit_usage;
}
