// The few operating-system calls the library needs. Everything else uses the C++ standard
// library; a Windows port replaces platform_posix.cpp only.
#pragma once

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

// Whether standard output is a terminal (coloured console logs).
bool stdout_is_terminal();

}  // namespace tevix::plat
