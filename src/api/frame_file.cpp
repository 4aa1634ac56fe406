// Frame files: one text header line naming the kind, the sample type and the geometry, then whole
// frames of little-endian samples. A save writes the header only when the descriptor stands at
// its start, so repeated saves through one descriptor give one header and many frames. The
// loaders keep one header record per kind for the whole process (not per descriptor): a file is
// read from its start, and two files of one kind cannot be read in alternation.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "log/log.h"
#include "platform/platform.h"
#include "tevix/tevix.h"

namespace {

namespace plat = tevix::plat;

constexpr size_t k_header_max = 256;
// A frame beyond this many bytes is taken for a damaged header rather than allocated.
constexpr uint64_t k_frame_max = 1ull << 30;

enum class kind { raw, dist, gray };

// The geometry and sample type a loader read from the start of its last file.
struct header_state {
    int width = 0, height = 0, subframes = 0;
    int bytes = 0;  // bytes a sample
    bool is_float = false;
    int scale = 1;  // stored value x scale = the caller's value (grey U8)
};

std::mutex g_header_mtx;
header_state g_header[3];

bool _at_start(int fd) {
    return plat::fd_seek(fd, 0, 1) == 0;
}

// Writes the header line; 0 when the write fell short.
bool _write_header(int fd, const char *text) {
    const size_t len = std::strlen(text);
    return plat::fd_write(fd, text, len) == int64_t(len);
}

// Writes `bytes`; logs `what` with the bytes written when it falls short.
bool _write_data(int fd, const void *data, size_t bytes, const char *fn, const char *what) {
    const int64_t n = plat::fd_write(fd, data, bytes);
    if (n == int64_t(bytes)) return true;
    VX_LOG_AS(6, fn, what, int(n < 0 ? 0 : n));
    return false;
}

// The tag of a raw header: one word of printable characters (spaces and commas become '_'),
// at most 32 of them, "-" when there is none.
void _tag(const char *tag, char out[33]) {
    size_t n = 0;
    for (; tag && tag[n] && n < 32; ++n) {
        const unsigned char c = static_cast<unsigned char>(tag[n]);
        out[n] = c > 0x20 && c < 0x7F && c != ',' ? char(c) : '_';
    }
    if (n == 0) out[n++] = '-';
    out[n] = '\0';
}

uint32_t _mm_u32(float metres) {
    const double mm = std::nearbyint(double(metres) * 1000.0);
    return mm > 0 ? uint32_t(std::min(mm, 4294967295.0)) : 0;
}

uint16_t _round_u16(double v) {
    const double r = std::nearbyint(v);
    return r > 0 ? uint16_t(std::min(r, 65535.0)) : 0;
}

// Reads and parses the header of `k` at the descriptor's start; false (state cleared) when the
// line is not one of the kind's headers.
bool _read_header(int fd, kind k, const char *fn) {
    char line[k_header_max + 1] = {};
    const int64_t got = plat::fd_read(fd, line, k_header_max);
    const char *nl =
        got > 0 ? static_cast<const char *>(std::memchr(line, '\n', size_t(got))) : nullptr;
    header_state h;
    bool ok = false;
    if (nl) {
        const size_t len = size_t(nl - line);
        line[len] = '\0';
        int used = 0;
        char tag[33] = {};
        auto whole = [&](int fields, int want) { return fields == want && size_t(used) == len; };
        switch (k) {
            case kind::raw:
                if (whole(std::sscanf(line, "VX_RAW,U32,%d,%d,%d,%32s%n", &h.width, &h.height,
                                      &h.subframes, tag, &used),
                          4)) {
                    h.bytes = 4, ok = true;
                } else if (whole(std::sscanf(line, "VX_RAW,U16,%d,%d,%d,%32s%n", &h.width,
                                             &h.height, &h.subframes, tag, &used),
                                 4)) {
                    h.bytes = 2, ok = true;
                }
                break;
            case kind::dist:
                h.subframes = 1;
                if (whole(std::sscanf(line, "VX_DIST,F32,%d,%d%n", &h.width, &h.height, &used), 2))
                    h.bytes = 4, h.is_float = true, ok = true;
                else if (whole(std::sscanf(line, "VX_DIST,U32,%d,%d%n", &h.width, &h.height, &used),
                               2))
                    h.bytes = 4, ok = true;
                else if (whole(std::sscanf(line, "VX_DIST,U16,%d,%d%n", &h.width, &h.height, &used),
                               2))
                    h.bytes = 2, ok = true;
                break;
            case kind::gray:
                h.subframes = 1;
                if (whole(std::sscanf(line, "VX_GRAY,U8,%d,%d%n", &h.width, &h.height, &used), 2))
                    h.bytes = 1, h.scale = TEVIX_GRAY_U8_SCALE, ok = true;
                else if (whole(std::sscanf(line, "VX_GRAY,U16,%d,%d%n", &h.width, &h.height, &used),
                               2))
                    h.bytes = 2, ok = true;
                break;
        }
        // A geometry of nothing, or of more than any camera sends, is a damaged header too.
        ok = ok && h.width > 0 && h.height > 0 && h.subframes > 0 &&
             uint64_t(h.width) * uint64_t(h.height) * uint64_t(h.subframes) * uint64_t(h.bytes) <=
                 k_frame_max;
        if (ok && plat::fd_seek(fd, int64_t(len) + 1, 0) != int64_t(len) + 1) ok = false;
    }
    std::lock_guard lk(g_header_mtx);
    g_header[int(k)] = ok ? h : header_state{};
    if (!ok) VX_LOG_AS(6, fn, "[%s]faile to load VX file header\n");
    return ok;
}

// Reads one frame of kind `k` into a buffer of its stored samples; 0 samples on failure.
std::unique_ptr<uint8_t[]> _read_frame(int fd, kind k, const char *fn, header_state *out,
                                       uint32_t dst_len) {
    if (_at_start(fd) && !_read_header(fd, k, fn)) return nullptr;
    header_state h;
    {
        std::lock_guard lk(g_header_mtx);
        h = g_header[int(k)];
    }
    if (h.width == 0 || h.height == 0 || h.subframes == 0) return nullptr;
    const uint64_t samples = uint64_t(h.width) * uint64_t(h.height) * uint64_t(h.subframes);
    if (samples > dst_len) {
        VX_LOG_AS(6, fn, "[%s]wrong param: dst_len=%u, frame=%llu\n", dst_len,
                  static_cast<unsigned long long>(samples));
        return nullptr;
    }
    const size_t bytes = size_t(samples) * size_t(h.bytes);
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[bytes]);
    if (!buf) {
        VX_LOG_AS(6, fn, "[%s]malloc failed!\n");
        return nullptr;
    }
    const int64_t got = plat::fd_read(fd, buf.get(), bytes);
    if (got != int64_t(bytes)) {
        VX_LOG_AS(6, fn, "[%s]read %d date failed: ret= %d\n", int(bytes), int(got));
        return nullptr;
    }
    *out = h;
    return buf;
}

