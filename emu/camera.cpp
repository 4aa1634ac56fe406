// One virtual camera behind umockdev: the usbdevfs ioctls libusb sends, the bulk-in URB queue fed
// by the streaming engine, and the device node FIFO that makes the host's poll block while no URB
// is ready.
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <umockdev.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "ll/usb/usb_proto.h"
#include "platform/platform.h"
#include "vcam.h"

namespace tevix::emu {

using namespace tevix::usb;

namespace {

constexpr size_t k_queue_limit = 4u << 20;  // stream bytes buffered ahead of the host
constexpr uint64_t k_reenum_delay_ms = 20;
constexpr uint64_t k_replug_delay_ms = 300;
constexpr size_t k_fifo_page = 4096;

UMockdevIoctlData *_data(void *p) {
    return static_cast<UMockdevIoctlData *>(p);
}

usbdevfs_urb *_urb(void *p) {
    return reinterpret_cast<usbdevfs_urb *>(_data(p)->data);
}

gboolean _on_ioctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self) {
    return static_cast<camera *>(self)->_ioctl(client) ? TRUE : FALSE;
}

}  // namespace

camera::camera(testbed &tb, const camera_config &cfg, std::unique_ptr<frame_source> src)
    : tb_(tb), cfg_(cfg), src_(src ? std::move(src) : std::make_unique<test_pattern>()), fw_(cfg) {
    cfg_.packet_payload = std::max<uint32_t>(4, cfg_.packet_payload & ~3u);
    os_ = vx_ostream_create();
    uint8_t oscfg = cfg_.data_cksum ? 1 : 0;
    vx_ostream_set_cfg(os_, &oscfg);
    _hooks();
    _source_params();

    auto *h = umockdev_ioctl_base_new();
    handler_ = h;
    g_signal_connect(h, "handle-ioctl", G_CALLBACK(_on_ioctl), this);
    auto *utb = static_cast<UMockdevTestbed *>(tb_._tb());
    GError *err = nullptr;
    if (!umockdev_testbed_attach_ioctl(utb, dev_node().c_str(), h, &err)) {
        std::fprintf(stderr, "tevix-vcam: attach ioctl: %s\n", err ? err->message : "?");
        g_clear_error(&err);
    }

    // Device descriptor, then the configuration: one interface, bulk IN and OUT, 512-byte packets.
    const uint8_t dd[18] = {18,
                            1,
                            0x00,
                            0x02,
                            0,
                            0,
                            0,
                            64,
                            static_cast<uint8_t>(k_vid),
                            static_cast<uint8_t>(k_vid >> 8),
                            static_cast<uint8_t>(k_pid),
                            static_cast<uint8_t>(k_pid >> 8),
                            0x00,
                            0x01,
                            1,
                            2,
                            3,
                            1};
    const uint8_t cd[32] = {9,    2,    32, 0,    1, 1,        0, 0x80, 250,  9,       4,
                            0,    0,    2,  0xFF, 0, 0,        0, 7,    5,    k_ep_in, 2,
                            0x00, 0x02, 0,  7,    5, k_ep_out, 2, 0x00, 0x02, 0};
    std::string hex;
    char b[3];
    for (uint8_t x : dd) std::snprintf(b, sizeof(b), "%02X", x), hex += b;
    for (uint8_t x : cd) std::snprintf(b, sizeof(b), "%02X", x), hex += b;
    char rec[1024];
    std::snprintf(rec, sizeof(rec),
                  "P: /devices/pci0000:00/0000:00:14.0/usb%u/%u-%u\n"
                  "N: bus/usb/%03u/%03u\n"
                  "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\n"
                  "E: BUSNUM=%03u\nE: DEVNUM=%03u\nE: DEVNAME=/dev/bus/usb/%03u/%03u\n"
                  "A: busnum=%u\\n\nA: devnum=%u\\n\nA: bConfigurationValue=1\\n\n"
                  "A: speed=%u\\n\nA: idVendor=%04x\\n\nA: idProduct=%04x\\n\n"
                  "A: manufacturer=%s\\n\nA: product=%s\\n\n"
                  "H: descriptors=%s\n",
                  cfg_.bus, cfg_.bus, cfg_.port, cfg_.bus, cfg_.addr, cfg_.bus, cfg_.addr, cfg_.bus,
                  cfg_.addr, cfg_.bus, cfg_.addr, cfg_.speed_mbps, k_vid, k_pid,
                  cfg_.vendor.c_str(), cfg_.product.c_str(), hex.c_str());
    if (!umockdev_testbed_add_from_string(utb, rec, &err)) {
        std::fprintf(stderr, "tevix-vcam: add device: %s\n", err ? err->message : "?");
        g_clear_error(&err);
    }

    _make_node();
    producer_ = std::thread([this] { _producer(); });
}

