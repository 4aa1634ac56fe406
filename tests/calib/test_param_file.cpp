#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "calib/calib.h"
#include "calib/calib_writer.h"
#include "test_util.h"
#include "tevix/tevix_param.h"

using namespace tevix::calib;
using tevix::test::open_fd_count;

namespace {

std::span<const uint8_t> _bytes(const char *s) {
    return std::span(reinterpret_cast<const uint8_t *>(s), std::strlen(s));
}

param_container _sample(size_t nblocks, uint8_t ver = TEVIX_PARAM_VER_CURRENT) {
    param_container c;
    c.ver = ver;
    c.ts = 1700000000;
    c.par_ts = 1700000123;
    c.lens_name = "wide-90";
    c.lens = {320.5, 240.25, 210.0, 211.0, {-0.3, 0.1}, 2, 640, 480};
    c.par_area = {1, 2, 3, 4};
    for (size_t i = 0; i < nblocks; ++i) {
        param_block b;
        b.type = static_cast<uint8_t>(ver >= TEVIX_PARAM_VER_CURRENT ? 10 + i : 1);
        b.payload.resize(37 + i * 3);
        for (size_t k = 0; k < b.payload.size(); ++k)
            b.payload[k] = static_cast<uint8_t>(k * 7 + i);
        for (size_t k = 0; k < b.drv_a.size(); ++k) b.drv_a[k] = static_cast<uint8_t>(0xA0 + k);
        for (size_t k = 0; k < b.drv_b.size(); ++k) b.drv_b[k] = static_cast<uint8_t>(0xB0 + k);
        c.blocks.push_back(std::move(b));
    }
    return c;
}

tevix_param_t &_hdr(std::vector<uint8_t> &image) {
    return *reinterpret_cast<tevix_param_t *>(image.data());
}
const tevix_param_t &_hdr(const std::vector<uint8_t> &image) {
    return *reinterpret_cast<const tevix_param_t *>(image.data());
}

// Block i's bytes, read where the handle says they start.
std::vector<uint8_t> _block(const tevix_param_handle_t &h, size_t i) {
    std::vector<uint8_t> b(h.blk[i].size);
    EXPECT_EQ(std::fseek(h.fp, h.offset[i], SEEK_SET), 0);
    EXPECT_EQ(std::fread(b.data(), 1, b.size(), h.fp), b.size());
    return b;
}

class calib_param_file : public ::testing::Test {
  protected:
    tevix::test::temp_dir dir_;
    tevix::test::log_capture log_;

