// Data transfer and firmware upgrade over the real libusb against the virtual camera's flash:
// the version and size rules, erase only, download then upload byte for byte, the retry and
// error-counter rules under the camera's faults, and uploads that leave no partial file.
#include <fstream>
#include <random>

#include "ll/usb/xfer_proto.h"
#include "vcam_env.h"

namespace {

namespace x = tevix::xfer;
using tevix::emu::firmware;

constexpr uint8_t k_check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
static_assert(x::crc16(k_check, sizeof k_check) == 0x31C3);  // the CRC's known check value

using xfer_env = tevix::test::vcam_env;
::testing::Environment *const g_env =
    ::testing::AddGlobalTestEnvironment(new xfer_env({xfer_env::unit{}}));

class xfer : public ::testing::Test {
  protected:
    void SetUp() override {
        xfer_env::cam()->reset();
        dev_ = tevix_dev_open_by_uri("usb://1:2");
        ASSERT_NE(dev_, nullptr);
    }
    void TearDown() override {
        if (dev_) tevix_dev_close(dev_);
    }
    template <class F>
    auto fw(F &&f) {
        return xfer_env::cam()->with_firmware(std::forward<F>(f));
    }
    // A file of n random bytes.
    std::string file(const char *name, size_t n, uint32_t seed = 1) {
        std::vector<char> v(n);
        std::mt19937 rng(seed);
        for (char &c : v) c = static_cast<char>(rng());
        const std::string p = dir_.file(name);
        std::ofstream(p, std::ios::binary).write(v.data(), static_cast<std::streamsize>(n));
        return p;
    }
    // 0xCC commands the camera received.
    size_t transfer_cmds() {
        return fw([](firmware &f) {
            size_t n = 0;
            for (const auto &c : f.log()) n += c.request == x::k_cmd;
            return n;
        });
    }
    uint32_t packets() {
        return fw([](firmware &f) { return f.packets_seen(); });
    }
    std::vector<uint8_t> stored(uint8_t type) {
        return fw([type](firmware &f) {
            const firmware::store *s = f.find_store(type);
            return s ? s->data : std::vector<uint8_t>{};
        });
    }
    bool logged(const std::string &text) { return log_.has(text); }
    tevix::test::temp_dir dir_;
    tevix::test::log_capture log_;
    tevix_dev_t *dev_ = nullptr;
};

// 10 KiB: three packets of the camera's 4 KiB.
constexpr size_t k_small = 10 * 1024;

TEST_F(xfer, download_then_upload_gives_the_same_bytes) {
    const std::string in = file("in.bin", 1u << 20), out = dir_.file("out.bin");
    std::vector<std::pair<uint64_t, uint64_t>> steps;
    auto note = [](uint64_t done, uint64_t total, void *u) {
        static_cast<std::vector<std::pair<uint64_t, uint64_t>> *>(u)->push_back({done, total});
    };
    ASSERT_EQ(tevix_data_download_ex(dev_, in.c_str(), 3, 7, 0x1000, note, &steps), 1);
    EXPECT_TRUE(logged("[tevix_data_download]Data transfer finished."));
    EXPECT_EQ(packets(), 256u);
    ASSERT_FALSE(steps.empty());
    EXPECT_EQ(steps.back(), std::make_pair(uint64_t{1} << 20, uint64_t{1} << 20));
    for (size_t i = 1; i < steps.size(); ++i) EXPECT_GE(steps[i].first, steps[i - 1].first);
    EXPECT_EQ(fw([](firmware &f) { return f.find_store(3)->addr; }), 0x1000u);

    ASSERT_EQ(tevix_data_upload(dev_, 3, out.c_str()), 1);
    EXPECT_EQ(tevix::test::read_file(out), tevix::test::read_file(in));
    EXPECT_FALSE(std::filesystem::exists(out + ".part"));
}

TEST_F(xfer, arguments_sizes_and_versions_decide_before_anything_is_sent) {
    tevix_dev_t closed{};
    const std::string empty = file("empty.bin", 0), fw_image = file("fw.bin", k_small);
    EXPECT_EQ(tevix_data_download(nullptr, fw_image.c_str(), 3, 1, 0), -1);
    EXPECT_EQ(tevix_firmware_upgrade(&closed, 0, 1, fw_image.c_str()), -1);
    EXPECT_EQ(tevix_data_upload(nullptr, 3, fw_image.c_str()), -1);
    EXPECT_EQ(tevix_data_upload(dev_, 3, nullptr), -1);
    EXPECT_EQ(tevix_data_download(dev_, fw_image.c_str(), 256, 1, 0), -1);
    EXPECT_TRUE(logged("[tevix_data_download]Wrong params\n"));
    EXPECT_TRUE(logged("[tevix_data_upload]Wrong params\n"));
    const std::string huge = dir_.file("huge.bin");
    std::ofstream(huge, std::ios::binary).close();
    std::filesystem::resize_file(huge, 104857601);  // sparse: no disk used
    EXPECT_EQ(tevix_data_download(dev_, empty.c_str(), 3, 1, 0), -1);
    EXPECT_TRUE(logged("[tevix_data_download]Wrong File size:0"));
    EXPECT_EQ(tevix_firmware_upgrade(dev_, 0, 200, huge.c_str()), -1);
    EXPECT_TRUE(logged("[tevix_data_download]Wrong File size:104857601"));
    EXPECT_EQ(tevix_firmware_upgrade(dev_, 0, 200, dir_.file("missing.bin").c_str()), -1);
    EXPECT_TRUE(logged("[tevix_data_download]File open failed:"));
    EXPECT_EQ(transfer_cmds(), 0u);

    // The running firmware is 1.81: not to 1.81 again nor down; up, yes.
    EXPECT_EQ(tevix_firmware_upgrade(dev_, 0, 181, fw_image.c_str()), -1);
    EXPECT_TRUE(logged("[tevix_data_download]Can't upgrade from 181 to 181"));
    EXPECT_EQ(packets(), 0u);
    EXPECT_EQ(tevix_firmware_upgrade(dev_, 0, 182, fw_image.c_str()), 1);
    EXPECT_EQ(fw([](firmware &f) { return f.find_store(0)->version; }), 182);
    // Data (type 3) goes whatever the versions; a camera at 65000 or above takes anything.
    fw([](firmware &f) { f.set_store(3, {900, 0, {1, 2, 3}}); });
    EXPECT_EQ(tevix_data_download(dev_, fw_image.c_str(), 3, 1, 0), 1);
    fw([](firmware &f) { f.set_store(0, {65000, 0, {}}); });
    EXPECT_EQ(tevix_firmware_upgrade(dev_, 0, 1, fw_image.c_str()), 1);
    EXPECT_EQ(stored(0).size(), k_small);
}

TEST_F(xfer, type_255_erases_only) {
    fw([](firmware &f) { f.set_store(3, {4, 0, std::vector<uint8_t>(100, 9)}); });
    const std::string any = file("any.bin", k_small);
    EXPECT_EQ(tevix_data_download(dev_, any.c_str(), 255, 1, 0), 1);
    EXPECT_EQ(packets(), 0u);
    EXPECT_EQ(fw([](firmware &f) { return f.erases(); }), 1u);
    EXPECT_EQ(fw([](firmware &f) { return f.find_store(3) == nullptr; }), true);
    EXPECT_TRUE(logged("[tevix_data_download]erase ok"));
    // Nothing left to upload now: refused, and no file appears.
    const std::string out = dir_.file("none.bin");
    EXPECT_EQ(tevix_data_upload(dev_, 3, out.c_str()), -1);
    EXPECT_FALSE(std::filesystem::exists(out));
}

TEST_F(xfer, retries_follow_the_error_counter) {
    const std::string in = file("in.bin", k_small, 5);
    const std::string bytes = tevix::test::read_file(in);
    const std::vector<uint8_t> want(bytes.begin(), bytes.end());
    struct fault {
        const char *what;
        void (*set)(firmware &);
        bool ok;           // the transfer completes
        uint32_t packets;  // packets sent
    };
    const fault faults[] = {
        {"not taken yet once: the retry sees it", [](firmware &f) { f.stale_acks(1); }, true, 3},
        {"not taken yet twice: sent again", [](firmware &f) { f.stale_acks(2); }, true, 4},
        {"a packet lost: sent again", [](firmware &f) { f.lose_packets(1); }, true, 4},
        {"a wrong packet number: sent again", [](firmware &f) { f.wrong_acks(1); }, true, 4},
        {"three wrong numbers in a row still pass", [](firmware &f) { f.wrong_acks(3); }, true, 6},
        {"an erase that takes a while", [](firmware &f) { f.erase_polls(20); }, true, 3},
        // Not taken yet twice after the 5 ms retry ends the transfer before a third send.
        {"not taken yet after two retries: the end", [](firmware &f) { f.stale_acks(4); }, false,
         2},
        {"four wrong numbers in a row: the end", [](firmware &f) { f.wrong_acks(4); }, false, 4},
    };
    for (const fault &c : faults) {
        xfer_env::cam()->reset();
        fw(c.set);
        const int r = tevix_data_download(dev_, in.c_str(), 3, 1, 0);
        EXPECT_EQ(packets(), c.packets) << c.what;
        if (c.ok) {
            EXPECT_EQ(r, 1) << c.what;
            EXPECT_EQ(stored(3), want) << c.what;
        } else {
            EXPECT_LT(r, 0) << c.what;
            EXPECT_TRUE(logged("[tevix_data_download]Data transfer failed.\n")) << c.what;
            EXPECT_EQ(fw([](firmware &f) { return f.find_store(3) == nullptr; }), true) << c.what;
        }
    }
}

TEST_F(xfer, damaged_upload_pieces_are_read_again_or_fail_whole) {
    const std::vector<uint8_t> data(3 * x::k_piece_size + 17, 0x5C);
    fw([&](firmware &f) { f.set_store(3, {1, 0, data}); });
    const std::string out = dir_.file("up.bin");
    fw([](firmware &f) { f.corrupt_pieces(2); });
    ASSERT_EQ(tevix_data_upload(dev_, 3, out.c_str()), 1);
    EXPECT_EQ(tevix::test::read_file(out), std::string(data.begin(), data.end()));
    // A piece damaged on every try: no file, old contents kept.
    fw([](firmware &f) { f.corrupt_pieces(3); });
    EXPECT_EQ(tevix_data_upload(dev_, 3, out.c_str()), -1);
    EXPECT_TRUE(logged("[tevix_data_upload]Data upload failed at piece 0"));
    EXPECT_EQ(tevix::test::read_file(out), std::string(data.begin(), data.end()));
    EXPECT_FALSE(std::filesystem::exists(out + ".part"));
}

}  // namespace