template <class T>
T _sample(const uint8_t *p, size_t i) {
    T v;
    std::memcpy(&v, p + i * sizeof(T), sizeof(T));
    return v;
}

void _geometry(const header_state &h, uint32_t *width, uint32_t *height) {
    if (width) *width = uint32_t(h.width);
    if (height) *height = uint32_t(h.height);
}

}  // namespace

extern "C" {

int tevix_file_open(const char *path, const char *mode) noexcept {
    return plat::fd_open(path, mode);
}

int tevix_file_close(int fd) noexcept {
    return plat::fd_close(fd);
}

int tevix_frame_save_raw(int fd, int format, const uint16_t *raw, int raw_len, int width,
                         int height, int subframes, const char *tag) noexcept {
    const int64_t frame = int64_t(width) * height * subframes;
    if (fd < 0 || !raw || width <= 0 || height <= 0 || subframes <= 0 || raw_len <= 0 ||
        raw_len % frame != 0) {
        VX_ERR("[%s]wrong param: raw_len=%d, w=%d, h=%d\n", raw_len, width, height);
        return 0;
    }
    if (format != TEVIX_FILE_U32 && format != TEVIX_FILE_U16) {
        VX_ERR("[%s]wrong raw save format: %d\n", format);
        return 0;
    }
    if (_at_start(fd)) {
        char t[33], header[k_header_max];
        _tag(tag, t);
        std::snprintf(
            header, sizeof header,
            format == TEVIX_FILE_U32 ? "VX_RAW,U32,%d,%d,%d,%s\n" : "VX_RAW,U16,%d,%d,%d,%s\n",
            width, height, subframes, t);
        if (!_write_header(fd, header)) {
            VX_ERR("[%s]faile to save VX_RAW header\n");
            return 0;
        }
    }
    const size_t n = size_t(raw_len);
    if (format == TEVIX_FILE_U16)
        return _write_data(fd, raw, n * 2, __func__,
                           "[%s]faile to save VX_RAW U16 data: %d bytes\n");
    std::unique_ptr<uint32_t[]> wide(new (std::nothrow) uint32_t[n]);
    if (!wide) {
        VX_ERR("[%s]malloc failed!\n");
        return 0;
    }
    std::copy(raw, raw + n, wide.get());
    return _write_data(fd, wide.get(), n * 4, __func__,
                       "[%s]faile to save VX_RAW U32 data: %d bytes\n");
}

int tevix_frame_save_distance(int fd, int format, const float *dist, int dist_len, int width,
                              int height) noexcept {
    const int64_t px = int64_t(width) * height;
    if (fd < 0 || !dist || width <= 0 || height <= 0 || dist_len < px) {
        VX_ERR("[%s]wrong param: dist_len=%d, w=%d, h=%d\n", dist_len, width, height);
        return 0;
    }
    const char *header_fmt = format == TEVIX_FILE_F32   ? "VX_DIST,F32,%d,%d\n"
                             : format == TEVIX_FILE_U32 ? "VX_DIST,U32,%d,%d\n"
                             : format == TEVIX_FILE_U16 ? "VX_DIST,U16,%d,%d\n"
                                                        : nullptr;
    if (!header_fmt) {
        VX_ERR("[%s]wrong distance save format: %d\n", format);
        return 0;
    }
    if (_at_start(fd)) {
        char header[k_header_max];
        std::snprintf(header, sizeof header, header_fmt, width, height);
        if (!_write_header(fd, header)) {
            VX_ERR("[%s]faile to save VX_DIST header\n");
            return 0;
        }
    }
    // Whole frames only.
    const size_t n = size_t(dist_len / px * px);
    if (format == TEVIX_FILE_F32)
        return _write_data(fd, dist, n * 4, __func__,
                           "[%s]faile to save VX_DIST F32 data: %d bytes\n");
    if (format == TEVIX_FILE_U32) {
        std::unique_ptr<uint32_t[]> mm(new (std::nothrow) uint32_t[n]);
        if (!mm) {
            VX_ERR("[%s]malloc failed!\n");
            return 0;
        }
        for (size_t i = 0; i < n; ++i) mm[i] = _mm_u32(dist[i]);
        return _write_data(fd, mm.get(), n * 4, __func__,
                           "[%s]faile to save VX_DIST U32 data: %d bytes\n");
    }
    std::unique_ptr<uint16_t[]> mm(new (std::nothrow) uint16_t[n]);
    if (!mm) {
        VX_ERR("[%s]malloc failed!\n");
        return 0;
    }
    for (size_t i = 0; i < n; ++i) mm[i] = _round_u16(double(dist[i]) * 1000.0);
    return _write_data(fd, mm.get(), n * 2, __func__,
                       "[%s]faile to save VX_DIST U16 data: %d bytes\n");
}

int tevix_frame_save_gray(int fd, int format, const float *gray, int gray_len, int width,
                          int height) noexcept {
    const int64_t px = int64_t(width) * height;
    if (fd < 0 || !gray || width <= 0 || height <= 0 || gray_len < px) {
        VX_ERR("[%s]wrong param: gray_len=%d, w=%d, h=%d\n", gray_len, width, height);
        return 0;
    }
    if (format != TEVIX_FILE_GRAY_U8 && format != TEVIX_FILE_U16) {
        VX_ERR("[%s]wrong gray save format: %d\n", format);
        return 0;
    }
    if (_at_start(fd)) {
        char header[k_header_max];
        std::snprintf(header, sizeof header,
                      format == TEVIX_FILE_GRAY_U8 ? "VX_GRAY,U8,%d,%d\n" : "VX_GRAY,U16,%d,%d\n",
                      width, height);
        if (!_write_header(fd, header)) {
            VX_ERR("[%s]faile to save VX_GRAY header\n");
            return 0;
        }
    }
    const size_t n = size_t(gray_len / px * px);
    if (format == TEVIX_FILE_GRAY_U8) {
        std::unique_ptr<uint8_t[]> g(new (std::nothrow) uint8_t[n]);
        if (!g) {
            VX_ERR("[%s]malloc failed!\n");
            return 0;
        }
        for (size_t i = 0; i < n; ++i)
            g[i] =
                uint8_t(std::min<uint16_t>(_round_u16(double(gray[i]) / TEVIX_GRAY_U8_SCALE), 255));
        return _write_data(fd, g.get(), n, __func__,
                           "[%s]faile to save VX_GRAY U8 data: %d bytes\n");
    }
    std::unique_ptr<uint16_t[]> g(new (std::nothrow) uint16_t[n]);
    if (!g) {
        VX_ERR("[%s]malloc failed!\n");
        return 0;
    }
    for (size_t i = 0; i < n; ++i) g[i] = _round_u16(gray[i]);
    return _write_data(fd, g.get(), n * 2, __func__,
                       "[%s]faile to save VX_GRAY U16 data: %d bytes\n");
}

int tevix_frame_load_raw(int fd, uint16_t *dst, uint32_t dst_len, uint32_t *width, uint32_t *height,
                         uint32_t *subframes) noexcept {
    if (fd < 0 || !dst) {
        VX_ERR("[%s]Wrong params\n");
        return 0;
    }
    header_state h;
    const auto buf = _read_frame(fd, kind::raw, __func__, &h, dst_len);
    if (!buf) return 0;
    const size_t n = size_t(h.width) * size_t(h.height) * size_t(h.subframes);
    for (size_t i = 0; i < n; ++i)
        dst[i] = h.bytes == 4 ? uint16_t(_sample<uint32_t>(buf.get(), i))
                              : _sample<uint16_t>(buf.get(), i);
    _geometry(h, width, height);
    if (subframes) *subframes = uint32_t(h.subframes);
    return int(n);
}

int tevix_frame_load_distance(int fd, float *dst, uint32_t dst_len, uint32_t *width,
                              uint32_t *height) noexcept {
    if (fd < 0 || !dst) {
        VX_ERR("[%s]Wrong params\n");
        return 0;
    }
    header_state h;
    const auto buf = _read_frame(fd, kind::dist, __func__, &h, dst_len);
    if (!buf) return 0;
    const size_t n = size_t(h.width) * size_t(h.height);
    for (size_t i = 0; i < n; ++i)
        dst[i] = h.is_float     ? _sample<float>(buf.get(), i)
                 : h.bytes == 4 ? float(double(_sample<uint32_t>(buf.get(), i)) / 1000.0)
                                : float(double(_sample<uint16_t>(buf.get(), i)) / 1000.0);
    _geometry(h, width, height);
    return int(n);
}

int tevix_frame_load_gray(int fd, float *dst, uint32_t dst_len, uint32_t *width,
                          uint32_t *height) noexcept {
    if (fd < 0 || !dst) {
        VX_ERR("[%s]Wrong params\n");
        return 0;
    }
    header_state h;
    const auto buf = _read_frame(fd, kind::gray, __func__, &h, dst_len);
    if (!buf) return 0;
    const size_t n = size_t(h.width) * size_t(h.height);
    for (size_t i = 0; i < n; ++i)
        dst[i] = h.bytes == 1 ? float(buf[i] * h.scale) : float(_sample<uint16_t>(buf.get(), i));
    _geometry(h, width, height);
    return int(n);
}

}  // extern "C"
