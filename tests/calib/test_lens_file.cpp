#include <cstring>
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

constexpr uint64_t k_hw_id = (uint64_t{4242} << 32) | 0xFFFF;

tevix_lens_param_t _lens(double cx = 80.5) {
    return {cx, 30.25, 105.0, 106.5, {-0.25, 0.125, 0.001, -0.002, 0.03}, 5, 160, 60};
}

class calib_lens_file : public ::testing::Test {
  protected:
    tevix::test::temp_dir dir_;
    tevix::test::log_capture log_;

    void SetUp() override {
        prefix_ = dir_.path().string() + "/";
        dev_.path_prefix = prefix_.c_str();
        dev_.hw_id = k_hw_id;
    }
    tevix_lens_bin_t *load_bin(const std::vector<uint8_t> &file) {
        tevix::test::write_file(dir_.file("l.bin"), file);
        const int before = open_fd_count();
        tevix_lens_bin_t *obj = tevix_param_len_bin_load(&dev_, "l.bin");
        EXPECT_EQ(open_fd_count(), before);
        return obj;
    }
    bool load_text(const std::string &text, tevix_lens_param_t *rec) {
        tevix::test::write_text(dir_.file("l.txt"), text);
        const int before = open_fd_count();
        const bool ok = tevix_param_load_len_2d_file(&dev_, rec, "l.txt") == 1;
        EXPECT_EQ(open_fd_count(), before);
        return ok;
    }

    std::string prefix_;
    tevix_dev_t dev_{};
};

lens_bin_file _bin_desc(uint32_t n_grad, uint32_t n_reflect) {
    lens_bin_file d;
    d.type = 7;
    d.name = "tele";
    d.lens = _lens();
    d.lens.width = 4;
    d.lens.height = 3;
    for (uint32_t i = 0; i < n_grad; ++i) d.grad.push_back(0x10000 + i);
    for (uint32_t i = 0; i < n_reflect; ++i) d.reflect.push_back(0x20000 + i);
    return d;
}

TEST(calib_lens_names, four_names_and_truncation) {
    tevix_dev_t dev{};
    dev.path_prefix = "/cal/";
    dev.hw_id = k_hw_id;
    char buf[64];
    EXPECT_STREQ(tevix_lens_param_filename(&dev, buf, sizeof buf, 1, 1),
                 "/cal/lens_param_4242.bin");
    EXPECT_STREQ(tevix_lens_param_filename(&dev, buf, sizeof buf, 1, 0), "/cal/lens_param.bin");
    EXPECT_STREQ(tevix_lens_param_filename(&dev, buf, sizeof buf, 0, 1),
                 "/cal/lens_param_4242.txt");
    EXPECT_STREQ(tevix_lens_param_filename(&dev, buf, sizeof buf, 0, 0), "/cal/lens_param.txt");

    std::memset(buf, 'x', sizeof buf);
    tevix_lens_param_filename(&dev, buf, 8, 1, 1);
    EXPECT_STREQ(buf, "/cal/le");
    EXPECT_EQ(buf[8], 'x');
}

TEST_F(calib_lens_file, binary_round_trip_keeps_header_and_tables) {
    for (uint32_t tables : {0u, 8u}) {  // 5 gradient and 3 reflection entries, or none
        const std::vector<uint8_t> file = lens_bin_build(_bin_desc(tables ? 5 : 0, tables ? 3 : 0));
        ASSERT_EQ(file.size(), 225u + 4 * tables);
        tevix_lens_bin_t *obj = load_bin(file);
        ASSERT_NE(obj, nullptr);
        EXPECT_EQ(std::memcmp(obj, file.data(), file.size()), 0);
        EXPECT_EQ(+obj->hdrsz, 220u + 4 * tables);
        EXPECT_STREQ(obj->name, "tele");

        const tevix_lens_param_t rec = lens_from_bin(*obj);
        EXPECT_EQ(rec.cx, 80.5);
        EXPECT_EQ(rec.fy, 106.5);
        EXPECT_EQ(rec.dcoef[0], -0.25);
        EXPECT_FLOAT_EQ(static_cast<float>(rec.dcoef[2]), 0.001f);
        EXPECT_EQ(rec.n_dcoef, 5u);
        EXPECT_EQ(rec.width, 4u);
        EXPECT_EQ(rec.height, 3u);
        obj->n_dcoef = 200;
        EXPECT_EQ(lens_from_bin(*obj).n_dcoef, 16u);
        tevix_param_len_bin_free(obj);
    }
    EXPECT_TRUE(log_.has("[tevix_param_len_bin_load] Load l.bin: cx/cy/fx/fy=80.500/30.250/"));
}

