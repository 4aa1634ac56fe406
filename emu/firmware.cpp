// Firmware model of the virtual camera: parameters, registers, the status record, capture and
// reset commands.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ll/usb/usb_proto.h"
#include "ll/usb/xfer_proto.h"
#include "vcam.h"

namespace tevix::emu {

using namespace tevix::usb;

namespace {

void _put16(std::vector<uint8_t> &v, uint16_t x) {
    v.push_back(static_cast<uint8_t>(x));
    v.push_back(static_cast<uint8_t>(x >> 8));
}

void _put32(std::vector<uint8_t> &v, uint32_t x) {
    for (int i = 0; i < 4; ++i) v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

uint32_t _get32(const uint8_t *p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

std::vector<uint8_t> _text(const std::string &s) {
    return std::vector<uint8_t>(s.begin(),
                                s.begin() + static_cast<long>(std::min<size_t>(s.size(), 18)));
}

}  // namespace

firmware::firmware(const camera_config &cfg) {
    params_[k_par_vendor] = _text(cfg.vendor);
    params_[k_par_product] = _text(cfg.product);
    std::vector<uint8_t> v;
    for (uint32_t w : cfg.uid) _put32(v, w);
    params_[k_par_uid] = v;
    v.clear();
    _put16(v, 181);  // software 1.81
    _put16(v, 104);  // boot loader 1.04
    _put16(v, 1);    // hardware revision
    _put16(v, 0);
    params_[k_par_version] = v;
    v.clear();
    for (uint16_t w : cfg.sensor) _put16(v, w);
    params_[k_par_sensor] = v;
    v.clear();
    _put16(v, cfg.width);
    _put16(v, cfg.height);
    _put32(v, 60);    // highest frame rate
    _put32(v, 1500);  // longest integration time, us
    params_[k_par_geometry] = v;
    v.clear();
    _put32(v, 0);  // no calibration data stored
    _put32(v, 0);  // its timestamp
    params_[k_par_calib_info] = v;
    v.clear();
    _put32(v, cfg.fps);
    params_[k_par_fps] = v;
    v.clear();
    _put32(v, cfg.mod_freq);
    params_[k_par_mod_freq] = v;
    // Integration times as the camera starts: 500 us, no second one (no HDR).
    v.clear();
    _put16(v, 500);
    params_[k_par_intg1] = v;
    v.clear();
    _put16(v, 0);
    params_[k_par_intg2] = v;
    if (cfg.frame_format) {
        v.clear();
        _put32(v, cfg.frame_format);
        params_[k_par_frame_format] = v;
    }
    if (cfg.dual_freq[0] && cfg.dual_freq[1]) {
        v.clear();
        _put32(v, cfg.dual_freq[0]);
        _put32(v, cfg.dual_freq[1]);
        params_[k_par_dual_freq] = v;
    }
    // Lens intrinsics, floats in 16-byte pieces: cx cy fx fy, d0..d3, d4.
    if (cfg.lens.size() == 9) {
        const uint8_t ids[3] = {k_par_lens0, k_par_lens1, k_par_lens2};
        for (int i = 0; i < 3; ++i) {
            const size_t n = i < 2 ? 4 : 1;
            std::vector<uint8_t> b(n * 4);
            std::memcpy(b.data(), cfg.lens.data() + 4 * i, b.size());
            params_[ids[i]] = b;
        }
    }
    // The running firmware image (type 0) is version 1.81, as the version parameter says.
    stores_[0].version = 181;
}

uint32_t firmware::fps() const {
    auto it = params_.find(k_par_fps);
    if (it == params_.end() || it->second.size() < 4) return 0;
    return _get32(it->second.data());
}

uint32_t firmware::reg(uint8_t target, uint32_t addr) const {
    auto it = regs_.find(static_cast<uint64_t>(target) << 32 | addr);
    return it == regs_.end() ? 0 : it->second;
}

void firmware::set_param(uint8_t id, std::span<const uint8_t> value) {
    params_[id].assign(value.begin(),
                       value.begin() + static_cast<long>(std::min<size_t>(value.size(), 18)));
}

std::vector<uint8_t> firmware::param(uint8_t id) const {
    auto it = params_.find(id);
    return it == params_.end() ? std::vector<uint8_t>() : it->second;
}

void firmware::_done(uint8_t request, uint16_t value, const char *error) {
    last_req_ = request;
    last_val_ = value;
    if (!fail_text_.empty()) {
        error_ = fail_text_;
        fail_text_.clear();
        state_ = k_state_error;
    } else if (error) {
        error_ = error;
        state_ = k_state_error;
    } else {
        error_.clear();
        state_ = k_state_done;
    }
}

int firmware::_status(std::span<uint8_t> data) {
    ++status_reads_;
    std::memset(data.data(), 0, data.size());
    if (data.size() < k_status_size) return -EPIPE;
    data[0] = busy_reads_ ? k_state_busy : state_;
    if (busy_reads_) --busy_reads_;
    data[1] = last_req_;
    data[2] = static_cast<uint8_t>(last_val_);
    if (wrong_status_) {
        data[1] = static_cast<uint8_t>(last_req_ ^ 0x01);
        wrong_status_ = false;
    }
    if (data[0] == k_state_error) {
        std::strncpy(reinterpret_cast<char *>(data.data()) + k_status_text, error_.c_str(),
                     k_status_size - k_status_text - 1);
    }
    return static_cast<int>(k_status_size);
}

int firmware::_sys(bool in, uint16_t value, std::span<uint8_t> data) {
    const size_t n = data.size() / k_param_item;
    const bool items_ok = data.size() % k_param_item == 0 && n >= 1 && n <= k_params_per_cmd;
    if (value == k_sys_reset && !in) {
        if (data.size() != 4) return _done(k_cmd_sys, value, "bad reset length"), 0;
        const uint32_t target = _get32(data.data());
        _done(k_cmd_sys, value, nullptr);
        if (on_reset) on_reset(target);
        return static_cast<int>(data.size());
    }
    if (value == k_sys_param_set && !in) {
        if (!items_ok) return _done(k_cmd_sys, value, "bad parameter batch"), 0;
        for (size_t i = 0; i < n; ++i) {
            const uint8_t *it = data.data() + i * k_param_item;
            const std::span<const uint8_t> v(it + 2, std::min<size_t>(it[1], 18));
            set_param(it[0], v);
            if (on_param) on_param(it[0], v);
        }
        _done(k_cmd_sys, value, nullptr);
        return static_cast<int>(data.size());
    }
    if (value == k_sys_param_get) {
        if (!items_ok) return _done(k_cmd_sys, value, "bad parameter batch"), 0;
        if (!in) {
            get_ids_.clear();
            for (size_t i = 0; i < n; ++i) get_ids_.push_back(data[i * k_param_item]);
        } else {
            std::memset(data.data(), 0, data.size());
            for (size_t i = 0; i < n && i < get_ids_.size(); ++i) {
                uint8_t *it = data.data() + i * k_param_item;
                it[0] = get_ids_[i];
                if (get_ids_[i] == k_par_calib_info) {
                    const std::vector<uint8_t> info = _calib_info();
                    it[1] = static_cast<uint8_t>(info.size());
                    std::memcpy(it + 2, info.data(), info.size());
                    continue;
                }
                auto p = params_.find(get_ids_[i]);
                if (p == params_.end()) continue;
                it[1] = static_cast<uint8_t>(p->second.size());
                std::memcpy(it + 2, p->second.data(), p->second.size());
            }
        }
        _done(k_cmd_sys, value, nullptr);
        return static_cast<int>(data.size());
    }
    _done(k_cmd_sys, value, "unsupported command");
    return static_cast<int>(data.size());
}

int firmware::_reg(bool in, uint16_t value, std::span<uint8_t> data) {
    if (value == k_reg_cap_start && !in) upload_next_ = 0;  // each capture uploads from frame 0
    if (value == k_reg_write && !in) {
        if (data.size() < k_reg_hdr) return _done(k_cmd_reg, value, "short register write"), 0;
        const uint8_t target = data[0];
        const uint32_t addr = _get32(&data[1]);
        const uint32_t bytes = data[5] | data[6] << 8;
        if (bytes % 4 || bytes / 4 > k_regs_per_cmd || k_reg_hdr + bytes != data.size()) {
            _done(k_cmd_reg, value, "bad register count");
            return static_cast<int>(data.size());
        }
        for (uint32_t i = 0; i < bytes / 4; ++i) {
            regs_[static_cast<uint64_t>(target) << 32 | (addr + i)] =
                _get32(&data[k_reg_hdr + 4 * i]);
        }
        _done(k_cmd_reg, value, nullptr);
        return static_cast<int>(data.size());
    }
    if (value == k_reg_read) {
        if (!in) {
            if (data.size() != k_reg_hdr) return _done(k_cmd_reg, value, "bad register read"), 0;
            rd_target_ = data[0];
            rd_addr_ = _get32(&data[1]);
            rd_count_ = (data[5] | data[6] << 8) / 4u;
        } else {
            const uint32_t n =
                std::min<uint32_t>(rd_count_, static_cast<uint32_t>(data.size() / 4));
            std::memset(data.data(), 0, data.size());
            for (uint32_t i = 0; i < n; ++i) {
                const uint32_t v = reg(rd_target_, rd_addr_ + i);
                for (int b = 0; b < 4; ++b) data[4 * i + b] = static_cast<uint8_t>(v >> (8 * b));
            }
        }
        _done(k_cmd_reg, value, nullptr);
        return static_cast<int>(data.size());
    }
    if (value == k_reg_cap_start && !in && data.size() == 4) {
        mode_ = _get32(data.data());
        _done(k_cmd_reg, value, nullptr);
        if (state_ != k_state_error && on_start) on_start(mode_);
        return 4;
    }
    if (value == k_reg_cap_stop && !in && data.size() == 1) {
        _done(k_cmd_reg, value, data[0] == k_cap_stop_byte ? nullptr : "bad stop byte");
        if (on_stop) on_stop();
        return 1;
    }
    _done(k_cmd_reg, value, "unsupported command");
    return static_cast<int>(data.size());
}

// Calibration information (parameter 8): u8 valid at 0, u8 data present at 1, u16 firmware
// version at 2, u32 stored size at 4, u32 data size at 8, u32 timestamp at 12, from the upload
// header of the stored calibration image (data type 3).
std::vector<uint8_t> firmware::_calib_info() const {
    std::vector<uint8_t> v(16, 0);
    const store *s = find_store(tevix::xfer::k_type_data);
    v[2] = 181, v[3] = 0;
    if (!s || s->data.size() < 18) return v;
    const uint8_t *h = s->data.data();
    v[0] = h[0];
    v[1] = 1;
    std::memcpy(v.data() + 4, h + 10, 4);  // fsize
    std::memcpy(v.data() + 8, h + 14, 4);  // dsize
    std::memcpy(v.data() + 12, h + 6, 4);  // ts
    return v;
}

uint32_t firmware::dev_mode() const {
    auto it = params_.find(0);
    return it == params_.end() || it->second.size() < 4 ? 0 : _get32(it->second.data());
}

bool firmware::next_upload_frame(uint32_t &index, std::vector<uint8_t> &bytes) {
    if (stray_frames_) {
        --stray_frames_;
        return false;
    }
    const store *s = find_store(tevix::xfer::k_type_data);
    const size_t size = s ? s->data.size() : 0;
    const uint32_t frames =
        static_cast<uint32_t>(std::max<size_t>(1, (size + k_upload_frame - 1) / k_upload_frame));
    for (;;) {
        index = upload_next_ % frames;
        ++upload_next_;
        if (!drop_upload_) break;
        --drop_upload_;
    }
    bytes.assign(k_upload_frame, 0x01);
    const size_t at = size_t{index} * k_upload_frame;
    if (at < size)
        std::memcpy(bytes.data(), s->data.data() + at, std::min<size_t>(k_upload_frame, size - at));
    return true;
}

const firmware::store *firmware::find_store(uint8_t type) const {
    auto it = stores_.find(type);
    return it == stores_.end() ? nullptr : &it->second;
}

// The packet size the camera takes: 4 KiB of data, as its flash pages.
constexpr uint16_t k_packet_size = 4096;
// Flash of the virtual camera, per data type.
constexpr uint32_t k_flash_size = 104857600;

int firmware::_xfer(bool in, uint16_t value, std::span<uint8_t> data) {
    namespace x = tevix::xfer;
    uint8_t *d = data.data();
    const size_t n = data.size();
    switch (value) {
        case x::k_sub_info:
            if (n < x::k_info_len) return _done(x::k_cmd, value, "short data info"), 0;
            if (!in) {
                x_sel_type_ = d[0];
            } else {
                std::memset(d, 0, n);
                const store *s = find_store(x_sel_type_);
                x::put16(d, s ? s->version : 0);
                x::put16(d + 2, x_sel_type_);
                x::put32(d + 4, s ? s->addr : 0);
                x::put32(d + 8, s ? static_cast<uint32_t>(s->data.size()) : 0);
                x::put16(d + 12, s ? x::crc16(s->data.data(), s->data.size()) : 0);
            }
            break;
        case x::k_sub_action:
            if (in || n != x::k_action_len) return _done(x::k_cmd, value, "bad action info"), 0;
            x_type_ = d[0];
            x_version_ = x::get16(d + 2);
            x_size_ = x::get32(d + 4);
            x_addr_ = x::get32(d + 8);
            if (x_size_ > k_flash_size) return _done(x::k_cmd, value, "data larger than flash"), 0;
            x_data_.clear();
            x_taken_ = 0;
            x_packets_before_ = packets_seen_;
            x_status_ = x::k_st_info_ok;
            x_active_ = true;
            break;
        case x::k_sub_erase:
            if (in || n != x::k_erase_len || !x_active_)
                return _done(x::k_cmd, value, "erase without action info"), 0;
            stores_.erase(x_type_);
            ++erases_;
            erase_left_ = erase_polls_;
            erase_polls_ = 0;
            x_status_ = erase_left_ ? x::k_st_erasing : x::k_st_ready;
            break;
        case x::k_sub_ack:
        case x::k_sub_short_ack: {
            const size_t len = value == x::k_sub_ack ? x::k_ack_len : x::k_short_ack_len;
            if (n < len) return _done(x::k_cmd, value, "short acknowledgement"), 0;
            if (!in) break;  // the host's record selects nothing
            std::memset(d, 0, n);
            uint8_t status = x_status_;
            if (status == x::k_st_erasing && erase_left_ && --erase_left_ == 0)
                x_status_ = x::k_st_ready;
            uint16_t num = static_cast<uint16_t>(x_taken_);
            // Faults of the data phase: acknowledgements of packets only.
            const bool data_phase = packets_seen_ > x_packets_before_;
            if (stale_acks_ && x_taken_ > 0) {
                --stale_acks_;
                num = static_cast<uint16_t>(x_taken_ - 1);
            } else if (wrong_acks_ && data_phase) {
                --wrong_acks_;
                num = static_cast<uint16_t>(x_taken_ + 7);
            }
            x::put16(d, num);
            d[2] = status;
            if (value == x::k_sub_ack) {
                x::put16(d + 3, k_packet_size);
                x::put32(d + 5, static_cast<uint32_t>(x_data_.size()));
                x::put16(d + 9, x::crc16(x_data_.data(), x_data_.size()));
            }
            break;
        }
        case x::k_sub_piece: {
            if (n < x::k_piece_req_len) return _done(x::k_cmd, value, "short piece request"), 0;
            if (!in) {
                x_sel_type_ = d[0];
                x_piece_ = x::get16(d + 4);
                break;
            }
            std::memset(d, 0, n);
            const store *s = find_store(x_sel_type_);
            x::put16(d, x_piece_);
            const size_t at = size_t{x_piece_} * x::k_piece_size;
            if (!s) {
                d[6] = 1;
            } else if (at >= s->data.size() && !(at == 0 && s->data.empty())) {
                d[6] = 2;
            } else {
                const size_t len =
                    std::min<size_t>({x::k_piece_size, s->data.size() - at, n - x::k_piece_hdr});
                std::memcpy(d + x::k_piece_hdr, s->data.data() + at, len);
                x::put16(d + 2, static_cast<uint16_t>(len));
                uint16_t crc = x::crc16(s->data.data() + at, len);
                if (corrupt_pieces_) --corrupt_pieces_, crc ^= 0x5A5A;
                x::put16(d + 4, crc);
            }
            break;
        }
        default:
            return _done(x::k_cmd, value, "unsupported transfer command"), static_cast<int>(n);
    }
    _done(x::k_cmd, value, nullptr);
    return static_cast<int>(n);
}

void firmware::bulk_out(std::span<const uint8_t> packet) {
    namespace x = tevix::xfer;
    ++packets_seen_;
    if (!x_active_ || x_status_ != x::k_st_ready || packet.size() < x::k_packet_hdr) return;
    if (lose_packets_) {
        --lose_packets_;
        return;
    }
    const uint16_t crc = x::get16(packet.data()), len = x::get16(packet.data() + 2);
    const uint16_t num = x::get16(packet.data() + 4);
    if (len != packet.size() - x::k_packet_hdr || len > k_packet_size) return;
    if (x::crc16(packet.data() + x::k_packet_hdr, len) != crc) return;
    // A packet taken before comes again when an acknowledgement went astray: not stored twice.
    if (num != static_cast<uint16_t>(x_taken_)) return;
    x_data_.insert(x_data_.end(), packet.begin() + x::k_packet_hdr, packet.end());
    ++x_taken_;
    if (x_data_.size() >= x_size_) {
        stores_[x_type_] = store{x_version_, x_addr_, x_data_};
        x_active_ = false;
        x_status_ = x::k_st_ready;
    }
}

int firmware::control(uint8_t type, uint8_t request, uint16_t value, std::span<uint8_t> data) {
    const bool in = type & 0x80;
    if (request == k_cmd_status && in) return _status(data);
    if (type != k_req_out && type != k_req_in) return -EPIPE;
    int r;
    if (request == k_cmd_sys) {
        r = _sys(in, value, data);
    } else if (request == k_cmd_reg) {
        r = _reg(in, value, data);
    } else if (request == tevix::xfer::k_cmd) {
        r = _xfer(in, value, data);
    } else {
        _done(request, value, "unsupported command");
        r = static_cast<int>(data.size());
    }
    log_.push_back(
        {type, request, value, std::vector<uint8_t>(data.begin(), data.begin() + std::max(r, 0))});
    return r;
}

}  // namespace tevix::emu
