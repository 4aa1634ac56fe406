// The scene as a SONY unit sees it: the scene renderer's geometry (true radial distance and
// amplitude of every pixel at 640x480 through the unit's lens) turned into the SONY raw formats
// 2, 13, 14, 15, 16 and 17 and the phase-word formats (F & 0x77 == 2), laid out as the driver's
// layout words say (src/drivers/sony/imx_format.h):
//
//   2        four u16 planes D0..D3 of 12-bit samples around 2048, D2 - D0 = -a cos(theta) and
//            D3 - D1 = -a sin(theta) for amplitude a and phase theta
//   13       two s16 planes I = -a cos(theta), Q = -a sin(theta)
//   16       I and Q planes as one packed 12-bit stream (|I|, |Q| above 2047: the marker -2048)
//   14       two frequencies, s8 I0 Q0 I1 Q1 (I / 16; -128 beyond +-127); with the flag bit
//            (format 142) each pixel's four together, else four planes
//   17       two frequencies, 12-bit I0 Q0 I1 Q1 as one packed stream; with the flag bit (145)
//            per pixel, else plane by plane
//   15       HDR: s8 planes I, Q taken with the first integration time, then with the second;
//            amplitudes scale with the integration time (1000 us: the scene's amplitude), and a
//            sample beyond +-127 is saturated (-128)
//   10, 18.. the camera's own phase, bits 0..14, as u16 words (bit 15 where nothing is seen)
//
// Samples are rounded to whole counts; with noise each I and Q gets Gaussian noise of 6.4 counts
// (the shot noise of two samples near 2048). The first 20 bytes of every frame are its header.
// The unit's systematic errors (scene_config::unit_errors) shift each frequency's distance before
// its phase is taken, the cyclic part at that frequency's own phase. Frequencies, format and
// integration times follow the firmware parameters 1, 21, 10, 13 and 16 when the virtual camera
// streams it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "drivers/drv_calib.h"
#include "scene/scene.h"

namespace tevix::emu {

// The lens of the virtual SONY unit, as its parameters 22, 86 and 87 report it.
inline constexpr float k_sony_lens[9] = {321.5f, 242.25f, 562.0f,   561.0f, -0.118f,
                                         0.052f, 0.0004f, -0.0003f, -0.011f};

// A scene config for a SONY unit: 640x480 through k_sony_lens.
scene_config sony_scene_config();

class sony_renderer : public frame_source {
  public:
    explicit sony_renderer(const scene_config &cfg, uint16_t format = 2);

    void set_format(uint16_t format) { format_ = format; }
    void set_freqs(uint32_t f0, uint32_t f1) { f0_ = f0, f1_ = f1; }
    void set_intg(uint32_t first_us, uint32_t second_us) {
        intg_[0] = first_us, intg_[1] = second_us;
    }

    void configure(const param_reader &param) override;
    vx_frame_desc_t describe() const override;
    void render(uint32_t index, std::span<uint8_t> out, vx_frame_desc_t &desc) override;

    uint32_t frame_bytes() const;
    // A calibration station's view: the phase (1/32768 turn) each pixel measures at frequency f
    // when it sees a target at radial distance truth_mm, the unit's errors included.
    std::vector<uint16_t> station_phases(double truth_mm, uint32_t f) const;
    // The station's measurement block for frequency f with the target at each of truths_mm
    // (within f's range), at the scene's temperatures: the driver fits it at mount.
    tevix::drv::calib_block station_block(uint32_t f, const std::vector<float> &truths_mm) const;
    bool under_header(uint32_t x, uint32_t y) const { return y == 0 && x < 20; }
    const std::vector<float> &truth_mm() const { return geo_.truth_mm(); }
    const std::vector<float> &amplitude() const { return geo_.amplitude(); }
    const unit_errors &errors() const { return geo_.errors(); }
    uint32_t width() const { return cfg_.width; }
    uint32_t height() const { return cfg_.height; }

  private:
    scene_config cfg_;
    scene_renderer geo_;
    uint16_t format_;
    uint32_t f0_ = 100000000, f1_ = 80000000;
    uint32_t intg_[2] = {1000, 0};
};

}  // namespace tevix::emu
