// "oni" command of the tevix tool: inspect recordings and export single frames.
#pragma once

#include <CLI/CLI.hpp>

// Registers "oni info" and "oni export" under app; returns the "oni" command.
CLI::App *tool_add_oni(CLI::App &app);
// Runs the parsed "oni" command: exit code 0 ok, 1 failure, 2 usage.
int tool_run_oni(CLI::App *oni, int verbosity);