void camera::_halt() {
    {
        std::lock_guard lk(m_);
        quit_ = true;
        cv_.notify_all();
    }
    if (producer_.joinable()) producer_.join();
}

camera::~camera() {
    _halt();
    g_object_unref(static_cast<UMockdevIoctlBase *>(handler_));
    for (auto &u : in_pending_) _release(u);
    for (auto &u : ctrl_held_) _release(u);
    for (auto &u : done_) _release(u);
    if (fifo_ >= 0) ::close(fifo_);
    vx_ostream_destroy(os_);
}

void camera::_hooks() {
    fw_.on_start = [this](uint32_t mode) { _start(mode); };
    fw_.on_stop = [this] { _stop(); };
    fw_.on_reset = [this](uint32_t target) {
        if (target == k_reset_usb_if) {
            reenum_at_ = plat::mono_ms() + k_reenum_delay_ms;
            cv_.notify_all();
        }
    };
    fw_.on_param = [this](uint8_t id, std::span<const uint8_t> v) { src_->on_param(id, v); };
}

// Parameters the frame source answers itself (the scene control) enter the firmware's table.
void camera::_source_params() {
    const std::vector<uint8_t> v = src_->param(k_par_scene);
    if (!v.empty()) fw_.set_param(k_par_scene, v);
}

void camera::reset() {
    {
        std::lock_guard lk(m_);
        fw_ = firmware(cfg_);
        _hooks();
        src_->reset();
        _source_params();
        hold_ = halted_ = hold_ctrl_ = false;
        stall_n_ = error_n_ = garbage_n_ = drop_n_ = corrupt_n_ = 0;
        reenum_at_ = replug_at_ = 0;
        _stop();
        tap_ = frame_tap_ = nullptr;
        st_ = usb_stats{};
    }
    replug();
}

std::string camera::sysfs_path() const {
    char p[128];
    std::snprintf(p, sizeof(p), "/sys/devices/pci0000:00/0000:00:14.0/usb%u/%u-%u", cfg_.bus,
                  cfg_.bus, cfg_.port);
    return p;
}

std::string camera::dev_node() const {
    char p[64];
    std::snprintf(p, sizeof(p), "/dev/bus/usb/%03u/%03u", cfg_.bus, cfg_.addr);
    return p;
}

// The device node becomes a FIFO kept full, so the host's poll for POLLOUT blocks until a URB is
// ready to reap. An unplugged camera has no node, as a real one: opening it fails.
void camera::_make_node() {
    const std::string node = tb_.root() + dev_node();
    ::unlink(node.c_str());
    if (fifo_ >= 0) ::close(fifo_);
    fifo_ = -1;
    if (::mkfifo(node.c_str(), 0666) == 0) fifo_ = ::open(node.c_str(), O_RDWR | O_NONBLOCK);
    _fifo_fill();
}

void camera::_fifo_fill() {
    if (fifo_ < 0) return;
    static const uint8_t page[k_fifo_page] = {};
    while (::write(fifo_, page, sizeof(page)) > 0) {
    }
}

void camera::_fifo_signal() {
    if (fifo_ < 0) return;
    uint8_t page[k_fifo_page];
    [[maybe_unused]] ssize_t r = ::read(fifo_, page, sizeof(page));
}

