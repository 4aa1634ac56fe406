// Calibration containers travelling to and from the camera's flash in the upload format: an
// 18-byte upload header, the container (or a zip archive holding it), padding with 0x01 up to a
// whole number of 153600-byte upload frames.
//
// "tmp.zip" lives in the process's working directory, as the camera maker's tools expect. Two
// processes packing or unpacking from one working directory would overwrite each other's
// "tmp.zip"; every use of it therefore holds an exclusive lock on the working directory itself
// (flock), so such processes take turns instead, and no lock file is left behind.
#pragma once

#include <cstdint>
#include <string>

#include "tevix/tevix_types.h"

namespace tevix::calib {

constexpr uint32_t k_upload_hdr = 18;
constexpr uint32_t k_upload_frame = 153600;
constexpr uint32_t k_upload_max = 0xA00000;

// Packs the container `source` into `destination` in the upload format; ver is the packing
// version ((chip id << 16) | wafer id). False with the reason logged.
bool _tevix_param_encode_construct(const char *source, const char *destination, uint32_t ver,
                                   bool compress);

// Checks the upload in `bin` (upload header against the file) and writes the container of dev's
// parameter directory from it, unzipping when it is compressed; bin is removed. Failures are
// logged only.
void _calib_pk_parse(const tevix_dev_t *dev, const std::string &bin);

}  // namespace tevix::calib
