// Calibration through the camera: a container downloaded into the virtual camera's flash is
// fetched in upload mode at the next open, cached and mounted, and the distances come out
// calibrated. Also the upload rules under lost and stray frames, damaged uploads, and packing.
#include <atomic>
#include <cstring>
#include <thread>

#include "calib/calib_dev_xfer.h"
#include "calib/calib_writer.h"
#include "drivers/drv_calib.h"
#include "vcam_env.h"

namespace {

namespace fs = std::filesystem;
using tevix::emu::firmware;

using calib_env = tevix::test::vcam_env;
::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(
    new calib_env({calib_env::scene_unit(calib_env::at_fps(0))}, "CALIB_LOG"));

// A calibration block for 20 MHz adding lut_mm to every distance, calibrated at the virtual
// camera's own temperatures (board 35.0 C, sensor 42.0 C): no drift.
std::vector<uint8_t> _block(int16_t lut_mm) {
    tevix::drv::calib_block b;
    b.freq = 20000000;
    b.ver = 1;
    b.ts = 5;
    b.noneed_calc_coeff = 1;
    b.t_cb = 350;
    b.t_ib = 420;
    b.lut.assign(tevix::drv::k_phase_lut, lut_mm);
    return tevix::drv::block_payload(b);
}

class calib_dev : public ::testing::Test {
  protected:
    void SetUp() override {
        calib_env::cam()->reset();
        tevix::calib::param_container c;
        c.ts = 1234;
        c.blocks = {{1, _block(150)}};
        ASSERT_TRUE(tevix::calib::param_container_write(source_, c));
    }
    template <class F>
    auto fw(F &&f) {
        return calib_env::cam()->with_firmware(std::forward<F>(f));
    }
    // The centre distance of one frame decoded by a freshly opened camera (which loads its
    // calibration at open).
    int centre_after_open() {
        tevix_dev_t *dev = tevix_dev_open(nullptr);
        EXPECT_NE(dev, nullptr);
        if (!dev) return -1;
        EXPECT_EQ(tevix_cap_start(dev), 1);
        std::vector<uint8_t> raw(8u << 20);
        tevix_frame_info_t info{};
        int got = 0;
        for (int i = 0; i < 50 && got != 1; ++i) got = tevix::test::pull(dev, raw, &info);
        EXPECT_EQ(got, 1);
        const auto mm = tevix::test::decode(tevix_frame_get_dist_u16, dev, raw, info, 320 * 240);
        tevix_cap_stop(dev);
        tevix_dev_close(dev);
        // The mean of a central patch: the scene's noise averages out.
        double sum = 0;
        int n = 0;
        for (int y = 100; y < 140; ++y)
            for (int x = 140; x < 180; ++x)
                if (mm[y * 320 + x] && mm[y * 320 + x] < 65500) sum += mm[y * 320 + x], ++n;
        return n ? int(sum / n + 0.5) : -1;
    }
    std::string cached() {
        tevix_dev_t *dev = tevix_dev_open(nullptr);
        std::string p = dev ? tevix::test::param_path(dev) : "";
        if (dev) tevix_dev_close(dev);
        return p;
    }

