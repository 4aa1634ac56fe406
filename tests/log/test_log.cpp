#include <fcntl.h>
#include <printf.h>
#include <pty.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "test_util.h"
#include "tevix/vx_log.h"

using tevix::test::read_file;
using tevix::test::split_lines;
using tevix::test::temp_dir;

namespace {

// Counts how often the custom conversion "%W" is formatted, so a test can tell whether a message
// was formatted at all.
std::atomic<int> g_formatted{0};

int _count_printf(FILE *stream, const struct printf_info *, const void *const *) {
    ++g_formatted;
    return std::fprintf(stream, "Z");
}
int _count_arginfo(const struct printf_info *, size_t n, int *types, int *) {
    if (n > 0) types[0] = PA_INT;
    return 1;
}

// Runs fn with standard output redirected to fd; returns after restoring it.
template <class F>
void _with_stdout(int fd, F fn) {
    std::fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    ASSERT_GE(saved, 0);
    dup2(fd, STDOUT_FILENO);
    fn();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
}

std::string _read_fd(int fd) {
    std::string out;
    char buf[4096];
    int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

class log_file : public ::testing::Test {
  protected:
    void SetUp() override {
        path_ = dir_.file("test.log");
        ASSERT_NE(vx_log_init(&ctx_, path_.c_str(), "VX"), nullptr);
        vx_log_cfg(&ctx_, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
        vx_log_cfg(&ctx_, VX_LOG_TARGET_FILE, VX_LOG_TRC, 1);
    }
    void TearDown() override { vx_log_uninit(&ctx_); }

    temp_dir dir_;
    std::string path_;
    vx_log_t ctx_{};
};

}  // namespace

// Prefixed lines carry date, time, thread and tag; raw ones only their text, however long.
TEST_F(log_file, prefix_has_date_time_thread_and_tag) {
    tevix::plat::local_time before = tevix::plat::now_local();
    vx_log(&ctx_, VX_LOG_ERR, "ERR", "[%s]hello %d\n", "fn", 42);
    vx_log(&ctx_, VX_LOG_INF, nullptr, "no tag\n");
    vx_log_raw(&ctx_, VX_LOG_ERR, "raw %s\n", "text");
    vx_log_fprintf(&ctx_, VX_LOG_ERR, 1, "X", "also raw\n");
    vx_log(&ctx_, VX_LOG_ERR, "T", nullptr);
    vx_log_raw(&ctx_, VX_LOG_ERR, "\n");
    const std::string big(5000, 'x');
    vx_log_raw(&ctx_, VX_LOG_ERR, "%s|\n", big.c_str());
    const std::string text = read_file(path_);
    std::vector<std::string> lines = split_lines(text);
    ASSERT_EQ(lines.size(), 6u);

    std::regex re(
        R"(^(\d{4})(\d{2})(\d{2}) (\d{2}):(\d{2}):(\d{2})\.(\d{3})\[(\d+)\]\[ERR\]\[fn\]hello 42$)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, re)) << lines[0];
    EXPECT_EQ(std::stoul(m[1]), before.year);
    EXPECT_EQ(std::stoul(m[2]), before.month);
    EXPECT_LT(std::stoul(m[7]), 1000u);
    EXPECT_EQ(std::stoul(m[8]), tevix::plat::thread_id());
    // A call without a tag uses the context's default tag.
    EXPECT_NE(lines[1].find("][VX]no tag"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[2], "raw text");
    EXPECT_EQ(lines[3], "also raw");
    // A missing format string is an empty message after the prefix.
    EXPECT_TRUE(std::regex_match(lines[4], std::regex(R"(^\d{8} [0-9:.]{12}\[\d+\]\[T\]$)")))
        << lines[4];
    EXPECT_EQ(text.substr(text.size() - big.size() - 3), "\n" + big + "|\n");
}

TEST_F(log_file, thresholds_select_targets_and_skip_formatting) {
    static bool registered = [] {
        return register_printf_specifier('W', _count_printf, _count_arginfo) == 0;
    }();
    ASSERT_TRUE(registered);
    // A format held in a variable keeps the compiler's format check away from the custom %W.
    const char *fmt = "%W\n";

    vx_log_cfg(&ctx_, VX_LOG_TARGET_FILE, VX_LOG_WRN, 1);
    g_formatted = 0;
    vx_log(&ctx_, VX_LOG_INF, "INF", fmt, 1);  // below both thresholds
    EXPECT_EQ(g_formatted.load(), 0);
    EXPECT_EQ(read_file(path_), "");

    vx_log(&ctx_, VX_LOG_WRN, "WRN", fmt, 1);  // at the file threshold
    EXPECT_EQ(g_formatted.load(), 1);
    EXPECT_NE(read_file(path_).find("[WRN]Z"), std::string::npos);

    vx_log_cfg(&ctx_, VX_LOG_TARGET_FILE, VX_LOG_OFF, 1);
    vx_log(&ctx_, VX_LOG_ERR, "ERR", fmt, 1);  // level 6 passes nothing at threshold 7
    EXPECT_EQ(g_formatted.load(), 1);
}

TEST(log, console_is_coloured_on_a_terminal_only) {
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    vx_log_t ctx{};
    _with_stdout(slave, [&] {
        ASSERT_NE(vx_log_init(&ctx, nullptr, "VX"), nullptr);
        vx_log_cfg(&ctx, VX_LOG_TARGET_CONSOLE, VX_LOG_TRC, 1);
        vx_log(&ctx, VX_LOG_WRN, "WRN", "warn\n");
        vx_log_raw(&ctx, VX_LOG_ERR, "raw\n");
        vx_log_uninit(&ctx);
    });
    // The terminal turns "\n" into "\r\n"; the colour reset follows the newline.
    std::string out = _read_fd(master);
    close(master);
    close(slave);
    std::regex coloured(
        "^\\x1b\\[33;1m\\d{8} [0-9:.]{12}\\[\\d+\\]\\[WRN\\]warn\\r\\n\\x1b\\[0m"
        "\\x1b\\[31;1mraw\\r\\n\\x1b\\[0m$");
    EXPECT_TRUE(std::regex_match(out, coloured)) << out;

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    _with_stdout(fds[1], [&] {
        ASSERT_NE(vx_log_init(&ctx, nullptr, "VX"), nullptr);
        vx_log(&ctx, VX_LOG_WRN, "WRN", "warn\n");
        vx_log_uninit(&ctx);
    });
    close(fds[1]);
    out = _read_fd(fds[0]);
    close(fds[0]);
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(^\d{8} [0-9:.]{12}\[\d+\]\[WRN\]warn\n$)")))
        << out;
}

TEST_F(log_file, rotation_moves_the_file_to_the_backup_and_starts_empty) {
    std::string backup = dir_.file("test.log.1");
    ASSERT_TRUE(tevix::test::write_text(backup, "older backup\n"));
    vx_log_rotate_enable(&ctx_, backup.c_str(), 1000);
    std::string line(99, 'a');  // 100 bytes with the newline
    for (int i = 0; i < 10; ++i) vx_log_raw(&ctx_, VX_LOG_ERR, "%s\n", line.c_str());
    EXPECT_EQ(tevix::plat::file_size(path_.c_str()), 1000);
    EXPECT_EQ(read_file(backup), "older backup\n");

    vx_log_raw(&ctx_, VX_LOG_ERR, "%s\n", line.c_str());  // 1100 > 1000: rotate
    EXPECT_EQ(tevix::plat::file_size(path_.c_str()), 0);
    EXPECT_EQ(tevix::plat::file_size(backup.c_str()), 1100);

    vx_log_raw(&ctx_, VX_LOG_ERR, "next\n");
    EXPECT_EQ(read_file(path_), "next\n");

    vx_log_rotate_disable(&ctx_);
    for (int i = 0; i < 20; ++i) vx_log_raw(&ctx_, VX_LOG_ERR, "%s\n", line.c_str());
    EXPECT_EQ(tevix::plat::file_size(path_.c_str()), 2005);
}

TEST_F(log_file, reload_truncates_or_appends_and_survives_a_vanished_directory) {
    vx_log_raw(&ctx_, VX_LOG_ERR, "one\n");
    vx_log_reload(&ctx_, 0);
    vx_log_raw(&ctx_, VX_LOG_ERR, "two\n");
    EXPECT_EQ(read_file(path_), "one\ntwo\n");
    vx_log_reload(&ctx_, 1);
    vx_log_raw(&ctx_, VX_LOG_ERR, "three\n");
    EXPECT_EQ(read_file(path_), "three\n");

    temp_dir other;
    std::string sub = other.file("sub");
    std::filesystem::create_directory(sub);
    std::string inner = sub + "/x.log";
    vx_log_t ctx{};
    ASSERT_NE(vx_log_init(&ctx, inner.c_str(), "VX"), nullptr);
    std::filesystem::remove_all(sub);
    testing::internal::CaptureStderr();
    vx_log_reload(&ctx, 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "cannot reopen file " + inner + " for write\n");
    EXPECT_EQ(ctx.fp, nullptr);
    vx_log_raw(&ctx, VX_LOG_ERR, "skipped\n");  // no file: nothing, no crash
    EXPECT_EQ(ctx.inited, 1);
    vx_log_uninit(&ctx);
}

TEST_F(log_file, hex_dump_of_17_bytes) {
    uint8_t data[17];
    for (int i = 0; i < 17; ++i) data[i] = static_cast<uint8_t>(0x3E + i);  // '>' .. 'N'
    data[1] = 0x00;
    vx_log_hex(&ctx_, VX_LOG_ERR, data, 17, 0);
    std::string expected =
        "0000: 3E 00 40 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D    >.@ABCDEFGHIJKLM\n"
        "0010: 4E " +
        std::string(45, ' ') + "   N" + std::string(15, ' ') + "\n";
    EXPECT_EQ(read_file(path_), expected);

    vx_log_hex(&ctx_, VX_LOG_ERR, nullptr, 4, 0);
    EXPECT_EQ(read_file(path_), expected);

    vx_log_hex(&ctx_, VX_LOG_ERR, data, 1, 1);  // with prefix
    std::vector<std::string> lines = split_lines(read_file(path_));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[2].find("][VX]0000: 3E "), std::string::npos) << lines[2];
}

TEST_F(log_file, memstr_stops_at_a_non_printable_byte) {
    const uint8_t data[] = {'a', 'b', 0x01, 'c'};
    vx_log_memstr(&ctx_, VX_LOG_ERR, data, 4, 128, 0);
    char addr[32];
    std::snprintf(addr, sizeof addr, "%p", static_cast<const void *>(data));
    std::string expected = std::string(addr) + " \"ab...\"(len=4)";
    EXPECT_EQ(read_file(path_), expected);

    vx_log_reload(&ctx_, 1);  // truncates
    vx_log_memstr(&ctx_, VX_LOG_ERR, "abc", 3, 128, 0);
    std::string whole = read_file(path_);
    EXPECT_EQ(whole.substr(whole.find(' ')), " \"abc\"");
}

TEST_F(log_file, concurrent_writers_never_interleave_in_the_file) {
    constexpr int k_threads = 8;
    constexpr int k_lines = 400;
    std::vector<std::thread> threads;
    for (int t = 0; t < k_threads; ++t) {
        threads.emplace_back([this, t] {
            std::string payload(60 + t, static_cast<char>('a' + t));
            for (int i = 0; i < k_lines; ++i)
                vx_log(&ctx_, VX_LOG_ERR, "ERR", "<%d:%d:%s>\n", t, i, payload.c_str());
        });
    }
    for (auto &th : threads) th.join();
    std::vector<std::string> lines = split_lines(read_file(path_));
    ASSERT_EQ(lines.size(), static_cast<size_t>(k_threads * k_lines));
    std::regex re(R"(^\d{8} [0-9:.]{12}\[\d+\]\[ERR\]<(\d):(\d+):([a-h]+)>$)");
    std::vector<int> counts(k_threads, 0);
    for (const std::string &line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, re)) << line;
        int t = std::stoi(m[1]);
        EXPECT_EQ(m[3].str(), std::string(60 + t, static_cast<char>('a' + t)));
        ++counts[t];
    }
    for (int c : counts) EXPECT_EQ(c, k_lines);
}

// Contexts without a file of their own: one never started, one whose file cannot be opened, a
// console-only one and the default context.
TEST(log, contexts_without_a_file) {
    // An uninitialised context writes nothing.
    vx_log_t ctx{};
    vx_log(&ctx, VX_LOG_ERR, "ERR", "ignored\n");
    vx_log_raw(&ctx, VX_LOG_ERR, "ignored\n");
    vx_log_hex(&ctx, VX_LOG_ERR, "x", 1, 1);
    vx_log_memstr(&ctx, VX_LOG_ERR, "x", 1, 16, 1);
    EXPECT_EQ(ctx.state, nullptr);

    // An unwritable path fails init, reports on stderr and leaves the context cleared.
    testing::internal::CaptureStderr();
    vx_log_t *r = vx_log_init(&ctx, "/nonexistent-dir/x/y.log", "VX");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(err, "cannot open file /nonexistent-dir/x/y.log for write\n");
    EXPECT_EQ(ctx.inited, 0);
    EXPECT_EQ(ctx.path, nullptr);

    // Without a path the console alone is served; the file level stays off.
    ASSERT_NE(vx_log_init(&ctx, nullptr, "VX"), nullptr);
    EXPECT_EQ(ctx.level[VX_LOG_TARGET_CONSOLE], 5u);
    EXPECT_EQ(ctx.level[VX_LOG_TARGET_FILE], 7u);
    EXPECT_EQ(ctx.level[VX_LOG_TARGET_THIRD], 7u);
    EXPECT_EQ(ctx.fp, nullptr);
    EXPECT_EQ(vx_log_cfg(&ctx, VX_LOG_TARGET_FILE, 0, 1), 0);
    EXPECT_EQ(ctx.level[VX_LOG_TARGET_FILE], 7u);
    EXPECT_EQ(ctx.flush[VX_LOG_TARGET_FILE], 1);  // the flush switch is stored anyway
    EXPECT_EQ(vx_log_cfg(&ctx, VX_LOG_TARGET_THIRD, 3, 1), 1);
    EXPECT_EQ(ctx.level[VX_LOG_TARGET_THIRD], 3u);
    vx_log_uninit(&ctx);
    EXPECT_EQ(ctx.inited, 0);
    EXPECT_EQ(ctx.state, nullptr);
    ASSERT_NE(vx_log_init(&ctx, nullptr, nullptr), nullptr);
    EXPECT_STREQ(ctx.tag, "NONE");
    vx_log_uninit(&ctx);

    // A null context is the default context; uninitialised, it writes nothing.
    EXPECT_EQ(vx_log_default()->inited, 0);
    vx_log(nullptr, VX_LOG_ERR, nullptr, "ignored\n");
    EXPECT_EQ(vx_log_cfg(nullptr, 7, 0, 0), 0);
    temp_dir dir;
    std::string path = dir.file("default.log");
    ASSERT_EQ(vx_log_init(nullptr, path.c_str(), "VX"), vx_log_default());
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
    vx_log_cfg(nullptr, VX_LOG_TARGET_FILE, VX_LOG_DBG, 1);
    vx_log(nullptr, VX_LOG_TRC, "TRC", "below\n");
    vx_log(nullptr, VX_LOG_DBG, "DBG", "at\n");
    vx_log_uninit(nullptr);
    std::vector<std::string> lines = split_lines(read_file(path));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("[DBG]at"), std::string::npos);
    EXPECT_EQ(vx_log_default()->inited, 0);
}
