// Pipeline stages every sensor driver shares, over the common state of drv_state.h: frame
// information with the temperature filter and the frame-rate measurement, the bilateral filter
// reload, work buffers, grey from the confidence cache by decode hash, raw-frame processing (grey
// frames from the device, the frame cache of binned fast frame rates), the filter switches and
// the small operations of the table, the ping-pong buffers of the post-processing chain, and the
// first half of calibration loading (which file to trust).
#pragma once

#include <cstdint>
#include <utility>

#include "drivers/drv.h"
#include "drivers/drv_state.h"
#include "tevix/tevix.h"

namespace tevix::drv {

// A driver row's state; priv always holds the drv_state part of the driver's private record.
inline drv_state *state_of(tevix_drv_t *drv) {
    return drv ? static_cast<drv_state *>(drv->priv) : nullptr;
}

[[noreturn]] void die_malloc(const char *name);

tevix_param_item_t param_item(uint32_t id, uint8_t len);
// Word i of an item's value (the item is packed: its words are read by copy).
uint32_t item_u32(const tevix_param_item_t &it, int i);
bool param_set_u32(tevix_dev_t *dev, uint32_t id, uint32_t value, uint8_t len);
// Sends the host clock (parameter 19): seconds and the sub-second count plus 100.
void send_host_clock(tevix_dev_t *dev);
// The three fields of the product string "<model>-<chip code>-<revision>"; false when fewer.
bool product_fields(const tevix_dev_t *dev, char (&model)[17], char (&chip)[17], char (&rev)[17]);

// System calibration (parameter 18): f32 scale, f32 offset, then a validity byte.
void read_sys_calib(drv_state &s, tevix_dev_t *dev, bool log_invalid, bool *ok);

// Rebuilds the bilateral filter state for the image size when its settings changed (or force).
void bpf_reload(drv_state &s, bool force);

// The frame information record from a raw frame: temperatures through the median filter and the
// plausibility rules, the temperature monitor, the record's fields (a zero width or height in the
// header is def_w or def_h) and the frame-rate measurement. False for a frame of impossible size.
bool frame_info(drv_state &s, const tevix_dev_t *dev, tevix_frame_info_t *info, const uint8_t *raw,
                uint32_t def_w, uint32_t def_h);

// Automatic integration time (filter 5, not with HDR), at most once per 2 ms in the process: the
// frame's 16-bit samples classified, the first integration time stepped within 50..1500.
void auto_intg(drv_state &s, tevix_dev_t *dev, const uint16_t *samples, uint32_t count);

// A new region of interest whose binning gives w x h: logged; when the size changes it becomes the
// image size and the bilateral filter is rebuilt for it, and the result is true (the caller then
// mounts its calibration again).
bool roi_resize(drv_state &s, const tevix_roi_t &roi, uint32_t w, uint32_t h);

// The device's frame rate: the host's when it set one, else the measured one.
uint32_t dev_fps(const drv_state &s);

// Grows the distance, confidence and work buffers to n pixels (ensure_work also sizes the cached
// confidence image to n); false when they cannot be had.
bool grow_work(drv_state &s, uint32_t n);
bool ensure_work(drv_state &s, uint32_t n);

// Makes the frame's confidences (conf_raw, n pixels, after ensure_work) the cached image grey
// reads (conf): the two buffers trade places when they are the same size, else a copy.
void publish_conf(drv_state &s, uint32_t n);

// Grey from the confidence of the last distance decode when info is the frame it decoded (same
// decode hash): fast_sqrt of each confidence, clamped to 16 bits. False when there is none.
bool grey_from_cache(drv_state &s, uint16_t *out, uint32_t n, const tevix_frame_info_t &info);

// frame_raw_proc, need_data and the small operations, the same for every driver.
int32_t raw_proc(drv_state &s, uint8_t *raw, uint32_t count, tevix_frame_info_t *info);
bool need_data(drv_state &s, uint8_t *out, uint32_t kind, tevix_frame_info_t *info);
void *op_lens_bin_get(tevix_drv_t *drv);
uint32_t op_calib_freq_list_get(tevix_drv_t *drv, uint32_t *list, uint32_t *count);
int32_t op_reserved9(tevix_drv_t *drv);
int32_t op_reserved18(tevix_drv_t *drv, uint32_t a, uint32_t b, uint32_t c);
int32_t op_reserved19(tevix_drv_t *drv);
void op_on_cap_state(tevix_drv_t *drv, uint32_t state);
void op_on_update_fps(tevix_drv_t *drv, uint32_t fps);
void op_on_update_frame_format(tevix_drv_t *drv, uint32_t format);
void op_on_update_frame_count(tevix_drv_t *drv, uint16_t count);
bool op_need_data(tevix_drv_t *drv, uint8_t *out, uint32_t kind, tevix_frame_info_t *info);
int32_t op_frame_raw_proc(tevix_drv_t *drv, uint8_t *raw, uint32_t count, tevix_frame_info_t *info);
// HDR on = value non-zero for index 1; the line every driver logs.
void intg_time_update(drv_state &s, uint32_t value, uint8_t index);

// Filter switches 0..14 with the behaviour both drivers share; calibrated tells filter 1 whether
// calibration is mounted for the current frequency. grey_full is the grey buffer filter 12
// allocates when there is none.
bool filter_enable(drv_state &s, tevix_dev_t *dev, uint32_t id, const tevix_filter_arg_t *arg,
                   bool calibrated, uint32_t grey_full);
bool filter_disable(drv_state &s, tevix_dev_t *dev, uint32_t id);

// Frees the buffers, the filter state and the lens binary (under their mutexes); the driver
// unmounts its calibration and deletes its record.
void release(drv_state &s);

// Whether the device's local calibration file is to be trusted, fetching the device's copy in
// upload mode when it is missing or older (steps 1 to 3 of calibration loading). -1 when the file
// name cannot be built.
int calib_trust_local(drv_state &s, tevix_dev_t *dev);
void write_mod_freq(tevix_dev_t *dev, uint32_t freq);

// Post-processing buffers: each out-of-place stage reads cur and writes other, then flips; the
// in-place filters work on cur. finish() leaves the result in out.
struct pingpong {
    uint16_t *out, *cur, *other;
    uint32_t n;
    pingpong(uint16_t *o, uint16_t *work, uint32_t pixels)
        : out(o), cur(o), other(work), n(pixels) {}
    void flip() { std::swap(cur, other); }
    void finish();
};

// The bilateral IIR filter as a chain stage, under the filter mutex; skipped while its state does
// not fit w x h.
void bilateral_stage(drv_state &s, pingpong &pp, uint32_t w, uint32_t h);

}  // namespace tevix::drv
