// Raw frame formats of the SONY sensors and their unpacking. The 640x480 sensor measures each
// modulation frequency with four phase steps and delivers, depending on the frame format, the four
// DCS samples, the two tap differences I = D2 - D0 and Q = D3 - D1 (16, 12 or 8 bits), or the
// camera's own phase. Every frame starts with the 20-byte frame header over its first 20 bytes;
// rows are in image order.
//
// Layout word: low byte the samples the sensor takes per pixel for one frame, high byte the
// arrangement of the samples in the raw frame (N = width x height, "plane": N samples in pixel
// order; a packed stream holds two 12-bit samples in three bytes, s0 | s1 << 12 little-endian):
//
//   format          word  raw at least  content
//   2               4     8N   one frequency: four u16 planes D0..D3 (12-bit samples; 0, 1 and
//                               4094 upwards mark saturation)
//   F & 0x77 == 2   769   2N   one frequency: one u16 plane of phase words, bits 0..14 the phase
//   (F != 2)                    (1/32768 turn), bit 15 set where nothing was measured; no amplitude
//   13              514   4N   one frequency: two s16 planes I, Q (-32768: nothing measured)
//   14 + bit 7      1028  4N   two frequencies: s8 samples I0 Q0 I1 Q1 of each pixel together,
//                               each I or Q divided by 16 (-128: nothing measured)
//   14              1284  4N   the same samples as four planes I0, Q0, I1, Q1
//   15              8     4N   HDR, one frequency: four s8 planes I, Q of the first integration
//                               time, then I, Q of the second (/16; -128 saturated)
//   16              1538  3N   one frequency: packed 12-bit stream of the planes I, Q (-2048:
//                               nothing measured)
//   17 + bit 7      1796  6N   two frequencies: packed 12-bit stream of I0 Q0 I1 Q1 per pixel
//   17              2052  6N   the same samples as the planes I0, Q0, I1, Q1 in one stream
//
// Bit 7 is the frame-info format's flag bit (format 142 is format 14 with the flag). The frequency
// of samples I0, Q0 is f0 (parameter 1 or the first of parameter 21), of I1, Q1 f1.
#pragma once

#include <cstdint>

namespace tevix::imx {

enum class sample : uint8_t { none, dcs16, phase16, iq16, iq8, iq12 };

struct layout {
    uint32_t word = 0;   // 0: no output for the format
    uint32_t min_n = 0;  // the raw frame holds at least min_n x N bytes
    sample type = sample::none;
    uint8_t sets = 1;  // I/Q pairs per pixel: 2 for two frequencies or two exposures
    bool interleaved = false;
};

layout layout_of(uint16_t format);

// The I and Q of pair `set` (0 or 1) of n pixels as 16-bit values for the phase decode (the
// 8-bit samples times 16); a sample carrying the format's marker becomes -32768, which the decode
// takes as "nothing measured". raw is the frame (header included); x and y have room for n
// values, scratch for 4n (used by the 12-bit samples of a pixel together). Formats whose I and Q
// are already such planes (13) need no expansion: iq_planes gives them in place.
void expand_iq(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set, int16_t *x,
               int16_t *y, int16_t *scratch);
void expand_iq_scalar(const layout &l, const uint8_t *raw, uint32_t n, uint32_t set, int16_t *x,
                      int16_t *y, int16_t *scratch);
// The I and Q planes of a 16-bit format in the (even-aligned) frame, or false.
bool iq_planes(const layout &l, const uint8_t *raw, uint32_t n, const int16_t **x,
               const int16_t **y);

// Phase words into distances: phase x range / 32768 + offset_mm, 65500 where bit 15 is set;
// confidence 0 (the format carries no amplitude). With range 32768 and offset 0 the distances
// are the phases.
void decode_phase_words(const uint16_t *words, uint32_t n, uint32_t range, int32_t offset_mm,
                        int32_t *dist, uint32_t *conf);

// Phases (1/32768 turn, 65500 invalid) into u16 millimetres: phase x mm_per_turn / 32768 rounded,
// plus offset_mm, held within 0..65499; invalid pixels stay 65500.
void phase_to_mm(const int32_t *phase, uint32_t n, float mm_per_turn, int32_t offset_mm,
                 uint16_t *out);
void phase_to_mm_scalar(const int32_t *phase, uint32_t n, float mm_per_turn, int32_t offset_mm,
                        uint16_t *out);

// Unambiguous range of a modulation frequency in mm, c / 2f (0 for f = 0).
double exact_range_mm(uint32_t f);

// Per pixel, the exposure of the larger confidence (the second on a tie): a saturated exposure
// decodes invalid with confidence 0, so the other one serves. Result in dist_a and conf_a.
void hdr_pick(int32_t *dist_a, uint32_t *conf_a, const int32_t *dist_b, const uint32_t *conf_b,
              uint32_t n);

// The inverse of unpacking, for the virtual camera and the tests: the 12-bit packed stream of
// `count` samples, and the marker of each sample type.
void pack12(const int16_t *samples, uint32_t count, uint8_t *out);
constexpr int32_t k_none_s16 = -32768, k_none_s12 = -2048, k_none_s8 = -128;
constexpr uint16_t k_phase_none = 0x8000;

}  // namespace tevix::imx
