// The calibration readers take file names, so each input goes through a file of this process.
#pragma once

#include <cstddef>
#include <cstdint>

namespace calib_fuzz {

// Directory of the scratch file, with its trailing separator; the file's bare name; both joined.
const char *scratch_dir();
const char *scratch_name();
const char *scratch_path();

// Replaces the scratch file with the input; false when it cannot be written.
bool put_input(const uint8_t *data, size_t size);

}  // namespace calib_fuzz
