/*
 * Low-level transport: the backend interface behind every camera connection.
 *
 * Each tevix_ll_* call takes a backend device record and forwards to the backend that owns it
 * through that backend's op table. Two backends are built in: file replay (list entry 0) and USB
 * (list entry 2); entries 1 and 3 are empty.
 */
#ifndef TEVIX_LL_H
#define TEVIX_LL_H

#include <stdint.h>

#include "tevix_export.h"

TEVIX_EXTERN_C_BEGIN

/* Transport kinds of tevix_ll_dev_t.if_type. */
enum {
    TEVIX_LL_IF_UNKNOWN = 0, /* USB probing accepts it */
    TEVIX_LL_IF_FILE = 2,    /* replay of a recording */
    TEVIX_LL_IF_ANY = 99,    /* any backend that takes it (USB accepts it) */
};

/* Event codes of the backend callback. */
enum {
    TEVIX_LL_EVT_DATA = 0,     /* good data, or a cancelled transfer */
    TEVIX_LL_EVT_TIMEOUT = -5, /* transfer timeout */
    TEVIX_LL_EVT_STALL = -7,   /* endpoint stall */
    TEVIX_LL_EVT_EOF = -9,     /* recording ended, capture stops (replay) */
    TEVIX_LL_EVT_ERROR = -10,  /* any other transfer error */
};

/* Parameter item as it travels to the camera: id, value length, 18 value bytes. */
#pragma pack(push, 1)
typedef struct tevix_param_wire {
    uint8_t id;
    uint8_t len;
    uint8_t value[18];
} tevix_param_wire_t;
#pragma pack(pop)

struct tevix_ll_ops;

/* Backend device record: one entry of a device list (80 bytes) and the handle of an open
 * connection. The caller owns the record; the backend owns priv between dev_open and dev_close. */
#pragma pack(push, 4)
typedef struct tevix_ll_dev {
    void *priv;       /* backend-private state, allocated by dev_open, freed by dev_close */
    uint32_t if_type; /* TEVIX_LL_IF_* */
    union {
        struct {
            uint8_t bus;      /* USB bus number */
            uint8_t port;     /* port number */
            uint8_t addr;     /* device address; 255 on open = any address on bus/port */
            uint8_t speed;    /* link speed as libusb reports it */
            char product[16]; /* product string, at most 15 characters */
            char vendor[16];  /* manufacturer string, at most 15 characters */
        } usb;
        const char *file; /* replay: the recording's file name */
        uint8_t raw[48];
    } info;
    const struct tevix_ll_ops *ops; /* owning backend; NULL until a backend accepts the record */
    uint8_t is_listed;              /* set by a backend's dev_list for each entry it fills */
    uint8_t reserved[8];
} tevix_ll_dev_t;
#pragma pack(pop)

/* Backend event callback: status TEVIX_LL_EVT_*, the data of one completed unit. It must not
 * block: it runs on the backend's event thread. */
typedef void (*tevix_ll_evt_cb)(tevix_ll_dev_t *dev, int32_t status, uint8_t *data, uint32_t len,
                                void *user);

/*
 * Backend op table, one constant instance per backend. Every slot receives the device record
 * first (except the three library-wide ones). Slots return non-zero for success unless stated.
 */
typedef struct tevix_ll_ops {
    /* Prepare the backend once per library. */
    int (*init)(void);
    /* Release what init acquired. */
    void (*uninit)(void);
    /* Library debug level 0..5 for the transport's own diagnostics. */
    void (*set_debug)(uint32_t level);
    /* Open the device the record names (or the first one); the record on success, else NULL. */
    tevix_ll_dev_t *(*dev_open)(tevix_ll_dev_t *dev);
    /* Open from an operating-system descriptor; NULL where unsupported. */
    tevix_ll_dev_t *(*dev_open_by_fd)(tevix_ll_dev_t *dev, int fd);
    /* Close and free priv; the record can be opened again. */
    void (*dev_close)(tevix_ll_dev_t *dev);
    /* Fill up to max entries; the number filled. */
    uint32_t (*dev_list)(tevix_ll_dev_t *list, uint32_t max);
    /* One command: write_only sends data; otherwise sends it and reads the answer back into it. */
    int (*exe_cmd)(tevix_ll_dev_t *dev, uint8_t write_only, uint8_t cmd, uint16_t value,
                   uint8_t *data, uint32_t length, uint32_t timeout_ms);
    /* Bulk data to the device: bytes sent, or a negative libusb-style code. */
    int32_t (*tx_data)(tevix_ll_dev_t *dev, const uint8_t *data, uint32_t length);
    /* Stop delivering without talking to the device. */
    void (*cap_abort)(tevix_ll_dev_t *dev);
    /* Let the event side run one step (replay sync mode: one frame). */
    void (*cap_wait)(tevix_ll_dev_t *dev);
    /* Start streaming; cb receives every completed unit. */
    int (*cap_start)(tevix_ll_dev_t *dev, uint32_t mode, tevix_ll_evt_cb cb, void *user);
    /* Stop streaming. */
    int (*cap_stop)(tevix_ll_dev_t *dev);
    /* Move the replay position; the frame reached, or -1. May be NULL. */
    int32_t (*cap_seek)(tevix_ll_dev_t *dev, uint32_t frame_idx, uint32_t whence);
    /* Device reset of a target (3: USB-level reset with reopen). */
    int (*dev_reset)(tevix_ll_dev_t *dev, uint8_t target);
    /* Register access: count 32-bit registers from address of a register class (target). */
    int (*reg_write)(tevix_ll_dev_t *dev, uint8_t target, uint32_t addr, uint8_t *data,
                     uint16_t count);
    int (*reg_read)(tevix_ll_dev_t *dev, uint8_t target, uint32_t addr, uint8_t *data,
                    uint16_t count);
    /* Parameter batches of 20-byte wire items. */
    int (*param_set)(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count);
    int (*param_get)(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count);
} tevix_ll_ops;

