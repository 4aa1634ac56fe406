// Distance calibration of the EPC driver: the calibration block format (the camera maker's),
// mounting the block of the current modulation frequency, and the calibrated decodes.
//
// A calibration block (type 1 of the calibration container) holds, little-endian and packed:
//   driver header (37 bytes)
//     0  u32  modulation frequency, Hz
//     4  u8   block format version (1)
//     5  u32  timestamp of the calibration
//     9  u8   noneed_calc_coeff: 1 when the tables below are final; 0 when the payload holds the
//             calibration station's measurements, fitted by the driver at mount (below)
//     10 u16  calibration box length, mm
//     12 s16  board temperature during calibration, 0.1 C
//     14 s16  sensor temperature during calibration, 0.1 C
//     16 s32  scale_um: micrometres per millimetre unit (1000: none)
//     20 s32  offset_mm
//     24 f32  c1, 28 f32 c2: temperature coefficients (mm per C of board and sensor)
//     32 u16  width, 34 u16 height of the per-pixel table (0 x 0: none)
//     36 u8   tables: bit 0 the phase table, bit 1 the per-pixel table
//   phase table (bit 0): 8192 s16, millimetres added at phase index (phase >> 2) & 0x1FFF, the
//     cyclic ("wiggling") error of the sensor over one turn
//   per-pixel table (bit 1): width x height s16, millimetres added to each pixel (its fixed
//     offset, the DRNU), in sensor row order
// Measurement payload (noneed_calc_coeff 0; the tables field is ignored): u16 count (2..64),
// count f32 true distances (mm, the radial distance every pixel saw), then count images of
// width x height u16 phases (1/32768 turn, 65500 where the pixel saw nothing), in sensor row
// order. At mount the driver fits one line true = s x measured + o over every sample (scale_um
// and offset_mm), each pixel's mean residual (the per-pixel table; pixels never seen keep the
// line alone), and the cyclic error left over as a sine of four periods a turn plus an offset
// (the phase table).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "drivers/epc/epc_priv.h"

namespace tevix::epc {

constexpr uint32_t k_drv_hdr = 37;
constexpr uint32_t k_phase_lut = 8192;
constexpr uint8_t k_block_type = 1;

struct calib_block {
    uint32_t freq = 0, ts = 0;
    uint8_t ver = 0, noneed_calc_coeff = 0, tables = 0;
    uint16_t box_len_mm = 0, width = 0, height = 0;
    int16_t t_cb = 0, t_ib = 0;
    int32_t scale_um = 1000, offset_mm = 0;
    float c1 = 0, c2 = 0;
    std::vector<int16_t> lut, pixels;
    std::vector<float> truth_mm;   // measurement blocks, until fitted
    std::vector<uint16_t> phases;  // count x width x height
    // Built for the decode: millimetres of every phase (scale, range, phase table and system
    // scale folded in) for the factor and system scale they were built with.
    std::vector<float> phase_mm;
    double built_factor = 0, built_sys = 0;
};

// The driver header of a block payload; false when the payload is shorter than it.
bool parse_drv_hdr(std::span<const uint8_t> payload, calib_block &b);
// The whole block: header and tables, their sizes checked against the payload's; false (with the
// reason in *why) for a malformed block.
bool parse_block(std::span<const uint8_t> payload, calib_block &b, const char **why);

// Fits a measurement block into its tables, scale and offset; false (logged) for data that
// decide nothing (no valid pixel, one distance only).
bool calc_coeff(calib_block &b);

// Mounts the block of p->freq from the device's calibration file: 1 when mounted, -1 when the
// defaults are used. Unmount releases it. Both run under p->calib_mtx.
int calib_mount(epc_priv *p);
void calib_unmount(epc_priv *p);

// True when a block is mounted for the current frequency.
bool calib_valid(const epc_priv *p);

// The calibrated decode's second half: dist holds the frame's phases (1/32768 turn, 65500
// invalid, sensor row order) and gets calibrated millimetres: phase x scale_um / 1000 x range /
// 32768, plus the phase table at (phase >> 2) & 0x1FFF, plus the pixel's own offset when pixels
// is set (the DRNU decode) and the table fits w x h, then the system scale and offset, the
// block's offset less the temperature drift since calibration, and the distance offset filter.
void apply_calibration(epc_priv *p, int32_t *dist, uint32_t w, uint32_t h, bool pixels);

}  // namespace tevix::epc
