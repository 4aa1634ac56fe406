// tevix view [URI] [--port P] [--bind ADDR]: serves the viewer page and the camera's frames until
// interrupted. Beyond the loopback address every request must carry the printed access token.
#include "cmd_view.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include "../tool_lib.h"

namespace {

// Set by SIGINT/SIGTERM; a watcher thread stops the server (nothing else is safe in a handler).
volatile std::sig_atomic_t g_stop = 0;

void _on_signal(int) {
    g_stop = 1;
}

}  // namespace

void tool_add_view(CLI::App &app, view_cmd &v) {
    v.app = app.add_subcommand("view", "live viewer in the browser: depth, infrared, points");
    v.app->add_option("uri", v.opt.uri,
                      "camera or file://recording.oni (default: the first camera)");
    v.app->add_option("-p,--port", v.opt.port, "port (0: any free one)")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    v.app
        ->add_option("--bind", v.opt.bind,
                     "address to listen on; other than loopback needs the "
                     "printed token")
        ->capture_default_str();
    v.app->add_option("--record-dir", v.opt.record_dir, "folder for recordings made from the page")
        ->capture_default_str();
    v.app->add_option("--three", v.opt.three_dir, "the distribution's three.js folder")
        ->capture_default_str();
}

int tool_run_view(view_cmd &v, int verbosity) {
    if (!v.app || !v.app->parsed()) return -1;
    tool_library lib(verbosity);
    tevix_view::server srv(v.opt);
    if (!srv.start()) {
        std::fprintf(stderr, "view: %s\n", srv.error().c_str());
        return 1;
    }
    g_stop = 0;
    std::signal(SIGINT, _on_signal);
    std::signal(SIGTERM, _on_signal);
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        while (!g_stop && !done) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        srv.stop();
    });
    const std::string host = v.opt.bind == "0.0.0.0" ? "127.0.0.1" : v.opt.bind;
    std::printf("viewer at http://%s:%d/%s%s\n", host.c_str(), srv.port(),
                srv.token().empty() ? "" : "?token=", srv.token().c_str());
    if (!srv.token().empty())
        std::printf("access token (every request needs it): %s\n", srv.token().c_str());
    std::fflush(stdout);
    srv.run();
    done = true;
    watcher.join();
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    return 0;
}