void camera::_release(urb &u) {
    if (u.urb_data) umockdev_ioctl_data_unref(_data(u.urb_data));
    if (u.buf_data) umockdev_ioctl_data_unref(_data(u.buf_data));
    u.urb_data = u.buf_data = nullptr;
}

void camera::_finish(urb u, int status, int actual) {
    u.status = status;
    u.actual = actual;
    done_.push_back(u);
    _fifo_signal();
}

void camera::_pump() {
    bool consumed = false;
    while (!in_pending_.empty()) {
        urb u = in_pending_.front();
        if (halted_ || stall_n_) {
            if (stall_n_) --stall_n_;
            ++st_.stalls;
            in_pending_.pop_front();
            _finish(u, -EPIPE, 0);
            continue;
        }
        if (hold_) break;
        if (error_n_) {
            --error_n_;
            in_pending_.pop_front();
            _finish(u, -EPROTO, 0);
            continue;
        }
        if (queue_.empty()) break;
        UMockdevIoctlData *buf = _data(u.buf_data);
        const size_t room = static_cast<size_t>(buf->data_len);
        const bool drop = drop_n_ > 0;
        size_t n = 0;
        while (n < room && !queue_.empty()) {
            std::vector<uint8_t> &front = queue_.front();
            const size_t take = std::min(room - n, front.size() - queue_off_);
            const std::span<const uint8_t> bytes(front.data() + queue_off_, take);
            if (!drop) {
                std::memcpy(buf->data + n, bytes.data(), take);
                if (tap_) tap_(bytes);
            }
            n += take;
            queue_off_ += take;
            queued_ -= take;
            if (queue_off_ == front.size()) {
                if (frame_tap_ && !drop) frame_tap_(front);
                if (spare_pkt_.capacity() < front.capacity()) spare_pkt_.swap(front);
                queue_.pop_front();
                queue_off_ = 0;
            }
        }
        consumed = true;
        if (drop) {
            --drop_n_;
            continue;
        }
        in_pending_.pop_front();
        st_.bytes_in += n;
        _finish(u, 0, static_cast<int>(n));
    }
    if (consumed) cv_.notify_all();
}

void camera::_start(uint32_t) {
    streaming_ = true;
    ++epoch_;
    queue_.clear();
    queue_off_ = queued_ = 0;
    cv_.notify_all();
}

void camera::_stop() {
    streaming_ = false;
    ++epoch_;
    queue_.clear();
    queue_off_ = queued_ = 0;
    cv_.notify_all();
}

void camera::_build_frame(uint32_t idx, std::vector<uint8_t> &out, const upload_frame *up) {
    vx_frame_desc_t desc = src_->describe();
    desc.fridx = static_cast<uint16_t>(idx);
    if (up) {
        // Upload mode: the stored calibration image instead of a picture.
        desc.fridx = static_cast<uint16_t>(up->index);
        desc.frfmt = 171;
        desc.frlen = static_cast<uint32_t>(up->bytes.size());
        frame_ = up->bytes;
    } else {
        frame_.resize(desc.frlen);
        src_->render(idx, frame_, desc);
    }
    const uint32_t p = cfg_.packet_payload;
    const uint32_t packets = (desc.frlen + p - 1) / p;
    out.resize(static_cast<size_t>(packets) * VX_STREAM_HDR_SIZE + desc.frlen);
    size_t pos = 0;
    for (uint32_t off = 0; off < desc.frlen; off += p) {
        const uint32_t len = std::min(p, desc.frlen - off);
        uint8_t *hdr = out.data() + pos;
        vx_ostream_mkhdr(os_, hdr, &desc, reinterpret_cast<const uint32_t *>(frame_.data() + off),
                         static_cast<int32_t>(len));
        std::memcpy(hdr + VX_STREAM_HDR_SIZE, frame_.data() + off, len);
        pos += VX_STREAM_HDR_SIZE + len;
    }
}

