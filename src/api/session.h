// The device session: what the library keeps for one open device, and the guards every public
// call on a device goes through.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "ll/oni/oni.h"
#include "tevix/tevix.h"
#include "tevix/tevix_ll.h"
#include "tevix/tevix_param.h"
#include "tevix/vx_cmap.h"
#include "tevix/vx_filter.h"
#include "tevix/vx_stream.h"

struct tevix_drv_t;

// Session of one open device, allocated zeroed at open.
struct tevix_session {
    uint32_t type = 0;           // copy of the record's device type
    tevix_ll_dev_t ll{};         // backend device record of the connection
    tevix_dev_t *dev = nullptr;  // back pointer to the public record
    uint8_t open = 0;            // cleared by close and failed opens
    std::atomic<uint8_t> capturing{0};
    tevix_drv_t *drv = nullptr;        // driver row found for the product
    uint32_t fb_slots = 0;             // frames the stream assembler keeps ready
    vx_stream_t *stream = nullptr;     // frame stream assembler
    std::condition_variable cap_cond;  // capture: frames ready or an event
    std::mutex cap_mtx;
    std::mutex buf_mtx;  // capture buffer
    char uri[256] = {};
    char scratch[150] = {};
    uint32_t uid[3] = {0, 0, 0};  // unique id words
    uint16_t max_width = 0, max_height = 0;
    tevix_dev_info_t info{};  // device information block
    char drv_name[16] = {};
    tevix_lens_calib_cfg_t lens_cfg{};
    vx_calib_len_map_t undist{};  // undistortion map of the last image size

    // Capture (guarded by cap_mtx where the event thread meets the pulling thread).
    tevix_cap_cfg_t cap_cfg{};
    char save_file[513] = {};  // the session's copy of the recording name
    std::atomic<uint32_t> stop_req{0};
    uint32_t n_timeout = 0, n_stall = 0;
    uint32_t discard_reported = 0;
    int32_t pending_err = 0;
    uint32_t pending_extra = 0;
    uint8_t force_stop = 0;
    struct {
        bool active = false;
        uint32_t max = 0;
        uint8_t *buf = nullptr;
        uint32_t rem = 0;
        tevix_frame_info_t *info_out = nullptr;
        uint32_t got = 0;
        bool full = false;  // the caller's buffer has no room for the next frame
    } req;
    vx_stream_state_t last_state{};
    uint64_t last_fb_log_ms = 0;
    tevix_frame_info_t last_info{};

    // Parameter mirror.
    uint32_t dev_mode = 0;
    uint32_t cap_mode = 0;
    uint32_t fps = 0;
    uint32_t mod_freq[2] = {0, 0};
    uint32_t intg[2] = {0, 0};
    uint32_t frame_format = 0;

    std::mutex rec_mtx;                       // guards the recording writer and its streams
    std::unique_ptr<tevix::oni::writer> rec;  // the recording, while one is written
    int rec_dev_node = -1;                    // device properties stream
    int rec_replay = -1, rec_dist = -1, rec_gray = -1;  // frame streams, opened lazily
    uint32_t max_fps = 0, max_intg_us = 0;

    tevix_lens_param_t lens{};
    bool lens_valid = false;
    // The modulation frequencies the driver found calibration for, read at open.
    uint32_t calib_freqs[100] = {};
    uint32_t calib_freq_n = 0;
};

namespace tevix::api {

// The API mutex of an open record.
inline std::mutex *api_mutex(tevix_dev_t *dev) {
    return static_cast<std::mutex *>(dev->api_mutex);
}

// True when the record describes an open device; otherwise logs the device-handler line under
// the caller's name.
bool dev_check(const tevix_dev_t *dev, const char *caller);

// Holds the record's busy count for the duration of a call on the device.
class busy_guard {
  public:
    explicit busy_guard(tevix_dev_t *dev) : dev_(dev) { change(+1); }
    ~busy_guard() {
        if (dev_) change(-1);
    }
    busy_guard(const busy_guard &) = delete;
    busy_guard &operator=(const busy_guard &) = delete;
    // Leaves the count raised when the guard ends (a designed case of the filter calls).
    void keep_raised() { dev_ = nullptr; }

  private:
    void change(int d) {
        std::lock_guard<std::mutex> lock(*api_mutex(dev_));
        dev_->busy = static_cast<uint8_t>(dev_->busy + d);
    }
    tevix_dev_t *dev_;
};

// Stops a running capture ahead of close; the backend's result (1 when nothing ran).
int capture_stop_for_close(tevix_dev_t *dev);

// The library's default colour map.
vx_cmap_t *default_cmap();

// Writes a numeric property into the active recording (nothing without one).
void session_record_int(tevix_session *s, const char *name, uint64_t value);
// Writes a raw property into the active recording (nothing without one).
void session_record_raw(tevix_session *s, const char *name, const void *data, uint32_t len);

// Opens the recording the capture configuration asks for and writes the device description.
void record_start(tevix_dev_t *dev);
// Closes the recording and its streams.
void record_stop(tevix_session *s);
// Ends every hot-plug registration and stops the hot-plug thread (tevix_uninit).
void hotplug_shutdown();
// For each frame a pull delivers: opens the frame streams and, unless saving is manual, writes
// the raw frame (preceded by its information when it is the first of the pull).
void record_frame(tevix_dev_t *dev, const uint8_t *frame, const tevix_frame_info_t &info,
                  bool first_of_pull);
// Writes a decoded distance (kind 1) or gray (kind 2) image into its stream when one is open.
void record_decoded(tevix_session *s, uint32_t kind, const uint16_t *img, uint32_t values);
// One raw frame by hand into a manual recording: 0, or -9 without one.
int record_save_frame(tevix_dev_t *dev, const uint8_t *data, uint32_t len,
                      const tevix_frame_info_t &info);

// Attaches an open session to a record over an already chosen backend: the connection's op
// table and private state come from ll. Used where a device is driven without the full open
// sequence (driver and transport tests). Returns false when the record already has a session.
bool session_attach(tevix_dev_t *dev, const tevix_ll_dev_t &ll);
// Releases what session_attach created.
void session_detach(tevix_dev_t *dev);

}  // namespace tevix::api
