// "view": the live viewer in the browser.
#pragma once

#include <CLI/CLI.hpp>

#include "view_server.h"

struct view_cmd {
    CLI::App *app = nullptr;
    tevix_view::options opt;
};

void tool_add_view(CLI::App &app, view_cmd &v);
// Exit code of the viewer, or -1 when it was not the command given.
int tool_run_view(view_cmd &v, int verbosity);
