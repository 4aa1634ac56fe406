// Driver table and driver interface. The camera interface picks a driver row by the chip code in
// the product string and from then on reaches the sensor only through the row's operation table.
#pragma once

#include <cstdint>

#include "tevix/tevix_param.h"
#include "tevix/tevix_types.h"

struct tevix_drv_ops;

// One row of the driver table. The rows are static and the row found is used directly as the
// device's driver instance: dev and priv are written into the row itself, so two open devices
// with the same chip code share one row (one camera per chip code, by design).
struct tevix_drv_t {
    const char *desc;    // "EPC chip driver"
    const char *chip;    // chip code matched against the product string, "E1"
    tevix_drv_ops *ops;  // the chip family's operations
    tevix_dev_t *dev;    // the device served; set by init
    void *priv;          // private state; allocated by init, freed by uninit
};

// Output kinds of frame_decode.
enum : uint32_t {
    TEVIX_DECODE_DIST_RAW = 0,  // uncalibrated distance, u16 mm
    TEVIX_DECODE_DIST = 1,      // calibrated and filtered distance, u16 mm
    TEVIX_DECODE_GRAY = 2,      // grey (amplitude), u16
};

// Invalid-pixel marker of distance images.
constexpr uint16_t k_dist_invalid = 65500;

// Result of frame_raw_proc for a frame consumed without output (the capture engine skips it).
constexpr int32_t k_raw_proc_consumed = 0xDCBA;

// Operation table: 22 slots in this order, two slots every table leaves empty, then the default
// lens record, which init may overwrite with lens data found for the device. Every operation
// receives the driver row first; an empty slot is never called.
struct tevix_drv_ops {
    // 0: set the chip up for the device; false abandons the open.
    bool (*init)(tevix_drv_t *drv, tevix_dev_t *dev);
    // 1: free everything priv owns, then priv.
    void (*uninit)(tevix_drv_t *drv);
    // 2: fill info (zeroed first) from a raw frame that starts with its header; false when the
    // frame is unusable.
    bool (*frame_get_info)(tevix_drv_t *drv, tevix_frame_info_t *info, const uint8_t *raw);
    // 3: decode a raw frame into out (capacity in bytes); bytes written, or -1 for no output.
    int32_t (*frame_decode)(tevix_drv_t *drv, uint8_t *out, uint32_t out_cap, uint32_t kind,
                            const uint8_t *raw, uint32_t raw_len, const tevix_frame_info_t *info);
    // 4: serve a frame of that kind from the driver's frame cache into out and info.
    bool (*need_data)(tevix_drv_t *drv, uint8_t *out, uint32_t kind, tevix_frame_info_t *info);
    // 5: process a raw frame in place once its information is known (count must be 1).
    int32_t (*frame_raw_proc)(tevix_drv_t *drv, uint8_t *raw, uint32_t count,
                              tevix_frame_info_t *info);
    // 6: the lens record scaled to width x height; false when the default does not divide.
    bool (*lens_param_get)(tevix_drv_t *drv, tevix_lens_param_t *lens, uint32_t width,
                           uint32_t height);
    // 7: the binary lens data loaded at init, or null.
    void *(*lens_bin_get)(tevix_drv_t *drv);
    // 8: the calibrated modulation frequencies (at most 100); their count.
    uint32_t (*calib_freq_list_get)(tevix_drv_t *drv, uint32_t *list, uint32_t *count);
    // 9: reserved, 0.
    int32_t (*reserved9)(tevix_drv_t *drv);
    // 10: capture state; 0 resets the frame-rate statistics.
    void (*on_cap_state)(tevix_drv_t *drv, uint32_t capturing);
    // 11: frame rate set by the host (parameter 12).
    void (*on_update_fps)(tevix_drv_t *drv, uint32_t fps);
    // 12: integration time (parameters 13 and 16); index 1 tells whether HDR is on.
    void (*on_update_intg_time)(tevix_drv_t *drv, uint32_t value, uint8_t index);
    // 13: frame format (parameter 10).
    void (*on_update_frame_format)(tevix_drv_t *drv, uint32_t format);
    // 14: modulation frequencies in Hz (parameters 1 and 21).
    void (*on_update_mod_freq)(tevix_drv_t *drv, uint32_t f0, uint32_t f1);
    // 15: frame count (parameter 20), the grey-scaling divisor; 0 taken as 1.
    void (*on_update_frame_count)(tevix_drv_t *drv, uint16_t count);
    // 16: region of interest (parameter 9).
    void (*on_update_roi)(tevix_drv_t *drv, const tevix_roi_t *roi);
    // 17: load calibration (two reserved arguments, load mode); negative on failure.
    int32_t (*calib_load)(tevix_drv_t *drv, uint32_t r0, uint32_t r1, uint32_t mode);
    // 18: reserved.
    int32_t (*reserved18)(tevix_drv_t *drv, uint32_t a, uint32_t b, uint32_t c);
    // 19: reserved, 1.
    int32_t (*reserved19)(tevix_drv_t *drv);
    // 20, 21: filter switches, ids 0..14.
    bool (*filter_enable)(tevix_drv_t *drv, uint32_t id, const tevix_filter_arg_t *arg);
    bool (*filter_disable)(tevix_drv_t *drv, uint32_t id);
    void *unused[2];
    tevix_lens_param_t lens;  // default lens record
};

constexpr int k_drv_rows = 9;

// The three operation tables (each followed by its default lens record).
extern tevix_drv_ops epc_drv_ops;
extern tevix_drv_ops imx_drv_ops;
extern tevix_drv_ops ti_drv_ops;

// Default lens records at full resolution, as the tables start with them. The coefficients are
// k1, k2, p1, p2, k3.
inline constexpr tevix_lens_param_t k_epc_default_lens = {
    157.262,
    122.083,
    210.783,
    204.817,
    {-0.378924, 0.145035, -0.000970854, 6.20728e-05, -0.0133954},
    5,
    320,
    240};
inline constexpr tevix_lens_param_t k_imx_default_lens = {
    335.591, 256.24, 1378.12, 1377.11, {0.079031, 3.44739, -0.000478177, -0.00588696, -33.6074},
    5,       640,    480};

// Shared lens_param_get: the table's lens record scaled to width x height.
bool drv_lens_param_get(tevix_drv_t *drv, tevix_lens_param_t *lens, uint32_t width,
                        uint32_t height);

// The driver row for the device's product string ("<model>-<chip code>-<revision>"), or null.
tevix_drv_t *tevix_drv_find(const tevix_dev_t *dev);
// The rows themselves, in search order.
tevix_drv_t *tevix_drv_table();
