// One virtual camera for a whole test program: the testbed must exist before the library starts
// libusb, and go after the last close.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "scene/scene.h"
#include "tevix/tevix.h"
#include "vcam.h"

namespace tevix::test {

class vcam_env : public ::testing::Environment {
  public:
    // scene: the scene renderer instead of the test pattern. log_env: an environment variable
    // that, when set, shows the library's log on the console.
    // scene_cfg: the scene's configuration (the unit's errors, noise).
    vcam_env(tevix::emu::camera_config cfg, bool scene, const char *log_env = nullptr,
             tevix::emu::scene_config scene_cfg = {})
        : cfg_(cfg), scene_(scene), log_env_(log_env), scene_cfg_(scene_cfg) {}
    void SetUp() override {
        tb_ = std::make_unique<tevix::emu::testbed>();
        std::unique_ptr<tevix::emu::scene_renderer> src;
        if (scene_) src = std::make_unique<tevix::emu::scene_renderer>(scene_cfg_, 2);
        renderer_ = src.get();
        cam_ = tb_->add(cfg_, std::move(src));
        tevix_init("");
        tevix_log_cfg(log_env_ && std::getenv(log_env_) ? 0 : 7, 7, 7);
    }
    void TearDown() override {
        tevix_uninit();
        tb_.reset();
    }
    static tevix::emu::camera *cam() { return cam_; }
    // The scene renderer (null with the test pattern).
    static tevix::emu::scene_renderer *scene() { return renderer_; }

  private:
    tevix::emu::camera_config cfg_;
    bool scene_;
    const char *log_env_;
    tevix::emu::scene_config scene_cfg_;
    std::unique_ptr<tevix::emu::testbed> tb_;
    static inline tevix::emu::camera *cam_ = nullptr;
    static inline tevix::emu::scene_renderer *renderer_ = nullptr;
};

}  // namespace tevix::test