void camera::_producer() {
    using clock = std::chrono::steady_clock;
    std::unique_lock lk(m_);
    uint64_t epoch = ~0ull;
    uint32_t idx = 0;
    auto next = clock::now();
    std::vector<uint8_t> pkt;
    while (!quit_) {
        const uint64_t now_ms = plat::mono_ms();
        if (reenum_at_ && now_ms >= reenum_at_) {
            reenum_at_ = 0;
            replug_at_ = now_ms + k_replug_delay_ms;
            _unplug_locked();
            lk.unlock();
            _uevent("remove");
            lk.lock();
            continue;
        }
        if (replug_at_ && now_ms >= replug_at_) {
            replug_at_ = 0;
            lk.unlock();
            replug();
            lk.lock();
            continue;
        }
        auto wake = clock::time_point::max();
        if (reenum_at_ || replug_at_) {
            const uint64_t at = reenum_at_ ? reenum_at_ : replug_at_;
            wake = clock::now() + std::chrono::milliseconds(at > now_ms ? at - now_ms : 0);
        }
        if (!streaming_ || gone_ || queued_ >= k_queue_limit) {
            cv_.wait_until(lk, wake);
            continue;
        }
        if (epoch != epoch_) {
            epoch = epoch_;
            idx = 0;
            vx_ostream_reset(os_);
            next = clock::now();
        }
        const uint32_t fps = fw_.fps();
        if (fps && clock::now() < next) {
            cv_.wait_until(lk, std::min(wake, next));
            continue;
        }
        if (fps) {
            next += std::chrono::microseconds(1000000 / fps);
            if (next < clock::now() - std::chrono::seconds(1)) next = clock::now();
        }
        const uint32_t corrupt = corrupt_n_;
        upload_frame up;
        const bool upload = fw_.dev_mode() == 9 && fw_.next_upload_frame(up.index, up.bytes);
        if (!upload) src_->configure([this](uint8_t id) { return fw_.param(id); });
        lk.unlock();
        _build_frame(idx, pkt, upload ? &up : nullptr);
        if (corrupt) {
            // A wrong data checksum in the first packet; the header itself stays valid.
            pkt[28] ^= 0x5A;
            const uint16_t h = vx_stream_hash16(pkt.data(), 34, 0);
            pkt[34] = static_cast<uint8_t>(h);
            pkt[35] = static_cast<uint8_t>(h >> 8);
        }
        lk.lock();
        if (epoch != epoch_ || !streaming_) continue;
        if (corrupt) --corrupt_n_;
        ++idx;
        if (garbage_n_) {
            std::vector<uint8_t> junk(garbage_n_);
            for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<uint8_t>(i * 37 + 11);
            queued_ += junk.size();
            queue_.push_back(std::move(junk));
            garbage_n_ = 0;
        }
        queued_ += pkt.size();
        queue_.push_back(std::move(pkt));
        pkt.swap(spare_pkt_);  // reuse a sent packet's buffer rather than allocate per frame
        ++st_.frames;
        _pump();
    }
}

void camera::_unplug_locked() {
    gone_ = true;
    ::unlink((tb_.root() + dev_node()).c_str());
    streaming_ = false;
    ++epoch_;
    queue_.clear();
    queue_off_ = queued_ = 0;
    for (std::deque<urb> *q : {&in_pending_, &ctrl_held_}) {
        while (!q->empty()) {
            urb u = q->front();
            q->pop_front();
            _finish(u, -ENODEV, 0);
        }
    }
    _fifo_signal();
}

void camera::_uevent(const char *action) {
    std::lock_guard lk(tb_._lock());
    umockdev_testbed_uevent(static_cast<UMockdevTestbed *>(tb_._tb()), sysfs_path().c_str(),
                            action);
}

void camera::unplug() {
    {
        std::lock_guard lk(m_);
        if (gone_) return;
        _unplug_locked();
    }
    _uevent("remove");
}

