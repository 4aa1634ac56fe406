// Writers of the calibration container and the lens files. The virtual camera, the tools and the
// tests use them to make valid files (and then damage them on purpose); what they write passes
// the readers' verification.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tevix/tevix_param.h"

namespace tevix::calib {

// One block. Current format: a 5-byte header with type and payload size, then the payload.
// Old format: a 42-byte header (type, drv_a, size, drv_b) and then the payload.
struct param_block {
    uint8_t type = 1;
    std::vector<uint8_t> payload;
    std::array<uint8_t, 21> drv_a{};  // old format only
    std::array<uint8_t, 16> drv_b{};  // old format only
};

struct param_container {
    uint8_t ver = TEVIX_PARAM_VER_CURRENT;  // below 140: old block format and magic 1000
    uint32_t ts = 0;
    uint32_t par_ts = 0;
    std::string lens_name;  // empty: no lens parameters (lens is then still written)
    tevix_lens_param_t lens{};
    std::vector<uint8_t> par_area;  // header bytes 256.., at most 932
    bool record_blk_size = true;    // current format: blk_size holds the total (else 0)
    std::vector<param_block> blocks;
};

// The whole file image, with cksum, blk_size and blk_cksum filled in.
std::vector<uint8_t> param_container_build(const param_container &desc);
bool param_container_write(const std::string &path, const param_container &desc);

// Recomputes the header checksum of a file image after its header was edited.
void param_header_seal(std::span<uint8_t> image);
// Recomputes blk_cksum (and blk_size when it is recorded) over the bytes after the header, then
// the header checksum.
void param_blocks_seal(std::span<uint8_t> image);

struct lens_bin_file {
    uint8_t type = 0;
    std::string name;
    tevix_lens_param_t lens{};  // narrowed to f32; n_dcoef at most 255
    std::vector<uint32_t> grad;
    std::vector<uint32_t> reflect;
};

// The 225-byte header with hdrsz, counts and both tables behind it.
std::vector<uint8_t> lens_bin_build(const lens_bin_file &desc);
bool lens_bin_write(const std::string &path, const lens_bin_file &desc);

// Text form: cx cy fx fy, the n_dcoef coefficients, width, height.
std::string lens_text_build(const tevix_lens_param_t &lens);
bool lens_text_write(const std::string &path, const tevix_lens_param_t &lens);

// Writes bytes to a file, replacing it.
bool write_file(const std::string &path, std::span<const uint8_t> bytes);

}  // namespace tevix::calib
