// The virtual camera: a firmware model and a streaming engine behind a umockdev USB device, so that
// the real libusb (and so the USB backend) sees a camera.
//
// Create the testbed before anything initialises libusb: it points UMOCKDEV_DIR at a fake /sys
// and /dev that libusb reads at init. One testbed per process; it holds any number of cameras.
// Destroy it only after every libusb context has been closed.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "tevix/vx_stream.h"

namespace tevix::emu {

// A firmware parameter's value bytes by id (empty when unset).
using param_reader = std::function<std::vector<uint8_t>(uint8_t id)>;

// Renders the raw frames the camera streams. The EPC scene renderer is another source.
class frame_source {
  public:
    virtual ~frame_source() = default;
    // Before each frame, under the camera's lock: the source may follow the firmware's
    // parameters (frame format, frequencies, integration times).
    virtual void configure(const param_reader &) {}
    // frlen, frfmt, width and height of the frames (fridx is set by the camera).
    virtual vx_frame_desc_t describe() const = 0;
    // Fills out (describe().frlen bytes) with frame number index; may fill desc's temperatures
    // and time word.
    virtual void render(uint32_t index, std::span<uint8_t> out, vx_frame_desc_t &desc) = 0;
    // A parameter the host set on the camera (the modulation frequency, the scene control);
    // called on the control path, while render may run on the streaming thread.
    virtual void on_param(uint8_t /*id*/, std::span<const uint8_t> /*value*/) {}
    // The value of a parameter the source answers itself (empty: none), read at attach and reset.
    virtual std::vector<uint8_t> param(uint8_t /*id*/) const { return {}; }
    // Back to the state it was made in (the camera's reset).
    virtual void reset() {}
};

// Moving test pattern: 320x240, 4 planes of 12-bit samples in u16 (614400 bytes), format 2.
// Sample (plane p, x, y) of frame n is (x + 3y + 1024p + 5n) & 0xFFF.
class test_pattern : public frame_source {
  public:
    static constexpr uint16_t k_width = 320, k_height = 240, k_planes = 4, k_format = 2;
    vx_frame_desc_t describe() const override;
    void render(uint32_t index, std::span<uint8_t> out, vx_frame_desc_t &desc) override;
};

// Parameter ids the firmware answers from its identity.
enum param_id : uint8_t {
    k_par_mod_freq = 1,
    k_par_vendor = 2,
    k_par_product = 3,
    k_par_geometry = 4,
    k_par_uid = 5,
    k_par_version = 6,
    k_par_sensor = 7,
    k_par_calib_info = 8,
    k_par_roi = 9,
    k_par_frame_format = 10,
    k_par_fps = 12,
    k_par_intg1 = 13,
    k_par_intg2 = 16,
    k_par_dual_freq = 21,
    k_par_lens0 = 22,
    k_par_lens1 = 86,
    k_par_lens2 = 87,
    // The scene control only the virtual camera answers, a host-side handle on what a
    // calibration station moves: u32 distance of a flat target along the optical axis in mm
    // (0: the room scene), s16 board and s16 sensor temperature in 0.1 C, u8 flags (bit 0: shot
    // noise). A real camera has no parameter 224 and answers an empty value.
    k_par_scene = 224,
};
constexpr uint8_t k_scene_ctl_len = 9;
constexpr uint8_t k_scene_noise = 1;

struct camera_config {
    uint8_t bus = 1;
    uint8_t port = 2;
    uint8_t addr = 2;
    uint16_t speed_mbps = 480;            // 12 gives a full-speed link
    std::string product = "VXCAM-E1-R1";  // "<model>-<chip code>-<revision>"
    std::string vendor = "Tevix Virtual";
    std::array<uint32_t, 3> uid = {0x56583031u, 0x00010002u, 0x20261123u};
    std::array<uint16_t, 3> sensor = {0x2E, 7, 0x1234};  // part number, wafer, chip id
    uint32_t fps = 30;                                   // 0: as fast as the host takes data
    uint32_t mod_freq = 20000000;                        // modulation frequency, Hz
    bool data_cksum = true;
    uint32_t packet_payload = 153564;     // payload bytes per stream header (multiple of 4)
    uint16_t width = 320, height = 240;   // the sensor's full image (geometry parameter)
    uint32_t frame_format = 0;            // parameter 10 at start; 0: not set
    std::array<uint32_t, 2> dual_freq{};  // parameter 21 at start (both 0: not set)
    std::vector<float> lens;              // cx, cy, fx, fy, d0..d4 as parameters 22, 86, 87
};

// One command the firmware received (status reads are not logged).
struct cmd_record {
    uint8_t request_type;
    uint8_t request;
    uint16_t value;
    std::vector<uint8_t> data;  // out: the data received; in: the data answered
};

// Firmware model: answers the class control requests of the camera protocol.
class firmware {
  public:
    explicit firmware(const camera_config &cfg);

