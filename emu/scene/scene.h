// Scene renderer of the virtual camera: a small room with two boxes, a sphere and a ramp, seen
// through a lens record, gives the true radial distance and reflectivity of every pixel; from
// them it synthesises EPC raw frames in the sensor's row order, so that decoding can be checked
// against known geometry.
//
// Raw frame layout: the planes follow each other, width x height little-endian u16 samples each,
// rows in sensor order (sensor row 2k is image row H/2 - 1 - k, row 2k + 1 is image row H/2 + k).
// The 20-byte frame header (u32 size, u16 index, u16 format, u16 width, u16 height, s16 Tcb,
// s16 Tib, u32 time word) takes the place of the first 10 samples of plane 0, as on the camera.
//
// The host drives the scene through the camera's parameters: the modulation frequency
// (parameter 1) and the scene control (parameter 224: flat target distance, temperatures, noise),
// as a calibration station moves its target and warms the camera.
//
// Formats: 2 four DCS planes; 1 two planes holding the frequency's reduced pair; 4 and 10 one
// plane in the 1-plane layout (rows whose pair index is even carry the pair's first sample, the
// others its second); 11 one plane of grey data, 2048 + amplitude.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "tevix/tevix_param.h"
#include "vcam.h"

namespace tevix::emu {

struct scene_config {
    uint32_t freq_hz = 20000000;
    uint16_t width = 320, height = 240;
    tevix_lens_param_t lens{157.262,
                            122.083,
                            210.783,
                            204.817,
                            {-0.378924, 0.145035, -0.000970854, 6.20728e-05, -0.0133954},
                            5,
                            320,
                            240};
    int16_t tcb = 350, tib = 420;  // 0.1 C
    bool noise = false;            // shot noise on every sample
    uint32_t seed = 1;
    float amp_max = 1900.0f;  // amplitude of a white surface close by (DCS counts)
    // The unit's own systematic errors, as a real camera has them before calibration: a fixed
    // offset per pixel, a cyclic error over the phase and a drift with temperature, all drawn
    // from unit_seed (the virtual camera takes it from the serial number). Off: ideal phases.
    bool unit_errors = false;
    uint32_t unit_seed = 0;
    // Depth of the room's back wall: 4.8 m, or 6.2 m for a scene deeper than one frequency's
    // unambiguous range (1.5 m at 100 MHz).
    double room_back_mm = 4800;
    // A flat target square to the optical axis at this distance (mm) filling the view instead of
    // the room: what a calibration station shows the camera. 0: the room.
    uint32_t target_mm = 0;
    float target_refl = 0.8f;
};

// The systematic errors of one emulated unit (see scene_config::unit_errors), in millimetres.
struct unit_errors {
    std::vector<float> pixel_mm;                     // per image pixel
    double cyclic_amp_mm = 0, cyclic_phase = 0;      // amp x sin(4 theta + phase)
    double drift_board_mm = 0, drift_sensor_mm = 0;  // per degree above 35.0 / 42.0 C
    static unit_errors draw(uint32_t seed, uint32_t width, uint32_t height);
    // The error a pixel adds to a true distance d (mm) at a frequency's unambiguous range and
    // temperatures tcb, tib (0.1 C): its offset and the drift, then the cyclic error at the phase
    // the distance so far gives, as the sensor's wiggling follows the phase it measures.
    double at(uint32_t pixel, double d, double range, int16_t tcb, int16_t tib) const;
    // The distance the unit reads for a true distance d: d plus the error, never below 0 (d
    // itself when off or where nothing is hit).
    double read(uint32_t pixel, double d, double range, int16_t tcb, int16_t tib) const;
};

constexpr uint32_t k_scene_header_bytes = 20;

class scene_renderer : public frame_source {
  public:
    scene_renderer(const scene_config &cfg, uint16_t format);

    vx_frame_desc_t describe() const override;
    void render(uint32_t index, std::span<uint8_t> out, vx_frame_desc_t &desc) override;
    void configure(const param_reader &param) override;
    void on_param(uint8_t id, std::span<const uint8_t> value) override;
    std::vector<uint8_t> param(uint8_t id) const override;
    void reset() override;

    // The configuration now (the host may have changed frequency, target, temperatures, noise).
    scene_config config() const;

    // Truth in image order: radial distance in mm (0 where no surface is hit) and reflectivity.
    // Read them while the host changes nothing: a new target replaces them.
    const std::vector<float> &truth_mm() const { return dist_; }
    const std::vector<float> &reflectivity() const { return refl_; }
    // Amplitude in DCS counts per image pixel.
    const std::vector<float> &amplitude() const { return amp_; }
    // The unit's systematic errors (empty pixel_mm when off).
    const unit_errors &errors() const { return errors_; }
    // Planes of the format and the frame length in bytes.
    uint32_t planes() const;
    uint32_t frame_bytes() const;
    // Image-order pixels whose samples the frame header replaces.
    bool under_header(uint32_t x, uint32_t y) const;

  private:
    void _geometry();
    void _truth();

    const scene_config init_;
    scene_config cfg_;
    uint16_t format_;
    mutable std::mutex m_;  // cfg_ and the truth: the host changes them while frames render
    std::vector<float> room_, room_refl_, axial_;  // the room, and each ray's z over its length
    std::vector<float> dist_, refl_, amp_;
    unit_errors errors_;
};

// Time word of the frame header for a time of day: bits 0-4 hours, 5-10 minutes, 11-16
// seconds, 17-31 microseconds / 64.
uint32_t scene_time_word(uint32_t hours, uint32_t minutes, uint32_t seconds, uint32_t usec);

// The four DCS samples of a pixel of amplitude a at phase theta (12-bit, around 2048, with
// D2 - D0 = -a cos(theta) and D3 - D1 = -a sin(theta)): the ideal values, and rounded so that the
// two differences are the rounded ideal ones exactly.
void scene_dcs_ideal(double theta, double a, double v[4]);
void scene_dcs_exact(double theta, double a, uint16_t d[4]);

// The frame description of a renderer's frames: size, format, geometry and temperatures.
vx_frame_desc_t scene_describe(const scene_config &cfg, uint16_t format, uint32_t frame_bytes);

// The frame header over the first 20 bytes of a frame: desc's size, format, geometry and
// temperatures, frame number index and a time word 33.333 ms a frame after noon.
void scene_write_header(uint32_t index, uint8_t *frame, vx_frame_desc_t &desc);

// One frame of a format as a byte vector (a convenience over scene_renderer).
std::vector<uint8_t> scene_render_frame(const scene_config &cfg, uint16_t format, uint32_t index);

}  // namespace tevix::emu
