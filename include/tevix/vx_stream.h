/*
 * Frame stream: the assembler that rebuilds raw frames out of the camera's byte stream, and the
 * header maker for the producing side of the same stream.
 *
 * The camera sends packets of a 36-byte stream header followed by a payload; transport chunks do
 * not respect packet boundaries. All multi-byte values on the wire are little-endian.
 */
#ifndef TEVIX_VX_STREAM_H
#define TEVIX_VX_STREAM_H

#include <stdbool.h>
#include <stdint.h>

#include "tevix_export.h"

TEVIX_EXTERN_C_BEGIN

#define VX_STREAM_SYNC 0x98FBu         /* bytes FB 98 at the start of every header */
#define VX_STREAM_HDR_SIZE 36u         /* stream header bytes on the wire */
#define VX_STREAM_LEN_MAX 0x9FFFFFu    /* largest accepted payload length */
#define VX_STREAM_FRLEN_MAX 0x7FFFFFFu /* largest accepted frame length */
#define VX_STREAM_FLAG0_BOUND 0x01u    /* flags0: the payload begins a new frame */
#define VX_STREAM_FLAG1_CKSUM 0x01u    /* flags1: data_cksum is present */

#pragma pack(push, 1)

/* Raw frame descriptor: header bytes 8..27, returned with every fetched frame. The 12 bytes after
 * frfmt are carried unchanged; the sensor drivers read them as width, height, the two
 * temperatures and the time word. */
typedef struct vx_frame_desc {
    uint32_t frlen; /* length of one frame, 1..0x7FFFFFF */
    uint16_t fridx; /* frame index (16-bit, wraps) */
    uint16_t frfmt; /* frame format code */
    uint16_t width;
    uint16_t height;
    int16_t tcb;
    int16_t tib;
    uint32_t time; /* time word */
} vx_frame_desc_t;

/* Stream header as it travels. */
typedef struct vx_stream_hdr {
    uint16_t sync;        /* VX_STREAM_SYNC */
    uint16_t idx;         /* header sequence number, +1 per header, wraps */
    uint32_t len;         /* payload bytes after the header, 1..0x9FFFFF */
    vx_frame_desc_t desc; /* descriptor of the first frame in the payload */
    uint32_t data_cksum;  /* wrapping sum of the payload's whole little-endian u32 words */
    uint8_t flags0;       /* VX_STREAM_FLAG0_BOUND */
    uint8_t flags1;       /* VX_STREAM_FLAG1_CKSUM */
    uint16_t hdr_cksum;   /* vx_stream_hash16 of bytes 0..33, seed 0 */
} vx_stream_hdr_t;

#pragma pack(pop)

/* Assembler statistics, all cleared by vx_stream_reset. */
typedef struct vx_stream_state {
    uint32_t completed;       /* frames completed */
    uint32_t readied;         /* frames moved to the ready list */
    uint32_t discarded;       /* incomplete frames discarded */
    uint32_t overflow;        /* frames dropped because the ready list was full */
    uint32_t ready;           /* frames in the ready list now */
    uint32_t ready_max;       /* highest ready count seen */
    uint32_t reserved0;       /* always 0 */
    uint32_t discarded_bytes; /* skipped garbage and discarded frame contents */
    uint32_t reserved1;       /* always 0 */
    uint32_t reset_sec;       /* reset time, local seconds since the epoch */
    uint32_t reset_usec;      /* its sub-second part in microseconds */
    uint32_t reserved2;       /* always 0 */
} vx_stream_state_t;

typedef struct vx_stream vx_stream_t;   /* assembler, opaque */
typedef struct vx_ostream vx_ostream_t; /* header maker, opaque */

/* Fletcher-16 (mod 255) seeded with s1 = seed & 0xFF, s2 = seed >> 8; returns s1 | s2 << 8.
 * An empty buffer (or data NULL) returns the seed. */
TEVIX_API uint16_t vx_stream_hash16(const uint8_t *data, uint32_t len,
                                    uint16_t seed) TEVIX_NOEXCEPT;

/* New assembler whose ready list holds at most *cfg frames. NULL when cfg is NULL or memory runs
 * out. */
TEVIX_API vx_stream_t *vx_stream_create(const uint32_t *cfg) TEVIX_NOEXCEPT;

