// Text lens file reader.
#include "fuzz_calib_file.h"
#include "tevix/tevix_param.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (!calib_fuzz::put_input(data, size)) return 0;
    tevix_dev_t dev{};
    dev.path_prefix = calib_fuzz::scratch_dir();
    tevix_lens_param_t rec{};
    if (tevix_param_load_len_2d_file(&dev, &rec, calib_fuzz::scratch_name())) {
        if (rec.n_dcoef > 14 || rec.width == 0 || rec.height == 0) __builtin_trap();
    }
    return 0;
}
