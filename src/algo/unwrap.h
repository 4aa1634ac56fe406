// Dual-frequency unwrapping: two distances measured at two modulation frequencies, each known only
// modulo its own unambiguous range, combined into one distance whose unambiguous range is that of
// the frequencies' greatest common divisor (100 and 80 MHz: 1.5 m and 1.87 m alone, 7.5 m
// together).
//
// Method. With g = gcd(f0, f1), the combined range R = c / 2g holds n0 = f0 / g wraps of the
// first range R0 and n1 = f1 / g of the second. Write each measurement as a fraction of its own
// turn, x0 = d0 / R0 and x1 = d1 / R1. A distance D = (x0 + k0) R0 = (x1 + k1) R1 needs
// n1 (x0 + k0) = n0 (x1 + k1), that is t = n1 x0 - n0 x1 = n0 k1 - n1 k0: an integer m, and since
// n0 and n1 are coprime every integer m names exactly one wrap count k0 in 0..n0-1 (n1 k0 = -m
// modulo n0). So the nearest alignment is m = round(t), found without trying wrap counts, and the
// two candidates D0 = d0 + k0 R0 and D1 differ by (t - m) R / (n0 n1). Distinct alignments lie
// R / (n0 n1) apart (375 mm for 100 + 80 MHz), so a residual below a quarter of that separation is
// consistent: no other alignment can come as close unless the difference of the two
// measurements' errors exceeds three quarters of it (281 mm, five standard deviations when each
// distance has 40 mm of noise). A larger residual means the two phases disagree (noise, motion,
// multipath): the pixel is marked invalid instead of risking a wrong wrap. The result is the
// average of D0 and D1 weighted by f^2 (the higher frequency measures finer), taken modulo R.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tevix::algo {

struct dual_freq {
    uint32_t f0 = 0, f1 = 0;  // Hz
    float r0_mm = 0, r1_mm = 0, range_mm = 0;
    uint32_t n0 = 0, n1 = 0;
    float max_residual_mm = 0;  // consistency limit
    float w0 = 0, w1 = 0;       // weights of the two estimates
    // Derived for the per-pixel work: t = d0 t0 - d1 t1; k0 = (a0 - m) inv mod n0; the second
    // estimate D1 = D0 - (t - m) sep_mm; consistent while |t - m| <= max_t.
    float t0 = 0, t1 = 0, a0 = 0, inv = 0, inv_n0 = 0, sep_mm = 0, max_t = 0;
};

// Prepares the unwrapping of f0 and f1 (distinct, non-zero). max_residual_mm 0 takes a quarter
// of the alignments' separation. False when the combined range needs more than 16 wraps of
// either frequency or exceeds 65.4 m (the u16 millimetre scale), or for bad arguments.
bool dual_freq_init(dual_freq &u, uint32_t f0, uint32_t f1, float max_residual_mm = 0);

// d0 and d1: wrapped distances (mm, 0 .. range of their frequency), 65500 or above invalid.
// out: unwrapped distances in mm, 65500 where an input is invalid or the two disagree.
void dual_freq_unwrap(const dual_freq &u, const uint16_t *d0, const uint16_t *d1, uint16_t *out,
                      size_t n) noexcept;

}  // namespace tevix::algo