    // One control request; data is the data stage (filled for an in request). Returns the data
    // stage length, or a negative errno (the request is stalled).
    int control(uint8_t type, uint8_t request, uint16_t value, std::span<uint8_t> data);

    // Hooks the camera installs: capture start (mode) and stop, reset (target).
    std::function<void(uint32_t)> on_start;
    std::function<void()> on_stop;
    std::function<void(uint32_t)> on_reset;
    // Every parameter the host sets, after it is stored.
    std::function<void(uint8_t, std::span<const uint8_t>)> on_param;

    // Faults: the next n status reads report busy; the next command ends in error with text; the
    // next status read names another command.
    void busy_reads(uint32_t n) { busy_reads_ = n; }
    void fail_next(std::string text) { fail_text_ = std::move(text); }
    void wrong_status_next() { wrong_status_ = true; }

    // Data transfer (command 0xCC): the flash store of each data type, and faults for the next n
    // occurrences: acknowledgements that still report the previous packet ("not taken yet"),
    // data packets lost on the way, acknowledgements with a wrong packet number, an erase that
    // stays in progress for k acknowledgement reads, upload pieces with a wrong CRC.
    struct store {
        uint16_t version = 0;
        uint32_t addr = 0;
        std::vector<uint8_t> data;
    };
    void set_store(uint8_t type, store s) { stores_[type] = std::move(s); }
    const store *find_store(uint8_t type) const;
    void stale_acks(uint32_t n) { stale_acks_ = n; }
    void lose_packets(uint32_t n) { lose_packets_ = n; }
    void wrong_acks(uint32_t n) { wrong_acks_ = n; }
    void erase_polls(uint32_t k) { erase_polls_ = k; }
    void corrupt_pieces(uint32_t n) { corrupt_pieces_ = n; }
    // Upload mode (device mode 9): the flash image of type 3 streams as format-171 frames of
    // k_upload_frame bytes. Faults: the next n upload frames never leave the camera; n ordinary
    // frames go out before the upload data.
    static constexpr uint32_t k_upload_frame = 153600;
    uint32_t dev_mode() const;
    void drop_upload_frames(uint32_t n) { drop_upload_ = n; }
    void stray_frames(uint32_t n) { stray_frames_ = n; }
    // What the streaming engine sends next in upload mode: false for an ordinary frame (a stray
    // one); else the frame index and its bytes (padded with 0x01 past the image).
    bool next_upload_frame(uint32_t &index, std::vector<uint8_t> &bytes);
    // Packets that reached the bulk-out endpoint (repeats and losses included); erases done.
    uint32_t packets_seen() const { return packets_seen_; }
    uint32_t erases() const { return erases_; }
    // Bytes of a data packet on the bulk-out endpoint.
    void bulk_out(std::span<const uint8_t> packet);

    uint32_t fps() const;
    uint32_t reg(uint8_t target, uint32_t addr) const;
    void set_param(uint8_t id, std::span<const uint8_t> value);
    std::vector<uint8_t> param(uint8_t id) const;
    const std::vector<cmd_record> &log() const { return log_; }
    void clear_log() { log_.clear(); }
    uint32_t capture_mode() const { return mode_; }
    uint32_t status_reads() const { return status_reads_; }

