// Small helpers shared by the test suites.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

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

inline std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace tevix::test
