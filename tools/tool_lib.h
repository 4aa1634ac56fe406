// The library and device lifetimes of one tool command.
#pragma once

#include <cstdio>
#include <string>

#include "tevix/tevix.h"

// Library set-up for one command; the console shows library diagnostics only with -v (-vv: all).
struct tool_library {
    // errors: the library's error lines reach the console even without -v (the reason a command
    // failed when the tool has no better words for it).
    explicit tool_library(int verbosity, bool errors = false) {
        tevix_init("");
        uint32_t level = verbosity >= 2 ? 0 : verbosity == 1 ? 4 : errors ? 6 : 7;
        tevix_log_cfg(level, 7, level);
    }
    ~tool_library() { tevix_uninit(); }
    tool_library(const tool_library &) = delete;
    tool_library &operator=(const tool_library &) = delete;
};

// A device open for the duration of one command: by URI, or the first camera when uri is empty.
class tool_device {
  public:
    explicit tool_device(const std::string &uri) {
        dev_ = uri.empty() ? tevix_dev_open(nullptr) : tevix_dev_open_by_uri(uri.c_str());
        if (!dev_)
            std::fprintf(stderr, "tevix: cannot open %s\n",
                         uri.empty() ? "a camera (none attached?)" : uri.c_str());
    }
    ~tool_device() {
        if (dev_) tevix_dev_close(dev_);
    }
    tool_device(const tool_device &) = delete;
    tool_device &operator=(const tool_device &) = delete;
    tevix_dev_t *get() const { return dev_; }

  private:
    tevix_dev_t *dev_ = nullptr;
};
