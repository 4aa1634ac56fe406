// Private state of the SONY driver, one per driver row, allocated at init: the state every driver
// keeps (drivers/drv_state.h), the two modulation frequencies with their ranges, the settings
// shared with the telemetry synchronisation, the second frequency's calibration block and the
// work buffers of the I/Q formats.
#pragma once

#include <cstdint>

#include "algo/unwrap.h"
#include "drivers/drv_state.h"

namespace tevix::imx {

constexpr uint32_t k_width = 640, k_height = 480;
constexpr uint32_t k_grey_buf = 614400;  // 640 x 480 x 2
constexpr uint8_t k_block_type = 2;

inline constexpr tevix::drv::drv_names k_imx_names = {"imx_init",
                                                      "imx_frame_get_info",
                                                      "imx_frame_decode",
                                                      "imx_frame_raw_proc",
                                                      "imx_filter_enable",
                                                      "imx_filter_disable",
                                                      "imx_on_update_intg_time",
                                                      "imx_calc_mount_calib",
                                                      "imx_calc_unmount_calib",
                                                      "_imx_calc_calib_coeff",
                                                      "imx_calib_load"};

struct imx_priv : tevix::drv::drv_state {
    imx_priv() {
        names = &k_imx_names;
        width = k_width;
        height = k_height;
        bpf_ss = 0.01f;
        bpf_sr = 0.02f;
        bpf_min = 0;
        bpf_max = 256;
    }

    // Modulation frequencies (Hz) and their unambiguous ranges (mm); f0 mirrors drv_state::freq
    // and r0 drv_state::range.
    uint32_t f0 = 0, f1 = 0, r0 = 0, r1 = 0;
    // The exact ranges c / 2f: the per-pixel conversion takes them, so that the two frequencies
    // of a pair meet over their common range (R0 and R1 are whole millimetres, short by up to
    // 1 mm).
    float rx0 = 0, rx1 = 0;
    uint8_t dual = 0;
    tevix::algo::dual_freq unwrap{};
    // Temperature coefficients of board, sensor and frame rate, in 1/32768 turn per degree (per
    // frame per second for the last).
    float tc_cb = 0, tc_ib = 0, tc_fps = 0;
    int32_t saved_fmt = -1;  // frame format before the automatic change to 15
    uint8_t lens_from_dev = 0, lens_file = 0;

    // The settings table shared with the telemetry synchronisation (the bilateral filter's
    // sigmas and range bounds are drv_state's bpf_* fields).
    uint8_t en_hyst = 0;
    uint16_t hyst_val = 10;
    uint8_t en_fly = 0;
    uint32_t fly_th = 0;
    uint8_t en_fill = 0;
    uint8_t en_bpf = 0;
    uint8_t en_gauss = 0;
    float gauss_sigma = 0.1f;
    int32_t tele = 0;

    tevix::drv::calib_slot slot1;  // the block of f1 in dual frequency

    // I and Q of the formats that carry them (x, y and a scratch of 4n: 6n values), and the
    // second frequency's (or exposure's) distances and confidences.
    int16_t *iq = nullptr;
    int32_t *dist1 = nullptr;
    uint32_t *conf1 = nullptr;
    uint32_t work1_n = 0;
};

inline imx_priv *priv_of(tevix_drv_t *drv) {
    return drv && drv->priv
               ? static_cast<imx_priv *>(static_cast<tevix::drv::drv_state *>(drv->priv))
               : nullptr;
}

// Calibration of the SONY driver (imx_calib.cpp): mount and unmount for the current frequencies
// (both blocks in dual frequency), whether the mounted blocks serve them, and the loading at open.
int calib_mount(imx_priv *p);
void calib_unmount(imx_priv *p);
bool calib_valid(const imx_priv *p);
int32_t calib_load(tevix_drv_t *drv, uint32_t r0, uint32_t r1, uint32_t mode);
// The frequency change event: unmount, store, mount, ranges and coefficients.
void event_freq_change(imx_priv *p, uint32_t f0, uint32_t f1, bool from_load);

}  // namespace tevix::imx
