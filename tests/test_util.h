// Small helpers shared by the test suites.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "tevix/vx_log.h"

namespace tevix::test {

// A fresh directory under the system temporary directory, removed with everything in it.
class temp_dir {
  public:
    temp_dir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "tevix-test-XXXXXX").string();
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        char *p = ::mkdtemp(buf.data());
        path_ = p ? std::filesystem::path(p) : std::filesystem::path();
    }
    ~temp_dir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::filesystem::path &path() const { return path_; }
    std::string file(const std::string &name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool write_file(const std::string &path, std::span<const uint8_t> bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<long>(bytes.size()));
    return out.good();
}

inline bool write_text(const std::string &path, const std::string &text) {
    return write_file(path, std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
}

// Open file descriptors of this process.
inline int open_fd_count() {
    int n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        ++n;
    return n;
}

// Sends the default log context to a file of its own for the object's lifetime (replacing any
// log open before): the console off, the file at every level down to `level`.
class log_capture {
  public:
    explicit log_capture(int level = VX_LOG_TRC) : path_(dir_.file("test.log")) {
        vx_log_uninit(nullptr);
        vx_log_init(nullptr, path_.c_str(), "VX");
        vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
        vx_log_cfg(nullptr, VX_LOG_TARGET_FILE, level, 1);
    }
    ~log_capture() { vx_log_uninit(nullptr); }
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    std::string text() const { return read_file(path_); }
    bool has(const std::string &s) const { return text().find(s) != std::string::npos; }
    int count(const std::string &s) const {
        const std::string t = text();
        int n = 0;
        for (size_t at = t.find(s); at != std::string::npos; at = t.find(s, at + 1)) ++n;
        return n;
    }
    // What was logged since the last call.
    std::string added() {
        const std::string t = text();
        const std::string news = t.substr(std::min(seen_, t.size()));
        seen_ = t.size();
        return news;
    }
    void clear() {
        vx_log_reload(nullptr, 1);
        seen_ = 0;
    }
    void quiet() { vx_log_cfg(nullptr, VX_LOG_TARGET_FILE, VX_LOG_OFF, 1); }
    const std::string &path() const { return path_; }

  private:
    temp_dir dir_;
    std::string path_;
    size_t seen_ = 0;
};

inline std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace tevix::test
