/*
 * tevix camera interface.
 *
 * Every call on a device takes the device record; calls check the record, its session and the
 * open state first, and hold the record's busy count while they talk to the device.
 */
#ifndef TEVIX_H
#define TEVIX_H

#include <stdint.h>

#include "tevix_export.h"
#include "tevix_types.h"

TEVIX_EXTERN_C_BEGIN

/* Parameter ids with host-side handling (values little-endian at the start of the value). */
enum {
    TEVIX_PARAM_DEV_MOD = 0,     /* u32 device mode (0 normal, 9 data upload) */
    TEVIX_PARAM_MOD_FREQ = 1,    /* u32 modulation frequency, Hz */
    TEVIX_PARAM_VENDOR = 2,      /* text */
    TEVIX_PARAM_PRODUCT = 3,     /* text: "<model>-<chip code>-<revision>" */
    TEVIX_PARAM_GEOMETRY = 4,    /* u16 max width, u16 max height, further words */
    TEVIX_PARAM_UID = 5,         /* three u32: the unique id */
    TEVIX_PARAM_VERSION = 6,     /* version block; its length gives its size */
    TEVIX_PARAM_SENSOR = 7,      /* sensor part number, wafer, chip id */
    TEVIX_PARAM_CALIB_INFO = 8,  /* calibration information */
    TEVIX_PARAM_ROI = 9,         /* tevix_roi_t */
    TEVIX_PARAM_FRM_FMT = 10,    /* u32 frame format */
    TEVIX_PARAM_FPS = 12,        /* u32 frames per second */
    TEVIX_PARAM_INTG1 = 13,      /* u16 integration time 1, us (length 8: both as u32) */
    TEVIX_PARAM_INTG2 = 16,      /* u16 integration time 2, us */
    TEVIX_PARAM_CONSIST = 17,    /* written when a frame fails the consistency check */
    TEVIX_PARAM_SYS_CALIB = 18,  /* system calibration: scale and offset */
    TEVIX_PARAM_HOST_CLOCK = 19, /* host clock: seconds, sub-second count */
    TEVIX_PARAM_FRAME_COUNT = 20,/* u16 */
    TEVIX_PARAM_DUAL_FREQ = 21,  /* two u32 frequencies, Hz */
    TEVIX_PARAM_LENS0 = 22,      /* lens record, first 16 bytes */
    TEVIX_PARAM_DEV_CAP_MOD = 27,/* two u32; the first is the capture mode */
    TEVIX_PARAM_LENS1 = 86,
    TEVIX_PARAM_LENS2 = 87,
    TEVIX_PARAM_CALIB_DATA = 171,/* sent as 18 */
};

/* Sends a parameter batch; after the device accepts it the library mirrors what it keeps and
 * tells the driver. 1 when the device accepted the batch, else 0. */
TEVIX_API int tevix_param_batch_set(tevix_dev_t *dev, tevix_param_item_t *items,
                                    uint32_t count) TEVIX_NOEXCEPT;
/* Reads a parameter batch into the items (ids and order are the caller's); 0 on failure. */
TEVIX_API int tevix_param_batch_get(tevix_dev_t *dev, tevix_param_item_t *items,
                                    uint32_t count) TEVIX_NOEXCEPT;
/* Raw register access: count 32-bit registers from reg_base of a register class (target). */
TEVIX_API int tevix_reg_batch_write(tevix_dev_t *dev, uint8_t target, uint32_t reg_base,
                                    const uint32_t *values, uint16_t count) TEVIX_NOEXCEPT;
TEVIX_API int tevix_reg_batch_read(tevix_dev_t *dev, uint8_t target, uint32_t reg_base,
                                   uint32_t *values, uint16_t count) TEVIX_NOEXCEPT;
/* Host-side filters of the device's driver: 0 on success, -1 on failure. */
TEVIX_API int tevix_filter_enable(tevix_dev_t *dev, uint32_t filter_id,
                                  const tevix_filter_arg_t *filter_arg) TEVIX_NOEXCEPT;
TEVIX_API int tevix_filter_disable(tevix_dev_t *dev, uint32_t filter_id) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#endif
