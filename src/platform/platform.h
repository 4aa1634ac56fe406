// The few operating-system calls the library needs. Everything else uses the C++ standard
// library; a Windows port replaces platform_posix.cpp only.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tevix::plat {

// Local wall-clock time broken down to milliseconds.
struct local_time {
    uint32_t year, month, day;  // month 1..12
    uint32_t hour, minute, second, millisecond;
    int64_t epoch_seconds;  // seconds since 1970 UTC
};

local_time now_local();
// Seconds and microseconds since 1970 UTC.
void now_utc(int64_t *seconds, uint32_t *microseconds);
// Monotonic milliseconds for measuring intervals.
uint64_t mono_ms();
// Monotonic microseconds.
uint64_t mono_us();
// Numeric id of the calling thread, as the operating system shows it.
uint32_t thread_id();
void sleep_ms(uint32_t ms);
// Names the calling thread (at most 15 characters), so that tools and tests can tell the
// library's threads apart.
void name_thread(const char *name);

// File system: each returns 0 on success, -1 on failure (errno set).
bool file_exists(const char *path);   // the _access(path, 0) test
int make_dir(const char *path);       // a single directory level
int64_t file_size(const char *path);  // -1 when it cannot be read
int rename_file(const char *from, const char *to);
int remove_file(const char *path);

// File descriptors. fd_open takes the mode text of the C runtime's open-by-name ("rb", "wb",
// "ab", "r+b", "w+b", "a+b"; 'b' is accepted and ignored, 'x' adds exclusive creation) and
// returns -1 for a mode it does not know or a file it cannot open. Reads and writes move as much
// as they can (retrying after signals) and return the bytes moved, -1 on an error.
int fd_open(const char *path, const char *mode);
int fd_close(int fd);
int64_t fd_read(int fd, void *buf, size_t len);
int64_t fd_write(int fd, const void *buf, size_t len);
int64_t fd_seek(int fd, int64_t offset, int whence);  // whence 0 set, 1 current, 2 end

// Whether standard output is a terminal (coloured console logs).
bool stdout_is_terminal();

}  // namespace tevix::plat
