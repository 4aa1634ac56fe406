// Per-pixel kernels of the EPC pipeline: phase and grey decode of DCS planes, HDR merge, row
// order, decode hash and the range gate. Pure functions over caller buffers so that the driver,
// the tests and the benchmarks share them. Integer arithmetic throughout; each kernel runs at
// the instruction-set tier tevix::simd::active() names (tests cap it to reach every tier), and
// every tier gives the scalar results bit for bit.
#pragma once

#include <cstdint>

#include "tevix/tevix_types.h"

namespace tevix::epc {

// Phase unit: 1/32768 of a full turn.
constexpr uint32_t k_phase_turn = 32768;
// Half the speed of light in mm/s, as the float the range is computed from.
constexpr float k_half_c_mm = 149896216576.0f;
constexpr uint32_t k_dist_invalid = 65500;

// atan table: T[i] = round(atan(i / 4095) * 16384 / pi), indexed by (y * 4096) / x.
const uint16_t *atan_table();

// Phase of a 4-plane pixel from x = D2 - D0, y = D3 - D1.
uint32_t phase_4dcs(int32_t x, int32_t y);
// Phase of a reduced-layout pixel from its pair (a, b) and the two bases of the pair.
uint32_t phase_pair(int32_t a, int32_t b, uint32_t base0, uint32_t base1);

// The amplitude square root by bit pattern; grey values must match it exactly.
inline uint32_t fast_sqrt(uint32_t v) {
    float f = static_cast<float>(v);
    int32_t p;
    __builtin_memcpy(&p, &f, 4);
    p = ((p - 0x800000) >> 1) + 0x20000000;
    __builtin_memcpy(&f, &p, 4);
    return static_cast<uint32_t>(f);
}

// Unambiguous range in mm for a modulation frequency (0 for f = 0).
uint32_t range_mm(uint32_t freq_hz);

// Plane pair of the reduced layout for a modulation frequency.
struct plane_pair {
    uint8_t p0, p1;  // planes giving a = 2048 - D[p0], b = 2048 - D[p1]
    uint32_t base0, base1;
};
plane_pair reduced_pair(uint32_t freq_hz);

// 4-plane decode of n pixels: planes at raw, raw + n, raw + 2n, raw + 3n. dist gets millimetres
// (65500 invalid) plus offset_mm, conf gets x^2 + y^2 (0 invalid).
void decode_4dcs(const uint16_t *raw, uint32_t n, uint32_t range, int32_t offset_mm, int32_t *dist,
                 uint32_t *conf);
void decode_4dcs_scalar(const uint16_t *raw, uint32_t n, uint32_t range, int32_t offset_mm,
                        int32_t *dist, uint32_t *conf);

// Phases (1/32768 turn) and confidences x^2 + y^2 of n pixels whose x = D2 - D0 and y = D3 - D1
// come as 16-bit values (the tap differences some sensors deliver); -32768 in either marks a pixel
// without measurement: phase 65500, confidence 0. The phase is the 4-plane decode's.
void phase_xy(const int16_t *x, const int16_t *y, uint32_t n, int32_t *phase, uint32_t *conf);
void phase_xy_scalar(const int16_t *x, const int16_t *y, uint32_t n, int32_t *phase,
                     uint32_t *conf);

// Reduced-layout decode of n pixels: pa, pb the pair's planes, v0, v1 the planes whose samples
// decide validity (stored planes 0 and 1).
void decode_pair(const uint16_t *pa, const uint16_t *pb, const uint16_t *v0, const uint16_t *v1,
                 uint32_t n, const plane_pair &pp, uint32_t range, int32_t offset_mm, int32_t *dist,
                 uint32_t *conf);

// The two samples of the 1-plane layout for output row r (rows r and r + 2, the roles swapped in
// every other row pair); false for the last two rows, which copy the rows before them.
bool one_plane_rows(uint32_t r, uint32_t h, uint32_t *first, uint32_t *second);

// Grey of n pixels from 4 or 2 planes (12-bit samples).
void grey_4dcs(const uint16_t *raw, uint32_t n, uint32_t *grey);
void grey_2dcs(const uint16_t *p0, const uint16_t *p1, uint32_t n, uint32_t *grey);
// Grey of a 1-plane frame of w x h.
void grey_1plane(const uint16_t *raw, uint32_t w, uint32_t h, uint32_t *grey);
// Grey from a cached confidence image: fast_sqrt(c), clamped to 16 bits.
void grey_from_conf(const uint32_t *conf, uint32_t n, uint16_t *grey);

// HDR merge of a w x h image whose rows come in groups of four (two with the first integration
// time, two with the second); the chosen value and confidence go to both halves.
void hdr_merge(int32_t *dist, uint32_t *conf, uint32_t w, uint32_t h);
void hdr_merge_scalar(int32_t *dist, uint32_t *conf, uint32_t w, uint32_t h);

// Sensor row order to image order: source row 2k to H/2 - 1 - k, 2k + 1 to H/2 + k.
void rows_reorder(const uint32_t *src, uint32_t *dst, uint32_t w, uint32_t h);
// Same for the distance image, narrowing to 16 bits (clamped to 0..65535) on the way.
void rows_reorder_u16(const int32_t *src, uint16_t *dst, uint32_t w, uint32_t h);
// Narrowing without reordering (sensor mode 4).
void narrow_u16(const int32_t *src, uint16_t *dst, uint32_t n);

// Fletcher-32 over the 100-byte frame-info record as 50 little-endian 16-bit words.
uint32_t info_hash(const tevix_frame_info_t &info);

// Distances below 60001 that are above range - 100 or below 101 become 0.
void range_gate(const uint16_t *src, uint16_t *dst, uint32_t n, uint32_t range);

// Minimum-amplitude filter with threshold t. With marks (one byte per pixel, kept across
// frames) the hysteresis h applies; without, a plain window.
void minamp(const uint16_t *src, uint16_t *dst, const uint32_t *conf, uint32_t n, uint32_t t,
            uint8_t *marks, uint32_t h);

// Sample classes of the automatic integration time.
struct sample_stats {
    uint32_t low, high, bad, samples;
};
sample_stats classify_samples(const uint16_t *raw, uint32_t count);
// Integration step for the statistics and the saturation threshold (per mille).
int32_t auto_intg_step(const sample_stats &s, uint32_t threshold);

// Pixels whose planes 0 + 2 and 1 + 3 sum to 4017..4175 (12-bit samples); consistent when
// both counts exceed 60 % of the pixels.
bool frame_consistent(const uint16_t *raw, uint32_t n, uint32_t samples);

}  // namespace tevix::epc