    std::string put(const std::vector<uint8_t> &image, const std::string &name = "p.bin") {
        std::string path = dir_.file(name);
        tevix::test::write_file(path, image);
        return path;
    }
    // Opens and closes again; a failed open must leave no descriptor behind.
    bool opens(const std::string &path) {
        const int before = open_fd_count();
        tevix_param_handle_t h;
        const bool ok = tevix_param_open_file(&h, path.c_str()) == 1;
        if (ok) {
            EXPECT_TRUE(h.opened);
            EXPECT_NE(h.fp, nullptr);
            tevix_param_close(&h);
        } else {
            EXPECT_FALSE(h.opened);
            EXPECT_EQ(h.fp, nullptr);
        }
        EXPECT_EQ(open_fd_count(), before) << path;
        return ok;
    }
    bool opens(const std::vector<uint8_t> &image) { return opens(put(image)); }
};

TEST(calib_checksum, fletcher16_known_values) {
    EXPECT_EQ(fletcher16_of(_bytes("abcde")), 0xC8F0);
    EXPECT_EQ(fletcher16_of(_bytes("abcdef")), 0x2057);
    EXPECT_EQ(fletcher16_of(_bytes("abcdefgh")), 0x0627);
    fletcher16 split;
    split.feed(_bytes("abc"));
    split.feed(_bytes("def"));
    EXPECT_EQ(split.value(), 0x2057);
    std::vector<uint8_t> ff(1000, 0xFF);
    EXPECT_EQ(fletcher16_of(ff), 0);
}

TEST(calib_checksum, header_checksum_covers_bytes_20_to_1187) {
    std::vector<uint8_t> image = param_container_build(_sample(2));
    const uint16_t stored = _hdr(image).cksum;
    ASSERT_EQ(param_header_cksum(_hdr(image)), stored);
    for (size_t i = 0; i < TEVIX_PARAM_HDR_SIZE; ++i) {
        if (i == 18 || i == 19) continue;  // the checksum itself
        std::vector<uint8_t> copy = image;
        copy[i] ^= 0x5A;
        const bool covered = i >= 20 && i <= 1187;
        EXPECT_EQ(param_header_cksum(_hdr(copy)) != stored, covered) << "byte " << i;
    }
}

// As many blocks as a container may hold (99), each found where its header says.
TEST_F(calib_param_file, written_container_opens_with_its_blocks) {
    const param_container desc = _sample(99);
    const std::vector<uint8_t> image = param_container_build(desc);
    EXPECT_EQ(std::memcmp(image.data() + 5, "VXP1", 4), 0);
    // Five header bytes and 37 + 3 i payload bytes for block i.
    EXPECT_EQ(image.size(), TEVIX_PARAM_HDR_SIZE + 99 * (5 + 37) + 3 * (98 * 99 / 2u));
    const std::string path = put(image);

    tevix_param_handle_t h;
    ASSERT_EQ(tevix_param_open_file(&h, path.c_str()), 1);
    EXPECT_STREQ(h.name, path.c_str());
    EXPECT_EQ(std::memcmp(&h.hdr, image.data(), TEVIX_PARAM_HDR_SIZE), 0);
    EXPECT_EQ(+h.hdr.blk_size, image.size() - TEVIX_PARAM_HDR_SIZE);
    EXPECT_STREQ(h.hdr.lens_name, "wide-90");
    EXPECT_EQ(param_header_lens(h.hdr).cy, 240.25);
    EXPECT_EQ(param_header_lens(h.hdr).width, 640u);
    for (size_t i = 0; i < 99; ++i) {
        EXPECT_EQ(+h.blk[i].type, desc.blocks[i].type);
        ASSERT_EQ(+h.blk[i].size, desc.blocks[i].payload.size());
        EXPECT_EQ(_block(h, i), desc.blocks[i].payload) << "block " << i;
    }
    EXPECT_TRUE(log_.has("calib param : ver=140, ts=1700000123, blk cnt=99"));
    tevix_param_close(&h);
    EXPECT_FALSE(h.opened);
    EXPECT_EQ(h.fp, nullptr);
}

TEST_F(calib_param_file, header_changes_outside_the_checksum_do_not_matter) {
    const std::vector<uint8_t> image = param_container_build(_sample(1));
    for (size_t i : {20u, 83u, 600u, 1187u}) {
        std::vector<uint8_t> copy = image;
        copy[i] ^= 0x01;
        EXPECT_FALSE(opens(copy)) << "byte " << i;
    }
    EXPECT_TRUE(log_.has("[_param_verify]wrong cksum (ver=140)"));
    EXPECT_TRUE(log_.has("[tevix_param_open_file]_param_verify failed: "));
    for (size_t i : {9u, 17u, 1188u, 1191u}) {
        std::vector<uint8_t> copy = image;
        copy[i] ^= 0x01;
        EXPECT_TRUE(opens(copy)) << "byte " << i;
    }
}

TEST_F(calib_param_file, lens_principal_point_range) {
    struct probe {
        double cx, cy;
        bool ok;
    };
    const probe probes[] = {{16.0, 16.0, true},        {1024.0, 1024.0, true}, {15.9, 240, false},
                            {1024.1, 240, false},      {320, 15.9, false},     {320, 1024.1, false},
                            {std::nan(""), 240, false}};
    for (const probe &p : probes) {
        param_container c = _sample(1);
        c.lens.cx = p.cx;
        c.lens.cy = p.cy;
        EXPECT_EQ(opens(param_container_build(c)), p.ok) << p.cx << "/" << p.cy;
    }
    EXPECT_TRUE(log_.has("wrong range for lens param: cx/cy=15.9/240.0, name="));
    for (const probe &p : probes) {
        param_container c = _sample(1);
        c.lens_name.clear();
        c.lens.cx = p.cx;
        c.lens.cy = p.cy;
        EXPECT_TRUE(opens(param_container_build(c))) << "no lens name: " << p.cx;
    }
}

// Fields of a freshly built container changed (the header sealed again): whether it still opens
// and the line its refusal logs.
TEST_F(calib_param_file, header_fields_must_agree_with_the_version_and_blocks) {
    using image_t = std::vector<uint8_t>;
    struct change {
        size_t blocks;
        uint8_t ver;
        void (*apply)(image_t &);
        bool ok;
        const char *message;
    };
    const change changes[] = {
        // The magic number depends on the version.
        {0, 139, nullptr, true, ""},
        {0, 139, [](image_t &i) { _hdr(i).magic = TEVIX_PARAM_MAGIC; }, false,
         "wrong magic id (ver=139): 0x31505856"},
        {0, 140, [](image_t &i) { _hdr(i).magic = TEVIX_PARAM_MAGIC_OLD; }, false,
         "wrong magic id (ver=140): 0x3e8"},
        // At most 99 blocks.
        {100, 140, nullptr, false, "too much param blks: 100"},
        {99, 140, [](image_t &i) { _hdr(i).blk_cnt = -1; }, false, ""},
        // An empty run of blocks has total and checksum 0.
        {0, 140, nullptr, true, ""},
        {0, 140, [](image_t &i) { _hdr(i).blk_size = 5; }, false,
         "param blks size wrong: size=0 (expect 5)"},
        // The block total must match, hold five bytes per block and stay below 1 GiB.
        {2, 140, [](image_t &i) { ++_hdr(i).blk_size; }, false, "param blks size wrong"},
        {2, 140, [](image_t &i) { _hdr(i).blk_size = 2 * 5 - 1; }, false, ""},
        {2, 140, [](image_t &i) { _hdr(i).blk_size = 0x40000001; }, false,
         "wrong blk total size: 1073741825,max blk size is 1073741824"},
        // The block checksum covers the blocks and must match the header's.
        {2, 140, [](image_t &i) { i.back() ^= 0x10; }, false, "param blks cksum failed"},
        {2, 140,
         [](image_t &i) {
             i.back() ^= 0x10;
             param_blocks_seal(i);
         },
         true, ""},
        {2, 140, [](image_t &i) { _hdr(i).blk_cksum ^= 1; }, false, ""},
    };
    for (const change &c : changes) {
        image_t image = param_container_build(_sample(c.blocks, c.ver));
        if (c.apply) c.apply(image);
        param_header_seal(image);
        SCOPED_TRACE(std::string(c.message) + " blocks " + std::to_string(c.blocks));
        log_.added();
        EXPECT_EQ(opens(image), c.ok);
        EXPECT_NE(log_.added().find(c.message), std::string::npos);
    }
    const image_t empty = param_container_build(_sample(0));
    EXPECT_EQ(+_hdr(empty).blk_size, 0u);
    EXPECT_EQ(+_hdr(empty).blk_cksum, 0u);

    // A container written without the block total opens too.
    param_container unrecorded = _sample(2);
    unrecorded.record_blk_size = false;
    const image_t plain = param_container_build(unrecorded);
    EXPECT_EQ(+_hdr(plain).blk_size, 0u);
    EXPECT_TRUE(opens(plain));
}

TEST_F(calib_param_file, short_files_fail) {
    const std::vector<uint8_t> good = param_container_build(_sample(2));
    const size_t cuts[] = {0,
                           100,
                           TEVIX_PARAM_HDR_SIZE - 1,
                           TEVIX_PARAM_HDR_SIZE + 3,
                           TEVIX_PARAM_HDR_SIZE + 5 + 10,
                           good.size() - 1};
    for (size_t cut : cuts) {
        std::vector<uint8_t> image(good.begin(), good.begin() + static_cast<long>(cut));
        EXPECT_FALSE(opens(image)) << "cut at " << cut;
    }
    EXPECT_TRUE(log_.has("read tevix_param_t failed"));
    EXPECT_TRUE(log_.has("[tevix_param_open_file]read par_dev_hdr failed: " + dir_.file("p.bin")));
    EXPECT_TRUE(log_.has("read blk#0 data failed"));
    EXPECT_TRUE(log_.has("read blk#1 data failed"));

    // A block claiming 4 GiB in a small file fails as a short read.
    std::vector<uint8_t> image = good;
    std::memset(image.data() + TEVIX_PARAM_HDR_SIZE + 1, 0xFF, 4);
    param_blocks_seal(image);
    _hdr(image).blk_size = 0;
    param_header_seal(image);
    EXPECT_FALSE(opens(image));

    EXPECT_FALSE(opens(dir_.file("missing.bin")));
    EXPECT_TRUE(log_.has("[tevix_param_open_file]open calib bin failed: "));
}

TEST_F(calib_param_file, old_format_blocks_are_presented_as_current_ones) {
    const param_container desc = _sample(2, 100);
    std::vector<uint8_t> image = param_container_build(desc);
    EXPECT_EQ(+_hdr(image).magic, 1000u);
    // Neither the block total nor the block checksum are used by the old format.
    _hdr(image).blk_size = 12345;
    _hdr(image).blk_cksum = 0xBEEF;
    param_header_seal(image);
    const std::string path = put(image);

    tevix_param_handle_t h;
    ASSERT_EQ(tevix_param_open_file(&h, path.c_str()), 1);
    size_t pos = TEVIX_PARAM_HDR_SIZE;
    for (size_t i = 0; i < 2; ++i) {
        const param_block &b = desc.blocks[i];
        EXPECT_EQ(+h.blk[i].type, 1);
        EXPECT_EQ(+h.blk[i].size, b.payload.size() + 41);
        EXPECT_EQ(h.offset[i], pos + 1);
        const std::vector<uint8_t> got = _block(h, i);
        EXPECT_TRUE(std::equal(b.drv_a.begin(), b.drv_a.end(), got.begin()));
        uint32_t size;
        std::memcpy(&size, got.data() + 21, 4);
        EXPECT_EQ(size, b.payload.size());
        EXPECT_TRUE(std::equal(b.drv_b.begin(), b.drv_b.end(), got.begin() + 25));
        EXPECT_TRUE(std::equal(b.payload.begin(), b.payload.end(), got.begin() + 41));
        pos += 42 + b.payload.size();
    }
    tevix_param_close(&h);

    param_container wrong = desc;
    wrong.blocks[1].type = 2;
    EXPECT_FALSE(opens(param_container_build(wrong)));
    EXPECT_TRUE(log_.has("wrong blk unit type: 2"));
    image = param_container_build(desc);
    image.resize(TEVIX_PARAM_HDR_SIZE + 20);
    EXPECT_FALSE(opens(image));
    EXPECT_TRUE(log_.has("read blk_unit_hdr failed"));
}

TEST_F(calib_param_file, path_length_limit) {
    const std::vector<uint8_t> image = param_container_build(_sample(2));
    const std::string dir = dir_.path().string() + "/";
    ASSERT_LT(dir.size(), 100u);
    const std::string p127 = dir + std::string(127 - dir.size(), 'a');
    const std::string p128 = dir + std::string(128 - dir.size(), 'b');
    ASSERT_EQ(p127.size(), 127u);
    tevix::test::write_file(p127, image);
    tevix::test::write_file(p128, image);
    EXPECT_TRUE(opens(p127));
    EXPECT_FALSE(opens(p128));
    EXPECT_TRUE(log_.has("param filename too long: len=128"));
    // The length is checked after the blocks: a bad block reports first.
    std::vector<uint8_t> bad = image;
    bad.back() ^= 1;
    tevix::test::write_file(p128, bad);
    log_.clear();
    EXPECT_FALSE(opens(p128));
    EXPECT_TRUE(log_.has("param blks cksum failed"));
    EXPECT_FALSE(log_.has("too long"));
}

TEST(calib_param_names, container_name) {
    tevix_dev_t dev{};
    dev.path_prefix = "/var/cal/";
    dev.hw_id = (uint64_t{0x89ABCDEF} << 32) | 0x1234;
    char buf[128];
    EXPECT_EQ(tevix_get_param_absolute_name(&dev, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "/var/cal/tevix_param_2309737967.bin");
    dev.path_prefix = nullptr;
    tevix_get_param_absolute_name(&dev, buf, sizeof buf);
    EXPECT_STREQ(buf, "tevix_param_2309737967.bin");

    std::memset(buf, 'x', sizeof buf);
    tevix_get_param_absolute_name(&dev, buf, 12);
    EXPECT_STREQ(buf, "tevix_param");
    EXPECT_EQ(buf[12], 'x');
    tevix_get_param_absolute_name(&dev, buf, 1);
    EXPECT_EQ(buf[0], '\0');
}

}  // namespace
