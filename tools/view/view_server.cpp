#include "view_server.h"

#include <httplib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "view_assets.h"

namespace tevix_view {

namespace {

constexpr uint32_t k_raw_capacity = 8u << 20;
constexpr int k_max_streams = 4;
constexpr uint64_t k_in_flight = 2;  // frames a page has not read yet, at most
constexpr size_t k_header = 64;

uint64_t _wall_ms() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

uint64_t _mono_ms() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

// A whole decimal number within lo..hi, nothing else.
bool _int(const std::string &text, long long lo, long long hi, long long *out) {
    if (text.empty() || text.size() > 20) return false;
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || v < lo || v > hi) return false;
    *out = v;
    return true;
}

std::string _json_text(const std::string &s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) continue;
        out += c;
    }
    return out + "\"";
}

void _reply(httplib::Response &res, int status, const std::string &json) {
    res.status = status;
    res.set_header("Cache-Control", "no-store");
    res.set_content(json, "application/json");
}

void _refuse(httplib::Response &res, int status, const std::string &why) {
    _reply(res, status, "{\"ok\":false,\"error\":" + _json_text(why) + "}");
}

std::string _read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return f ? s.str() : std::string();
}

// The value of one cookie in a Cookie header ("a=1; b=2").
std::string _cookie(const std::string &header, const std::string &name) {
    size_t pos = 0;
    while (pos < header.size()) {
        size_t end = header.find(';', pos);
        if (end == std::string::npos) end = header.size();
        size_t b = header.find_first_not_of(' ', pos);
        if (b < end && header.compare(b, name.size() + 1, name + "=") == 0)
            return header.substr(b + name.size() + 1, end - b - name.size() - 1);
        pos = end + 1;
    }
    return {};
}

std::string _new_token() {
    std::random_device rd;
    char out[33];
    for (int i = 0; i < 16; ++i) std::snprintf(out + 2 * i, 3, "%02x", rd() & 0xFF);
    return out;
}

// Filters the page may switch: name, id, the value count and its range.
struct filter_spec {
    const char *name;
    uint32_t id;
    int values;  // 0: on/off only; 1: one u16; -1: one u8
    long long lo, hi;
};
constexpr filter_spec k_filters[] = {
    {"smooth", TEVIX_FILTER_SMOOTH, 0, 0, 0},
    {"flying_pixel", TEVIX_FILTER_FLYING_PIXEL, -1, 0, 31},
    {"min_amp", TEVIX_FILTER_MIN_AMP, 1, 0, 65535},
    {"temp_comp", TEVIX_FILTER_TEMP_COMP, 0, 0, 0},
    {"lens_calib", TEVIX_FILTER_LENS_CALIB, 0, 0, 0},
};
constexpr size_t k_filter_slots = 8;  // server::filter_on_
static_assert(std::size(k_filters) <= k_filter_slots);

}  // namespace

server::server(options o) : opt_(std::move(o)) {}

server::~server() {
    stop();
    if (capture_.joinable()) capture_.join();
    if (dev_) {
        tevix_cap_stop(dev_);
        tevix_dev_close(dev_);
    }
}

bool server::_authorised(const std::string &token) const {
    if (token_.empty()) return true;
    if (token.size() != token_.size()) return false;
    // Compared in constant time: the answer's timing tells nothing about the token.
    unsigned diff = 0;
    for (size_t i = 0; i < token.size(); ++i)
        diff |= static_cast<unsigned char>(token[i]) ^ static_cast<unsigned char>(token_[i]);
    return diff == 0;
}