  private:
    int _status(std::span<uint8_t> data);
    int _sys(bool in, uint16_t value, std::span<uint8_t> data);
    int _reg(bool in, uint16_t value, std::span<uint8_t> data);
    int _xfer(bool in, uint16_t value, std::span<uint8_t> data);
    std::vector<uint8_t> _calib_info() const;
    void _done(uint8_t request, uint16_t value, const char *error);

    std::map<uint8_t, std::vector<uint8_t>> params_;
    std::map<uint64_t, uint32_t> regs_;
    std::vector<uint8_t> get_ids_;  // ids of the pending parameter get
    uint8_t rd_target_ = 0;         // pending register read
    uint32_t rd_addr_ = 0, rd_count_ = 0;
    uint8_t state_ = 0, last_req_ = 0;
    uint16_t last_val_ = 0;
    std::string error_;
    uint32_t busy_reads_ = 0;
    std::string fail_text_;
    bool wrong_status_ = false;
    uint32_t mode_ = 0;
    uint32_t status_reads_ = 0;
    std::vector<cmd_record> log_;

    // The transfer in progress: its type, version, size and address, the packets taken.
    std::map<uint8_t, store> stores_;
    uint8_t x_type_ = 0, x_sel_type_ = 0;
    uint16_t x_version_ = 0, x_piece_ = 0;
    uint32_t x_size_ = 0, x_addr_ = 0, x_taken_ = 0;
    uint8_t x_status_ = 0;
    std::vector<uint8_t> x_data_;
    bool x_active_ = false;
    uint32_t stale_acks_ = 0, lose_packets_ = 0, wrong_acks_ = 0, erase_polls_ = 0;
    uint32_t corrupt_pieces_ = 0, erase_left_ = 0, packets_seen_ = 0, erases_ = 0;
    uint32_t x_packets_before_ = 0;  // packets seen when the transfer began
    uint32_t drop_upload_ = 0, stray_frames_ = 0, upload_next_ = 0, upload_mode_seen_ = 0;
};

class testbed;

// Counters of the USB side.
struct usb_stats {
    uint64_t urbs_in = 0;      // bulk-in URBs submitted
    uint64_t urbs_done = 0;    // URBs reaped by the host
    uint64_t discards = 0;     // URBs the host cancelled (or timed out)
    uint64_t clear_halts = 0;  // CLEAR_HALT requests
    uint64_t stalls = 0;       // bulk-in URBs ended with a stall
    uint64_t bytes_in = 0;     // stream bytes delivered
    uint64_t frames = 0;       // frames emitted
    uint32_t pending_in = 0;   // bulk-in URBs waiting for data now
    uint64_t bulk_out = 0;     // bytes received on the bulk-out endpoint
};

// One virtual camera: firmware, streaming engine and its USB device node.
class camera {
  public:
    camera(testbed &tb, const camera_config &cfg, std::unique_ptr<frame_source> src);
    ~camera();
    camera(const camera &) = delete;
    camera &operator=(const camera &) = delete;

    const camera_config &config() const { return cfg_; }
    std::string sysfs_path() const;
    std::string dev_node() const;

    // Runs f on the firmware under the camera's lock (fault settings, inspection).
    template <class F>
    auto with_firmware(F &&f) {
        std::lock_guard lk(m_);
        return f(fw_);
    }

    // Stream faults, each for the next n occurrences.
    void hold_control(bool on);           // control requests get no answer
    void hold_in(bool on);                // bulk-in URBs get no data: the host's timeout ends them
    void stall();                         // the endpoint halts until CLEAR_HALT
    void stall_next(uint32_t n);          // next n bulk-in URBs end with a stall (-EPIPE)
    void error_next(uint32_t n);          // next n bulk-in URBs end with -EPROTO
    void garbage_next(uint32_t bytes);    // garbage bytes before the next frame
    void drop_next(uint32_t chunks);      // next n chunks of stream bytes are lost
    void corrupt_cksum_next(uint32_t n);  // next n packets carry a wrong data checksum
    void unplug();                        // pending URBs end with -ENODEV, device leaves
    void replug();                        // the device comes back
    bool plugged() const;

