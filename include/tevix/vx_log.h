/*
 * Levelled, coloured, optionally rotating log.
 *
 * A context writes each message to the console (standard output) and, when a log file is open, to
 * that file; each target has its own level threshold and flush switch. Levels: 0 TRC, 1-3 DBG,
 * 4 INF, 5 WRN, 6 ERR; 7 as a threshold lets nothing through. A null context always means the
 * library's default context (vx_log_default()).
 */
#ifndef TEVIX_VX_LOG_H
#define TEVIX_VX_LOG_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include "tevix_export.h"

TEVIX_EXTERN_C_BEGIN

enum {
    VX_LOG_TRC = 0,
    VX_LOG_DBG = 1,
    VX_LOG_DBG2 = 2,
    VX_LOG_DBG3 = 3,
    VX_LOG_INF = 4,
    VX_LOG_WRN = 5,
    VX_LOG_ERR = 6,
    VX_LOG_OFF = 7,
};

/* Log targets of vx_log_cfg. */
enum { VX_LOG_TARGET_CONSOLE = 0, VX_LOG_TARGET_FILE = 1, VX_LOG_TARGET_THIRD = 2 };

struct vx_log_state; /* mutex and rotation settings; owned by the context */

/* A log context. Usable only between a successful vx_log_init and vx_log_uninit. */
typedef struct vx_log {
    FILE *fp;                   /* open log file, or NULL (console only) */
    char *path;                 /* owned copy of the log file path, or NULL */
    char tag[32];               /* default tag, "NONE" when init got none */
    uint32_t level[3];          /* thresholds: console (5), file (1; 7 without a file), third (7) */
    uint8_t flush[3];           /* flush-after-write switches, same order, all off by default */
    uint8_t inited;             /* set last by a successful init */
    struct vx_log_state *state; /* owned shared state */
} vx_log_t;

/* The library's default context (one static record). */
TEVIX_API vx_log_t *vx_log_default(void) TEVIX_NOEXCEPT;

/* Initialises ctx (NULL: the default context). path: log file opened for appending, or NULL for
 * console only; tag: default tag (NULL: "NONE"). Returns the context, or NULL on failure. */
TEVIX_API vx_log_t *vx_log_init(vx_log_t *ctx, const char *path, const char *tag) TEVIX_NOEXCEPT;

/* Closes the file, frees everything and clears the whole context. */
TEVIX_API void vx_log_uninit(vx_log_t *ctx) TEVIX_NOEXCEPT;

/* Sets the level threshold and flush switch of a target (0 console, 1 file, 2 third). Returns 1
 * on success; 0 when the context is not initialised, or for the file target when no file is open
 * (its flush switch is stored all the same). */
TEVIX_API int vx_log_cfg(vx_log_t *ctx, uint32_t target, uint32_t level,
                         uint8_t flush) TEVIX_NOEXCEPT;

/* Rotation: when a write leaves the file beyond max_size bytes, the file is moved to backup_path
 * (replacing an older backup) and a new empty file is started. */
TEVIX_API void vx_log_rotate_enable(vx_log_t *ctx, const char *backup_path,
                                    uint64_t max_size) TEVIX_NOEXCEPT;
TEVIX_API void vx_log_rotate_disable(vx_log_t *ctx) TEVIX_NOEXCEPT;

/* Reopens the log file ("wb" when truncate is set, else "ab"), rotating it first when rotation is
 * on and the file is beyond the limit. Does nothing when no file is open. */
TEVIX_API void vx_log_reload(vx_log_t *ctx, int truncate) TEVIX_NOEXCEPT;

/* Formatted message with the prefix "YYYYMMDD hh:mm:ss.mmm[thread][tag]". tag NULL: the
 * context's default tag. No newline is added. */
TEVIX_API void vx_log(vx_log_t *ctx, uint32_t level, const char *tag, const char *fmt,
                      ...) TEVIX_NOEXCEPT TEVIX_PRINTF(4, 5);

/* As vx_log; with raw set no prefix is made (colour is still applied on a terminal). */
TEVIX_API void vx_log_fprintf(vx_log_t *ctx, uint32_t level, int raw, const char *tag,
                              const char *fmt, ...) TEVIX_NOEXCEPT TEVIX_PRINTF(5, 6);
TEVIX_API void vx_log_vfprintf(vx_log_t *ctx, uint32_t level, int raw, const char *tag,
                               const char *fmt, va_list args) TEVIX_NOEXCEPT TEVIX_PRINTF(5, 0);

/* Message without prefix. */
TEVIX_API void vx_log_raw(vx_log_t *ctx, uint32_t level, const char *fmt, ...) TEVIX_NOEXCEPT
    TEVIX_PRINTF(3, 4);

/* Hex dump, one write per line of 16 bytes: "OOOO: " offset, 16 "XX " columns (blank-padded),
 * three blanks, 16 printable characters ('.' otherwise, blank-padded). */
TEVIX_API void vx_log_hex(vx_log_t *ctx, uint32_t level, const void *data, int len,
                          int with_prefix) TEVIX_NOEXCEPT;

/* Quoted dump in one write: "<address> \"<printable bytes>\"", or, when a non-printable byte stops
 * the run, "<address> \"<bytes>...\"(len=N)"; cut at bufsize bytes of text. */
TEVIX_API void vx_log_memstr(vx_log_t *ctx, uint32_t level, const void *data, uint32_t len,
                             uint32_t bufsize, int with_prefix) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#endif
