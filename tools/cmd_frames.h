// "save" and "load": frames of a camera or recording kept in frame files, and a frame file's
// frame shown as a PNG.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

struct frames_cmd {
    CLI::App *save = nullptr, *load = nullptr;
    std::string uri, file, kind = "dist", out;
    int format = 2;
    int frames = 1;
    int frame = 0;
    int verbosity = 0;
};

void tool_add_frames(CLI::App &app, frames_cmd &f);
// Exit code of the command, or -1 when neither was given.
int tool_run_frames(const frames_cmd &f);
