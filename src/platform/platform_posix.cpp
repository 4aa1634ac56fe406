#include "platform/platform.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

namespace tevix::plat {

local_time now_local() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm cal{};
    localtime_r(&ts.tv_sec, &cal);
    local_time t{};
    t.year = static_cast<uint32_t>(cal.tm_year + 1900);
    t.month = static_cast<uint32_t>(cal.tm_mon + 1);
    t.day = static_cast<uint32_t>(cal.tm_mday);
    t.hour = static_cast<uint32_t>(cal.tm_hour);
    t.minute = static_cast<uint32_t>(cal.tm_min);
    t.second = static_cast<uint32_t>(cal.tm_sec);
    t.millisecond = static_cast<uint32_t>(ts.tv_nsec / 1000000);
    t.epoch_seconds = ts.tv_sec;
    return t;
}

void now_utc(int64_t *seconds, uint32_t *microseconds) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    if (seconds) *seconds = ts.tv_sec;
    if (microseconds) *microseconds = static_cast<uint32_t>(ts.tv_nsec / 1000);
}

uint64_t mono_ms() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

uint64_t mono_us() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

uint32_t thread_id() {
    return static_cast<uint32_t>(syscall(SYS_gettid));
}

void sleep_ms(uint32_t ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

bool file_exists(const char *path) {
    return path && access(path, F_OK) == 0;
}

int make_dir(const char *path) {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    return mkdir(path, 0777) == 0 ? 0 : -1;
}

int64_t file_size(const char *path) {
    struct stat st {};
    if (!path || stat(path, &st) != 0) return -1;
    return static_cast<int64_t>(st.st_size);
}

int rename_file(const char *from, const char *to) {
    if (!from || !to) {
        errno = EINVAL;
        return -1;
    }
    return std::rename(from, to) == 0 ? 0 : -1;
}

int remove_file(const char *path) {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    return std::remove(path) == 0 ? 0 : -1;
}

int fd_open(const char *path, const char *mode) {
    if (!path || !mode) return -1;
    int flags = 0;
    switch (mode[0]) {
        case 'r':
            flags = O_RDONLY;
            break;
        case 'w':
            flags = O_WRONLY | O_CREAT | O_TRUNC;
            break;
        case 'a':
            flags = O_WRONLY | O_CREAT | O_APPEND;
            break;
        default:
            return -1;
    }
    for (const char *m = mode + 1; *m; ++m) {
        if (*m == '+')
            flags = (flags & ~(O_RDONLY | O_WRONLY)) | O_RDWR;
        else if (*m == 'x')
            flags |= O_EXCL;
        else if (*m != 'b' && *m != 't')
            return -1;
    }
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int fd_close(int fd) {
    return ::close(fd);
}

int64_t fd_read(int fd, void *buf, size_t len) {
    size_t done = 0;
    while (done < len) {
        const ssize_t n = ::read(fd, static_cast<char *>(buf) + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return done ? int64_t(done) : -1;
        if (n == 0) break;
        done += size_t(n);
    }
    return int64_t(done);
}

int64_t fd_write(int fd, const void *buf, size_t len) {
    size_t done = 0;
    while (done < len) {
        const ssize_t n = ::write(fd, static_cast<const char *>(buf) + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return done ? int64_t(done) : -1;
        done += size_t(n);
    }
    return int64_t(done);
}

int64_t fd_seek(int fd, int64_t offset, int whence) {
    const int w = whence == 0 ? SEEK_SET : whence == 1 ? SEEK_CUR : SEEK_END;
    return int64_t(::lseek(fd, off_t(offset), w));
}

bool stdout_is_terminal() {
    return isatty(STDOUT_FILENO) == 1;
}

void name_thread(const char *name) {
    pthread_setname_np(pthread_self(), name);
}

}  // namespace tevix::plat
