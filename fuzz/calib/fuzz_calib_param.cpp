// Calibration container reader: open, read every block through the handle, close. Each input is
// also tried with its header checksum repaired, and with the block total and checksum repaired,
// so that the walk behind the checksums is reached.
#include <cstdio>
#include <vector>

#include "calib/calib_writer.h"
#include "fuzz_calib_file.h"
#include "tevix/tevix_param.h"

namespace {

void _open_and_walk(const std::vector<uint8_t> &file) {
    if (!calib_fuzz::put_input(file.data(), file.size())) return;
    tevix_param_handle_t h;
    if (!tevix_param_open_file(&h, calib_fuzz::scratch_path())) return;
    std::vector<uint8_t> buf;
    for (int32_t i = 0; i < h.hdr.blk_cnt; ++i) {
        const uint32_t n = h.blk[i].size < file.size() ? h.blk[i].size : 0;
        buf.resize(n);
        if (std::fseek(h.fp, h.offset[i], SEEK_SET) == 0 && n)
            (void)std::fread(buf.data(), 1, n, h.fp);
    }
    tevix_param_close(&h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint8_t> file(data, data + size);
    _open_and_walk(file);
    if (size < TEVIX_PARAM_HDR_SIZE) return 0;
    tevix::calib::param_header_seal(file);
    _open_and_walk(file);
    tevix::calib::param_blocks_seal(file);
    _open_and_walk(file);
    return 0;
}
