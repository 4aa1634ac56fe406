// Writes small valid calibration and lens files as fuzzing seeds:
//   calib_corpus_gen <corpus root>  ->  <root>/calib_param, calib_lens_bin, calib_lens_text
#include <cstdio>
#include <filesystem>
#include <string>

#include "calib/calib_writer.h"

using namespace tevix::calib;

namespace {

param_container _container(uint8_t ver, size_t nblocks) {
    param_container c;
    c.ver = ver;
    c.ts = 1234;
    c.par_ts = 5678;
    c.lens_name = "seed";
    c.lens = {80, 30, 100, 100, {-0.2, 0.05}, 2, 160, 60};
    for (size_t i = 0; i < nblocks; ++i) {
        param_block b;
        b.type = ver >= TEVIX_PARAM_VER_CURRENT ? static_cast<uint8_t>(3 + i) : 1;
        b.payload.assign(37 + 4 * i, static_cast<uint8_t>(0x40 + i));
        c.blocks.push_back(b);
    }
    return c;
}

lens_bin_file _lens_bin(uint32_t n_grad, uint32_t n_reflect) {
    lens_bin_file d;
    d.name = "seed";
    d.lens = {1.5, 1.5, 2, 2, {-0.1}, 1, 2, 2};
    for (uint32_t i = 0; i < n_grad; ++i) d.grad.push_back(i);
    for (uint32_t i = 0; i < n_reflect; ++i) d.reflect.push_back(0x01000000 + i);
    return d;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus root>\n", argv[0]);
        return 2;
    }
    const std::filesystem::path root = argv[1];
    const auto param = root / "calib_param", bin = root / "calib_lens_bin",
               text = root / "calib_lens_text";
    for (const auto &d : {param, bin, text}) std::filesystem::create_directories(d);
    bool ok = param_container_write(param / "current.bin", _container(140, 2)) &&
              param_container_write(param / "old.bin", _container(100, 2)) &&
              param_container_write(param / "empty.bin", _container(140, 0)) &&
              lens_bin_write(bin / "tables.bin", _lens_bin(3, 5)) &&
              lens_bin_write(bin / "plain.bin", _lens_bin(0, 0));
    tevix_lens_param_t six = {80.5, 30.5, 105, 105, {}, 0, 160, 60};
    tevix_lens_param_t many = {320, 240, 500, 501, {}, 14, 640, 480};
    for (int i = 0; i < 14; ++i) many.dcoef[i] = 0.01 * (i + 1);
    ok = ok && lens_text_write(text / "six.txt", six) && lens_text_write(text / "twenty.txt", many);
    if (!ok) std::fprintf(stderr, "writing the seeds failed\n");
    return ok ? 0 : 1;
}
