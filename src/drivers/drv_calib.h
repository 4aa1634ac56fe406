// Distance calibration blocks shared by the sensor drivers: the block format (the camera maker's),
// the fit of a calibration station's measurements, mounting the block of a modulation frequency
// out of the device's calibration container, and the calibrated decode of phases.
//
// A calibration block (block type 1 for the EPC driver, 2 for the SONY driver, in the calibration
// container) holds, little-endian and packed:
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
//     offset, the DRNU), in the driver's decode order (sensor rows for the EPC driver)
// Measurement payload (noneed_calc_coeff 0; the tables field is ignored), what a calibration
// station saw of a flat target at known distances and temperatures:
//   u16 count (2..64) of measurements
//   count f32  distance of the target, mm: the radial distance every pixel saw (geometry 0), or
//              the distance of the target plane along the optical axis (geometry 1)
//   count s16  board temperature of each measurement, 0.1 C
//   count s16  sensor temperature of each measurement, 0.1 C
//   u8         geometry: 0 a target at one radial distance; 1 a flat target, width x height u16
//              follow: each pixel's radial distance over its axial one, x 16384 (16384..65535)
//   count x width x height u16 phases (1/32768 turn, 65500 where the pixel saw nothing)
//   optionally the measurements each fit takes, three lists of a u8 count and that many u8
//   indices: Ns (the cyclic error's sine; may be empty), Nf (the line, scale and offset, and the
//   temperature coefficients), Nc (each pixel's offset). Without them every fit takes all.
// Tables and images are in the driver's decode order. At mount the driver fits, over a few
// alternating rounds: true = s x measured + o - (c1 x dTcb + c2 x dTib) / 10 over Nf (a plain line
// when the temperatures do not vary, a multiple linear fit when they do; dT from the block's
// calibration temperatures), each pixel's mean residual over Nc (pixels never valid keep the
// global line), and the cyclic error left over Ns as a sine of four periods a turn plus an
// offset (the phase table). Scale and offset are rounded as stored and the pixel offsets fitted
// against the rounded values.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace tevix::drv {

constexpr uint32_t k_drv_hdr = 37;
constexpr uint32_t k_phase_lut = 8192;

struct calib_block {
    uint32_t freq = 0, ts = 0;
    uint8_t ver = 0, noneed_calc_coeff = 0, tables = 0;
    uint16_t box_len_mm = 0, width = 0, height = 0;
    int16_t t_cb = 0, t_ib = 0;
    int32_t scale_um = 1000, offset_mm = 0;
    float c1 = 0, c2 = 0;
    std::vector<int16_t> lut, pixels;
    // Measurement blocks, until fitted: per measurement the target distance and temperatures,
    // the flat target's ratios per pixel (empty: geometry 0), the phases (count x width x
    // height), and the index lists (all empty when the block has none).
    std::vector<float> truth_mm;
    std::vector<int16_t> meas_cb, meas_ib;
    std::vector<uint16_t> ratio;
    std::vector<uint16_t> phases;
    std::vector<uint8_t> ns, nf, nc;
    bool lists = false;
    // Built for the decode: the phase table in millimetres with the system scale folded in, and
    // millimetres per phase unit (scale, range and system scale), for the factor and system
    // scale they were built with.
    std::vector<float> lut_mm;
    float per_phase = 0;
    double built_factor = 0, built_sys = 0;
};

// One mounted block and whether its size warning was given.
struct calib_slot {
    std::unique_ptr<calib_block> block;
    uint8_t size_warned = 0;
};

struct drv_state;

// The driver header of a block payload; false when the payload is shorter than it.
bool parse_drv_hdr(std::span<const uint8_t> payload, calib_block &b);
// The whole block: header and tables, their sizes checked against the payload's; false (with the
// reason in *why) for a malformed block.
bool parse_block(std::span<const uint8_t> payload, calib_block &b, const char **why);

// The payload of a block as parse_block reads it: the tables of a fitted block, or the
// measurements of one to fit at mount.
std::vector<uint8_t> block_payload(const calib_block &b);

// Fits a measurement block into its tables, scale, offset and temperature coefficients; false
// (logged under fn) for data that decide nothing (no valid pixel, one distance only).
bool calc_coeff(calib_block &b, const char *fn = "_calc_calib_coeff");

// Reads the block of `type` for *freq out of the device's calibration file into slot (*freq 0:
// the first block of that type, whose frequency goes to *freq). On the first mount after init
// the frequency of every block of the type enters the calibrated frequency list. Returns 1 when
// mounted, -1 when not (slot emptied; the reason logged under the driver's mount name). Runs
// under the calibration mutex.
int mount_block(drv_state &s, uint8_t type, uint32_t *freq, calib_slot &slot);

// Adds f to the calibrated frequency list (at most 100 entries, no repeats).
void list_freq(drv_state &s, uint32_t f);

// The calibrated decode's second half: dist holds the frame's phases (1/32768 turn, 65500
// invalid) and gets calibrated millimetres: phase x scale_um / 1000 x range / 32768, plus the
// phase table at (phase >> 2) & 0x1FFF, plus the pixel's own offset when pixels is set (the DRNU
// decode) and the table fits w x h, then the system scale and offset, the block's offset less the
// temperature drift since calibration, and the distance offset filter. With wrap (the range in
// mm) the result is taken modulo the range instead of held at 0, as dual-frequency unwrapping
// needs: the corrections move a distance across the wrap.
void apply_calibration(drv_state &s, calib_slot &slot, uint32_t range, int32_t *dist, uint32_t w,
                       uint32_t h, bool pixels, float wrap = 0);

}  // namespace tevix::drv