bool server::start() {
    dev_ = opt_.uri.empty() ? tevix_dev_open(nullptr) : tevix_dev_open_by_uri(opt_.uri.c_str());
    if (!dev_) {
        error_ = opt_.uri.empty() ? "no camera attached" : "cannot open " + opt_.uri;
        return false;
    }
    is_file_ = dev_->type == TEVIX_DEV_FILE;
    tevix_param_item_t geo{};
    geo.id = TEVIX_PARAM_GEOMETRY;
    geo.len = 12;
    if (tevix_param_batch_get(dev_, &geo, 1)) {
        max_fps_ = geo.value.u32[1];
        max_intg_ = geo.value.u32[2];
    }
    tevix_lens_param_get(dev_, &lens_);
    if (const int n = tevix_dev_get_calib_freqs(dev_, nullptr, 0); n > 0) {
        calib_freqs_.resize(static_cast<size_t>(n));
        tevix_dev_get_calib_freqs(dev_, calib_freqs_.data(), static_cast<uint32_t>(n));
    }
    if (is_file_) {
        count_ = static_cast<uint32_t>(std::max(0, tevix_cap_seek_frame(dev_, 0, 2)));
        // Replay at the recorded rate rather than as fast as frames are pulled.
        tevix_param_item_t rate{};
        rate.id = TEVIX_PARAM_FPS;
        rate.len = 4;
        if (tevix_param_batch_get(dev_, &rate, 1) && rate.value.u32[0]) {
            tevix_param_batch_set(dev_, &rate, 1);
        }
    }
    if (opt_.bind != "127.0.0.1" && opt_.bind != "localhost" && opt_.bind != "::1")
        token_ = _new_token();
    http_ = std::make_unique<httplib::Server>();
    _routes();
    http_->set_payload_max_length(4096);
    http_->set_read_timeout(5, 0);
    port_ = opt_.port == 0 ? http_->bind_to_any_port(opt_.bind)
                           : (http_->bind_to_port(opt_.bind, opt_.port) ? opt_.port : -1);
    if (port_ <= 0) {
        error_ = "cannot listen on " + opt_.bind + ":" + std::to_string(opt_.port);
        return false;
    }
    capture_ = std::thread([this] { _capture_loop(); });
    return true;
}

void server::run() {
    if (http_) http_->listen_after_bind();
}

void server::stop() {
    quit_ = true;
    cv_.notify_all();
    if (http_) http_->stop();
}

bool server::_want_capture() {
    return clients_ > 0 || recording_;
}

std::shared_ptr<const frame_msg> server::_wait_to_send(uint64_t stream, uint64_t seen,
                                                       int timeout_ms) {
    std::unique_lock lk(m_);
    // A page that has stopped reading still gets a frame a second: only a write finds out that
    // the page is gone (its connection then ends and its stream is released).
    const auto ready = [&] {
        const auto it = streams_.find(stream);
        if (it == streams_.end() || !latest_ || latest_->seq <= seen) return false;
        return it->second.sent - it->second.read < k_in_flight ||
               std::chrono::steady_clock::now() - it->second.last > std::chrono::seconds(1);
    };
    cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms), [&] { return quit_ || ready(); });
    if (quit_ || !ready()) return nullptr;
    stream_pace &p = streams_[stream];
    ++p.sent;
    p.last = std::chrono::steady_clock::now();
    return latest_;
}

// Stops the capture and starts it again with the recording and playback settings.
bool server::_restart(bool record, const std::string &file) {
    tevix_cap_stop(dev_);
    tevix_cap_cfg_t cfg{};
    tevix_cap_config_get(dev_, &cfg);
    cfg.save_replay = record ? 1 : 0;
    cfg.save_file = record ? file.c_str() : nullptr;
    cfg.file_replay_mode = loop_ ? 1 : 0;
    cfg.on_cap_err = nullptr;
    tevix_cap_config_set(dev_, &cfg);
    const bool ok = tevix_cap_start(dev_) == 1;
    if (ok && is_file_ && next_ > 0 && next_ < count_) tevix_cap_seek_frame(dev_, next_, 0);
    return ok;
}