// Tables beyond the image size, damaged or short files and absent ones are skipped alike.
TEST_F(calib_lens_file, damaged_binary_is_skipped) {
    // 4 x 3 pixels: at most 24 gradient and 48 reflection entries.
    tevix_lens_bin_t *obj = load_bin(lens_bin_build(_bin_desc(24, 48)));
    EXPECT_NE(obj, nullptr);
    tevix_param_len_bin_free(obj);
    EXPECT_EQ(load_bin(lens_bin_build(_bin_desc(25, 0))), nullptr);
    EXPECT_EQ(load_bin(lens_bin_build(_bin_desc(0, 49))), nullptr);
    EXPECT_TRUE(log_.has("[tevix_param_len_bin_load] Load l.bin: skipped"));

    const std::vector<uint8_t> good = lens_bin_build(_bin_desc(2, 1));
    std::vector<uint8_t> file = good;
    reinterpret_cast<tevix_lens_bin_t *>(file.data())->hdrsz += 4;
    EXPECT_EQ(load_bin(file), nullptr);
    EXPECT_TRUE(log_.has("[tevix_param_len_bin_load]sz wrong: hdrsz=236, expect=232"));

    EXPECT_EQ(load_bin(std::vector<uint8_t>(good.begin(), good.end() - 1)), nullptr);
    EXPECT_EQ(load_bin(std::vector<uint8_t>(good.begin(), good.begin() + 224)), nullptr);
    EXPECT_EQ(load_bin({}), nullptr);

    // Counts that pass every limit but promise gigabytes the file does not have.
    file = good;
    auto *h = reinterpret_cast<tevix_lens_bin_t *>(file.data());
    h->width = 65535;
    h->height = 65535;
    h->n_grad = 0x3FFFFFFF;
    h->n_reflect = 0;
    h->hdrsz = 220 + 4 * h->n_grad;
    EXPECT_EQ(load_bin(file), nullptr);

    EXPECT_EQ(tevix_param_len_bin_load(&dev_, "nothing.bin"), nullptr);
    EXPECT_TRUE(log_.has("nothing.bin Open failed"));
    EXPECT_TRUE(log_.has("[tevix_param_len_bin_load] Load nothing.bin: skipped"));
}

TEST_F(calib_lens_file, text_number_counts_and_the_writer) {
    tevix_lens_param_t rec{};
    ASSERT_TRUE(load_text("81.5 31 100 101\n640 480\n", &rec));
    EXPECT_EQ(rec.cx, 81.5);
    EXPECT_EQ(rec.fy, 101.0);
    EXPECT_EQ(rec.n_dcoef, 0u);
    EXPECT_EQ(rec.width, 640u);
    EXPECT_EQ(rec.height, 480u);
    for (double c : rec.dcoef) EXPECT_EQ(c, 0.0);

    std::string twenty = "1 2 3 4";
    for (int i = 1; i <= 14; ++i) twenty += " 0." + std::to_string(i);
    twenty += " 320 240 999 888\n";
    ASSERT_TRUE(load_text(twenty, &rec));
    EXPECT_EQ(rec.n_dcoef, 14u);
    EXPECT_EQ(rec.width, 320u);
    EXPECT_EQ(rec.height, 240u);
    EXPECT_EQ(rec.dcoef[0], 0.1);
    EXPECT_EQ(rec.dcoef[13], 0.14);
    EXPECT_EQ(rec.dcoef[14], 0.0);
    EXPECT_EQ(rec.dcoef[15], 0.0);

    ASSERT_TRUE(load_text("1 2 3 4 0.5 0.25 0.125 160 60", &rec));
    EXPECT_EQ(rec.n_dcoef, 3u);
    EXPECT_EQ(rec.dcoef[2], 0.125);
    EXPECT_EQ(rec.width, 160u);
    EXPECT_TRUE(log_.has("[tevix_param_load_len_2d_file] Load l.txt: cx/cy/fx/fy=1.000/2.000/"));

    // What the writer writes reads back whole.
    const tevix_lens_param_t lens = _lens(93.0625);
    ASSERT_TRUE(lens_text_write(dir_.file("w.txt"), lens));
    ASSERT_TRUE(tevix_param_load_len_2d_file(&dev_, &rec, "w.txt"));
    EXPECT_EQ(std::memcmp(&rec, &lens, sizeof rec), 0);
}

