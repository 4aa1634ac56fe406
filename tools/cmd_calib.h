// "calib": calibration containers between the camera's flash and the parameter directory.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

struct calib_cmd {
    CLI::App *fetch = nullptr, *pack = nullptr, *download = nullptr;
    std::string uri, file, dir;
    bool zip = false;
    int verbosity = 0;
};

void tool_add_calib(CLI::App &app, calib_cmd &c);
// Exit code of the command, or -1 when none of them was given.
int tool_run_calib(const calib_cmd &c);
