/*
 * Calibration container and lens parameter files.
 *
 * The calibration container of a device ("<prefix>tevix_param_<id>.bin") is a 1202-byte header
 * followed by blk_cnt blocks. Lens intrinsics come from a binary lens file (a 225-byte header
 * plus gradient and reflection tables) or a text file of numbers. All file data is
 * little-endian and packed.
 */
#ifndef TEVIX_PARAM_H
#define TEVIX_PARAM_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "tevix_export.h"
#include "tevix_types.h"

TEVIX_EXTERN_C_BEGIN

enum {
    TEVIX_PARAM_HDR_SIZE = 1202,
    TEVIX_PARAM_VER_CURRENT = 140, /* ver >= 140: 5-byte block headers, checksummed blocks */
    TEVIX_PARAM_MAGIC_OLD = 1000,  /* magic when ver < 140 */
    TEVIX_PARAM_MAX_BLKS = 100,    /* blk_cnt is 0..99; the tables have room for 100 */
    TEVIX_PARAM_NAME_MAX = 127,    /* longest container path the handle accepts */
    TEVIX_PARAM_CKSUM_FIRST = 20,  /* the header checksum covers bytes 20..1187 */
    TEVIX_PARAM_CKSUM_END = 1188,
    TEVIX_PARAM_BLK_SIZE_MAX = 0x40000000,
    TEVIX_LENS_BIN_HDR_SIZE = 225,
    TEVIX_LENS_MAX_DCOEF = 16,
};
#define TEVIX_PARAM_MAGIC 0x31505856u /* "VXP1", ver >= 140 */

/* Lens record: principal point, focal lengths (pixels), distortion coefficients, image size. */
typedef struct tevix_lens_param {
    double cx, cy;
    double fx, fy;
    double dcoef[16];
    uint32_t n_dcoef; /* coefficients in use */
    uint32_t width;
    uint32_t height;
} tevix_lens_param_t;

#pragma pack(push, 1)

/* Container header (file offset 0). */
typedef struct tevix_param {
    uint8_t ver;
    uint32_t ts; /* calibration timestamp, compared with the device's */
    uint32_t magic;
    uint8_t reserved[9];
    uint16_t cksum;     /* Fletcher-16 over bytes 20..1187 */
    char lens_name[64]; /* NUL-padded; empty: no lens parameters below */
    double cx, cy, fx, fy;
    double dcoef[16];
    uint32_t n_dcoef;
    uint32_t width;
    uint32_t height;
    uint8_t par_area[932]; /* not interpreted by the container reader */
    uint32_t par_ts;       /* timestamp of the blocks */
    int32_t blk_cnt;
    uint32_t blk_size;  /* all blocks with their headers (current format); 0: not recorded */
    uint16_t blk_cksum; /* Fletcher-16 over all blocks (current format) */
} tevix_param_t;

/* Block header of the current format; also the first 5 bytes of a binary lens file. */
typedef struct par_dev_hdr {
    uint8_t type;
    uint32_t size; /* payload bytes that follow */
} par_dev_hdr;

/* Block header of the old format (ver < 140). */
typedef struct blk_unit_hdr {
    uint8_t type; /* must be 1 */
    uint8_t drv_a[21];
    uint32_t size; /* payload bytes after these 42 */
    uint8_t drv_b[16];
} blk_unit_hdr;

/* Binary lens file header; n_grad then n_reflect 4-byte table entries follow it. */
typedef struct tevix_lens_bin {
    uint8_t type;
    uint32_t hdrsz; /* 220 + 4 * (n_grad + n_reflect) */
    char name[64];
    float cx, cy, fx, fy;
    float dcoef[16];
    uint32_t width;
    uint32_t height;
    uint8_t n_dcoef;
    uint8_t reserved1[11];
    uint32_t n_grad;    /* at most 2 x width x height */
    uint32_t n_reflect; /* at most 4 x width x height */
    uint8_t reserved2[48];
} tevix_lens_bin_t;

#pragma pack(pop)

/* An open container. Owned by the caller; all zero while closed. Blocks are presented in the
 * current format: blk[i] holds type and payload size, offset[i] the payload's file position. */
