// EPC calibration blocks: the driver header, table and measurement parse of a block payload, its
// writer, the fit of measurements, and the mounted block applied to a row of phases.
#include <cstdint>
#include <span>
#include <vector>

#include "drivers/epc/epc_calib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    tevix::epc::calib_block b;
    const char *why = nullptr;
    if (!tevix::epc::parse_block(std::span<const uint8_t>(data, size), b, &why)) {
        if (!why) __builtin_trap();  // every refusal names its reason
        return 0;
    }
    // Written back, a block gives the bytes it was read from (the tables field of a measurement
    // block aside, which its reader ignores).
    const std::vector<uint8_t> again = tevix::epc::block_payload(b);
    if (again.size() != size) __builtin_trap();
    for (size_t i = 0; i < size; ++i)
        if (again[i] != data[i] && !(i == 36 && !b.noneed_calc_coeff)) __builtin_trap();
    // Measurement blocks are fitted into tables first, as at mount.
    if (!b.noneed_calc_coeff && !tevix::epc::calc_coeff(b)) return 0;
    if ((b.tables & 1) != !b.lut.empty()) __builtin_trap();
    if (b.pixels.size() != ((b.tables & 2) ? size_t{b.width} * b.height : 0)) __builtin_trap();
    tevix::epc::epc_priv p;
    p.slot.block = std::make_unique<tevix::epc::calib_block>(std::move(b));
    p.calib_mounted = 1;
    p.range = 7494;
    std::vector<int32_t> phases(64);
    for (size_t i = 0; i < phases.size(); ++i) phases[i] = int32_t(i * 521 % 32768);
    tevix::epc::apply_calibration(&p, phases.data(), 8, 8, true);
    for (int32_t d : phases)
        if (d < 0 || d > 65500) __builtin_trap();
    return 0;
}
