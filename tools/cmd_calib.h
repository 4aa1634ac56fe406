// "calib": calibration containers between the camera's flash and the parameter directory;
// "calibrate": the calibration station.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

struct calib_cmd {
    CLI::App *fetch = nullptr, *pack = nullptr, *download = nullptr, *calibrate = nullptr;
    std::string uri, file, dir;
    bool zip = false;
    int verbosity = 0;
    // calibrate
    std::string out, distances = "500:4000:250", temps;
    std::vector<uint32_t> freqs;
    uint32_t frames = 20, drift_at = 0;
    bool measurements = false, operator_mode = false, download_after = false;
};

void tool_add_calib(CLI::App &app, calib_cmd &c);
// Exit code of the command, or -1 when none of them was given.
int tool_run_calib(const calib_cmd &c);