typedef struct tevix_param_handle {
    char name[TEVIX_PARAM_NAME_MAX + 1];
    FILE *fp; /* left open while opened, for reading the blocks */
    tevix_param_t hdr;
    par_dev_hdr blk[TEVIX_PARAM_MAX_BLKS];
    uint32_t offset[TEVIX_PARAM_MAX_BLKS];
    uint8_t opened;
} tevix_param_handle_t;

/* Opens and verifies a container. Returns 1 with the stream kept open in the handle, else 0
 * with the handle closed. */
TEVIX_API int tevix_param_open_file(tevix_param_handle_t *handle, const char *path) TEVIX_NOEXCEPT;

/* Closes an opened handle; does nothing for NULL or a closed handle. */
TEVIX_API void tevix_param_close(tevix_param_handle_t *handle) TEVIX_NOEXCEPT;

/* "<prefix>tevix_param_<id>.bin" into buf (at most size - 1 characters, the last byte always
 * zero). Returns buf. */
TEVIX_API char *tevix_get_param_absolute_name(const tevix_dev_t *dev, char *buf,
                                              uint32_t size) TEVIX_NOEXCEPT;

/* Lens file name with the path prefix: binary ".bin" or text ".txt", with or without the device
 * identifier. Same buffer rules as above. Returns buf. */
TEVIX_API char *tevix_lens_param_filename(const tevix_dev_t *dev, char *buf, uint32_t size,
                                          int binary, int with_id) TEVIX_NOEXCEPT;

/* Loads "<prefix><name>" as a binary lens file: one allocation holding the header followed by
 * the two tables, or NULL. Release it with tevix_param_len_bin_free. */
TEVIX_API tevix_lens_bin_t *tevix_param_len_bin_load(const tevix_dev_t *dev,
                                                     const char *name) TEVIX_NOEXCEPT;

/* Releases a loaded lens object; NULL is ignored. */
TEVIX_API void tevix_param_len_bin_free(void *lens) TEVIX_NOEXCEPT;

/* Loads "<prefix><name>" as a text lens file into *lens. Returns 1, or 0 with *lens untouched. */
TEVIX_API int tevix_param_load_len_2d_file(const tevix_dev_t *dev, tevix_lens_param_t *lens,
                                           const char *name) TEVIX_NOEXCEPT;

/* Fetches the device's calibration container into the parameter directory: the device is put
 * into data-upload mode, its frames of the stored data are written to "calibration.bin", the
 * upload header is checked and the container written (or unzipped). False only when the device
 * refuses the mode, reports no usable data or the file cannot be created; later failures are
 * logged and show when the container is opened. */
TEVIX_API bool tevix_param_load_from_dev(tevix_dev_t *dev) TEVIX_NOEXCEPT;
/* Packs the device's container (or source) into "tcm_ex_encode_rel_W<wafer>_C<chip>.bin" in the
 * upload format, zip-compressed when compress is set, and with download set downloads it as
 * data of type 3 and resets the device (the packed file is then removed). */
TEVIX_API bool tevix_calib_bin_data_pk_and_download_ex(tevix_dev_t *dev, bool compress,
                                                       bool download,
                                                       const char *source) TEVIX_NOEXCEPT;

/*
 * Calibration station (extension): measures a flat target square to the camera's optical axis at
 * a series of known distances for each modulation frequency, and at one distance over a series
 * of temperatures, then fits the distance calibration (scale and offset, each pixel's offset, the
 * cyclic error over the phase, the board and sensor temperature coefficients) and writes a
 * calibration container. EPC cameras; the frames are taken in the camera's current frame format
 * (four planes measure best) and resolution, which the tables then serve.
 *
 * Before each step the station calls place(): the target goes to step->distance_mm and the camera
 * to the temperatures asked (an operator confirming on a terminal, a motorised rail, a climate
 * chamber, or a virtual camera's scene control); a non-zero return stops the run. The
 * temperatures recorded are those the camera reports while it is measured. The distance offset
 * filter is switched off while measuring and left on at 0 mm.
 */
#define TEVIX_STATION_TEMP_ASIS (-32768) /* a temperature the step leaves as it is */

typedef struct tevix_station_step {
    uint32_t freq_hz;     /* modulation frequency of the step */
    uint32_t distance_mm; /* target plane's distance from the camera along its optical axis */
    int16_t tcb, tib; /* board and sensor temperature asked, 0.1 C, or TEVIX_STATION_TEMP_ASIS */
    uint32_t index;   /* steps from 0 ... */
    uint32_t count;   /* ... of this many in the run */
} tevix_station_step_t;