void camera::replug() {
    {
        std::lock_guard lk(m_);
        if (!gone_) return;
        gone_ = false;
        halted_ = false;
        _make_node();
    }
    _uevent("add");
}

bool camera::plugged() const {
    std::lock_guard lk(m_);
    return !gone_;
}

bool camera::streaming() const {
    std::lock_guard lk(m_);
    return streaming_;
}

void camera::hold_control(bool on) {
    std::lock_guard lk(m_);
    hold_ctrl_ = on;
}

void camera::hold_in(bool on) {
    std::lock_guard lk(m_);
    hold_ = on;
    _pump();
}

void camera::stall() {
    std::lock_guard lk(m_);
    halted_ = true;
    _pump();
}

void camera::stall_next(uint32_t n) {
    std::lock_guard lk(m_);
    stall_n_ = n;
    _pump();
}

void camera::error_next(uint32_t n) {
    std::lock_guard lk(m_);
    error_n_ = n;
    _pump();
}

void camera::garbage_next(uint32_t bytes) {
    std::lock_guard lk(m_);
    garbage_n_ = bytes;
}

void camera::drop_next(uint32_t chunks) {
    std::lock_guard lk(m_);
    drop_n_ = chunks;
}

void camera::corrupt_cksum_next(uint32_t n) {
    std::lock_guard lk(m_);
    corrupt_n_ = n;
}

void camera::set_tap(std::function<void(std::span<const uint8_t>)> tap) {
    std::lock_guard lk(m_);
    tap_ = std::move(tap);
}

void camera::set_frame_tap(std::function<void(std::span<const uint8_t>)> tap) {
    std::lock_guard lk(m_);
    frame_tap_ = std::move(tap);
}

usb_stats camera::stats() const {
    std::lock_guard lk(m_);
    usb_stats s = st_;
    s.pending_in = static_cast<uint32_t>(in_pending_.size());
    return s;
}