void server::_capture_loop() {
    std::vector<uint8_t> raw(k_raw_capacity);
    std::vector<uint16_t> depth, grey;
    uint64_t seq = 0;
    while (!quit_) {
        // Changes the pages asked for.
        {
            std::unique_lock lk(m_);
            if (change_pending_) {
                pending_change c = change_;
                change_pending_ = false;
                bool ok = true, restart = false;
                if (c.record) {
                    restart = recording_ != c.record_on;
                    recording_ = c.record_on;
                    record_file_ = c.record_on ? c.record_file : record_file_;
                }
                if (c.playback) {
                    restart = restart || loop_ != c.loop;
                    playing_ = c.play;
                    loop_ = c.loop;
                    if (c.seek >= 0) {
                        next_ = static_cast<uint32_t>(c.seek);
                        last_index_ = -1;  // a jump is not a drop
                        // A paused recording shows the frame it was moved to.
                        if (!playing_) step_ = true;
                    }
                }
                const bool want = _want_capture() && (!is_file_ || playing_ || step_);
                lk.unlock();
                if (want && (restart || !capturing_)) {
                    ok = _restart(recording_, record_file_);
                } else if (want && c.seek >= 0) {
                    ok = tevix_cap_seek_frame(dev_, static_cast<uint32_t>(c.seek), 0) >= 0;
                } else if (!want) {
                    tevix_cap_stop(dev_);
                }
                lk.lock();
                capturing_ = want && ok;
                change_ok_ = ok;
                cv_.notify_all();
            }
        }
        const bool want = _want_capture() && (!is_file_ || playing_ || step_);
        if (want != capturing_) {
            const bool ok =
                want ? _restart(recording_, record_file_) : (tevix_cap_stop(dev_), true);
            std::lock_guard lk(m_);
            capturing_ = want && ok;
            last_index_ = -1;
        }
        if (!capturing_) {
            std::unique_lock lk(m_);
            cv_.wait_for(lk, std::chrono::milliseconds(100));
            continue;
        }
        tevix_frame_info_t info{};
        const int n = tevix_cap_get_frames(dev_, 1, raw.data(), k_raw_capacity, &info);
        if (n != 1) {
            if (n == TEVIX_ERR_CAP_EOF || (n == 0 && !tevix_cap_is_ongoing(dev_))) {
                // The end of a recording (or a capture that stopped): wait for the page.
                std::lock_guard lk(m_);
                if (is_file_) {
                    playing_ = false;
                    next_ = 0;
                }
                step_ = false;
                capturing_ = false;
                tevix_cap_stop(dev_);
            }
            continue;
        }
        const uint64_t pulled = _wall_ms();
        const uint32_t w = info.width, h = info.height, px = w * h;
        if (px == 0 || px > (4u << 20)) continue;
        depth.resize(px);
        grey.resize(px);
        if (tevix_frame_get_dist_u16(dev_, depth.data(), px, raw.data(), info.size, &info) <= 0)
            continue;
        if (tevix_frame_get_gray_u16(dev_, grey.data(), px, raw.data(), info.size, &info) <= 0)
            std::fill(grey.begin(), grey.end(), 0);
        auto msg = std::make_shared<frame_msg>();
        msg->seq = ++seq;
        msg->bytes.resize(k_header + 4 * size_t{px});
        char *p = msg->bytes.data();
        const uint32_t total = static_cast<uint32_t>(msg->bytes.size());
        const double ts = info.ts_sec + info.ts_usec * 1e-6, pull_ms = static_cast<double>(pulled);
        const float board = static_cast<int16_t>(info.temperature & 0xFFFF) / 10.0f;
        const float sensor = static_cast<int16_t>(info.temperature >> 16) / 10.0f;
        uint32_t position;
        {
            std::lock_guard lk(m_);
            ++frames_;
            if (last_index_ >= 0) {
                const uint16_t gap = static_cast<uint16_t>(info.index - last_index_ - 1);
                if (gap < 1000) drops_ += gap;
            }
            last_index_ = info.index;
            if (is_file_ && info.index > 0) {
                // Replayed frames are numbered from 1; the page counts from 0.
                position_ = info.index - 1;
                next_ = info.index;
            }
            step_ = false;
            position = position_;
            board_c_ = board;
            sensor_c_ = sensor;
            const uint64_t now = _mono_ms();
            arrivals_.push_back(now);
            while (arrivals_.size() > 30) arrivals_.erase(arrivals_.begin());
            fps_measured_ = arrivals_.size() > 1 && arrivals_.back() > arrivals_.front()
                                ? (arrivals_.size() - 1) * 1000.0 /
                                      static_cast<double>(arrivals_.back() - arrivals_.front())
                                : 0.0;
        }
        const uint32_t seq32 = static_cast<uint32_t>(msg->seq), fmt = info.format,
                       index = info.index;
        std::memcpy(p, "TVXF", 4);
        std::memcpy(p + 4, &total, 4);
        std::memcpy(p + 8, &w, 4);
        std::memcpy(p + 12, &h, 4);
        std::memcpy(p + 16, &index, 4);
        std::memcpy(p + 20, &position, 4);
        std::memcpy(p + 24, &pull_ms, 8);
        std::memcpy(p + 32, &ts, 8);
        std::memcpy(p + 40, &board, 4);
        std::memcpy(p + 44, &sensor, 4);
        std::memcpy(p + 48, &seq32, 4);
        std::memcpy(p + 52, &fmt, 4);
        std::memcpy(p + k_header, depth.data(), 2 * size_t{px});
        std::memcpy(p + k_header + 2 * size_t{px}, grey.data(), 2 * size_t{px});
        {
            std::lock_guard lk(m_);
            latest_ = std::move(msg);
        }
        cv_.notify_all();
    }
}

