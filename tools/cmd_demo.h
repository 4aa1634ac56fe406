// "demo": the main job of the tool: capture with recording, replay, and export one frame.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

struct demo_cmd {
    CLI::App *app = nullptr;
    std::string uri;          // camera to capture from (default: the first one)
    std::string out = "out";  // output folder
    double seconds = 3.0;
    int verbosity = 0;
};

void tool_add_demo(CLI::App &app, demo_cmd &d);
// Exit code of the demo, or -1 when it was not the command given.
int tool_run_demo(const demo_cmd &d);