/* Starts every backend (USB, then replay); 0 when either fails. */
TEVIX_API int tevix_ll_init(void) TEVIX_NOEXCEPT;
TEVIX_API void tevix_ll_uninit(void) TEVIX_NOEXCEPT;
TEVIX_API void tevix_ll_set_debug(uint32_t level) TEVIX_NOEXCEPT;

/* Lists attached devices: USB first, then the replay backend into the remaining entries. Returns
 * the number filled; 0 when max < 1. */
TEVIX_API int tevix_ll_dev_list(tevix_ll_dev_t *list, int max) TEVIX_NOEXCEPT;

/* Opens through dev->ops when set, otherwise USB first, then replay (if_type 2 only). */
TEVIX_API tevix_ll_dev_t *tevix_ll_dev_open(tevix_ll_dev_t *dev) TEVIX_NOEXCEPT;
TEVIX_API tevix_ll_dev_t *tevix_ll_dev_open_by_fd(tevix_ll_dev_t *dev, int fd) TEVIX_NOEXCEPT;
TEVIX_API void tevix_ll_dev_close(tevix_ll_dev_t *dev) TEVIX_NOEXCEPT;
TEVIX_API int tevix_ll_dev_reset(tevix_ll_dev_t *dev, uint8_t target) TEVIX_NOEXCEPT;
TEVIX_API int tevix_ll_exe_cmd(tevix_ll_dev_t *dev, uint8_t write_only, uint8_t cmd, uint16_t value,
                               uint8_t *data, uint32_t length, uint32_t timeout_ms) TEVIX_NOEXCEPT;
TEVIX_API int32_t tevix_ll_tx_data(tevix_ll_dev_t *dev, const uint8_t *data,
                                   uint32_t length) TEVIX_NOEXCEPT;
TEVIX_API int tevix_ll_cap_start(tevix_ll_dev_t *dev, uint32_t mode, tevix_ll_evt_cb cb,
                                 void *user) TEVIX_NOEXCEPT;
TEVIX_API int tevix_ll_cap_stop(tevix_ll_dev_t *dev) TEVIX_NOEXCEPT;
TEVIX_API void tevix_ll_cap_abort(tevix_ll_dev_t *dev) TEVIX_NOEXCEPT;
TEVIX_API void tevix_ll_cap_wait(tevix_ll_dev_t *dev) TEVIX_NOEXCEPT;
/* -1 for a null record or a backend without seek. */
TEVIX_API int32_t tevix_ll_cap_seek(tevix_ll_dev_t *dev, uint32_t frame_idx,
                                    uint32_t whence) TEVIX_NOEXCEPT;
TEVIX_API int tevix_ll_reg_write(tevix_ll_dev_t *dev, uint8_t target, uint32_t addr, uint8_t *data,
                                 uint16_t count) TEVIX_NOEXCEPT;
TEVIX_API int tevix_ll_reg_read(tevix_ll_dev_t *dev, uint8_t target, uint32_t addr, uint8_t *data,
                                uint16_t count) TEVIX_NOEXCEPT;
TEVIX_API int tevix_ll_param_set(tevix_ll_dev_t *dev, tevix_param_wire_t *items,
                                 uint32_t count) TEVIX_NOEXCEPT;
TEVIX_API int tevix_ll_param_get(tevix_ll_dev_t *dev, tevix_param_wire_t *items,
                                 uint32_t count) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(tevix_param_wire_t) == 20, "parameter wire item is 20 bytes");
static_assert(sizeof(tevix_ll_dev_t) == 80, "a device list entry is 80 bytes");
#else
_Static_assert(sizeof(tevix_param_wire_t) == 20, "parameter wire item is 20 bytes");
_Static_assert(sizeof(tevix_ll_dev_t) == 80, "a device list entry is 80 bytes");
#endif

#endif