/* Resets, frees every frame still in the ready list and the assembler. NULL is ignored. */
TEVIX_API void vx_stream_destroy(vx_stream_t *stream) TEVIX_NOEXCEPT;

/* Forgets the frame under assembly, the header state and all statistics (the ready count too),
 * and waits for a header that begins a frame. The ready list is left as it is: drain it first.
 * Takes no lock; call it from the feeding thread. */
TEVIX_API void vx_stream_reset(vx_stream_t *stream) TEVIX_NOEXCEPT;

/* Capacity of the ready list in frames. get_cfg fills *cfg and returns cfg (NULL on bad
 * arguments). */
TEVIX_API void vx_stream_set_cfg(vx_stream_t *stream, const uint32_t *cfg) TEVIX_NOEXCEPT;
TEVIX_API uint32_t *vx_stream_get_cfg(vx_stream_t *stream, uint32_t *cfg) TEVIX_NOEXCEPT;

/* Feeds one transport chunk. Returns true when the ready list holds at least one frame
 * afterwards. One feeding thread per assembler. */
TEVIX_API bool vx_stream_feed_input(vx_stream_t *stream, const uint8_t *data,
                                    uint32_t len) TEVIX_NOEXCEPT;

/*
 * Handles up to max_frames of the oldest ready frames and returns how many. first_info (may be
 * NULL) receives the first frame's descriptor; dst (may be NULL) receives the frames' bytes one
 * after another, cut at dst_size. With peek the frames stay in the list, otherwise they are
 * removed; dst NULL with peek false drops them, dst NULL with peek true only counts.
 */
TEVIX_API uint32_t vx_stream_fetch_frames(vx_stream_t *stream, uint8_t *dst, int32_t dst_size,
                                          uint32_t max_frames, vx_frame_desc_t *first_info,
                                          bool peek) TEVIX_NOEXCEPT;

/* Copies the statistics into *state and returns state (NULL on bad arguments). */
TEVIX_API vx_stream_state_t *vx_stream_get_state(vx_stream_t *stream,
                                                 vx_stream_state_t *state) TEVIX_NOEXCEPT;

/* Header maker: NULL when memory runs out. cfg starts at 0 (no data checksum). */
TEVIX_API vx_ostream_t *vx_ostream_create(void) TEVIX_NOEXCEPT;
TEVIX_API void vx_ostream_destroy(vx_ostream_t *obj) TEVIX_NOEXCEPT;

/* Starts over: no current frame, header counter 0. The cfg is kept. */
TEVIX_API void vx_ostream_reset(vx_ostream_t *obj) TEVIX_NOEXCEPT;

/* cfg bit 0: compute data_cksum. get_cfg fills *cfg and returns cfg (NULL on bad arguments). */
TEVIX_API void vx_ostream_set_cfg(vx_ostream_t *obj, const uint8_t *cfg) TEVIX_NOEXCEPT;
TEVIX_API uint8_t *vx_ostream_get_cfg(vx_ostream_t *obj, uint8_t *cfg) TEVIX_NOEXCEPT;

/*
 * Writes into hdr the 36-byte header for a payload of len bytes carrying (part of) the frame info
 * describes. A new info->fridx begins a frame (fr_bound set); repeating it continues the frame.
 * payload is read only for the data checksum (its first len / 4 words) and may be NULL when the
 * checksum is off. Returns len, or -1 when obj, hdr or info is NULL, len < 0, or the checksum is
 * on and payload is NULL.
 */
TEVIX_API int32_t vx_ostream_mkhdr(vx_ostream_t *obj, uint8_t hdr[36], const vx_frame_desc_t *info,
                                   const uint32_t *payload, int32_t len) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(vx_frame_desc_t) == 20, "raw frame descriptor is 20 bytes");
static_assert(sizeof(vx_stream_hdr_t) == 36, "stream header is 36 bytes");
static_assert(sizeof(vx_stream_state_t) == 48, "stream state is 12 words");
#else
_Static_assert(sizeof(vx_frame_desc_t) == 20, "raw frame descriptor is 20 bytes");
_Static_assert(sizeof(vx_stream_hdr_t) == 36, "stream header is 36 bytes");
_Static_assert(sizeof(vx_stream_state_t) == 48, "stream state is 12 words");
#endif

#endif