int camera::_ioctl(void *c) {
    auto *client = static_cast<UMockdevIoctlClient *>(c);
    const gulong req = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client);
    GError *err = nullptr;
    std::lock_guard lk(m_);
    auto reply = [&](long r, int e) {
        umockdev_ioctl_client_complete(client, r, e);
        return 1;
    };
    if (req == USBDEVFS_REAPURBNDELAY || req == USBDEVFS_REAPURB) {
        if (done_.empty()) {
            _fifo_fill();
            return reply(-1, gone_ ? ENODEV : EAGAIN);
        }
        urb u = done_.front();
        done_.pop_front();
        usbdevfs_urb *r = _urb(u.urb_data);
        r->status = u.status;
        r->actual_length = u.actual;
        UMockdevIoctlData *p = umockdev_ioctl_data_resolve(arg, 0, sizeof(void *), &err);
        if (!p) {
            g_clear_error(&err);
            _release(u);
            return reply(-1, EFAULT);
        }
        umockdev_ioctl_data_set_ptr(p, 0, _data(u.urb_data));
        ++st_.urbs_done;
        reply(0, 0);
        umockdev_ioctl_data_unref(p);
        _release(u);
        return 1;
    }
    if (req == USBDEVFS_DISCARDURB) {
        const gulong addr = arg->data_len >= static_cast<gint>(sizeof(gulong))
                                ? *reinterpret_cast<gulong *>(arg->data)
                                : 0;
        for (std::deque<urb> *q : {&in_pending_, &ctrl_held_}) {
            for (auto it = q->begin(); it != q->end(); ++it) {
                const gulong mine = _data(it->urb_data)->client_addr;
                if (mine != addr && mine != arg->client_addr) continue;
                urb u = *it;
                q->erase(it);
                ++st_.discards;
                _finish(u, -ENOENT, 0);
                return reply(0, 0);
            }
        }
        return reply(-1, EINVAL);
    }
    if (gone_) return reply(-1, ENODEV);
    switch (req) {
        case USBDEVFS_GET_CAPABILITIES: {
            UMockdevIoctlData *p = umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), &err);
            if (!p) {
                g_clear_error(&err);
                return reply(-1, EFAULT);
            }
            const uint32_t caps = USBDEVFS_CAP_BULK_SCATTER_GATHER |
                                  USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                  USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
            std::memcpy(p->data, &caps, sizeof(caps));
            reply(0, 0);
            umockdev_ioctl_data_unref(p);
            return 1;
        }
        case USBDEVFS_CLEAR_HALT:
            ++st_.clear_halts;
            halted_ = false;
            return reply(0, 0);
        case USBDEVFS_DISCONNECT_CLAIM:
        case USBDEVFS_RELEASEINTERFACE:
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_SETCONFIGURATION:
        case USBDEVFS_RESET:
        case USBDEVFS_RESETEP:
            return reply(0, 0);
        case USBDEVFS_GETDRIVER:
        case USBDEVFS_IOCTL:
            return reply(-1, ENODATA);
        case USBDEVFS_SUBMITURB:
            break;
        default:
            return 0;
    }
    UMockdevIoctlData *ud = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), &err);
    if (!ud) {
        g_clear_error(&err);
        return reply(-1, EFAULT);
    }
    usbdevfs_urb *r = reinterpret_cast<usbdevfs_urb *>(ud->data);
    UMockdevIoctlData *bd = nullptr;
    if (r->buffer_length > 0) {
        bd = umockdev_ioctl_data_resolve(ud, offsetof(usbdevfs_urb, buffer),
                                         static_cast<gsize>(r->buffer_length), &err);
        if (!bd) {
            g_clear_error(&err);
            umockdev_ioctl_data_unref(ud);
            return reply(-1, EFAULT);
        }
    }
    urb u{ud, bd};
    if (r->type == USBDEVFS_URB_TYPE_CONTROL) {
        if (!bd || bd->data_len < 8) {
            _release(u);
            return reply(-1, EINVAL);
        }
        if (hold_ctrl_) {
            ctrl_held_.push_back(u);
            return reply(0, 0);
        }
        const uint8_t *s = bd->data;
        const uint16_t value = static_cast<uint16_t>(s[2] | s[3] << 8);
        const uint16_t index = static_cast<uint16_t>(s[4] | s[5] << 8);
        const uint16_t wlen = static_cast<uint16_t>(s[6] | s[7] << 8);
        std::span<uint8_t> data(bd->data + 8, std::min<size_t>(wlen, bd->data_len - 8u));
        int res;
        if (s[0] == 0x80 && s[1] == 6 && (value >> 8) == 3) {
            res = _string_desc(static_cast<uint8_t>(value), index, data);
        } else {
            res = fw_.control(s[0], s[1], value, data);
        }
        _finish(u, res < 0 ? res : 0, res < 0 ? 0 : res);
        return reply(0, 0);
    }
    if (r->endpoint & 0x80) {
        ++st_.urbs_in;
        in_pending_.push_back(u);
        _pump();
        return reply(0, 0);
    }
    st_.bulk_out += static_cast<uint64_t>(r->buffer_length);
    if (bd) fw_.bulk_out(std::span<const uint8_t>(bd->data, bd->data_len));
    _finish(u, 0, r->buffer_length);
    return reply(0, 0);
}

int camera::_string_desc(uint8_t idx, uint16_t, std::span<uint8_t> out) {
    std::vector<uint8_t> d;
    if (idx == 0) {
        d = {4, 3, 0x09, 0x04};
    } else {
        const std::string s = idx == 1 ? cfg_.vendor
                              : idx == 2
                                  ? cfg_.product
                                  : std::to_string(cfg_.uid[0]) + std::to_string(cfg_.uid[2]);
        d.push_back(static_cast<uint8_t>(2 + 2 * s.size()));
        d.push_back(3);
        for (char ch : s) {
            d.push_back(static_cast<uint8_t>(ch));
            d.push_back(0);
        }
    }
    const size_t n = std::min(d.size(), out.size());
    std::memcpy(out.data(), d.data(), n);
    return static_cast<int>(n);
}

}  // namespace tevix::emu
