/*
 * Records shared by the camera interface, the drivers and the calibration files: the public
 * device record and the parameter item.
 */
#ifndef TEVIX_TYPES_H
#define TEVIX_TYPES_H

#include <stdint.h>

#include "tevix_export.h"

TEVIX_EXTERN_C_BEGIN

/* Device types of tevix_dev_t.type. */
enum {
    TEVIX_DEV_USB = 0,
    TEVIX_DEV_ETH = 1,
    TEVIX_DEV_FILE = 2,
    TEVIX_DEV_DEFAULT = 99, /* the library's static default record before its first open */
};

typedef struct tevix_session tevix_session_t; /* the library's internal session, opaque */

/* Public device record: element of the device list and argument of every camera call. */
typedef struct tevix_dev {
    tevix_session_t *session; /* NULL while closed */
    uint32_t type;            /* TEVIX_DEV_* */
    union {
        struct {
            uint8_t bus, port, addr, speed; /* addr 255: any address on bus/port */
        } usb;
        struct {
            char addr[16];
            uint32_t dev_num;    /* device number */
            uint32_t access_num; /* access number */
        } eth;
        struct {
            char *path; /* owned path text of 257 bytes */
        } file;
    } addr;
    char product[32]; /* "<model>-<chip code>-<revision>": selects the driver */
    char vendor[32];
    char serial[32];     /* the three unique-id words as "%08X%08X%08X" */
    uint64_t hw_id;      /* high 32 bits: XOR of the unique-id words; low: sensor part/wafer/chip */
    uint16_t version[4]; /* device version words: software, boot loader, hardware, reserved */
    const char *path_prefix; /* the library's path prefix, ending in a separator */
    void *api_mutex;         /* owned while open */
    uint8_t inited;          /* describes a real device (filled by the device list) */
    uint8_t lib_owned;       /* allocated by the library (URI opens); close frees it */
    uint8_t busy;            /* public calls in progress, changed under the API mutex */
} tevix_dev_t;

/* Parameter item of the batch calls; only the id's low byte and the first 18 value bytes travel
 * to the device. Values are little-endian at the start of the value area. */
#pragma pack(push, 1)
typedef struct tevix_param_item {
    uint32_t id;
    uint8_t len;
    union {
        uint8_t u8[19];
        uint16_t u16[9];
        uint32_t u32[4];
        float f32[4];
        char text[19];
    } value;
} tevix_param_item_t;
#pragma pack(pop)

/* Frame information of one raw frame, filled by the driver (100 bytes; the bytes after the named
 * fields are zero, and the whole record is the input of the decode hash). */
#pragma pack(push, 1)
typedef struct tevix_frame_info {
    uint32_t size;   /* frame size in bytes */
    uint16_t format; /* frame format code */
    uint16_t index;  /* frame index */
    uint32_t width;  /* 0 in the header means the mode's default width */
    uint32_t height;
    uint32_t depth;       /* formats < 256: bytes per pixel (size / width / height); else a word */
    uint32_t temperature; /* low 16 bits: board Tcb, high 16 bits: sensor Tib, signed, 0.1 C */
    uint32_t ts_sec;      /* seconds since 1970 UTC */
    uint32_t ts_usec;     /* microseconds */
    uint8_t reserved[68];
} tevix_frame_info_t;

/* Region of interest and binning (parameter 9): rows top..bottom, columns left..right. */
typedef struct tevix_roi {
    uint16_t top, bottom, left, right;
    uint8_t binning; /* 0..4: 320x240, 160x120, 80x60, 40x30, 160x60 on the 320x240 sensor */
    uint8_t reserved[4];
} tevix_roi_t;
#pragma pack(pop)

/* Filter ids of tevix_filter_enable / tevix_filter_disable. */
enum {
    TEVIX_FILTER_LENS_CALIB = 0, /* lens undistortion */
    TEVIX_FILTER_PIX_CALIB = 1,  /* per-pixel calibration */
    TEVIX_FILTER_SMOOTH = 2,     /* median + bilateral IIR: u8[0] variant, u8[1] strength */
    TEVIX_FILTER_RESERVED3 = 3,
    TEVIX_FILTER_MIN_AMP = 4,       /* u16 amplitude threshold */
    TEVIX_FILTER_AUTO_INTG = 5,     /* u16 saturation ratio threshold, per mille */
    TEVIX_FILTER_CONSISTENCY = 6,   /* u16 value written to the device on failure */
    TEVIX_FILTER_TEMP_MONITOR = 7,  /* u16 */
    TEVIX_FILTER_HDR = 8,           /* u16[0], u16[1]: two integration times */
    TEVIX_FILTER_OFFSET = 9,        /* s16 offset in mm */
    TEVIX_FILTER_SPORT_MODE = 10,   /* u8 level 0..2 */
    TEVIX_FILTER_SYS_CALIB = 11,    /* scale and offset read from the device */
    TEVIX_FILTER_GRAY_SCALE = 12,   /* u16 divisor (0 taken as 1) */
    TEVIX_FILTER_FLYING_PIXEL = 13, /* u8 level, at most 31 */
    TEVIX_FILTER_TEMP_COMP = 14,    /* temperature compensation of calibrated distance */
    TEVIX_FILTER_COUNT = 15,
};

/* Argument of a filter switch. */
typedef union tevix_filter_arg {
    uint8_t u8[8];
    uint16_t u16[4];
    int16_t s16[4];
    uint32_t u32[2];
} tevix_filter_arg_t;

TEVIX_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(tevix_param_item_t) == 24, "parameter item is 24 bytes");
static_assert(sizeof(tevix_frame_info_t) == 100, "frame information is 100 bytes");
static_assert(sizeof(tevix_roi_t) == 13, "region of interest is 13 bytes");
#else
_Static_assert(sizeof(tevix_param_item_t) == 24, "parameter item is 24 bytes");
_Static_assert(sizeof(tevix_frame_info_t) == 100, "frame information is 100 bytes");
_Static_assert(sizeof(tevix_roi_t) == 13, "region of interest is 13 bytes");
#endif

#endif
