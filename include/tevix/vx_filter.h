/*
 * Filters for 16-bit distance images and lens undistortion.
 *
 * Distance images are row-major u16 millimetres. The values 0 and 65500 (VX_DIST_INVALID) mean
 * "no measurement": the spatial filters never use them as neighbour values and never replace them
 * with a blend. All routines are safe to call from several threads on different images; a filter
 * context or an undistortion map serves one thread at a time.
 */
#ifndef TEVIX_VX_FILTER_H
#define TEVIX_VX_FILTER_H

#include <stdbool.h>
#include <stdint.h>

#include "tevix_export.h"

TEVIX_EXTERN_C_BEGIN

/* Marker of an invalid distance pixel; 0 means "no measurement" as well. */
#define VX_DIST_INVALID 65500u

/* Largest image width or height the bilateral filter accepts. */
#define VX_BPF2D_MAX_SIZE 40960u

/*
 * Recursive bilateral filter context, owned by the caller: filled by vx_bpf2d_iir_init, emptied
 * by vx_bpf2d_iir_uninit. All buffers are allocated by init, so filtering allocates nothing.
 */
typedef struct vx_bpf2d_iir {
    uint32_t width, height; /* image size the context was made for */
    float sigma_spatial;    /* relative to the image size: alpha = exp(-sqrt(2) / (size * s)) */
    float sigma_range;      /* relative to the table length */
    float range_lo;         /* differences at or below this weigh 1.0 */
    float range_hi;         /* differences at or above this take table[hi - lo] */
    float *range_table;     /* n entries, exp(-i / (n * sigma_range)), last entry 0.0 */
    uint32_t n;
    float alpha_x, alpha_y; /* spatial damping of the horizontal and vertical pass */
    uint16_t *dst;          /* output image of the current call */
    float *work[2];         /* scratch: two pairs of width x height planes */
    float *line[6];         /* scratch: line[0] holds the weight tables and the lines of the
                               horizontal pass; the others stay NULL */
} vx_bpf2d_iir_t;

/*
 * Zeroes ctx and makes it ready for width x height images (each at most 40960). range_min and
 * range_max are pixel differences: the range table has range_max - range_min + 1 entries (a
 * reversed pair fails), and at most 4096 of them are used. Returns false with one ERR line on bad
 * sizes or allocation failure, leaving the context freed.
 */
TEVIX_API bool vx_bpf2d_iir_init(vx_bpf2d_iir_t *ctx, uint32_t width, uint32_t height,
                                 float sigma_spatial, float sigma_range, uint16_t range_min,
                                 uint16_t range_max) TEVIX_NOEXCEPT;

/*
 * Filters src into dst (both width x height u16; they may be the same buffer): a horizontal
 * recursive pass over every row, then a vertical one over every column, each step damped by alpha
 * and by the range weight of the two neighbouring src pixels. Each result is the sum of the
 * causal and anti-causal sums divided by the sum of their normalisers, truncated to an integer.
 * A null argument or a size other than the context's logs "wrong parameters" and leaves dst
 * untouched.
 */
TEVIX_API void vx_bpf2d_iir(vx_bpf2d_iir_t *ctx, uint16_t *dst, const uint16_t *src, uint32_t width,
                            uint32_t height) TEVIX_NOEXCEPT;

/* Frees every buffer of ctx and zeroes it. NULL is accepted; a second call does nothing. */
TEVIX_API void vx_bpf2d_iir_uninit(vx_bpf2d_iir_t *ctx) TEVIX_NOEXCEPT;

/*
 * The spatial filters below work in place on a width x height u16 image (width and height at
 * least 1). Pixels outside the image count as invalid. Every decision is taken on the input
 * image, so the result does not depend on the order of the pixels. Scratch memory (a padded copy
 * of the image; two double planes for the Gaussian) is kept per thread and reused between calls,
 * growing to the largest image seen, so steady use allocates nothing.
 * They return true, or false (image untouched) for a null image, a zero size, an unsupported
 * kernel or when the scratch copy cannot be allocated.
 */

/*
 * Median: every valid pixel becomes the lower median (element (n - 1) / 2 in ascending order) of
 * the n valid pixels of the kernel x kernel window centred on it, the pixel itself included, so
 * n >= 1 and a pixel without valid neighbours keeps its value. Invalid pixels stay as they are.
 * kernel is 3 or 5.
 */
TEVIX_API bool vx_median2d_u16(uint16_t *img, uint32_t width, uint32_t height,
                               uint32_t kernel) TEVIX_NOEXCEPT;

/*
 * Box filter: every valid pixel becomes the mean of the valid pixels of the kernel x kernel window
 * centred on it (itself included), rounded to the nearest integer; invalid pixels stay as they
 * are and count for nothing. kernel is odd, 3..31. Running sums make the cost independent of the
 * kernel size.
 */
TEVIX_API bool vx_box2d_u16(uint16_t *img, uint32_t width, uint32_t height,
                            uint32_t kernel) TEVIX_NOEXCEPT;

/*
 * Flying-pixel removal. A flying pixel mixes two surfaces at an edge, so its distance lies between
 * them. For a valid pixel of distance d the margin is (d * (32 - t)) >> 8 with t = min(threshold,
 * 31): from d / 256 at 31 (strictest) to d / 8 at 0 (most lenient), so a higher threshold removes
 * more. The pixel becomes 0 when, in one of the four directions (horizontal, vertical, the two
 * diagonals), the two opposite neighbours are valid and it lies strictly between them with a gap
 * of more than the margin to each. k3 looks at the neighbours at distance 1; k5 at those at
 * distance 1 and at distance 2 (mixed bands two pixels wide). Pixels on a steep slope whose step
 * to each neighbour exceeds the margin are removed as well. The drivers pass
 * threshold = 31 - min(level, 31).
 */
