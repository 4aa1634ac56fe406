// State shared by the sensor drivers' private records: feature switches, temperatures, frame
// rate, frequency and calibration, image size, work buffers, the bilateral filter and the two
// mutexes. Each driver's private record extends it; one per driver row, allocated at init.
#pragma once

#include <cstdint>
#include <mutex>

#include "drivers/drv.h"
#include "drivers/drv_calib.h"
#include "tevix/vx_filter.h"

namespace tevix::drv {

constexpr uint32_t k_freq_list_max = 100;
constexpr uint32_t k_temp_ring = 7;

// The names the shared stages report under, one set per driver.
struct drv_names {
    const char *init, *get_info, *decode, *raw_proc, *filter_enable, *filter_disable, *intg_time,
        *mount, *unmount, *calc_coeff, *calib_load;
};

struct drv_state {
    const drv_names *names = nullptr;
    void *lens_bin = nullptr;

    // Feature switches and their parameters.
    uint8_t lens_calib = 0;
    uint8_t pix_calib = 0;
    uint8_t smooth = 0;
    uint8_t smooth_variant = 0, smooth_strength = 0, smooth_level = 5;
    uint8_t minamp = 1;
    uint16_t minamp_th = 30;
    uint8_t minamp_hyst = 1, minamp_hyst_val = 10;
    uint8_t auto_intg = 0;
    uint16_t auto_intg_th = 0;
    uint8_t consist = 0;
    uint16_t consist_val = 0;
    uint8_t temp_mon = 1;
    uint16_t temp_mon_val = 75;
    uint8_t hdr = 0;
    uint32_t hdr_setting = 0;
    uint8_t offset_en = 1;
    int32_t offset_mm = 0;
    uint8_t sport = 0, sport_level = 0;
    uint8_t sys_calib = 1;
    float sys_scale = 1.0f, sys_offset = 0.0f;
    uint8_t grey_scale = 1;
    uint16_t grey_div = 200;
    uint8_t flypix = 0, flypix_level = 0;
    uint8_t temp_comp = 1;
    uint8_t bfps = 0, bfps_mode = 4;

    // Temperatures: rings of the last 7 header values and the last accepted pair.
    int16_t ring_cb[k_temp_ring] = {}, ring_ib[k_temp_ring] = {};
    uint8_t ring_pos = 0, ring_full = 0;
    int16_t tcb = 0, tib = 0;

    // Frame rate.
    uint16_t frame_cnt = 0, meas_cnt = 0;
    uint64_t meas_ms = 0;
    float fps = 0.0f;
    uint64_t temp_report_ms = 0;
    uint8_t fps_host_set = 0;
    uint32_t fps_host = 0;

    // Modulation frequency, range and temperature coefficients.
    uint32_t freq = 0;
    uint8_t calib_mounted = 0;
    uint32_t range = 0;
    float c1 = 13.78f, c2 = 1.183f;
    uint32_t c3 = 295;
    float c1_ph = 0.0f, c2_ph = 0.0f;
    uint32_t c3_ph = 0;
    // The calibration file of the device, whether it is to be trusted, and the block mounted for
    // the current frequency (none while calib_mounted is 0).
    char param_path[256] = {};
    uint8_t local_valid = 0;
    calib_slot slot;  // EPC: the block of freq; SONY: the block of f0
    uint32_t freq_list[k_freq_list_max] = {};
    uint32_t freq_list_n = 0;

    uint32_t width = 320, height = 240;
    tevix_roi_t roi{};
    uint32_t roi_w = 0, roi_h = 0;

    // Buffers.
    uint8_t *grey = nullptr;
    uint32_t grey_size = 0;
    uint8_t grey_valid = 0;
    uint32_t *conf = nullptr;  // confidence of the last distance decode, image order
    uint32_t conf_n = 0;
    uint32_t hash = 0xFFFFFFFFu;
    uint32_t *conf_raw = nullptr;  // decode order
    int32_t *dist32 = nullptr;
    uint16_t *work16 = nullptr;
    uint32_t work_n = 0;
    uint8_t *marks = nullptr;
    uint32_t marks_n = 0;
    uint8_t *bfps_buf = nullptr;
    uint32_t bfps_len = 0, bfps_fs = 0, bfps_roll = 0;
    tevix_frame_info_t bfps_info{};
    uint8_t frame_pending = 0;

    std::mutex filter_mtx;
    std::mutex calib_mtx;

    // Bilateral filter: stored settings, those the state was built with, and the state.
    float bpf_ss = 0.02f, bpf_sr = 0.1f;
    uint16_t bpf_min = 0, bpf_max = 4096;
    float bpf_ss_built = 0.0f, bpf_sr_built = 0.0f;
    uint16_t bpf_min_built = 0, bpf_max_built = 0;
    vx_bpf2d_iir_t bpf{};
    uint8_t bpf_ok = 0;
};

}  // namespace tevix::drv
