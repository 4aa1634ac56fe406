// The calibration readers take file names, so each input goes through a file of this process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace calib_fuzz {

// Directory of the scratch file, with its trailing separator, and the file's bare name.
const std::string &scratch_dir();
const std::string &scratch_name();

// Replaces the scratch file with the input; false when it cannot be written.
bool put_input(const uint8_t *data, size_t size);

}  // namespace calib_fuzz
