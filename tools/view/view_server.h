// The live viewer's server: one camera or recording, captured while a page watches or a recording
// runs, its frames pushed to each page as binary messages (newest frame first, never a queue),
// its settings changed through validated requests. Built on the public C interface only.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tevix/tevix.h"

namespace httplib {
class Server;
}

namespace tevix_view {

struct options {
    std::string uri;  // camera or recording; empty: the first camera
    std::string bind = "127.0.0.1";
    int port = 8420;                                        // 0: any free port
    std::string three_dir = "/usr/share/javascript/three";  // the distribution's three.js
    std::string record_dir = ".";                           // where recordings from the page go
    int verbosity = 0;
};

// One decoded frame as the pages get it (see the message layout in viewer.js).
struct frame_msg {
    uint64_t seq = 0;
    std::string bytes;
};

// A change the capture thread carries out (it alone starts, stops and seeks the capture).
struct pending_change {
    bool record = false, record_on = false;
    std::string record_file;
    bool playback = false, play = true, loop = false;
    int64_t seek = -1;
};

class server {
  public:
    explicit server(options o);
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    // Opens the camera and binds; false with the reason in error().
    bool start();
    // Serves until stop() (from another thread or a signal handler's flag).
    void run();
    void stop();
    const std::string &error() const { return error_; }
    int port() const { return port_; }
    // The access token pages must carry; empty when bound to the loopback address.
    const std::string &token() const { return token_; }

  private:
    void _routes();
    void _capture_loop();
    bool _want_capture();
    bool _restart(bool record, const std::string &file);
    std::string _state_json();
    bool _authorised(const std::string &token) const;
    std::shared_ptr<const frame_msg> _wait_to_send(uint64_t stream, uint64_t seen, int timeout_ms);

    options opt_;
    std::string error_, token_;
    int port_ = 0;
    std::unique_ptr<httplib::Server> http_;
    tevix_dev_t *dev_ = nullptr;
    bool is_file_ = false;
    uint32_t max_fps_ = 0, max_intg_ = 0;
    std::vector<uint32_t> calib_freqs_;  // frequencies the camera's calibration covers
    tevix_lens_t lens_{};

    std::mutex dev_mtx_;  // device reconfiguration (record, playback) against each other
    std::mutex m_;        // the latest frame, the counters, the playback state
    std::condition_variable cv_;
    std::shared_ptr<const frame_msg> latest_;
    std::atomic<bool> quit_{false};
    std::atomic<int> clients_{0};
    bool capturing_ = false, recording_ = false, playing_ = true, loop_ = false;
    std::string record_file_;
    uint64_t frames_ = 0, drops_ = 0;
    int32_t last_index_ = -1;
    uint32_t position_ = 0, next_ = 0, count_ = 0;  // recordings: frame shown, frame to read next
    bool step_ = false;       // a paused recording reads one frame after a seek
    bool filter_on_[8] = {};  // the filters the pages switched on (a camera opens with none)
    // Each page's stream: frames sent and frames the page says it has read.
    struct stream_pace {
        uint64_t sent = 0, read = 0;
        std::chrono::steady_clock::time_point last{};  // the last frame sent
    };
    std::map<uint64_t, stream_pace> streams_;
    uint64_t stream_ids_ = 0;
    double fps_measured_ = 0.0, board_c_ = 0.0, sensor_c_ = 0.0;
    std::vector<uint64_t> arrivals_;  // ms of the last frames, for the rate
    pending_change change_;
    bool change_pending_ = false, change_ok_ = false;
    std::thread capture_;
};

}  // namespace tevix_view
