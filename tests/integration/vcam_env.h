// Virtual cameras for a whole test program, and the small helpers of the tests that drive them
// through the public calls. The testbed must exist before the library starts libusb, and go after
// the last close. Brings in GoogleTest, the public API, the emulator and the scene renderer.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "scene/scene.h"
#include "test_util.h"
#include "tevix/tevix.h"
#include "tevix/tevix_param.h"
#include "vcam.h"

namespace tevix::test {

class vcam_env : public ::testing::Environment {
  public:
    // A camera and what it streams (no source: the test pattern).
    struct unit {
        tevix::emu::camera_config cfg;
        std::function<std::unique_ptr<tevix::emu::frame_source>()> source;
    };
    // The default camera at fps frames a second (0: as fast as the host takes them).
    static tevix::emu::camera_config at_fps(uint32_t fps) {
        tevix::emu::camera_config cfg;
        cfg.fps = fps;
        return cfg;
    }
    // A camera streaming the EPC scene renderer (format 2) of scene_cfg.
    static unit scene_unit(tevix::emu::camera_config cfg, tevix::emu::scene_config scene_cfg = {}) {
        return {cfg,
                [scene_cfg] { return std::make_unique<tevix::emu::scene_renderer>(scene_cfg, 2); }};
    }
    // log_env: an environment variable that, when set, shows the library's log on the console.
    explicit vcam_env(std::vector<unit> units, const char *log_env = nullptr)
        : units_(std::move(units)), log_env_(log_env) {}
    void SetUp() override {
        tb_ = std::make_unique<tevix::emu::testbed>();
        for (const unit &u : units_) {
            std::unique_ptr<tevix::emu::frame_source> src = u.source ? u.source() : nullptr;
            sources_.push_back(src.get());
            cams_.push_back(tb_->add(u.cfg, std::move(src)));
        }
        tevix_init("");
        tevix_log_cfg(log_env_ && std::getenv(log_env_) ? 0 : 7, 7, 7);
    }
    void TearDown() override {
        tevix_uninit();
        cams_.clear();
        sources_.clear();
        tb_.reset();
    }
    // The testbed, for cameras added while the tests run.
    static tevix::emu::testbed &tb() { return *tb_; }
    static tevix::emu::camera *cam(size_t i = 0) { return cams_.at(i); }
    // What camera i streams: the scene renderer of scene_unit (null with the test pattern).
    template <class Source = tevix::emu::scene_renderer>
    static Source *scene(size_t i = 0) {
        return static_cast<Source *>(sources_.at(i));
    }

  private:
    std::vector<unit> units_;
    const char *log_env_;
    static inline std::unique_ptr<tevix::emu::testbed> tb_;
    static inline std::vector<tevix::emu::camera *> cams_;
    static inline std::vector<tevix::emu::frame_source *> sources_;
};

// A parameter of one or two 32-bit words; len: the bytes the parameter takes.
inline tevix_param_item_t u32_item(uint32_t id, uint32_t a, uint32_t b = 0, uint8_t len = 4) {
    tevix_param_item_t it{};
    it.id = id;
    it.len = len;
    it.value.u32[0] = a;
    it.value.u32[1] = b;
    return it;
}

// Sets one such parameter: true when the camera took it.
inline bool set_u32(tevix_dev_t *dev, uint32_t id, uint32_t a, uint32_t b = 0, uint8_t len = 4) {
    tevix_param_item_t it = u32_item(id, a, b, len);
    return tevix_param_batch_set(dev, &it, 1) == 1;
}

// Changes the capture configuration the device has now through edit.
template <class F>
bool cap_configure(tevix_dev_t *dev, F &&edit) {
    tevix_cap_cfg_t cfg{};
    tevix_cap_config_get(dev, &cfg);
    edit(cfg);
    return tevix_cap_config_set(dev, &cfg) == 1;
}

// One frame into buf: the pull's result.
inline int pull(tevix_dev_t *dev, std::vector<uint8_t> &buf, tevix_frame_info_t *info = nullptr) {
    return tevix_cap_get_frames(dev, 1, buf.data(), static_cast<uint32_t>(buf.size()), info);
}

// Every value of a pulled frame through get (a tevix_frame_get_* call): n of them expected.
template <class T>
std::vector<T> decode(int (*get)(tevix_dev_t *, T *, uint32_t, const uint8_t *, uint32_t,
                                 const tevix_frame_info_t *),
                      tevix_dev_t *dev, const std::vector<uint8_t> &raw,
                      const tevix_frame_info_t &info, uint32_t n) {
    std::vector<T> out(n);
    EXPECT_EQ(get(dev, out.data(), n, raw.data(), info.size, &info), int(n));
    return out;
}

// The path of the calibration container the library keeps for dev.
inline std::string param_path(const tevix_dev_t *dev) {
    char name[512];
    return tevix_get_param_absolute_name(dev, name, sizeof name);
}

// A scratch working directory and an empty calibration cache for one test, undone after it.
struct calib_dirs {
    calib_dirs() {
        std::filesystem::current_path(work.path());
        tevix_path_set(prefix.c_str());
    }
    ~calib_dirs() {
        tevix_path_set("");
        std::filesystem::current_path(old_cwd);
    }
    tevix::test::temp_dir work, cache;
    std::string prefix = cache.path().string() + "/";
    std::filesystem::path old_cwd = std::filesystem::current_path();
};

// What the capture error callback (note) was told, in order; it answers true.
struct cap_errors {
    static int note(tevix_dev_t *, int code, uint32_t extra) {
        std::lock_guard lk(m);
        seen.emplace_back(code, extra);
        return 1;
    }
    static std::vector<std::pair<int, uint32_t>> all() {
        std::lock_guard lk(m);
        return seen;
    }
    static void reset() {
        std::lock_guard lk(m);
        seen.clear();
    }
    static inline std::mutex m;
    static inline std::vector<std::pair<int, uint32_t>> seen;
};

}  // namespace tevix::test
