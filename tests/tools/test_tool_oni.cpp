// The tool's "oni info" and "oni export" commands, run as a user runs them.
#include <png.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../ll/oni/oni_test_util.h"

namespace oni = tevix::oni;
using tevix::test::depth_frame;
using tevix::test::read_file;
using tevix::test::temp_dir;
using tevix::test::testdata;
using tevix::test::write_depth_file;

namespace {

struct run_result {
    int code;
    std::string out;
};

run_result _tool(const std::string &args) {
    const std::string cmd = std::string(TEVIX_TOOL_PATH) + " " + args + " 2>&1";
    run_result r{-1, {}};
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return r;
    std::array<char, 4096> buf;
    size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
    const int st = pclose(p);
    r.code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

bool _has(const std::string &text, const std::string &s) {
    return text.find(s) != std::string::npos;
}

// The Kinect sample, a recording whose image node has no frames, and one of ours with every
// property kind: per-frame properties are grouped unless every record is asked for.
TEST(ToolOni, InfoReportsNodesAndEveryPropertyKind) {
    temp_dir dir;
    const std::string ours = dir.file("k.oni");
    {
        auto w = oni::writer::create(ours.c_str());
        ASSERT_TRUE(w);
        oni::stream_desc d{2, 100, 4000, 4, 2, 2, 15};
        const int id = w->add_node("VX_DEPTH", d, oni::k_codec_16zt);
        w->write_real(id, "VX_REP_VER", 1.0);
        w->write_string(id, "VX_PRODUCT", "cam");
        const uint8_t ver[2] = {0xab, 0xcd};
        w->write_general(id, "VX_DEV_VER", ver, 2);
        for (uint32_t k = 0; k < 3; ++k) w->write_int(id, "VX_FRAME_IDX", 7 + k);
    }
    const struct {
        std::string args;
        std::vector<std::string> lines;
    } rows[] = {
        {testdata("kinect-depth-image-12frames.oni"),
         {"version: 1.0.1.0 (28-byte record headers)",
          "node 2 \"Depth1\": type depth (2), codec 16zT, frames 12", "640x480 @ 30 fps",
          "node 3 \"Image1\": type image (3), codec JPEG, frames 12", "seek table yes",
          "[Depth1] int     xnDeviceMaxDepth = 10000",
          "[Depth1] general xnMapOutputMode = 12 bytes: 80 02 00 00 e0 01"}},
        {testdata("image-node-no-frames.oni"),
         {"node 1 \"Image1\": type image (3), codec JPEG, frames 0 (0 data", "seek table no",
          "[Image1] string  Type = \"Image\""}},
        {ours,
         {"[VX_DEPTH] int     VX_FRAME_IDX x3: first = 7, last = 9",
          "[VX_DEPTH] int     xnDeviceMaxDepth = 4000", "[VX_DEPTH] real    VX_REP_VER = 1",
          "[VX_DEPTH] string  VX_PRODUCT = \"cam\"",
          "[VX_DEPTH] general VX_DEV_VER = 2 bytes: ab cd",
          "frames 0 (0 data records), 4x2 @ 15 fps"}},
        {"--all " + ours, {"VX_FRAME_IDX = 7\n  [VX_DEPTH] int     VX_FRAME_IDX = 8\n"}},
    };
    for (const auto &row : rows) {
        const run_result r = _tool("oni info " + row.args);
        EXPECT_EQ(r.code, 0) << row.args << "\n" << r.out;
        for (const std::string &line : row.lines)
            EXPECT_TRUE(_has(r.out, line)) << line << " missing from\n" << r.out;
    }
}

TEST(ToolOni, BadInputGivesExitCodesNotCrashes) {
    temp_dir dir;
    const std::string junk = dir.file("junk.oni");
    std::ofstream(junk) << "NI10 this is not a recording at all";
    EXPECT_EQ(_tool("oni info " + junk).code, 1);
    EXPECT_EQ(_tool("oni info " + dir.file("missing.oni")).code, 1);
    EXPECT_EQ(_tool("oni info").code, 2);
    const std::string sample = testdata("kinect-depth-image-12frames.oni");
    const std::string out = dir.file("x.raw");
    EXPECT_EQ(_tool("oni export " + sample + " --frame 0 --out " + out).code, 2);
    EXPECT_EQ(_tool("oni export " + sample + " --node Nope --frame 0 --out " + out).code, 1);
    EXPECT_EQ(_tool("oni export " + sample + " --node Depth1 --frame 12 --out " + out).code, 1);
    EXPECT_EQ(_tool("oni export " + sample + " --node Depth1 --frame -1 --out " + out).code, 2);
    EXPECT_EQ(
        _tool("oni export " + sample + " --node Depth1 --frame 0 --out " + dir.file("no/x")).code,
        1);
    // Data that is no 16-bit image never goes into a .png: a JPEG frame, raw sensor frames.
    const run_result jpeg =
        _tool("oni export " + sample + " --node Image1 --frame 0 --out " + dir.file("i.png"));
    EXPECT_EQ(jpeg.code, 1);
    EXPECT_TRUE(_has(jpeg.out, "is stored as JPEG: write it to a .jpg file")) << jpeg.out;
    const std::string rec = dir.file("raw.oni");
    {
        auto w = oni::writer::create(rec.c_str());
        ASSERT_TRUE(w);
        oni::stream_desc d;
        d.type = 0xFFFFFFFFu;
        const int id = w->add_node("VX_REPLAY", d, oni::k_codec_none);
        const uint8_t frame[6] = {1, 2, 3, 4, 5, 6};
        ASSERT_TRUE(w->write_data(id, frame, sizeof frame, 0));
    }
    const run_result raw =
        _tool("oni export " + rec + " --node VX_REPLAY --frame 0 --out " + dir.file("r.png"));
    EXPECT_EQ(raw.code, 1);
    EXPECT_TRUE(_has(raw.out, "holds raw sensor frames, not an image")) << raw.out;
    EXPECT_TRUE(_has(raw.out, "tevix export " + rec + " --frame 0"));
    EXPECT_FALSE(std::ifstream(dir.file("r.png")).good());
    // "export" refuses wrong file kinds before it opens anything, and a recording without raw
    // frames or a frame past its end.
    EXPECT_EQ(_tool("export " + rec + " --depth d.jpg").code, 2);
    EXPECT_EQ(_tool("export " + rec + " --points p.xyz").code, 2);
    EXPECT_EQ(_tool("export " + rec).code, 2);
    EXPECT_EQ(_tool("export " + sample + " --depth " + dir.file("d.png")).code, 1);
    EXPECT_EQ(_tool("export " + dir.file("missing.oni") + " --depth " + dir.file("d.png")).code, 1);
}

TEST(ToolOni, ExportWritesRawPixelsPngAndStoredJpeg) {
    temp_dir dir;
    const std::string path = dir.file("d.oni");
    ASSERT_TRUE(write_depth_file(path, oni::k_codec_16zt, 20, 10, 4));
    const std::string raw = dir.file("f.raw");
    ASSERT_EQ(_tool("oni export " + path + " --node Depth --frame 2 --out " + raw).code, 0);
    const auto want = depth_frame(20, 10, 2);
    const std::string got = read_file(raw);
    ASSERT_EQ(got.size(), want.size() * 2);
    EXPECT_EQ(std::memcmp(got.data(), want.data(), got.size()), 0);

    const std::string png = dir.file("f.png");
    ASSERT_EQ(_tool("oni export " + path + " --node depth --frame 0 --out " + png).code, 0);
    png_image img{};
    img.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&img, png.c_str()));
    EXPECT_EQ(img.width, 20u);
    EXPECT_EQ(img.height, 10u);
    img.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(img));
    ASSERT_TRUE(png_image_finish_read(&img, nullptr, rgb.data(), 0, nullptr));
    EXPECT_EQ(rgb[2], 255);  // the nearest pixel is pure blue
    EXPECT_EQ(rgb[0], 0);

    const std::string sample = testdata("kinect-depth-image-12frames.oni");
    const std::string jpg = dir.file("i.jpg");
    ASSERT_EQ(_tool("oni export " + sample + " --node Image1 --frame 4 --out " + jpg).code, 0);
    auto r = oni::reader::open(sample.c_str(), nullptr, nullptr);
    ASSERT_TRUE(r);
    ASSERT_EQ(r->seek(3, 4, 0), 4);
    ASSERT_EQ(r->read_frame(3), 1);
    const std::string stored(r->last().payload.begin(), r->last().payload.end());
    EXPECT_EQ(read_file(jpg), stored);
}

}  // namespace
