// Binary lens file reader: load, touch every table entry, free.
#include "calib/calib.h"
#include "fuzz_calib_file.h"
#include "tevix/tevix_param.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (!calib_fuzz::put_input(data, size)) return 0;
    tevix_dev_t dev{};
    dev.path_prefix = calib_fuzz::scratch_dir();
    tevix_lens_bin_t *obj = tevix_param_len_bin_load(&dev, calib_fuzz::scratch_name());
    if (obj) {
        const size_t entries = size_t{obj->n_grad} + obj->n_reflect;
        const auto *tables = reinterpret_cast<const uint8_t *>(obj + 1);
        volatile uint32_t sum = 0;
        for (size_t i = 0; i < 4 * entries; ++i) sum = sum + tables[i];
        const tevix_lens_param_t rec = tevix::calib::lens_from_bin(*obj);
        if (obj->hdrsz != 220 + 4 * entries || rec.n_dcoef > TEVIX_LENS_MAX_DCOEF) __builtin_trap();
        tevix_param_len_bin_free(obj);
    }
    return 0;
}