typedef int (*tevix_station_place_cb)(tevix_dev_t *dev, const tevix_station_step_t *step,
                                      void *user);
/* After each step: the pixels measured, the distance at the image centre (mm, uncalibrated) and
 * the temperatures the camera reported (0.1 C). */
typedef void (*tevix_station_report_cb)(const tevix_station_step_t *step, uint32_t valid_pixels,
                                        float centre_mm, int16_t tcb, int16_t tib, void *user);

typedef struct tevix_station_cfg {
    const uint32_t *freqs; /* frequencies to calibrate (Hz); NULL or n_freqs 0: the camera's */
    uint32_t n_freqs;      /* at most 16 */
    const uint32_t *distances_mm; /* the distance sweep, 2..48 distances */
    uint32_t n_distances;
    int16_t cal_tcb, cal_tib;   /* temperatures of the distance sweep (TEVIX_STATION_TEMP_ASIS) */
    const int16_t *temps;       /* the drift sweep: n_temps pairs (board, sensor), 0.1 C */
    uint32_t n_temps;           /* 0..16; 0: the coefficients stay the driver's defaults */
    uint32_t drift_distance_mm; /* where the drift sweep stands; 0: the middle distance */
    uint32_t frames;            /* frames averaged per step; 0: 10 */
    uint32_t measurements;      /* 1: store the measurements, for the camera to fit at each mount */
    uint32_t ts;                /* container timestamp; 0: the time now */
    tevix_station_place_cb place; /* required */
    void *place_user;
    tevix_station_report_cb report; /* may be NULL */
    void *report_user;
} tevix_station_cfg_t;

/* Runs the station on an open camera and writes the container to out_path. Returns 1 when it is
 * written, 0 on failure (bad arguments, a camera that is not EPC, frames that do not come, too few
 * valid pixels, fits that decide nothing: the reason goes to the log), -2 when place() stopped
 * the run. Capture must be stopped; the camera is left at the last frequency calibrated.
 * Extension. */
TEVIX_API int tevix_calib_station(tevix_dev_t *dev, const tevix_station_cfg_t *cfg,
                                  const char *out_path) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#ifdef __cplusplus
#define TEVIX_PARAM_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define TEVIX_PARAM_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
TEVIX_PARAM_ASSERT(sizeof(tevix_param_t) == 1202, "container header is 1202 bytes");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, cksum) == 18, "cksum at 18");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, lens_name) == 20, "lens name at 20");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, cx) == 84, "cx at 84");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, dcoef) == 116, "coefficients at 116");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, n_dcoef) == 244, "n_dcoef at 244");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, par_area) == 256, "parameter area at 256");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, par_ts) == 1188, "par_ts at 1188");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, blk_cnt) == 1192, "blk_cnt at 1192");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, blk_size) == 1196, "blk_size at 1196");
TEVIX_PARAM_ASSERT(offsetof(tevix_param_t, blk_cksum) == 1200, "blk_cksum at 1200");
TEVIX_PARAM_ASSERT(sizeof(par_dev_hdr) == 5, "current block header is 5 bytes");
TEVIX_PARAM_ASSERT(sizeof(blk_unit_hdr) == 42, "old block header is 42 bytes");
TEVIX_PARAM_ASSERT(offsetof(blk_unit_hdr, size) == 22, "old block size at 22");
TEVIX_PARAM_ASSERT(sizeof(tevix_lens_bin_t) == 225, "lens file header is 225 bytes");
TEVIX_PARAM_ASSERT(offsetof(tevix_lens_bin_t, cx) == 69, "lens cx at 69");
TEVIX_PARAM_ASSERT(offsetof(tevix_lens_bin_t, width) == 149, "lens width at 149");
TEVIX_PARAM_ASSERT(offsetof(tevix_lens_bin_t, n_dcoef) == 157, "lens n_dcoef at 157");
TEVIX_PARAM_ASSERT(offsetof(tevix_lens_bin_t, n_grad) == 169, "n_grad at 169");
TEVIX_PARAM_ASSERT(offsetof(tevix_lens_bin_t, reserved2) == 177, "lens reserved tail at 177");
#undef TEVIX_PARAM_ASSERT

#endif
