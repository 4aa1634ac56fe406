/*
 * Colour maps for distance and grey images, and conversions between pixel sample types.
 *
 * Colours are packed 0x00BBGGRR (red in the low byte). A palette is 256 rows of red, green and
 * blue in 0.0..1.0; a value v in 0..255 (from the value range) blends rows trunc(v) and
 * min(trunc(v), 253) + 1 and rounds each channel to 0..255.
 *
 * Palettes (id: ramp from row 0 to row 255):
 *   0 rainbow: dark red, orange, green, light blue, dark blue
 *   1 hue circle: red, yellow, green, cyan, blue, magenta, red
 *   2 blue, white, red
 *   3 viridis-like: dark purple, blue, green, yellow
 *   4 magma-like: black, purple, orange, pale yellow
 *   5 inferno-like: black, purple, orange, pale yellow (more saturated)
 *   6 plasma-like: blue, purple, orange, yellow
 *   7 cividis-like: dark blue, grey, yellow (colour-blind friendly)
 *   8 turbo-like: dark blue, cyan, green, yellow, red, dark red
 *   9 jet: palette 0 reversed
 *  10 hot: black, red, yellow, white
 *  11 cool: cyan to magenta
 *  12 spring: magenta to yellow
 *  13 summer: green to yellow
 *  14 autumn: red to yellow
 *  15 winter: blue to green
 *  16 bone: black, blue-grey, white
 *  17 copper: black to copper
 *  18 pink: dark red-brown, pink, white
 *  19 parula-like: blue, teal, yellow
 *  20 ocean: dark green-blue to white
 *  21 terrain: blue, green, brown, white
 *  22 cubehelix: black to white through a helix of hues
 *  23 twilight: cyclic, light grey, blue, dark purple, red, light grey
 *  24 coolwarm: blue, light grey, red
 *  25 red, white, blue
 *  26 brown, white, teal
 *  27 magenta, white, green
 *  28 purple, white, green
 *  29 orange, white, purple
 *  30 spectral: dark red, yellow, blue-violet
 *  31 red, yellow, green
 *  32 red, yellow, blue
 *  33 seismic: dark blue, white, dark red
 *  34 icefire-like: light blue, blue, black, red, yellow
 *  35 greys: black to white (used for infrared point-cloud colours)
 *  36 inverted greys: white to black
 *  37 reds: light to dark
 *  38 greens: light to dark
 *  39 blues: light to dark
 *  40 oranges: light to dark
 *  41 purples: light to dark
 *  42 yellow, orange, red
 *  43 yellow, green, blue
 *  44 green to blue
 *  45 blue to purple
 *  46 blackbody: black, red, orange, yellow, white
 *  47 rocket-like: black, purple, red, salmon, cream
 *  48 mako-like: black, blue, teal, pale green
 *  49 afmhot: black, brown, orange, white
 *  50 gnuplot: black, purple, red, yellow
 *  51 hue circle reversed
 *  52 pastel hue circle
 *  53 dark hue circle
 *  54 viridis-like reversed
 *  55 turbo-like reversed
 *  56 magma-like reversed
 *  57 rainbow without dark ends: blue, cyan, green, yellow, red
 *  58 earth: dark blue, green, tan, white
 *  59 night vision: black, green, pale green
 *  60 amber: black, amber, pale yellow
 *  61 sepia: dark brown to cream
 *  62 ice: black, dark blue, cyan, white
 *  63 berlin-like: light blue, black, orange
 */
#ifndef TEVIX_VX_CMAP_H
#define TEVIX_VX_CMAP_H

#include <stdbool.h>
#include <stdint.h>

#include "tevix_export.h"

TEVIX_EXTERN_C_BEGIN

/* Number of palettes; ids run from 0 to VX_CMAP_PALETTES - 1. */
#define VX_CMAP_PALETTES 64

/* Markers answered by vx_cmap_get_color before any range test. */
#define VX_CMAP_MARK_BLACK 65300u   /* gives 0x000000 */
#define VX_CMAP_MARK_PURPLE 65400u  /* gives 0x8000FF */
#define VX_CMAP_MARK_INVALID 65500u /* gives 0xFF0EA9 */