TEVIX_API bool vx_flypix_u16_k3(uint16_t *img, uint32_t width, uint32_t height,
                                uint32_t threshold) TEVIX_NOEXCEPT;
TEVIX_API bool vx_flypix_u16_k5(uint16_t *img, uint32_t width, uint32_t height,
                                uint32_t threshold) TEVIX_NOEXCEPT;

/*
 * Hole filling: a pixel of value 0 with at least m valid pixels among its 8 neighbours takes the
 * lower median of those valid neighbours (a value that exists nearby, never a blend across an
 * edge). m = param for param 1..8; param 0 (the default) means m = 7, so only isolated holes are
 * filled. 65500 pixels (declared invalid by the sensor) are not filled.
 */
TEVIX_API bool vx_fhole_u16_k3(uint16_t *img, uint32_t width, uint32_t height,
                               uint32_t param) TEVIX_NOEXCEPT;

/*
 * Recursive Gaussian (Young and van Vliet, third order, forward and backward along rows, then
 * along columns). sigma is relative to the image size, as the bilateral filter's sigma_spatial:
 * the standard deviation is sigma * width pixels along rows and sigma * height along columns (the
 * default 0.1 is 64 x 48 pixels at 640x480). An axis whose deviation is below 0.5 pixels is left
 * unfiltered. Invalid pixels are excluded by normalised weights: the filter runs on the image
 * with invalid pixels as 0 and on the validity mask, and each valid pixel becomes the ratio,
 * rounded to the nearest integer and kept off the markers (0 becomes 1, 65500 becomes 65499).
 * Invalid pixels stay as they are.
 */
TEVIX_API bool vx_gauss2d_iir_u16(uint16_t *img, uint32_t width, uint32_t height,
                                  float sigma) TEVIX_NOEXCEPT;

/*
 * Lens intrinsics for undistortion: principal point and focal lengths in pixels of a
 * width x height image, and the distortion coefficients in the order k1, k2, p1, p2, k3, k4, k5,
 * k6, s1, s2, s3, s4 (Brown-Conrady radial and tangential terms, rational and thin-prism terms).
 * Coefficients beyond n_dcoef count as 0; the 13th and later (sensor tilt) are not modelled.
 */
typedef struct vx_lens {
    double cx, cy, fx, fy;
    const double *dcoef; /* n_dcoef values; may be NULL when n_dcoef is 0 */
    uint32_t n_dcoef;
    uint32_t width, height;
} vx_lens_t;

/*
 * Undistortion map, owned by the caller (zero it before the first init). For every pixel of the
 * undistorted image it holds the position in the distorted image where that pixel is seen
 * (the model of OpenCV's initUndistortRectifyMap with the camera matrix as the new camera matrix
 * and no rectification).
 */
typedef struct vx_calib_len_map {
    uint32_t width, height; /* image size the map is built for */
    double cx, cy, fx, fy;  /* intrinsics scaled to that size */
    double dcoef[16];       /* coefficients of the lens record, unused ones 0 */
    uint32_t n_dcoef;
    double lens_cx, lens_cy, lens_fx, lens_fy; /* the lens record as given */
    uint32_t lens_width, lens_height;
    float *map_x, *map_y; /* source position of each pixel */
    int32_t *nearest;     /* index of the nearest source pixel, -1 outside the image */
    void *scratch;        /* width x height x 4 bytes for in-place calls */
} vx_calib_len_map_t;

/*
 * Builds map for width x height images from lens. When the image size divides the lens size
 * exactly (binned images), cx, cy, fx and fy are divided by the factors. Returns false (map
 * zeroed) for null arguments, a zero size, a size that does not divide the lens size, a
 * non-positive focal length or allocation failure.
 */
TEVIX_API bool vx_calib_len_init_map(vx_calib_len_map_t *map, const vx_lens_t *lens, uint32_t width,
                                     uint32_t height) TEVIX_NOEXCEPT;

/* Rebuilds map when the size or any lens value differs from what it was built from; true when
 * the map is usable afterwards. */
TEVIX_API bool vx_calib_len_update_map(vx_calib_len_map_t *map, const vx_lens_t *lens,
                                       uint32_t width, uint32_t height) TEVIX_NOEXCEPT;

/* Frees the map's buffers and zeroes it; NULL is accepted. */
TEVIX_API void vx_calib_len_uninit_map(vx_calib_len_map_t *map) TEVIX_NOEXCEPT;

/*
 * Undistorts a u16 distance image by nearest neighbour (no value is ever blended); pixels seen
 * outside the source image become 0. dst may equal src. Returns false (dst untouched) for null
 * arguments or a size other than the map's.
 */
TEVIX_API bool vx_calib_len_undistort_u16(vx_calib_len_map_t *map, uint16_t *dst,
                                          const uint16_t *src, uint32_t width,
                                          uint32_t height) TEVIX_NOEXCEPT;

/*
 * Undistorts a float image. bilinear 0: nearest neighbour (use it for distances); non-zero:
 * bilinear interpolation where the four source pixels are all finite and non-zero, nearest
 * neighbour elsewhere (for grey images). Pixels seen outside the source become 0. dst may equal
 * src. Returns false (dst untouched) for null arguments or a size other than the map's.
 */
TEVIX_API bool vx_calib_len_undistort_f32(vx_calib_len_map_t *map, float *dst, const float *src,
                                          uint32_t width, uint32_t height,
                                          int bilinear) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#endif