TEST_F(calib_lens_file, text_failures_leave_the_record_untouched) {
    const tevix_lens_param_t before = _lens(77.0);
    const char *bad[] = {
        "",
        "1 2 3",
        "1 2 3 4 640",           // one number after the four
        "1 2 3 4 640.5 480",     // width not whole
        "1 2 3 4 640 479.9995",  // height truncates to 479
        "1 2 3 4 0 480",         // zero width
        "1 2 3 4 -640 480",      // negative width
        "1 2 3 4 1e12 480",      // beyond 32 bits
        "1 2 3 4 nan 480",       // not a size
        "1 2 3 4 x 480",         // a stuck token reads as zeros
    };
    for (const char *text : bad) {
        tevix_lens_param_t rec = before;
        EXPECT_FALSE(load_text(text, &rec)) << text;
        EXPECT_EQ(std::memcmp(&rec, &before, sizeof rec), 0) << text;
    }
    EXPECT_TRUE(log_.has("[tevix_param_load_len_2d_file] Load l.txt: skipped"));

    tevix_lens_param_t rec = before;
    ASSERT_TRUE(load_text("1 2 3 4 640.0004 480.0009", &rec));
    EXPECT_EQ(rec.width, 640u);
    EXPECT_EQ(rec.height, 480u);
    EXPECT_FALSE(tevix_param_load_len_2d_file(&dev_, &rec, "none.txt"));
}

TEST_F(calib_lens_file, search_order) {
    char name[256];
    auto path = [&](bool binary, bool with_id) {
        return std::string(tevix_lens_param_filename(&dev_, name, sizeof name, binary, with_id));
    };
    lens_bin_file bin_id = _bin_desc(0, 0);
    bin_id.lens.cx = 100;
    lens_bin_file bin_plain = _bin_desc(0, 0);
    bin_plain.lens.cx = 300;
    ASSERT_TRUE(lens_bin_write(path(true, true), bin_id));
    ASSERT_TRUE(lens_text_write(path(false, true), _lens(200)));
    ASSERT_TRUE(lens_bin_write(path(true, false), bin_plain));
    ASSERT_TRUE(lens_text_write(path(false, false), _lens(400)));

    const double expected[] = {100, 200, 300, 400};
    const bool binary[] = {true, false, true, false};
    const bool with_id[] = {true, true, false, false};
    for (int step = 0; step < 4; ++step) {
        tevix_lens_param_t rec = _lens(1);
        void *bin = nullptr;
        ASSERT_TRUE(lens_load_search(&dev_, &rec, &bin)) << step;
        EXPECT_EQ(rec.cx, expected[step]);
        EXPECT_EQ(bin != nullptr, binary[step]);
        if (bin) {
            EXPECT_EQ(+static_cast<tevix_lens_bin_t *>(bin)->cx, expected[step]);
            EXPECT_EQ(rec.width, 4u);
        }
        tevix_param_len_bin_free(bin);
        // A damaged file falls through to the next name, as a missing one does.
        tevix::test::write_text(path(binary[step], with_id[step]), "garbage");
    }
    tevix_lens_param_t rec = _lens(1);
    void *bin = nullptr;
    EXPECT_FALSE(lens_load_search(&dev_, &rec, &bin));
    EXPECT_EQ(bin, nullptr);
    EXPECT_EQ(rec.cx, 1.0);
    EXPECT_TRUE(log_.has("Load lens_param_4242.bin: skipped"));
    EXPECT_TRUE(log_.has("Load lens_param.txt: skipped"));
}

}  // namespace
