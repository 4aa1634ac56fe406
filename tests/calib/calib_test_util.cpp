#include "calib_test_util.h"

#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "tevix/vx_log.h"

namespace calib_test {

scratch_dir::scratch_dir() {
    char tmpl[] = "/tmp/tevix-calib-XXXXXX";
    if (char *p = ::mkdtemp(tmpl)) path_ = p;
}

scratch_dir::~scratch_dir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

int open_fd_count() {
    int n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        ++n;
    return n;
}

std::string read_text(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_bytes(const std::string &path, std::span<const uint8_t> bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<long>(bytes.size()));
    ASSERT_TRUE(out.good()) << path;
}

void write_text(const std::string &path, const std::string &text) {
    write_bytes(path, std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
}

void logged_test::SetUp() {
    ASSERT_FALSE(dir_.path().empty());
    log_path_ = dir_.file("calib.log");
    ASSERT_NE(vx_log_init(nullptr, log_path_.c_str(), "VX"), nullptr);
    vx_log_cfg(nullptr, VX_LOG_TARGET_FILE, VX_LOG_TRC, 1);
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
}

void logged_test::TearDown() {
    vx_log_uninit(nullptr);
}

void logged_test::clear_log() {
    vx_log_reload(nullptr, 1);
}

}  // namespace calib_test
