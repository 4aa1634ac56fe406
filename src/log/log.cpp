#include "log/log.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "platform/platform.h"

struct vx_log_state {
    std::mutex mtx;
    uint8_t rotate_en = 0;
    uint64_t rotate_size = 0;
    char *backup_path = nullptr;
    uint8_t is_tty = 0;
};

namespace {

vx_log_t g_default_ctx{};

constexpr const char *k_colours[7] = {"\033[36;1m", "\033[37m",   "\033[37;1m", "\033[30;1m",
                                      "\033[35;1m", "\033[33;1m", "\033[31;1m"};
constexpr const char *k_colour_reset = "\033[0m";

const char *_colour_of(uint32_t level) {
    return level < 7 ? k_colours[level] : "\033[31;1m";
}

vx_log_t *_ctx_or_default(vx_log_t *ctx) {
    return ctx ? ctx : &g_default_ctx;
}

char *_dup(const char *s) {
    if (!s) return nullptr;
    size_t n = std::strlen(s) + 1;
    char *p = static_cast<char *>(std::malloc(n));
    if (p) std::memcpy(p, s, n);
    return p;
}

// Reopens the file under the mutex. only_if_over: the writer's rotation check; it re-reads the
// position under the lock so that two writers crossing the limit together rotate once.
void _reload(vx_log_t *ctx, int truncate, bool only_if_over) {
    vx_log_state *st = ctx->state;
    std::lock_guard<std::mutex> lock(st->mtx);
    if (!ctx->fp) return;
    long pos = std::ftell(ctx->fp);
    bool over = st->rotate_en && st->backup_path && pos >= 0 &&
                st->rotate_size < static_cast<uint64_t>(pos);
    if (only_if_over && !over) return;
    std::fclose(ctx->fp);
    ctx->fp = nullptr;
    if (over) {
        tevix::plat::remove_file(st->backup_path);
        int r = tevix::plat::rename_file(ctx->path, st->backup_path);
        if (r != 0) std::printf("rename log to %s failed: r=%d\n", st->backup_path, r);
    }
    ctx->fp = std::fopen(ctx->path, truncate ? "wb" : "ab");
    if (!ctx->fp) std::fprintf(stderr, "cannot reopen file %s for write\n", ctx->path);
}

void _write(vx_log_t *ctx, uint32_t level, int raw, const char *tag, const char *fmt,
            va_list args) {
    ctx = _ctx_or_default(ctx);
    if (!ctx->inited) return;
    // The path is fixed for the context's life; the file itself is checked again under the lock.
    bool to_file = ctx->path && level >= ctx->level[VX_LOG_TARGET_FILE];
    bool to_console = level >= ctx->level[VX_LOG_TARGET_CONSOLE];
    if (!to_file && !to_console) return;

    vx_log_state *st = ctx->state;
    char prefix[128];
    prefix[0] = '\0';
    if (!raw) {
        tevix::plat::local_time t{};
        {
            std::lock_guard<std::mutex> lock(st->mtx);
            t = tevix::plat::now_local();
        }
        std::snprintf(prefix, sizeof prefix, "%04u%02u%02u %02u:%02u:%02u.%03u[%u][%s]", t.year,
                      t.month, t.day, t.hour, t.minute, t.second, t.millisecond,
                      tevix::plat::thread_id(), tag ? tag : ctx->tag);
    }

    char small[1024];
    std::string big;
    const char *msg = small;
    size_t msg_len = 0;
    if (!fmt) {
        small[0] = '\0';
    } else {
        va_list copy;
        va_copy(copy, args);
        int n = std::vsnprintf(small, sizeof small, fmt, copy);
        va_end(copy);
        if (n < 0) {
            small[0] = '\0';
        } else if (static_cast<size_t>(n) >= sizeof small) {
            big.resize(static_cast<size_t>(n) + 1);
            std::vsnprintf(big.data(), big.size(), fmt, args);
            big.resize(static_cast<size_t>(n));
            msg = big.c_str();
            msg_len = big.size();
        } else {
            msg_len = static_cast<size_t>(n);
        }
    }
    if (msg == small) msg_len = std::strlen(small);
    size_t prefix_len = std::strlen(prefix);

    if (to_console) {
        if (st->is_tty) {
            std::fputs(_colour_of(level), stdout);
            std::fwrite(prefix, 1, prefix_len, stdout);
            std::fwrite(msg, 1, msg_len, stdout);
            std::fputs(k_colour_reset, stdout);
        } else {
            std::fwrite(prefix, 1, prefix_len, stdout);
            std::fwrite(msg, 1, msg_len, stdout);
        }
        if (ctx->flush[VX_LOG_TARGET_CONSOLE]) std::fflush(stdout);
    }

    if (to_file) {
        bool rotate = false;
        {
            std::lock_guard<std::mutex> lock(st->mtx);
            if (!ctx->fp) return;
            std::fwrite(prefix, 1, prefix_len, ctx->fp);
            std::fwrite(msg, 1, msg_len, ctx->fp);
            if (ctx->flush[VX_LOG_TARGET_FILE]) std::fflush(ctx->fp);
            if (st->rotate_en && st->backup_path) {
                long pos = std::ftell(ctx->fp);
                rotate = pos >= 0 && static_cast<uint64_t>(pos) > st->rotate_size;
            }
        }
        if (rotate) _reload(ctx, 1, true);
    }
}

}  // namespace

