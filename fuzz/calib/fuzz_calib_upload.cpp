// Calibration uploads: the bytes a camera sent in upload mode, checked against their upload
// header and written out (unzipped when compressed) into a scratch parameter directory.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "calib/calib_dev_xfer.h"
#include "tevix/vx_log.h"

namespace {

std::string g_dir, g_bin;
tevix_dev_t g_dev{};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    vx_log_init(nullptr, nullptr, "FZ");
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
    g_dir = "/tmp/fuzz_calib_upload_" + std::to_string(getpid()) + "/";
    std::filesystem::create_directories(g_dir);
    std::filesystem::current_path(g_dir);  // "tmp.zip" lands here too
    g_bin = g_dir + "calibration.bin";
    g_dev.path_prefix = g_dir.c_str();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FILE *f = std::fopen(g_bin.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    tevix::calib::_calib_pk_parse(&g_dev, g_bin);
    // Whatever came out goes, so that every input starts from an empty directory.
    for (const auto &e : std::filesystem::directory_iterator(g_dir)) std::filesystem::remove(e);
    return 0;
}