    tevix::test::calib_dirs dirs_;
    const std::string &prefix_ = dirs_.prefix;
    const tevix::test::temp_dir &work_ = dirs_.work;
    const std::string source_ = work_.file("factory.bin");
};

// The zipped download takes the same fetch, cache and mount path in the station test; here the
// plain container, fetched into an empty cache and over an older calibration (ts 1000 against the
// camera's 1234) of another offset.
TEST_F(calib_dev, download_then_open_fetches_caches_and_mounts_over_an_older_file) {
    const int plain = centre_after_open();
    ASSERT_GT(plain, 0);
    tevix_dev_t *dev = tevix_dev_open(nullptr);
    ASSERT_NE(dev, nullptr);
    ASSERT_TRUE(tevix_calib_bin_data_pk_and_download_ex(dev, false, true, source_.c_str()));
    tevix_dev_close(dev);
    const std::string cache = cached();
    tevix::calib::param_container old;
    old.ts = 1000;
    old.blocks = {{1, _block(-400)}};
    for (bool older : {false, true}) {
        if (older) {
            ASSERT_TRUE(tevix::calib::param_container_write(cache, old));
        } else {
            fs::remove(cache);
        }
        EXPECT_NEAR(centre_after_open(), plain + 150, 1) << "older " << older;
        // The device's copy now sits in the cache, byte for byte the factory file.
        EXPECT_TRUE(tevix::test::read_file(cache) == tevix::test::read_file(source_)) << older;
    }
    EXPECT_FALSE(fs::exists(prefix_ + "calibration.bin"));
    EXPECT_FALSE(fs::exists(work_.file("tmp.zip")));
}

TEST_F(calib_dev, damaged_uploads_leave_no_container_and_the_defaults) {
    // What a camera could send in upload mode, each refused with its line; nothing is left
    // behind. The packed form of the factory file (zipped) is the base of the damaged ones.
    const std::string packed = work_.file("packed.bin");
    ASSERT_TRUE(
        tevix::calib::_tevix_param_encode_construct(source_.c_str(), packed.c_str(), 7, true));
    const std::string good = tevix::test::read_file(packed);
    uint32_t dsize;
    std::memcpy(&dsize, good.data() + 14, 4);
    auto edit = [&](size_t at, uint32_t v, int bytes) {
        std::string b = good;
        std::memcpy(b.data() + at, &v, size_t(bytes));
        return b;
    };
    std::string cut = good;  // the archive's second half (with its directory) lost
    std::fill(cut.begin() + 18 + dsize / 2, cut.begin() + 18 + dsize, '\x01');
    std::string garbage = good;
    for (size_t i = 18; i < 18 + dsize; ++i) garbage[i] = char(i * 131);
    const struct {
        const char *what;
        std::string bytes;
        const char *line;
    } cases[] = {
        {"shorter than its header", good.substr(0, 10), "Read header of"},
        {"not valid", edit(0, 0, 1), "header verify failed: valid=0"},
        {"no timestamp", edit(6, 0, 4), "header verify failed: valid=1, ts=0"},
        {"a size that is not the file's", edit(10, 307200, 4), "fsize=153600 (expect=307200)"},
        {"no data", edit(14, 0, 4), "dsize=0)"},
        {"more data than the file", edit(14, 153600, 4), "dsize=153600)"},
        {"a cut archive", cut, "unzip tmp.zip failed"},
        {"a garbage archive", garbage, "unzip tmp.zip failed"},
    };
    tevix_dev_t dev{};
    dev.path_prefix = prefix_.c_str();
    const std::string container = tevix::test::param_path(&dev);
    const std::string bin = prefix_ + "calibration.bin";
    for (const auto &c : cases) {
        ASSERT_TRUE(tevix::test::write_text(bin, c.bytes)) << c.what;
        tevix::test::log_capture log;
        tevix::calib::_calib_pk_parse(&dev, bin);
        EXPECT_EQ(log.count(c.line), 1) << c.what << "\n" << log.text();
        EXPECT_FALSE(fs::exists(container)) << c.what;
        EXPECT_FALSE(fs::exists(bin)) << c.what;
        EXPECT_FALSE(fs::exists(work_.file("tmp.zip"))) << c.what;
    }
    // A camera holding the garbage archive: the open fetches it, the container never appears
    // and the distances stay uncalibrated.
    const int plain = centre_after_open();
    fw([&](firmware &f) {
        f.set_store(3, {1, 0, std::vector<uint8_t>(garbage.begin(), garbage.end())});
    });
    fs::remove(cached());
    EXPECT_EQ(centre_after_open(), plain);
    EXPECT_FALSE(fs::exists(cached()));
}

TEST_F(calib_dev, lost_and_stray_upload_frames) {
    // A container larger than one upload frame: three frames to fetch.
    tevix::calib::param_container big;
    big.ts = 99;
    big.blocks = {{1, _block(10)}, {1, std::vector<uint8_t>(300000, 7)}};
    const std::string big_path = work_.file("big.bin");
    ASSERT_TRUE(tevix::calib::param_container_write(big_path, big));
    tevix_dev_t *dev = tevix_dev_open(nullptr);
    ASSERT_NE(dev, nullptr);
    ASSERT_TRUE(tevix_calib_bin_data_pk_and_download_ex(dev, false, true, big_path.c_str()));
    const std::string cache = tevix::test::param_path(dev);
    struct run {
        const char *what;
        void (*fault)(firmware &);
        bool container;
    } runs[] = {
        {"clean", [](firmware &) {}, true},
        {"one stray frame first", [](firmware &f) { f.stray_frames(1); }, true},
        {"a lost frame", [](firmware &f) { f.drop_upload_frames(1); }, false},
        {"two stray frames", [](firmware &f) { f.stray_frames(2); }, false},
    };
    for (const run &r : runs) {
        fs::remove(cache);
        fw(r.fault);
        // Frames were fetched: true even when the result fails verification.
        EXPECT_TRUE(tevix_param_load_from_dev(dev)) << r.what;
        EXPECT_EQ(fs::exists(cache), r.container) << r.what;
        if (r.container) {
            EXPECT_TRUE(tevix::test::read_file(cache) == tevix::test::read_file(big_path));
        }
        EXPECT_FALSE(fs::exists(prefix_ + "calibration.bin")) << r.what;
        EXPECT_EQ(fw([](firmware &f) { return f.dev_mode(); }), 0u) << r.what;
    }
    tevix_dev_close(dev);
}

TEST_F(calib_dev, refusals_and_packing_edges) {
    // A stored size beyond 10 MiB is refused before any frame is fetched.
    std::vector<uint8_t> image(18 + 64, 0);
    image[0] = 1;
    const uint32_t fsize = 0xA00001, dsize = 64, ts = 3;
    std::memcpy(image.data() + 6, &ts, 4);
    std::memcpy(image.data() + 10, &fsize, 4);
    std::memcpy(image.data() + 14, &dsize, 4);
    fw([&](firmware &f) {
        f.set_store(3, {1, 0, image});
        f.clear_log();
    });
    tevix_dev_t *dev = tevix_dev_open(nullptr);
    ASSERT_NE(dev, nullptr);
    EXPECT_FALSE(tevix_param_load_from_dev(dev));
    EXPECT_EQ(calib_env::cam()->stats().frames, 0u);
    tevix_dev_close(dev);

    // 153582 bytes pack into exactly one upload frame, no padding; one byte more pads to two
    // frames with 0x01.
    const std::string exact = work_.file("exact.bin"), packed = work_.file("packed.bin");
    for (const auto &[size, frames] : {std::pair{153582u, 1u}, std::pair{153583u, 2u}}) {
        tevix::calib::write_file(exact, std::vector<uint8_t>(size, 0x42));
        ASSERT_TRUE(
            tevix::calib::_tevix_param_encode_construct(exact.c_str(), packed.c_str(), 7, false));
        const std::string bytes = tevix::test::read_file(packed);
        ASSERT_EQ(bytes.size(), 153600u * frames) << size;
        EXPECT_EQ(bytes.back(), frames == 1 ? '\x42' : '\x01') << size;
    }

    // Two packers zipping in one working directory take turns on "tmp.zip": both results hold
    // their own container, and no "tmp.zip" is left.
    std::atomic<int> ok{0};
    std::vector<std::thread> packers;
    const std::vector<std::string> outs = {work_.file("z0.bin"), work_.file("z1.bin"),
                                           work_.file("z2.bin"), work_.file("z3.bin")};
    for (const std::string &out : outs)
        packers.emplace_back([&, out] {
            ok +=
                tevix::calib::_tevix_param_encode_construct(source_.c_str(), out.c_str(), 7, true);
        });
    for (auto &t : packers) t.join();
    EXPECT_EQ(ok.load(), 4);
    EXPECT_FALSE(fs::exists(work_.file("tmp.zip")));
    for (const std::string &out : outs)
        EXPECT_TRUE(tevix::test::read_file(out) == tevix::test::read_file(outs[0])) << out;
}

}  // namespace