/*
 * Colour-map context, owned by the caller. Range, scales and table are set by vx_cmap_init and
 * vx_cmap_set_range before rendering; only the palette id is shared between threads and it is
 * guarded by the context's lock.
 */
typedef struct vx_cmap {
    float range_min; /* value range of vx_cmap_get_color (after init 0.0 .. 4000.0) */
    float range_max;
    float table_scale;  /* computed-table entries per unit of value (after init n / 4000) */
    float color_scale;  /* palette rows per unit of value: 255 / range (after init 0.06375) */
    float lookup_scale; /* the copy of color_scale used by vx_cmap_get_color */
    uint32_t *table;    /* computed table of n colours, null when n < 1 */
    int32_t n;
    uint32_t palette; /* 0 .. VX_CMAP_PALETTES - 1 */
    void *lock;       /* mutex guarding the palette id, made by vx_cmap_init */
} vx_cmap_t;

/*
 * Fills the context (range 0..4000, palette 0) and computes its table of n entries: entry i,
 * with x = i / n - 0.25, holds piecewise-linear ramps running from mid blue through cyan, green
 * and yellow to a darkened red. n < 1 leaves the table empty. The context must not already be
 * initialised (call vx_cmap_uninit first). Result: 0; -22 for a null context; -12 when memory
 * runs out (logged; the context is left empty).
 */
TEVIX_API int vx_cmap_init(vx_cmap_t *ctx, int32_t n) TEVIX_NOEXCEPT;

/* Frees the table and the lock and clears the context; null accepted. */
TEVIX_API void vx_cmap_uninit(vx_cmap_t *ctx) TEVIX_NOEXCEPT;

/*
 * Sets the value range to [min(a, b), max(a, b)], the colour scales to 255 / |b - a| and the
 * table scale to n / |b - a|. When a equals b the range is kept and the colour scales become 255,
 * the table scale n. A NaN bound or a null context changes nothing.
 */
TEVIX_API void vx_cmap_set_range(vx_cmap_t *ctx, float a, float b) TEVIX_NOEXCEPT;

/* Selects palette `id` under the lock; ids of VX_CMAP_PALETTES and above are refused (false). */
TEVIX_API bool vx_cmap_set_palette(vx_cmap_t *ctx, uint32_t id) TEVIX_NOEXCEPT;

/* The current palette id, read under the lock (0 for a null context). */
TEVIX_API uint32_t vx_cmap_get_palette(vx_cmap_t *ctx) TEVIX_NOEXCEPT;

/*
 * Colour of one value, under the lock. The markers 65300, 65400 and 65500 give 0x000000,
 * 0x8000FF and 0xFF0EA9. Other values at or below the range minimum or above the maximum give 0.
 * Palette 0 reads the computed table in reverse: index n - trunc(trunc(value - min) * table
 * scale), limited to 0..n-1. Other palettes blend rows at (value - min) * lookup scale (rows
 * beyond 255 are taken as row 255).
 */
TEVIX_API uint32_t vx_cmap_get_color(vx_cmap_t *ctx, int32_t value) TEVIX_NOEXCEPT;

/*
 * Renders `count` pixels into three byte planes: pixel i writes r[i * stride], g[i * stride] and
 * b[i * stride]. The palette is the context's current one (palette 0 is the rainbow palette, not
 * the computed table). A pixel at or below `min` is black; above `max` it renders as `max`; in
 * between it takes the palette at (p - min) * 255 / (max - min). When max <= min every pixel above
 * min takes row 255. With `histeq` an equalised copy is computed (vx_cmap_histeq_u16, 256 bins)
 * but the colours still come from the original values, so the output does not change.
 * Result: 0; -22 for a null context, source or plane, or a stride below 1. A count below 1
 * writes nothing.
 */
