#include "fuzz_calib_file.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace calib_fuzz {

namespace {

// Plain arrays: the exit handler that removes the file runs after static objects are destroyed.
char g_name[64];
char g_path[96];

void _remove_scratch() {
    std::remove(g_path);
}

void _init_names() {
    if (g_name[0]) return;
    std::snprintf(g_name, sizeof g_name, "tevix-fuzz-calib-%ld.bin", static_cast<long>(::getpid()));
    std::snprintf(g_path, sizeof g_path, "%s%s", scratch_dir(), g_name);
    std::atexit(_remove_scratch);
}

}  // namespace

const char *scratch_dir() {
    return "/tmp/";
}

const char *scratch_name() {
    _init_names();
    return g_name;
}

const char *scratch_path() {
    _init_names();
    return g_path;
}

bool put_input(const uint8_t *data, size_t size) {
    FILE *fp = std::fopen(scratch_path(), "wb");
    if (!fp) return false;
    const bool ok = size == 0 || std::fwrite(data, 1, size, fp) == size;
    return std::fclose(fp) == 0 && ok;
}

}  // namespace calib_fuzz