extern "C" {

vx_log_t *vx_log_default(void) noexcept {
    return &g_default_ctx;
}

vx_log_t *vx_log_init(vx_log_t *ctx, const char *path, const char *tag) noexcept {
    ctx = _ctx_or_default(ctx);
    std::memset(static_cast<void *>(ctx), 0, sizeof *ctx);
    ctx->level[VX_LOG_TARGET_CONSOLE] = VX_LOG_WRN;
    ctx->level[VX_LOG_TARGET_FILE] = VX_LOG_DBG;
    ctx->level[VX_LOG_TARGET_THIRD] = VX_LOG_OFF;
    if (path) {
        ctx->fp = std::fopen(path, "ab");
        if (!ctx->fp) {
            std::fprintf(stderr, "cannot open file %s for write\n", path);
            std::memset(static_cast<void *>(ctx), 0, sizeof *ctx);
            return nullptr;
        }
        ctx->path = _dup(path);
        if (!ctx->path) {
            std::fclose(ctx->fp);
            std::memset(static_cast<void *>(ctx), 0, sizeof *ctx);
            return nullptr;
        }
    } else {
        ctx->level[VX_LOG_TARGET_FILE] = VX_LOG_OFF;
    }
    std::snprintf(ctx->tag, sizeof ctx->tag, "%s", tag ? tag : "NONE");
    ctx->state = new (std::nothrow) vx_log_state;
    if (!ctx->state) {
        std::fprintf(stderr, "malloc failed\n");
        std::exit(-3);
    }
    ctx->state->is_tty = tevix::plat::stdout_is_terminal() ? 1 : 0;
    ctx->inited = 1;
    return ctx;
}

void vx_log_uninit(vx_log_t *ctx) noexcept {
    ctx = _ctx_or_default(ctx);
    if (ctx->fp) std::fclose(ctx->fp);
    std::free(ctx->path);
    if (ctx->state) {
        std::free(ctx->state->backup_path);
        delete ctx->state;
    }
    std::memset(static_cast<void *>(ctx), 0, sizeof *ctx);
}

int vx_log_cfg(vx_log_t *ctx, uint32_t target, uint32_t level, uint8_t flush) noexcept {
    ctx = _ctx_or_default(ctx);
    // Targets beyond the three slots would write past the arrays: refused.
    if (target > VX_LOG_TARGET_THIRD) return 0;
    ctx->flush[target] = flush;
    if (!ctx->inited) return 0;
    if (target == VX_LOG_TARGET_FILE && !ctx->fp) return 0;
    ctx->level[target] = level;
    return 1;
}

void vx_log_rotate_enable(vx_log_t *ctx, const char *backup_path, uint64_t max_size) noexcept {
    ctx = _ctx_or_default(ctx);
    if (!ctx->inited) return;
    std::lock_guard<std::mutex> lock(ctx->state->mtx);
    ctx->state->rotate_size = max_size;
    std::free(ctx->state->backup_path);
    ctx->state->backup_path = _dup(backup_path);
    ctx->state->rotate_en = 1;
}

void vx_log_rotate_disable(vx_log_t *ctx) noexcept {
    ctx = _ctx_or_default(ctx);
    if (!ctx->inited) return;
    std::lock_guard<std::mutex> lock(ctx->state->mtx);
    ctx->state->rotate_en = 0;
}

void vx_log_reload(vx_log_t *ctx, int truncate) noexcept {
    ctx = _ctx_or_default(ctx);
    if (!ctx->inited) return;
    _reload(ctx, truncate, false);
}

void vx_log(vx_log_t *ctx, uint32_t level, const char *tag, const char *fmt, ...) noexcept {
    va_list args;
    va_start(args, fmt);
    _write(ctx, level, 0, tag, fmt, args);
    va_end(args);
}

void vx_log_fprintf(vx_log_t *ctx, uint32_t level, int raw, const char *tag, const char *fmt,
                    ...) noexcept {
    va_list args;
    va_start(args, fmt);
    _write(ctx, level, raw, tag, fmt, args);
    va_end(args);
}

void vx_log_vfprintf(vx_log_t *ctx, uint32_t level, int raw, const char *tag, const char *fmt,
                     va_list args) noexcept {
    _write(ctx, level, raw, tag, fmt, args);
}

void vx_log_raw(vx_log_t *ctx, uint32_t level, const char *fmt, ...) noexcept {
    va_list args;
    va_start(args, fmt);
    _write(ctx, level, 1, nullptr, fmt, args);
    va_end(args);
}

void vx_log_hex(vx_log_t *ctx, uint32_t level, const void *data, int len,
                int with_prefix) noexcept {
    if (!data || len < 1) return;
    const auto *p = static_cast<const uint8_t *>(data);
    for (int ofs = 0; ofs < len; ofs += 16) {
        char line[96];
        int n = std::snprintf(line, sizeof line, "%04X: ", static_cast<unsigned>(ofs));
        for (int i = 0; i < 16; ++i) {
            if (ofs + i < len)
                n += std::snprintf(line + n, sizeof line - n, "%02X ", p[ofs + i]);
            else
                n += std::snprintf(line + n, sizeof line - n, "   ");
        }
        n += std::snprintf(line + n, sizeof line - n, "   ");
        for (int i = 0; i < 16; ++i) {
            char c = ' ';
            if (ofs + i < len) c = (p[ofs + i] >= 0x20 && p[ofs + i] <= 0x7E) ? p[ofs + i] : '.';
            line[n++] = c;
        }
        line[n++] = '\n';
        line[n] = '\0';
        vx_log_fprintf(ctx, level, !with_prefix, nullptr, "%s", line);
    }
}

void vx_log_memstr(vx_log_t *ctx, uint32_t level, const void *data, uint32_t len, uint32_t bufsize,
                   int with_prefix) noexcept {
    if (!data || len == 0 || bufsize == 0) return;
    char *buf = static_cast<char *>(std::malloc(bufsize));
    if (!buf) return;
    const auto *p = static_cast<const uint8_t *>(data);
    size_t n = 0;
    auto put = [&](const char *fmt, auto... args) {
        if (n + 1 >= bufsize) return;
        int w = std::snprintf(buf + n, bufsize - n, fmt, args...);
        if (w > 0) n = std::min<size_t>(n + static_cast<size_t>(w), bufsize - 1);
    };
    put("%p \"", data);
    uint32_t i = 0;
    for (; i < len && std::isprint(p[i]); ++i) put("%c", p[i]);
    if (i == len)
        put("%s", "\"");
    else
        put("...\"(len=%u)", len);
    buf[n] = '\0';
    vx_log_fprintf(ctx, level, !with_prefix, nullptr, "%s", buf);
    std::free(buf);
}

}  // extern "C"