TEVIX_API int vx_cmap_u16_to_rgb(vx_cmap_t *ctx, const uint16_t *src, int32_t count, uint8_t *r,
                                 uint8_t *g, uint8_t *b, int32_t stride, uint16_t min, uint16_t max,
                                 int histeq) TEVIX_NOEXCEPT;

/*
 * The same for float pixels with float bounds; NaN pixels render black. With `histeq` the pixels
 * are first equalised by vx_cmap_histeq_f32 (256 bins, interpolated) and the equalised values
 * are coloured. Result as above, and -12 when the temporary image cannot be allocated (logged).
 */
TEVIX_API int vx_cmap_f32_to_rgb(vx_cmap_t *ctx, const float *src, int32_t count, uint8_t *r,
                                 uint8_t *g, uint8_t *b, int32_t stride, float min, float max,
                                 int histeq) TEVIX_NOEXCEPT;

/*
 * Histogram equalisation over [min, max). `bins` bins cover the range, bin =
 * trunc((p - min) * bins / (max - min)); pixels at or below min, at or above max, or NaN are
 * outliers. Bin b's level is c_b * (max - min) / (count - outliers + 0.001) + min, with c_b the
 * running count of bins 0..b. With `interp` set an in-range pixel is interpolated between the
 * levels of its bin and the next (the last bin uses its own level); with it clear it takes its
 * bin's level. Outliers become 0. dst may equal src. The u16 variant truncates the level to the
 * destination type. Result: 0; -22 for null pointers or bins < 1; -12 (u16 only) when the
 * histogram cannot be allocated. A count below 1 does nothing. The f32 variant logs
 * "malloc failed" and ends the process (status 0) when its histogram cannot be allocated.
 */
TEVIX_API int vx_cmap_histeq_u16(uint16_t *dst, const uint16_t *src, int32_t count, uint16_t min,
                                 uint16_t max, int32_t bins, int interp) TEVIX_NOEXCEPT;
TEVIX_API int vx_cmap_histeq_f32(float *dst, const float *src, int32_t count, float min, float max,
                                 int32_t bins, int interp) TEVIX_NOEXCEPT;

/*
 * Conversions of `count` elements (results truncated toward zero). A count below 1 or a null
 * pointer does nothing (result 0, or -22 for null pointers). Narrowing conversions may run in
 * place (dst == src); widening ones may run in place when the source lies at least
 * count * 2 bytes after dst in the same buffer (the source is read ahead of the writes).
 *
 *   u16_u8:  src >> (shift & 31), limited to 255
 *   u16_f32: src * scale
 *   u16_u32: (src * (factor & 0xFFFF)) >> 16
 *   f32_u8:  src * scale limited to 0..255; NaN gives 0
 *   f32_u16: src * scale limited to 0..65535; NaN gives 0
 *   f32_u32: src * scale limited to 0..4294967295; NaN gives 0
 *   u32_f32: src * scale, the u32 converted exactly (values above 2^31 stay positive)
 */
TEVIX_API int vx_conv_u16_u8(uint8_t *dst, const uint16_t *src, int32_t count,
                             uint32_t shift) TEVIX_NOEXCEPT;
TEVIX_API int vx_conv_u16_f32(float *dst, const uint16_t *src, int32_t count,
                              float scale) TEVIX_NOEXCEPT;
TEVIX_API int vx_conv_u16_u32(uint32_t *dst, const uint16_t *src, int32_t count,
                              uint32_t factor) TEVIX_NOEXCEPT;
TEVIX_API int vx_conv_f32_u8(uint8_t *dst, const float *src, int32_t count,
                             float scale) TEVIX_NOEXCEPT;
TEVIX_API int vx_conv_f32_u16(uint16_t *dst, const float *src, int32_t count,
                              float scale) TEVIX_NOEXCEPT;
TEVIX_API int vx_conv_f32_u32(uint32_t *dst, const float *src, int32_t count,
                              float scale) TEVIX_NOEXCEPT;
TEVIX_API int vx_conv_u32_f32(float *dst, const uint32_t *src, int32_t count,
                              float scale) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#endif
