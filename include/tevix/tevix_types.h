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
    char serial[32];  /* the three unique-id words as "%08X%08X%08X" */
    uint64_t hw_id;   /* high 32 bits: XOR of the unique-id words; low: sensor part/wafer/chip */
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

TEVIX_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(tevix_param_item_t) == 24, "parameter item is 24 bytes");
#else
_Static_assert(sizeof(tevix_param_item_t) == 24, "parameter item is 24 bytes");
#endif

#endif
