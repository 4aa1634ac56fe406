// Temporary directories, descriptor counting and log capture for the calibration tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

namespace calib_test {

// A fresh directory under /tmp, removed with its contents.
class scratch_dir {
  public:
    scratch_dir();
    ~scratch_dir();
    scratch_dir(const scratch_dir &) = delete;
    scratch_dir &operator=(const scratch_dir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Open file descriptors of this process.
int open_fd_count();

std::string read_text(const std::string &path);
void write_bytes(const std::string &path, std::span<const uint8_t> bytes);
void write_text(const std::string &path, const std::string &text);

// Logs everything at every level into a file in a scratch directory, console off.
class logged_test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // The log so far; clear_log() starts it afresh.
    std::string log_text() const { return read_text(log_path_); }
    void clear_log();
    bool log_has(const std::string &needle) const {
        return log_text().find(needle) != std::string::npos;
    }

    scratch_dir dir_;

  private:
    std::string log_path_;
};

}  // namespace calib_test
