// "firmware" and "data": files moved between the host and a camera's flash.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

struct xfer_cmd {
    CLI::App *firmware = nullptr, *download = nullptr, *upload = nullptr;
    std::string uri, file;
    uint16_t type = 0, version = 0;
    uint32_t addr = 0;
    int verbosity = 0;
};

void tool_add_xfer(CLI::App &app, xfer_cmd &x);
// Exit code of the command, or -1 when none of them was given.
int tool_run_xfer(const xfer_cmd &x);
