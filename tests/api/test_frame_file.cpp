// Frame files: headers and bytes as written, whole-frame rules, conversions and their round
// trips, and damaged files refused with the logged reason.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "test_util.h"
#include "tevix/tevix.h"

namespace {

using tevix::test::read_file;

class frame_file : public ::testing::Test {
  protected:
    // Whether the calls since the last look logged `text`.
    bool logged(const std::string &text) { return log_.added().find(text) != std::string::npos; }
    std::string path(const char *name) { return dir_.file(name); }
    void write(const std::string &p, const std::string &bytes) {
        const int fd = tevix_file_open(p.c_str(), "wb");
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
        tevix_file_close(fd);
    }

    tevix::test::temp_dir dir_;
    tevix::test::log_capture log_;
};

template <class T>
std::string bytes_of(const std::vector<T> &v) {
    return std::string(reinterpret_cast<const char *>(v.data()), v.size() * sizeof(T));
}

TEST_F(frame_file, RawFramesThroughOneDescriptorShareOneHeader) {
    const int w = 4, h = 3, sub = 2, n = w * h * sub;
    std::vector<uint16_t> a(n), b(n);
    for (int i = 0; i < n; ++i) a[i] = uint16_t(i * 1000 + 7), b[i] = uint16_t(65535 - i);
    for (int format : {TEVIX_FILE_U16, TEVIX_FILE_U32}) {
        const std::string p = path(format == TEVIX_FILE_U16 ? "raw16.bin" : "raw32.bin");
        int fd = tevix_file_open(p.c_str(), "wb");
        ASSERT_GE(fd, 0);
        EXPECT_EQ(tevix_frame_save_raw(fd, format, a.data(), n, w, h, sub, "room 2,left"), 1);
        EXPECT_EQ(tevix_frame_save_raw(fd, format, b.data(), n, w, h, sub, "ignored"), 1);
        EXPECT_EQ(tevix_file_close(fd), 0);
        std::string want = std::string(format == TEVIX_FILE_U16 ? "VX_RAW,U16" : "VX_RAW,U32") +
                           ",4,3,2,room_2_left\n";
        if (format == TEVIX_FILE_U16) {
            want += bytes_of(a) + bytes_of(b);
        } else {
            want += bytes_of(std::vector<uint32_t>(a.begin(), a.end())) +
                    bytes_of(std::vector<uint32_t>(b.begin(), b.end()));
        }
        EXPECT_EQ(read_file(p), want);

        fd = tevix_file_open(p.c_str(), "rb");
        std::vector<uint16_t> got(n + 5, 0xEEEE);
        uint32_t gw = 0, gh = 0, gs = 0;
        EXPECT_EQ(tevix_frame_load_raw(fd, got.data(), uint32_t(got.size()), &gw, &gh, &gs), n);
        EXPECT_EQ(std::vector<uint16_t>(got.begin(), got.begin() + n), a);
        EXPECT_EQ(got[n], 0xEEEE);
        EXPECT_EQ(gw * 100 + gh * 10 + gs, 432u);
        EXPECT_EQ(tevix_frame_load_raw(fd, got.data(), n, nullptr, nullptr, nullptr), n);
        EXPECT_EQ(std::vector<uint16_t>(got.begin(), got.begin() + n), b);
        log_.added();
        EXPECT_EQ(tevix_frame_load_raw(fd, got.data(), n, nullptr, nullptr, nullptr), 0);
        EXPECT_TRUE(logged("[tevix_frame_load_raw]read " +
                           std::to_string(n * (format == TEVIX_FILE_U16 ? 2 : 4)) +
                           " date failed: ret= 0"));
        tevix_file_close(fd);
    }
}

TEST_F(frame_file, RefusalsAndWholeFrames) {
    const std::string p = path("x.bin");
    int fd = tevix_file_open(p.c_str(), "wb");
    std::vector<uint16_t> raw(18);
    // 1.5 frames of raw: refused, nothing written.
    EXPECT_EQ(tevix_frame_save_raw(fd, TEVIX_FILE_U16, raw.data(), 18, 4, 3, 1, "t"), 0);
    EXPECT_TRUE(logged("[tevix_frame_save_raw]wrong param: raw_len=18, w=4, h=3"));
    EXPECT_EQ(tevix_frame_save_raw(fd, 3, raw.data(), 12, 4, 3, 1, "t"), 0);
    EXPECT_TRUE(logged("[tevix_frame_save_raw]wrong raw save format: 3"));
    EXPECT_EQ(tevix_frame_save_distance(fd, 7, nullptr, 0, 4, 3), 0);
    EXPECT_EQ(tevix_frame_save_distance(fd, 7, std::vector<float>(12).data(), 12, 4, 3), 0);
    EXPECT_TRUE(logged("[tevix_frame_save_distance]wrong distance save format: 7"));
    EXPECT_EQ(tevix_frame_save_gray(fd, 0, std::vector<float>(12).data(), 12, 4, 3), 0);
    EXPECT_TRUE(logged("[tevix_frame_save_gray]wrong gray save format: 0"));
    EXPECT_EQ(read_file(p), "");
    // 1.5 frames of distance: one frame written.
    std::vector<float> d(18, 1.5f);
    EXPECT_EQ(tevix_frame_save_distance(fd, TEVIX_FILE_F32, d.data(), 18, 4, 3), 1);
    tevix_file_close(fd);
    EXPECT_EQ(read_file(p), "VX_DIST,F32,4,3\n" + bytes_of(std::vector<float>(12, 1.5f)));
    // A descriptor not at its start gets frames without a header; a closed one nothing.
    EXPECT_EQ(tevix_file_open(path("none/x").c_str(), "wb"), -1);
    EXPECT_EQ(tevix_file_open(p.c_str(), "q"), -1);
    EXPECT_EQ(tevix_frame_save_distance(fd, TEVIX_FILE_F32, d.data(), 12, 4, 3), 0);
}

TEST_F(frame_file, ConversionsRoundTripByteForByte) {
    const std::vector<float> metres = {70.0f, -0.5f, NAN, 1.234f, 0.0004f, 0.0005f, 65.535f, 3.0f};
    const std::string p16 = path("d16.bin"), p32 = path("d32.bin");
    for (const auto &[p, format] :
         {std::pair{p16, int(TEVIX_FILE_U16)}, {p32, int(TEVIX_FILE_U32)}}) {
        const int fd = tevix_file_open(p.c_str(), "wb");
        EXPECT_EQ(tevix_frame_save_distance(fd, format, metres.data(), 8, 4, 2), 1);
        tevix_file_close(fd);
    }
    const std::vector<uint16_t> mm16 = {65535, 0, 0, 1234, 0, 1, 65535, 3000};
    EXPECT_EQ(read_file(p16), "VX_DIST,U16,4,2\n" + bytes_of(mm16));
    const std::vector<uint32_t> mm32 = {70000, 0, 0, 1234, 0, 1, 65535, 3000};
    EXPECT_EQ(read_file(p32), "VX_DIST,U32,4,2\n" + bytes_of(mm32));

    // Loaded back in metres and saved again: the same file.
    for (const std::string &p : {p16, p32}) {
        int fd = tevix_file_open(p.c_str(), "rb");
        std::vector<float> back(8);
        ASSERT_EQ(tevix_frame_load_distance(fd, back.data(), 8, nullptr, nullptr), 8);
        tevix_file_close(fd);
        EXPECT_FLOAT_EQ(back[3], 1.234f);
        const std::string again = p + ".again";
        fd = tevix_file_open(again.c_str(), "wb");
        EXPECT_EQ(tevix_frame_save_distance(fd, p == p16 ? TEVIX_FILE_U16 : TEVIX_FILE_U32,
                                            back.data(), 8, 4, 2),
                  1);
        tevix_file_close(fd);
        EXPECT_EQ(read_file(again), read_file(p));
    }

    // Grey: U8 holds grey / 16, loads back as x 16, and saves again the same.
    const std::vector<float> grey = {0.0f, 100.0f, 4095.0f, 8000.0f, -3.0f, 17.0f};
    const std::string g8 = path("g8.bin");
    int fd = tevix_file_open(g8.c_str(), "wb");
    EXPECT_EQ(tevix_frame_save_gray(fd, TEVIX_FILE_GRAY_U8, grey.data(), 6, 3, 2), 1);
    tevix_file_close(fd);
    EXPECT_EQ(read_file(g8),
              std::string("VX_GRAY,U8,3,2\n") + '\0' + '\6' + '\xff' + '\xff' + '\0' + '\1');
    fd = tevix_file_open(g8.c_str(), "rb");
    std::vector<float> back(6);
    ASSERT_EQ(tevix_frame_load_gray(fd, back.data(), 6, nullptr, nullptr), 6);
    tevix_file_close(fd);
    EXPECT_EQ(back, (std::vector<float>{0, 96, 4080, 4080, 0, 16}));
}

TEST_F(frame_file, DamagedFilesAreRefused) {
    std::vector<float> dst(64);
    struct damaged {
        const char *what;
        std::string bytes;
        const char *log;
    };
    const std::string frame = bytes_of(std::vector<float>(6, 1.0f));
    const damaged cases[] = {
        {"header line beyond 256 bytes", "VX_DIST,F32,3,2" + std::string(300, ' ') + "\n" + frame,
         "[tevix_frame_load_distance]faile to load VX file header"},
        {"no header", "hello\n" + frame, "faile to load VX file header"},
        {"header of another kind", "VX_GRAY,U16,3,2\n" + frame, "faile to load VX file header"},
        {"trailing text", "VX_DIST,F32,3,2,x\n" + frame, "faile to load VX file header"},
        {"zero geometry", "VX_DIST,F32,0,2\n" + frame, "faile to load VX file header"},
        {"negative geometry", "VX_DIST,F32,-3,2\n" + frame, "faile to load VX file header"},
        {"absurd geometry", "VX_DIST,F32,100000,100000\n" + frame, "faile to load VX file header"},
        {"short frame", "VX_DIST,F32,3,2\n" + frame.substr(0, 10),
         "[tevix_frame_load_distance]read 24 date failed: ret= 10"},
        {"empty file", "", "faile to load VX file header"},
    };
    for (const damaged &c : cases) {
        const std::string p = path("bad.bin");
        write(p, c.bytes);
        const int fd = tevix_file_open(p.c_str(), "rb");
        log_.added();
        EXPECT_EQ(tevix_frame_load_distance(fd, dst.data(), 64, nullptr, nullptr), 0) << c.what;
        EXPECT_TRUE(logged(c.log)) << c.what;
        // A failed header leaves no state behind: the next call reads nothing either.
        EXPECT_EQ(tevix_frame_load_distance(fd, dst.data(), 64, nullptr, nullptr), 0) << c.what;
        tevix_file_close(fd);
    }
    // Too small a destination takes nothing; a large enough one then reads the frame.
    write(path("ok.bin"), "VX_DIST,F32,3,2\n" + frame);
    const int fd = tevix_file_open(path("ok.bin").c_str(), "rb");
    EXPECT_EQ(tevix_frame_load_distance(fd, dst.data(), 5, nullptr, nullptr), 0);
    EXPECT_EQ(tevix_frame_load_distance(fd, dst.data(), 6, nullptr, nullptr), 6);
    EXPECT_EQ(dst[5], 1.0f);
    tevix_file_close(fd);
    EXPECT_EQ(tevix_frame_load_raw(-1, nullptr, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(tevix_frame_load_gray(fd, nullptr, 6, nullptr, nullptr), 0);
}

}  // namespace