std::string server::_state_json() {
    std::ostringstream j;
    char uri[300] = {};
    tevix_dev_get_uri(dev_, uri, sizeof uri);
    const char *chip = nullptr;
    const char *drv = tevix_dev_get_driver(dev_, &chip);
    tevix_param_item_t items[4] = {};
    items[0].id = TEVIX_PARAM_FPS;
    items[1].id = TEVIX_PARAM_INTG1;
    items[2].id = TEVIX_PARAM_MOD_FREQ;
    items[3].id = TEVIX_PARAM_INTG2;
    items[0].len = 4, items[1].len = 2, items[2].len = 4, items[3].len = 2;
    const bool got = tevix_param_batch_get(dev_, items, 4) != 0;
    std::lock_guard lk(m_);
    j << "{\"uri\":" << _json_text(uri) << ",\"product\":" << _json_text(dev_->product)
      << ",\"serial\":" << _json_text(dev_->serial) << ",\"driver\":" << _json_text(drv ? drv : "")
      << ",\"is_file\":" << (is_file_ ? "true" : "false")
      << ",\"capturing\":" << (capturing_ ? "true" : "false")
      << ",\"recording\":" << (recording_ ? "true" : "false")
      << ",\"record_file\":" << _json_text(record_file_) << ",\"clients\":" << clients_.load()
      << ",\"frames\":" << frames_ << ",\"drops\":" << drops_
      << ",\"fps_measured\":" << std::round(fps_measured_ * 10) / 10 << ",\"board_c\":" << board_c_
      << ",\"sensor_c\":" << sensor_c_ << ",\"lens\":{\"cx\":" << lens_.cx << ",\"cy\":" << lens_.cy
      << ",\"fx\":" << lens_.fx << ",\"fy\":" << lens_.fy << ",\"width\":" << lens_.width
      << ",\"height\":" << lens_.height << "},\"calib_freqs\":[";
    for (size_t i = 0; i < calib_freqs_.size(); ++i) j << (i ? "," : "") << calib_freqs_[i];
    j << "],\"limits\":{\"fps_max\":" << (max_fps_ ? max_fps_ : 1000)
      << ",\"intg_max\":" << std::min<uint32_t>(max_intg_ ? max_intg_ : 65535, 65535)
      << "},\"params\":{\"FPS\":" << (got ? items[0].value.u32[0] : 0)
      << ",\"INTG1\":" << (got ? items[1].value.u16[0] : 0)
      << ",\"INTG2\":" << (got ? items[3].value.u16[0] : 0)
      << ",\"MOD_FREQ\":" << (got ? items[2].value.u32[0] : 0) << "},\"filters\":{";
    for (size_t i = 0; i < std::size(k_filters); ++i)
        j << (i ? "," : "") << _json_text(k_filters[i].name) << ":"
          << (filter_on_[i] ? "true" : "false");
    j << "},\"playback\":{\"playing\":" << (playing_ ? "true" : "false")
      << ",\"loop\":" << (loop_ ? "true" : "false") << ",\"position\":" << position_
      << ",\"count\":" << count_ << "}}";
    return j.str();
}

