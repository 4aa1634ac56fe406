// Camera subcommands of the tevix tool.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

struct camera_cmds {
    int verbosity = 0;
    CLI::App *info = nullptr, *param = nullptr, *reg = nullptr, *filter = nullptr,
             *capture = nullptr;
    std::string uri;
    std::string param_id, param_value;
    bool param_set = false;
    uint32_t reg_target = 1, reg_addr = 0, reg_count = 1;
    std::vector<uint32_t> reg_values;
    bool reg_write = false;
    uint32_t filter_id = 0;
    std::vector<uint32_t> filter_args;
    bool filter_enable = false;
    uint32_t frames = 100;
    std::vector<std::string> uris;  // capture: several cameras
    bool all = false;
    double seconds = 0.0;  // monitor: 0 runs until interrupted
    CLI::App *monitor = nullptr;
};

// Adds info, param, reg, filter, capture and monitor to the tool.
void tool_add_camera(CLI::App &app, camera_cmds &c);
// Runs the parsed camera subcommand: its exit code, or -1 when none was given.
int tool_run_camera(const camera_cmds &c);