    // Back to the state after attach: default firmware, no faults, not streaming, plugged in.
    void reset();

    // Every stream byte delivered to the host, in order (called under the camera's lock).
    void set_tap(std::function<void(std::span<const uint8_t>)> tap);
    // Each frame's stream bytes (or injected garbage) once the last byte is in a bulk-in URB
    // (under the camera's lock).
    void set_frame_tap(std::function<void(std::span<const uint8_t>)> tap);
    usb_stats stats() const;
    bool streaming() const;

    // Internal: the umockdev ioctl handler; the end of the streaming engine.
    int _ioctl(void *client);
    void _halt();

  private:
    struct urb {
        void *urb_data;  // UMockdevIoctlData of the usbdevfs_urb
        void *buf_data;  // UMockdevIoctlData of its buffer
        int status = 0;
        int actual = 0;
    };
    void _producer();
    struct upload_frame {
        uint32_t index = 0;
        std::vector<uint8_t> bytes;
    };
    void _build_frame(uint32_t idx, std::vector<uint8_t> &out, const upload_frame *up);
    void _pump();
    void _finish(urb u, int status, int actual);
    void _release(urb &u);
    void _make_node();
    void _fifo_fill();
    void _fifo_signal();
    void _unplug_locked();
    void _hooks();
    void _source_params();
    void _start(uint32_t mode);
    void _stop();
    void _uevent(const char *action);
    int _string_desc(uint8_t idx, uint16_t lang, std::span<uint8_t> out);

    testbed &tb_;
    camera_config cfg_;
    std::unique_ptr<frame_source> src_;
    mutable std::mutex m_;
    std::condition_variable cv_;
    firmware fw_;
    void *handler_ = nullptr;  // UMockdevIoctlBase
    int fifo_ = -1;
    std::deque<urb> in_pending_;
    std::deque<urb> ctrl_held_;
    std::deque<urb> done_;
    std::deque<std::vector<uint8_t>> queue_;
    std::vector<uint8_t> spare_pkt_;  // a sent packet's buffer, refilled by the producer
    size_t queue_off_ = 0;
    size_t queued_ = 0;
    bool streaming_ = false;
    uint64_t epoch_ = 0;
    bool gone_ = false;
    bool halted_ = false;
    bool hold_ = false;
    bool hold_ctrl_ = false;
    uint32_t stall_n_ = 0, error_n_ = 0, garbage_n_ = 0, drop_n_ = 0, corrupt_n_ = 0;
    uint64_t reenum_at_ = 0, replug_at_ = 0;  // monotonic ms of a pending re-enumeration
    bool quit_ = false;
    usb_stats st_;
    std::function<void(std::span<const uint8_t>)> tap_, frame_tap_;
    vx_ostream_t *os_ = nullptr;
    std::vector<uint8_t> frame_;
    std::thread producer_;
};

// The umockdev testbed with its cameras.
class testbed {
  public:
    testbed();
    ~testbed();
    testbed(const testbed &) = delete;
    testbed &operator=(const testbed &) = delete;

    // Adds a camera (the default test pattern when src is null); null on failure.
    camera *add(const camera_config &cfg, std::unique_ptr<frame_source> src = nullptr);
    camera *at(size_t i) { return i < cams_.size() ? cams_[i].get() : nullptr; }
    size_t size() const { return cams_.size(); }
    std::string root() const { return root_; }

    // Internal.
    void *_tb() { return tb_; }
    std::mutex &_lock() { return m_; }

  private:
    void *tb_ = nullptr;  // UMockdevTestbed
    std::string root_;
    std::mutex m_;
    std::vector<std::unique_ptr<camera>> cams_;
};

}  // namespace tevix::emu
