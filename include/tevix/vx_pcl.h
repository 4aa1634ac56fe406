/*
 * Point clouds from distance images through the pinhole intrinsics of the lens.
 *
 * For each pixel (u, v) with distance d (metres):
 *   - d counts only when d < 60.0f (a NaN fails); otherwise d is taken as 0, so the point is
 *     (0, 0, 0) and z is 0, while the fourth component is still copied;
 *   - x = (u - cx) / fx * d and y = (v - cy) / fy * d (with 1/fx and 1/fy computed once), always
 *     from d itself, also when d is measured along the ray;
 *   - d_is_z set: z = d * m + d; d_is_z clear: z = d * m + sqrt(d^2 - x^2 - y^2), which is NaN
 *     when x^2 + y^2 > d^2. m is the correction-map value of the pixel (0 without a map).
 *
 * Output layout: one_value set: one float per pixel (z); else with `fourth`: four floats per
 * pixel (x, y, z, the pixel's 32-bit word of `fourth` copied bit for bit); else three (x, y, z).
 * Point i of the image starts at out[i * floats_per_pixel].
 *
 * Columns are processed in groups of four: only the first 4 * floor(width / 4) columns of each
 * row are written; the pixels of a trailing partial group are left untouched in `out`.
 *
 * `intrinsics` holds four floats: cx, cy, fx, fy (pixels). `map` (optional) and `fourth`
 * (optional) hold width * height values each. Width or height below 1 writes nothing.
 * Result: 0 on success; -22 when out, dist or intrinsics is null (nothing written).
 */
#ifndef TEVIX_VX_PCL_H
#define TEVIX_VX_PCL_H

#include <stdint.h>

#include "tevix_export.h"

TEVIX_EXTERN_C_BEGIN

/* Float distances in metres. */
TEVIX_API int vx_pcl_get_xyzd_f32(float *out, const float *dist, const float *map, int32_t width,
                                  int32_t height, const float *intrinsics, const void *fourth,
                                  int one_value, int d_is_z) TEVIX_NOEXCEPT;

/*
 * 16-bit distances in millimetres: each value is converted to metres as value * 0.001f, so both
 * variants produce points in metres. Values of 60000 and above (including the invalid marker
 * 65500) fail the 60 m test and give (0, 0, 0).
 */
TEVIX_API int vx_pcl_get_xyzd_u16(float *out, const uint16_t *dist, const float *map, int32_t width,
                                  int32_t height, const float *intrinsics, const void *fourth,
                                  int one_value, int d_is_z) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#endif
