// "export": frames of a recording decoded through the recorded camera's driver into a depth
// PNG, an infrared PNG and a point cloud.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "frame_export.h"

struct export_cmd {
    CLI::App *app = nullptr;
    std::string file;
    int64_t frame = 0;
    bool all = false;
    export_paths paths;
    int verbosity = 0;
};

void tool_add_export(CLI::App &app, export_cmd &e);
// Exit code of the export, or -1 when it was not the command given.
int tool_run_export(const export_cmd &e);
