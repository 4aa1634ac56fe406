#include "fuzz_calib_file.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace calib_fuzz {

namespace {

std::string _full_path() {
    return scratch_dir() + scratch_name();
}

void _remove_scratch() {
    std::remove(_full_path().c_str());
}

}  // namespace

const std::string &scratch_dir() {
    static const std::string dir = "/tmp/";
    return dir;
}

const std::string &scratch_name() {
    static const std::string name = [] {
        std::atexit(_remove_scratch);
        return "tevix-fuzz-calib-" + std::to_string(::getpid()) + ".bin";
    }();
    return name;
}

bool put_input(const uint8_t *data, size_t size) {
    FILE *fp = std::fopen(_full_path().c_str(), "wb");
    if (!fp) return false;
    const bool ok = size == 0 || std::fwrite(data, 1, size, fp) == size;
    return std::fclose(fp) == 0 && ok;
}

}  // namespace calib_fuzz