void server::_routes() {
    httplib::Server &s = *http_;
    // Every request carries the token when the server listens beyond the loopback address.
    s.set_pre_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
        if (token_.empty()) return httplib::Server::HandlerResponse::Unhandled;
        // The page's address carries the token once; a cookie carries it for the page's own
        // requests (scripts, styles) after that.
        const std::string given = req.get_param_value("token");
        if (_authorised(given)) {
            res.set_header("Set-Cookie",
                           "tevix_token=" + token_ + "; Path=/; HttpOnly; SameSite=Strict");
            return httplib::Server::HandlerResponse::Unhandled;
        }
        if (_authorised(req.get_header_value("X-Tevix-Token")) ||
            _authorised(_cookie(req.get_header_value("Cookie"), "tevix_token")))
            return httplib::Server::HandlerResponse::Unhandled;
        _refuse(res, 403, "missing or wrong access token");
        return httplib::Server::HandlerResponse::Handled;
    });
    // The page: our own files, built in, and the distribution's three.js; nothing else is served.
    const std::string three = _read_file(opt_.three_dir + "/three.min.js");
    const std::string orbit = _read_file(opt_.three_dir + "/examples/js/controls/OrbitControls.js");
    const std::map<std::string, std::pair<std::string, const char *>> files = {
        {"/", {std::string(k_index_html), "text/html; charset=utf-8"}},
        {"/index.html", {std::string(k_index_html), "text/html; charset=utf-8"}},
        {"/viewer.js", {std::string(k_viewer_js), "text/javascript"}},
        {"/viewer.css", {std::string(k_viewer_css), "text/css"}},
        {"/three.min.js", {three, "text/javascript"}},
        {"/OrbitControls.js", {orbit, "text/javascript"}},
    };
    for (const auto &[path, file] : files) {
        if (file.first.empty()) continue;  // three.js not installed: the page goes without 3-D
        s.Get(path, [content = file.first, type = file.second](const httplib::Request &,
                                                               httplib::Response &res) {
            res.set_content(content, type);
        });
    }
    s.Get("/api/state", [this](const httplib::Request &, httplib::Response &res) {
        _reply(res, 200, _state_json());
    });
    s.Get("/api/palette", [](const httplib::Request &req, httplib::Response &res) {
        long long id = 0;
        if (!_int(req.get_param_value("id"), 0, 63, &id))
            return _refuse(res, 400, "palette id 0..63");
        uint16_t ramp[256];
        for (int i = 0; i < 256; ++i) ramp[i] = static_cast<uint16_t>(i + 1);
        std::string rgb(256 * 3, '\0');
        const tevix_cmap_cfg_t cfg{static_cast<uint32_t>(id), 0};
        tevix_cmap_dist_u16_to_RGB(reinterpret_cast<uint8_t *>(rgb.data()), 256 * 3, ramp, 256,
                                   TEVIX_PIX_RGB, 0, 256, &cfg);
        res.set_content(rgb, "application/octet-stream");
    });
    s.Get("/api/stream", [this](const httplib::Request &, httplib::Response &res) {
        if (clients_.fetch_add(1) >= k_max_streams) {
            clients_.fetch_sub(1);
            return _refuse(res, 503, "too many viewers");
        }
        uint64_t id = 0;
        {
            std::lock_guard lk(m_);
            id = ++stream_ids_;
            streams_[id] = stream_pace{};
        }
        cv_.notify_all();
        res.set_header("Cache-Control", "no-store");
        res.set_header("X-Tevix-Stream", std::to_string(id));
        // Each page gets the newest frame whenever it has taken the ones before: at most
        // k_in_flight frames are on their way (in socket buffers, not yet read by the page), so a
        // slow page skips frames and sees fresh ones; nothing queues.
        auto seen = std::make_shared<uint64_t>(0);
        res.set_chunked_content_provider(
            "application/octet-stream",
            [this, seen, id](size_t, httplib::DataSink &sink) {
                while (!quit_) {
                    if (!sink.is_writable()) return false;
                    auto msg = _wait_to_send(id, *seen, 500);
                    if (!msg) continue;
                    *seen = msg->seq;
                    return sink.write(msg->bytes.data(), msg->bytes.size());
                }
                return false;
            },
            [this, id](bool) {
                {
                    std::lock_guard lk(m_);
                    streams_.erase(id);
                }
                clients_.fetch_sub(1);
                cv_.notify_all();
            });
    });
    // A page says how many frames of its stream it has read, whenever it paints.
    s.Post("/api/ack", [this](const httplib::Request &req, httplib::Response &res) {
        long long id = 0, n = 0;
        if (!_int(req.get_param_value("stream"), 1, INT64_MAX, &id) ||
            !_int(req.get_param_value("frames"), 0, INT64_MAX, &n))
            return _refuse(res, 400, "ack wants stream and frames, whole numbers");
        {
            std::lock_guard lk(m_);
            auto it = streams_.find(static_cast<uint64_t>(id));
            if (it == streams_.end()) return _refuse(res, 404, "no such stream");
            if (static_cast<uint64_t>(n) > it->second.sent)
                return _refuse(res, 400, "more frames acknowledged than sent");
            it->second.read = std::max(it->second.read, static_cast<uint64_t>(n));
        }
        cv_.notify_all();
        _reply(res, 200, "{\"ok\":true}");
    });
    s.Post("/api/param", [this](const httplib::Request &req, httplib::Response &res) {
        const std::string name = req.get_param_value("name"), value = req.get_param_value("value");
        long long v = 0;
        tevix_param_item_t it{};
        if (name == "FPS") {
            const long long lo = is_file_ ? 0 : 1, hi = max_fps_ ? max_fps_ : 1000;
            if (!_int(value, lo, hi, &v))
                return _refuse(res, 400,
                               "FPS must be a whole number in " + std::to_string(lo) + ".." +
                                   std::to_string(hi));
            it.id = TEVIX_PARAM_FPS;
            it.len = 4;
            it.value.u32[0] = static_cast<uint32_t>(v);
        } else if (name == "INTG1") {
            const long long hi = std::min<long long>(max_intg_ ? max_intg_ : 65535, 65535);
            if (!_int(value, 1, hi, &v))
                return _refuse(res, 400, "INTG1 must be microseconds in 1.." + std::to_string(hi));
            it.id = TEVIX_PARAM_INTG1;
            it.len = 2;
            it.value.u16[0] = static_cast<uint16_t>(v);
        } else if (name == "INTG2") {
            // The second integration time of HDR modes; 0 switches it off.
            const long long hi = std::min<long long>(max_intg_ ? max_intg_ : 65535, 65535);
            if (!_int(value, 0, hi, &v))
                return _refuse(res, 400, "INTG2 must be microseconds in 0.." + std::to_string(hi));
            it.id = TEVIX_PARAM_INTG2;
            it.len = 2;
            it.value.u16[0] = static_cast<uint16_t>(v);
        } else if (name == "MOD_FREQ") {
            if (!_int(value, 1000000, 200000000, &v))
                return _refuse(res, 400, "MOD_FREQ must be a frequency in Hz, 1000000..200000000");
            it.id = TEVIX_PARAM_MOD_FREQ;
            it.len = 4;
            it.value.u32[0] = static_cast<uint32_t>(v);
        } else if (name == "BINNING") {
            if (!_int(value, 0, 3, &v)) return _refuse(res, 400, "BINNING must be 0..3");
            tevix_roi_t roi{};
            roi.bottom = static_cast<uint16_t>((lens_.height ? lens_.height : 240) - 1);
            roi.right = static_cast<uint16_t>((lens_.width ? lens_.width : 320) - 1);
            roi.binning = static_cast<uint8_t>(v);
            it.id = TEVIX_PARAM_ROI;
            it.len = sizeof roi;
            std::memcpy(it.value.u8, &roi, sizeof roi);
        } else {
            return _refuse(
                res, 400,
                "unknown parameter '" + name + "' (FPS, INTG1, INTG2, MOD_FREQ, BINNING)");
        }
        if (is_file_ && it.id != TEVIX_PARAM_FPS)
            return _refuse(res, 409, "a recording replays as recorded: only its rate changes");
        if (!tevix_param_batch_set(dev_, &it, 1))
            return _refuse(res, 502, "the camera refused " + name + "=" + value);
        _reply(
            res, 200,
            "{\"ok\":true,\"name\":" + _json_text(name) + ",\"value\":" + std::to_string(v) + "}");
    });
    s.Post("/api/filter", [this](const httplib::Request &req, httplib::Response &res) {
        const std::string name = req.get_param_value("name");
        const filter_spec *f = nullptr;
        for (const auto &k : k_filters)
            if (name == k.name) f = &k;
        if (!f) return _refuse(res, 400, "unknown filter '" + name + "'");
        long long on = 0, v = 0;
        if (!_int(req.get_param_value("on"), 0, 1, &on))
            return _refuse(res, 400, "on must be 0 or 1");
        tevix_filter_arg_t arg{};
        if (on && f->values != 0) {
            if (!_int(req.get_param_value("value"), f->lo, f->hi, &v))
                return _refuse(res, 400,
                               name + " needs a value in " + std::to_string(f->lo) + ".." +
                                   std::to_string(f->hi));
            if (f->values < 0)
                arg.u8[0] = static_cast<uint8_t>(v);
            else
                arg.u16[0] = static_cast<uint16_t>(v);
        }
        const int r =
            on ? tevix_filter_enable(dev_, f->id, &arg) : tevix_filter_disable(dev_, f->id);
        if (r != 0) return _refuse(res, 502, "the driver refused " + name);
        {
            std::lock_guard lk(m_);
            filter_on_[static_cast<size_t>(f - k_filters)] = on != 0;
        }
        _reply(res, 200, "{\"ok\":true}");
    });
    auto apply = [this](const pending_change &c) {
        std::unique_lock lk(m_);
        change_ = c;
        change_pending_ = true;
        cv_.notify_all();
        cv_.wait_for(lk, std::chrono::seconds(5), [this] { return !change_pending_; });
        return !change_pending_ && change_ok_;
    };
    s.Post("/api/record", [this, apply](const httplib::Request &req, httplib::Response &res) {
        const std::string action = req.get_param_value("action");
        pending_change c;
        c.record = true;
        {
            std::lock_guard lk(m_);
            c.play = playing_, c.loop = loop_;
        }
        if (action == "start") {
            std::string file = req.get_param_value("file");
            if (file.empty()) file = "tevix-" + std::to_string(_wall_ms()) + ".oni";
            const bool plain = file.size() <= 64 && file.size() > 4 &&
                               file.find_first_not_of(
                                   "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOP"
                                   "QRSTUVWXYZ0123456789_.-") == std::string::npos &&
                               file[0] != '.' && file.compare(file.size() - 4, 4, ".oni") == 0;
            if (!plain)
                return _refuse(res, 400,
                               "a recording is named with letters, digits, '_', '-', "
                               "'.' and ends in .oni");
            c.record_on = true;
            c.record_file = opt_.record_dir + "/" + file;
        } else if (action != "stop") {
            return _refuse(res, 400, "action is start or stop");
        }
        if (!apply(c)) return _refuse(res, 500, "the capture did not restart");
        _reply(res, 200,
               "{\"ok\":true,\"recording\":" + std::string(c.record_on ? "true" : "false") +
                   ",\"file\":" + _json_text(c.record_file) + "}");
    });
    s.Post("/api/playback", [this, apply](const httplib::Request &req, httplib::Response &res) {
        if (!is_file_) return _refuse(res, 409, "playback controls belong to recordings");
        const std::string action = req.get_param_value("action");
        pending_change c;
        c.playback = true;
        {
            std::lock_guard lk(m_);
            c.play = playing_, c.loop = loop_;
        }
        long long v = 0;
        if (action == "play") {
            c.play = true;
        } else if (action == "pause") {
            c.play = false;
        } else if (action == "seek") {
            if (!_int(req.get_param_value("frame"), 0, count_ ? count_ - 1 : 0, &v))
                return _refuse(res, 400, "frame 0.." + std::to_string(count_ ? count_ - 1 : 0));
            c.seek = v;
        } else if (action == "loop") {
            if (!_int(req.get_param_value("on"), 0, 1, &v))
                return _refuse(res, 400, "on is 0 or 1");
            c.loop = v != 0;
        } else {
            return _refuse(res, 400, "action is play, pause, seek or loop");
        }
        {
            std::lock_guard lk(m_);
            c.record_on = recording_;
        }
        if (!apply(c)) return _refuse(res, 500, "the replay did not restart");
        _reply(res, 200, "{\"ok\":true}");
    });
}

}  // namespace tevix_view
