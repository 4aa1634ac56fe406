// Shared pieces of the calibration files: the Fletcher-16 checksum, lens record conversions and
// the lens file search the drivers run at initialisation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

#include "tevix/tevix_param.h"

namespace tevix::calib {

// Fletcher-16 with both sums taken mod 255; value() is s2 * 256 + s1.
class fletcher16 {
  public:
    void feed(std::span<const uint8_t> bytes);
    uint16_t value() const { return static_cast<uint16_t>((s2_ << 8) | s1_); }

  private:
    uint32_t s1_ = 0;
    uint32_t s2_ = 0;
};

inline uint16_t fletcher16_of(std::span<const uint8_t> bytes) {
    fletcher16 f;
    f.feed(bytes);
    return f.value();
}

struct file_closer {
    void operator()(FILE *fp) const { std::fclose(fp); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Bytes from the current position to the end of the file (0 when it cannot tell). Readers check
// a declared length against it before allocating, so a hostile length costs nothing.
uint64_t file_remaining(FILE *fp);

// The checksum the header's cksum field must hold (over bytes 20..1187).
uint16_t param_header_cksum(const tevix_param_t &hdr);

// The lens fields of a container header or a binary lens object as a lens record (f32 widened
// to f64; a count beyond the 16 coefficients is capped).
template <class Rec>
tevix_lens_param_t lens_record_of(const Rec &r) {
    tevix_lens_param_t l{};
    l.cx = r.cx;
    l.cy = r.cy;
    l.fx = r.fx;
    l.fy = r.fy;
    for (int i = 0; i < TEVIX_LENS_MAX_DCOEF; ++i) l.dcoef[i] = r.dcoef[i];
    l.n_dcoef =
        r.n_dcoef < TEVIX_LENS_MAX_DCOEF ? uint32_t{r.n_dcoef} : uint32_t{TEVIX_LENS_MAX_DCOEF};
    l.width = r.width;
    l.height = r.height;
    return l;
}
inline tevix_lens_param_t param_header_lens(const tevix_param_t &hdr) {
    return lens_record_of(hdr);
}
inline tevix_lens_param_t lens_from_bin(const tevix_lens_bin_t &bin) {
    return lens_record_of(bin);
}

// Bare lens file name (no directory): "lens_param[_<id>].bin" or ".txt".
void lens_file_name(char *buf, uint32_t size, const char *prefix, uint32_t id, bool binary,
                    bool with_id);

// Tries the binary and then the text lens file with the device identifier, then both without
// it; the first that loads wins. A binary fills *record and is handed to the caller through
// *bin_out (to be released with tevix_param_len_bin_free); a text file fills *record only.
// Returns whether any file loaded; *record is untouched otherwise.
bool lens_load_search(const tevix_dev_t *dev, tevix_lens_param_t *record, void **bin_out);

}  // namespace tevix::calib
