// USB backend on libusb-1.0: camera discovery, control commands, bulk data and the bulk-in pool
// that streams capture data to the capture engine's callback.
//
// Only asynchronous transfers are used, with our own completion signalling: libusb's synchronous
// calls race with an event thread that runs at the same time.
#include "ll/usb/usb_ll.h"

#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

#include "ll/dispatch.h"
#include "ll/usb/usb_proto.h"
#include "log/log.h"
#include "platform/platform.h"

using namespace tevix::usb;

namespace {

// Head of each bulk-in buffer, followed by k_xfer_size data bytes.
struct buf_head {
    tevix_ll_dev_t *dev;
    std::atomic<uint8_t> in_flight;
    uint32_t capacity;
};
static_assert(sizeof(buf_head) == 16, "transfer buffer head is 16 bytes");
constexpr size_t k_buf_bytes = sizeof(buf_head) + k_xfer_size;

struct usb_priv {
    libusb_context *ctx = nullptr;
    libusb_device_handle *handle = nullptr;
    libusb_transfer *xfer[k_xfer_count] = {};
    uint8_t *buf[k_xfer_count] = {};
    std::atomic<tevix_ll_evt_cb> cb{nullptr};
    std::atomic<void *> user{nullptr};
    std::atomic<uint8_t> stopped{1};
    int exit_flag = 0;  // libusb's completion flag of the event loop; accessed atomically
    std::atomic<uint8_t> evt_running{0};
    uint8_t ep_din = 0;
    uint8_t ep_dout = 0;
    uint8_t inf_idx = 0;
    std::thread evt;
    std::mutex mtx;
};

// libusb log level applied to every context created from now on.
std::atomic<int> g_libusb_level{LIBUSB_LOG_LEVEL_NONE};

usb_priv *_priv(const tevix_ll_dev_t *dev) {
    return dev ? static_cast<usb_priv *>(dev->priv) : nullptr;
}

buf_head *_head(usb_priv *p, uint32_t i) {
    return reinterpret_cast<buf_head *>(p->buf[i]);
}

bool _exiting(usb_priv *p) {
    return __atomic_load_n(&p->exit_flag, __ATOMIC_SEQ_CST) != 0;
}

bool _usable(usb_priv *p) {
    return p && p->handle && !_exiting(p);
}

void _put16(uint8_t *d, uint16_t v) {
    d[0] = static_cast<uint8_t>(v);
    d[1] = static_cast<uint8_t>(v >> 8);
}

void _put32(uint8_t *d, uint32_t v) {
    for (int i = 0; i < 4; ++i) d[i] = static_cast<uint8_t>(v >> (8 * i));
}

// Completion of a control or bulk-out transfer issued by a waiting caller. When the caller gave
// up waiting, the transfer frees itself here.
struct cmd_wait {
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    bool abandoned = false;
};

void LIBUSB_CALL _usb_ll_on_cmd_finish(libusb_transfer *t) {
    VX_TRC("[%s]tx actual_len = %d, status  = %d\n", t->actual_length, static_cast<int>(t->status));
    auto *w = static_cast<cmd_wait *>(t->user_data);
    std::unique_lock lk(w->m);
    if (w->abandoned) {
        lk.unlock();
        delete w;
        libusb_free_transfer(t);
        return;
    }
    w->done = true;
    w->cv.notify_all();
}

// A transfer with its buffer and waiter, or none of them ("no memory" logged under name).
bool _alloc_xfer(const char *name, size_t bytes, libusb_transfer **t, uint8_t **buf, cmd_wait **w) {
    *t = libusb_alloc_transfer(0);
    *buf = static_cast<uint8_t *>(std::malloc(bytes ? bytes : 1));
    *w = new (std::nothrow) cmd_wait;
    if (*t && *buf && *w) return true;
    VX_LOG_AS(6, name, "[%s]no memory\n");
    libusb_free_transfer(*t);
    std::free(*buf);
    delete *w;
    return false;
}

// The result libusb's synchronous calls would give for a finished transfer.
int _map_status(libusb_transfer *t) {
    switch (t->status) {
        case LIBUSB_TRANSFER_COMPLETED:
            return t->actual_length;
        case LIBUSB_TRANSFER_ERROR:
        case LIBUSB_TRANSFER_CANCELLED:
            return LIBUSB_ERROR_IO;
        case LIBUSB_TRANSFER_TIMED_OUT:
            return LIBUSB_ERROR_TIMEOUT;
        case LIBUSB_TRANSFER_STALL:
            return LIBUSB_ERROR_PIPE;
        case LIBUSB_TRANSFER_NO_DEVICE:
            return LIBUSB_ERROR_NO_DEVICE;
        case LIBUSB_TRANSFER_OVERFLOW:
            return LIBUSB_ERROR_OVERFLOW;
    }
    VX_WRN("[%s]unrecognised status code %d", static_cast<int>(t->status));
    return LIBUSB_ERROR_OTHER;
}

// Waits for a submitted transfer, checking every 10 ms; limit_ms 0 waits until it ends. Returns
// false when the limit passed: the transfer then frees itself when it ends.
bool _wait_done(cmd_wait *w, uint32_t limit_ms) {
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    std::unique_lock lk(w->m);
    while (!w->done) {
        if (limit_ms && clock::now() - start >= std::chrono::milliseconds(limit_ms)) break;
        w->cv.wait_for(lk, std::chrono::milliseconds(10));
    }
    if (w->done) return true;
    w->abandoned = true;
    return false;
}

// One control command: out (bmRequestType 0x22, data sent) or in (0xA2, answer copied into data).
// True when exactly length data bytes were transferred. The caller holds the device mutex.
bool usb_ll_exe_cmd(tevix_ll_dev_t *dev, bool out, uint8_t cmd, uint16_t value, uint8_t *data,
                    uint32_t length, uint32_t timeout_ms) {
    usb_priv *p = _priv(dev);
    if (!p || !p->handle) {
        VX_ERR("[%s] USB handler Is NULL!\r\n");
        return false;
    }
    if (length > 0xFFFF || (length && !data)) {
        VX_ERR("[%s]exe usb cmd failed: %s\n", libusb_error_name(LIBUSB_ERROR_INVALID_PARAM));
        return false;
    }
    libusb_transfer *t;
    uint8_t *buf;
    cmd_wait *w;
    if (!_alloc_xfer(__func__, LIBUSB_CONTROL_SETUP_SIZE + length, &t, &buf, &w)) return false;
    libusb_fill_control_setup(buf, out ? k_req_out : k_req_in, cmd, value, 0,
                              static_cast<uint16_t>(length));
    if (out && length) std::memcpy(buf + LIBUSB_CONTROL_SETUP_SIZE, data, length);
    libusb_fill_control_transfer(t, p->handle, buf, _usb_ll_on_cmd_finish, w, timeout_ms);
    t->flags = LIBUSB_TRANSFER_FREE_BUFFER;
    int r = libusb_submit_transfer(t);
    if (r < 0) {
        VX_ERR("[%s]libusb_submit_transfer failed: r = %d (%s)\n", r, libusb_error_name(r));
        libusb_free_transfer(t);
        delete w;
        return false;
    }
    if (!_wait_done(w, 2000)) {
        VX_DBG("[%s]control transfer timeout !\n");
        VX_ERR("[%s]exe usb cmd failed: %s\n", libusb_error_name(LIBUSB_ERROR_TIMEOUT));
        return false;
    }
    r = _map_status(t);
    if (!out && r > 0) {
        std::memcpy(data, libusb_control_transfer_get_data(t),
                    std::min<size_t>(static_cast<size_t>(r), length));
    }
    libusb_free_transfer(t);
    delete w;
    if (r != static_cast<int>(length)) {
        VX_ERR("[%s]exe usb cmd failed: %s\n",
               libusb_error_name(r < 0 ? r : LIBUSB_ERROR_OVERFLOW));
        return false;
    }
    return true;
}

// Reads the status record until the camera is no longer busy. The caller holds the device mutex.
bool usb_ll_check_last_cmd(tevix_ll_dev_t *dev, uint8_t cmd, uint16_t value) {
    uint8_t st[k_status_size];
    for (;;) {
        std::memset(st, 0, sizeof(st));
        if (!usb_ll_exe_cmd(dev, false, k_cmd_status, 0, st, sizeof(st), 1000)) return false;
        if (st[1] != cmd || st[2] != static_cast<uint8_t>(value)) {
            VX_WRN("[%s] last cmd (t=0x%x,v=0x%x) is not as expect(t=0x%x,v=0x%x)\r\n", st[1],
                   st[2], cmd, value);
            return false;
        }
        if (st[0] == k_state_error) {
            st[k_status_size - 1] = 0;
            VX_ERR("[%s]%s\n", reinterpret_cast<const char *>(st + k_status_text));
            return false;
        }
        if (st[0] != k_state_busy) return true;
    }
}

// Sends one command and checks its status, under the device mutex when the device is usable.
bool _cmd_checked(tevix_ll_dev_t *dev, bool out, uint8_t cmd, uint16_t value, uint8_t *data,
                  uint32_t length) {
    usb_priv *p = _priv(dev);
    if (!p) return false;
    std::lock_guard lk(p->mtx);
    if (!_usable(p)) return false;
    return usb_ll_exe_cmd(dev, out, cmd, value, data, length, 1000) &&
           usb_ll_check_last_cmd(dev, cmd, value);
}

int usb_ll_cmd(tevix_ll_dev_t *dev, uint8_t write_only, uint8_t cmd, uint16_t value, uint8_t *data,
               uint32_t length, uint32_t timeout_ms) {
    usb_priv *p = _priv(dev);
    if (!p) return 0;
    std::lock_guard lk(p->mtx);
    if (!_usable(p)) return 0;
    bool ok = usb_ll_exe_cmd(dev, true, cmd, value, data, length, timeout_ms) &&
              usb_ll_check_last_cmd(dev, cmd, value);
    if (ok && !write_only) {
        ok = usb_ll_exe_cmd(dev, false, cmd, value, data, length, timeout_ms) &&
             usb_ll_check_last_cmd(dev, cmd, value);
    }
    return ok;
}

int usb_ll_reg_write(tevix_ll_dev_t *dev, uint8_t target, uint32_t addr, uint8_t *data,
                     uint16_t count) {
    if (count == 0) return 1;
    if (!data) return 0;
    uint8_t pkt[k_reg_hdr + 4 * k_regs_per_cmd];
    for (uint32_t done = 0; done < count;) {
        const uint32_t n = std::min<uint32_t>(k_regs_per_cmd, count - done);
        pkt[0] = target;
        _put32(pkt + 1, addr + done);
        _put16(pkt + 5, static_cast<uint16_t>(4 * n));
        std::memcpy(pkt + k_reg_hdr, data + 4 * done, 4 * n);
        if (!_cmd_checked(dev, true, k_cmd_reg, k_reg_write, pkt, k_reg_hdr + 4 * n)) {
            VX_ERR("[%s]write phase failed\n");
            return 0;
        }
        done += n;
    }
    return 1;
}

int usb_ll_reg_read(tevix_ll_dev_t *dev, uint8_t target, uint32_t addr, uint8_t *data,
                    uint16_t count) {
    if (count == 0) return 1;
    if (!data) return 0;
    uint8_t pkt[k_reg_hdr];
    for (uint32_t done = 0; done < count;) {
        const uint32_t n = std::min<uint32_t>(k_regs_per_cmd, count - done);
        pkt[0] = target;
        _put32(pkt + 1, addr + done);
        _put16(pkt + 5, static_cast<uint16_t>(4 * n));
        if (!_cmd_checked(dev, true, k_cmd_reg, k_reg_read, pkt, k_reg_hdr)) {
            VX_ERR("[%s]write phase failed\n");
            return 0;
        }
        if (!_cmd_checked(dev, false, k_cmd_reg, k_reg_read, data + 4 * done, 4 * n)) {
            VX_ERR("[%s]read phase failed\n");
            return 0;
        }
        done += n;
    }
    return 1;
}

int usb_ll_param_set(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count) {
    if (count == 0 || !items) return 0;
    for (uint32_t done = 0; done < count;) {
        const uint32_t n = std::min(k_params_per_cmd, count - done);
        if (!_cmd_checked(dev, true, k_cmd_sys, k_sys_param_set,
                          reinterpret_cast<uint8_t *>(items + done), k_param_item * n)) {
            VX_ERR("[%s]write phase failed\n");
            return 0;
        }
        done += n;
    }
    return 1;
}

int usb_ll_param_get(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count) {
    if (count == 0) return 1;
    if (!items) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t id = items[i].id;
        std::memset(&items[i], 0, sizeof(items[i]));
        items[i].id = id;
    }
    for (uint32_t done = 0; done < count;) {
        const uint32_t n = std::min(k_params_per_cmd, count - done);
        auto *bytes = reinterpret_cast<uint8_t *>(items + done);
        if (!_cmd_checked(dev, true, k_cmd_sys, k_sys_param_get, bytes, k_param_item * n)) {
            VX_ERR("[%s]write phase failed\n");
            return 0;
        }
        if (!_cmd_checked(dev, false, k_cmd_sys, k_sys_param_get, bytes, k_param_item * n)) {
            VX_ERR("[%s]read phase failed\n");
            return 0;
        }
        done += n;
    }
    return 1;
}

int32_t usb_ll_tx_data(tevix_ll_dev_t *dev, const uint8_t *data, uint32_t length) {
    usb_priv *p = _priv(dev);
    if (!p) return LIBUSB_ERROR_NO_DEVICE;
    std::lock_guard lk(p->mtx);
    if (!p->handle) return LIBUSB_ERROR_NO_DEVICE;
    if (length > INT32_MAX || (length && !data)) return LIBUSB_ERROR_INVALID_PARAM;
    libusb_transfer *t;
    uint8_t *buf;
    cmd_wait *w;
    if (!_alloc_xfer(__func__, length, &t, &buf, &w)) return 0;
    if (length) std::memcpy(buf, data, length);
    libusb_fill_bulk_transfer(t, p->handle, p->ep_dout, buf, static_cast<int>(length),
                              _usb_ll_on_cmd_finish, w, k_xfer_timeout_ms);
    t->flags = LIBUSB_TRANSFER_FREE_BUFFER;
    int r = libusb_submit_transfer(t);
    if (r < 0) {
        VX_ERR("[%s]trans[%d] issue failed\n", 0);
        libusb_free_transfer(t);
        delete w;
        return r;
    }
    VX_TRC("[%s]trans[%d] issue: txlen=%d\n", 0, static_cast<int>(length));
    _wait_done(w, 0);
    r = _map_status(t);
    libusb_free_transfer(t);
    delete w;
    return r;
}

// Finds the interface with exactly one alternate setting and two bulk endpoints of opposite
// directions.
bool _parse_usb_dev_desc(libusb_device *d, uint8_t *ep_din, uint8_t *ep_dout, uint8_t *inf_idx) {
    libusb_config_descriptor *cfg = nullptr;
    if (libusb_get_config_descriptor(d, 0, &cfg) < 0 || !cfg) return false;
    bool found = false;
    for (int i = 0; i < cfg->bNumInterfaces && !found; ++i) {
        const libusb_interface &itf = cfg->interface[i];
        if (itf.num_altsetting != 1 || itf.altsetting[0].bNumEndpoints != 2) continue;
        const libusb_interface_descriptor &alt = itf.altsetting[0];
        const uint8_t a = alt.endpoint[0].bEndpointAddress;
        const uint8_t b = alt.endpoint[1].bEndpointAddress;
        if ((a & 0x80) == (b & 0x80)) {
            VX_DBG("[%s] skip interface with two endpoints of the same direction\n");
            continue;
        }
        *ep_din = (a & 0x80) ? a : b;
        *ep_dout = (a & 0x80) ? b : a;
        *inf_idx = alt.bInterfaceNumber;
        VX_DBG("[%s] VXU dev: ep_din=%x, ep_dout=%x, inf_idx=%u\n", *ep_din, *ep_dout, *inf_idx);
        found = true;
    }
    libusb_free_config_descriptor(cfg);
    return found;
}

bool _is_camera(libusb_device *d, const libusb_device_descriptor &desc, uint8_t *ep_din,
                uint8_t *ep_dout, uint8_t *inf_idx) {
    return desc.idVendor == k_vid && desc.idProduct == k_pid && desc.bNumConfigurations >= 1 &&
           _parse_usb_dev_desc(d, ep_din, ep_dout, inf_idx);
}

void _read_string(libusb_device_handle *h, uint8_t idx, char (&out)[16]) {
    std::memset(out, 0, sizeof(out));
    if (idx == 0) return;
    unsigned char tmp[16] = {};
    int r = libusb_get_string_descriptor_ascii(h, idx, tmp, sizeof(tmp));
    if (r > 0) std::memcpy(out, tmp, std::min<size_t>(static_cast<size_t>(r), sizeof(out) - 1));
}

uint32_t usb_ll_dev_list(tevix_ll_dev_t *list, uint32_t max) {
    if (!list || max == 0) return 0;
    std::memset(list, 0, sizeof(tevix_ll_dev_t) * max);
    libusb_context *ctx = nullptr;
    if (libusb_init(&ctx) < 0) return 0;
    libusb_set_option(ctx, LIBUSB_OPTION_LOG_LEVEL, g_libusb_level.load());
    libusb_device **devs = nullptr;
    const ssize_t cnt = libusb_get_device_list(ctx, &devs);
    if (cnt < 0) {
        VX_ERR("[%s]  enum usb device failed: %d \n", static_cast<int>(cnt));
        libusb_exit(ctx);
        return 0;
    }
    VX_DBG("[%s]probe tevix device (max=%d) in %d usb device\n", max, static_cast<int>(cnt));
    uint32_t n = 0;
    for (ssize_t i = 0; i < cnt && n < max; ++i) {
        libusb_device *d = devs[i];
        libusb_device_descriptor desc;
        if (libusb_get_device_descriptor(d, &desc) < 0) {
            VX_ERR("[%s]  Failed to get device desc of device %d\n", static_cast<int>(i));
            continue;
        }
        const uint8_t bus = libusb_get_bus_number(d), port = libusb_get_port_number(d),
                      addr = libusb_get_device_address(d);
        VX_TRC("[%s][%02d] %04x:%04x @ %03d:%03d:%03d\n", static_cast<int>(i), desc.idVendor,
               desc.idProduct, bus, port, addr);
        uint8_t din, dout, inf;
        if (!_is_camera(d, desc, &din, &dout, &inf)) continue;
        libusb_device_handle *h = nullptr;
        if (libusb_open(d, &h) < 0) continue;
        tevix_ll_dev_t &e = list[n];
        e.ops = &usb_ll_ops;
        e.is_listed = 1;
        e.info.usb.bus = bus;
        e.info.usb.port = port;
        e.info.usb.addr = addr;
        e.info.usb.speed = static_cast<uint8_t>(libusb_get_device_speed(d));
        _read_string(h, desc.iProduct, e.info.usb.product);
        _read_string(h, desc.iManufacturer, e.info.usb.vendor);
        libusb_close(h);
        VX_INF("[%s]  TEVIX device [%s, %s] found @ %03d:%03d:%03d (speed=%d)\n", e.info.usb.vendor,
               e.info.usb.product, bus, port, addr, e.info.usb.speed);
        ++n;
    }
    libusb_free_device_list(devs, 1);
    libusb_exit(ctx);
    return n;
}

void _ll_event_loop(usb_priv *p) {
    VX_DBG("[%s]Enter ll event loop...\n");
    p->evt_running = 1;
    while (!_exiting(p)) {
        timeval tv{0, 200000};
        const int r = libusb_handle_events_timeout_completed(p->ctx, &tv, &p->exit_flag);
        if (r == 0) continue;
        if (r == LIBUSB_ERROR_INTERRUPTED) {
            VX_DBG("[%s]libusb_handle_events LIBUSB_ERROR_INTERRUPTED \n");
            continue;
        }
        if (r == LIBUSB_ERROR_TIMEOUT) {
            VX_DBG("[%s]libusb_handle_events timeout \n");
            break;
        }
        VX_ERR("[%s]libusb reports error: %s\n", libusb_error_name(r));
        if (r != LIBUSB_ERROR_BUSY && r != LIBUSB_ERROR_OVERFLOW) break;
    }
    p->evt_running = 0;
    VX_DBG("[%s]Exit ll event loop...\n");
}

void _usb_ll_evt_thread(usb_priv *p) {
    tevix::plat::name_thread("tevix-usb-evt");
    VX_DBG("[%s]enter\n");
    _ll_event_loop(p);
    VX_DBG("[%s]exit\n");
}

usb_priv *_alloc_priv(tevix_ll_dev_t *dev) {
    if (!dev->priv) {
        dev->priv = new (std::nothrow) usb_priv;
        if (!dev->priv) {
            VX_ERR("[%s]malloc failed\n");
            std::exit(-2);
        }
    }
    return _priv(dev);
}

// Transfers are freed while their device handle is still open: libusb reads the handle when it
// frees a transfer that was submitted.
void _free_pool(usb_priv *p) {
    for (uint32_t i = 0; i < k_xfer_count; ++i) {
        libusb_free_transfer(p->xfer[i]);
        std::free(p->buf[i]);
        p->xfer[i] = nullptr;
        p->buf[i] = nullptr;
    }
}

void _free_priv(tevix_ll_dev_t *dev) {
    usb_priv *p = _priv(dev);
    if (!p) return;
    _free_pool(p);
    delete p;
    dev->priv = nullptr;
}

void _alloc_pool(tevix_ll_dev_t *dev, usb_priv *p) {
    for (uint32_t i = 0; i < k_xfer_count; ++i) {
        if (!p->xfer[i]) p->xfer[i] = libusb_alloc_transfer(0);
        if (!p->buf[i]) p->buf[i] = static_cast<uint8_t *>(std::calloc(1, k_buf_bytes));
        if (!p->xfer[i] || !p->buf[i]) {
            VX_ERR("[%s]malloc failed!\n");
            std::exit(-1);
        }
        buf_head *h = _head(p, i);
        h->dev = dev;
        h->in_flight = 0;
        h->capacity = k_xfer_size;
    }
}

// Opens the matching camera of an enumeration into p->handle.
void _open_match(tevix_ll_dev_t *dev, usb_priv *p, libusb_device **devs, ssize_t cnt) {
    for (ssize_t i = 0; i < cnt && !p->handle; ++i) {
        libusb_device *d = devs[i];
        libusb_device_descriptor desc;
        if (libusb_get_device_descriptor(d, &desc) < 0) continue;
        uint8_t din, dout, inf;
        if (!_is_camera(d, desc, &din, &dout, &inf)) continue;
        const uint8_t bus = libusb_get_bus_number(d), port = libusb_get_port_number(d),
                      addr = libusb_get_device_address(d);
        const int speed = libusb_get_device_speed(d);
        libusb_device_handle *h = nullptr;
        if (dev->is_listed) {
            if (bus != dev->info.usb.bus || port != dev->info.usb.port ||
                (dev->info.usb.addr != 255 && addr != dev->info.usb.addr)) {
                continue;
            }
            VX_LOG_AS(4, "_usb_ll_dev_open",
                      "[%s]open tevix device @ %03d:%03d:%03d, EP_DIN=%x, EP_DOUT=%x\n", bus, port,
                      addr, din, dout);
            const int r = libusb_open(d, &h);
            if (r < 0) {
                VX_LOG_AS(6, "_usb_ll_dev_open", "[%s]failed to open this device: %s\n",
                          libusb_error_name(r));
                continue;
            }
        } else {
            VX_LOG_AS(4, "_usb_ll_dev_open",
                      "[%s]found tevix device (speed=%d) @ %03d:%03d:%03d, EP_DIN=%x, EP_DOUT=%x\n",
                      speed, bus, port, addr, din, dout);
            if (speed < LIBUSB_SPEED_HIGH) {
                VX_LOG_AS(5, "_usb_ll_dev_open",
                          "[%s]found tevix device not in HS mode (speed=%d) @ %03d:%03d:%03d\n",
                          speed, bus, port, addr);
            }
            const int r = libusb_open(d, &h);
            if (r < 0) {
                VX_LOG_AS(5, "_usb_ll_dev_open",
                          "[%s]  failed to open this device: %s, try next ...\n",
                          libusb_error_name(r));
                continue;
            }
            dev->is_listed = 1;
            dev->if_type = TEVIX_LL_IF_UNKNOWN;
            dev->info.usb.bus = bus;
            dev->info.usb.port = port;
            dev->info.usb.addr = addr;
        }
        dev->info.usb.speed = static_cast<uint8_t>(speed);
        p->handle = h;
        p->ep_din = din;
        p->ep_dout = dout;
        p->inf_idx = inf;
    }
}

// Opens without the op-table checks; also the reopen step of a USB interface reset.
tevix_ll_dev_t *_usb_ll_dev_open(tevix_ll_dev_t *dev) {
    if (!dev || (dev->if_type != TEVIX_LL_IF_UNKNOWN && dev->if_type != TEVIX_LL_IF_ANY)) {
        return nullptr;
    }
    usb_priv *p = _alloc_priv(dev);
    if (p->handle) return dev;
    if (!p->ctx) {
        VX_DBG("[%s] create usb context\n");
        const int r = libusb_init(&p->ctx);
        if (r < 0) {
            VX_ERR("[%s] create usb context failed: %s\n", libusb_error_name(r));
            p->ctx = nullptr;
            _free_priv(dev);
            return nullptr;
        }
        libusb_set_option(p->ctx, LIBUSB_OPTION_LOG_LEVEL, g_libusb_level.load());
    }
    libusb_device **devs = nullptr;
    const ssize_t cnt = libusb_get_device_list(p->ctx, &devs);
    if (cnt < 0) {
        VX_ERR("[%s]  enum libusb device failed: %d \n", static_cast<int>(cnt));
    } else {
        VX_DBG("[%s]  %d usb device found \n", static_cast<int>(cnt));
        _open_match(dev, p, devs, cnt);
        libusb_free_device_list(devs, 1);
    }
    if (!p->handle) {
        libusb_exit(p->ctx);
        _free_priv(dev);
        return nullptr;
    }
    dev->if_type = TEVIX_LL_IF_UNKNOWN;
    libusb_set_auto_detach_kernel_driver(p->handle, 1);
    const int r = libusb_claim_interface(p->handle, p->inf_idx);
    if (r < 0) {
        VX_ERR("[%s]libusb_claim_interface %d failed: %s\n", p->inf_idx, libusb_error_name(r));
        libusb_close(p->handle);
        libusb_exit(p->ctx);
        _free_priv(dev);
        return nullptr;
    }
    _alloc_pool(dev, p);
    p->stopped = 1;
    __atomic_store_n(&p->exit_flag, 0, __ATOMIC_SEQ_CST);
    p->evt = std::thread(_usb_ll_evt_thread, p);
    dev->ops = &usb_ll_ops;
    return dev;
}

tevix_ll_dev_t *usb_ll_dev_open(tevix_ll_dev_t *dev) {
    return _usb_ll_dev_open(dev);
}

tevix_ll_dev_t *usb_ll_dev_open_by_fd(tevix_ll_dev_t *dev, int) {
    if (!dev || (dev->if_type != TEVIX_LL_IF_UNKNOWN && dev->if_type != TEVIX_LL_IF_ANY)) {
        return nullptr;
    }
    _alloc_priv(dev);
    return _usb_ll_dev_open(dev);
}

// Cancels every submitted bulk-in transfer.
void _cancel_in_flight(usb_priv *p) {
    for (uint32_t i = 0; i < k_xfer_count; ++i) {
        if (!p->buf[i] || !_head(p, i)->in_flight) continue;
        const int r = libusb_cancel_transfer(p->xfer[i]);
        VX_DBG("[%s]trans[%d] cancel: status=%d\n", static_cast<int>(i), r);
    }
}

// Before the pool is freed, every transfer must have come back: cancel and let events run.
void _drain_pool(usb_priv *p) {
    p->stopped = 1;
    _cancel_in_flight(p);
    for (int tries = 0; tries < 300; ++tries) {
        bool any = false;
        for (uint32_t i = 0; i < k_xfer_count; ++i)
            any = any || (p->buf[i] && _head(p, i)->in_flight);
        if (!any) return;
        if (p->evt_running) {
            tevix::plat::sleep_ms(10);
        } else {
            timeval tv{0, 10000};
            libusb_handle_events_timeout_completed(p->ctx, &tv, nullptr);
        }
    }
}

void usb_ll_dev_close(tevix_ll_dev_t *dev) {
    if (!dev || dev->if_type != TEVIX_LL_IF_UNKNOWN) return;
    usb_priv *p = _priv(dev);
    if (!p || !p->handle) {
        VX_WRN("[%s]device no need to closed!\n");
        if (p && !p->ctx) _free_priv(dev);
        return;
    }
    {
        std::lock_guard lk(p->mtx);
        if (p->evt.joinable()) {
            VX_DBG("[%s]stop evt thread...\n");
            _drain_pool(p);
            __atomic_store_n(&p->exit_flag, 1, __ATOMIC_SEQ_CST);
            libusb_interrupt_event_handler(p->ctx);
            p->evt.join();
        }
        _free_pool(p);
        libusb_release_interface(p->handle, 0);
        libusb_release_interface(p->handle, 1);
        libusb_close(p->handle);
        p->handle = nullptr;
        libusb_exit(p->ctx);
        p->ctx = nullptr;
    }
    _free_priv(dev);
}

int usb_ll_dev_reset(tevix_ll_dev_t *dev, uint8_t target) {
    usb_priv *p = _priv(dev);
    if (!p) return 0;
    std::unique_lock lk(p->mtx);
    if (!_usable(p)) return 0;
    VX_TRC("[%s]rest device (target=%d)\n", target);
    uint8_t v[4];
    _put32(v, target);
    if (target != k_reset_usb_if) {
        return usb_ll_exe_cmd(dev, true, k_cmd_sys, k_sys_reset, v, sizeof(v), 1000) &&
               usb_ll_check_last_cmd(dev, k_cmd_sys, k_sys_reset);
    }
    VX_INF("[%s]Reset usb if (timeout = %d ms) ...\n", 3000);
    usb_ll_exe_cmd(dev, true, k_cmd_sys, k_sys_reset, v, sizeof(v), 1000);
    lk.unlock();
    if (dev->if_type == TEVIX_LL_IF_UNKNOWN) usb_ll_dev_close(dev);
    for (int i = 0; i < 15; ++i) {
        tevix::plat::sleep_ms(200);
        if (_usb_ll_dev_open(dev)) {
            VX_INF("[%s]Reset usb if end. \n");
            return 0;
        }
    }
    VX_WRN("[%s]reopen device failed!\n");
    VX_INF("[%s]Reset usb if end. \n");
    return 0;
}

void LIBUSB_CALL on_usb_trans_event(libusb_transfer *t) {
    auto *head = static_cast<buf_head *>(t->user_data);
    tevix_ll_dev_t *dev = head->dev;
    usb_priv *p = _priv(dev);
    const int idx = static_cast<int>(libusb_transfer_get_stream_id(t));
    VX_TRC("[%s]trans[%d]: txlen=%d, status = %d\n", idx, t->actual_length,
           static_cast<int>(t->status));
    int32_t res = TEVIX_LL_EVT_DATA;
    switch (t->status) {
        case LIBUSB_TRANSFER_COMPLETED:
            break;
        case LIBUSB_TRANSFER_CANCELLED:
            VX_DBG("[%s]trans[%d] cancelled (last_tx=%d)\n", idx, t->actual_length);
            break;
        case LIBUSB_TRANSFER_TIMED_OUT:
            VX_DBG("[%s]trans[%d] timeout (last_tx=%d)\n", idx, t->actual_length);
            res = TEVIX_LL_EVT_TIMEOUT;
            break;
        case LIBUSB_TRANSFER_STALL:
            VX_WRN("[%s]trans[%d] stall (last_tx=%d)\n", idx, t->actual_length);
            res = TEVIX_LL_EVT_STALL;
            libusb_clear_halt(p->handle, p->ep_din);
            break;
        default:
            VX_ERR("[%s]trans[%d] error (%d) (last_tx=%d)\n", idx, static_cast<int>(t->status),
                   t->actual_length);
            res = TEVIX_LL_EVT_ERROR;
            break;
    }
    if (tevix_ll_evt_cb cb = p->cb.load()) {
        cb(dev, res, t->buffer, static_cast<uint32_t>(t->actual_length), p->user.load());
    }
    // in_flight is raised before the stopped check and the check repeated after submitting, so
    // that a concurrent cap_stop either sees the slot in flight or the slot sees stopped.
    if (t->length < 1 || p->stopped) {
        head->in_flight = 0;
        return;
    }
    t->timeout = k_xfer_timeout_ms;
    const int r = libusb_submit_transfer(t);
    if (r < 0) {
        head->in_flight = 0;
        VX_ERR("[%s]Unable to submit URB. libusb error code: %d\n", r);
        // A slot that cannot go out again (the camera is gone) ends the stream: say so, unless
        // this completion already reported an error, or the capture would wait for nothing.
        if (tevix_ll_evt_cb cb = p->cb.load(); cb && !p->stopped && res != TEVIX_LL_EVT_ERROR)
            cb(dev, TEVIX_LL_EVT_ERROR, nullptr, 0, p->user.load());
        return;
    }
    VX_TRC("[%s]trans[%d] issue: size=%d \n", idx, t->length);
    if (p->stopped) libusb_cancel_transfer(t);
}

int usb_ll_cap_start(tevix_ll_dev_t *dev, uint32_t mode, tevix_ll_evt_cb cb, void *user) {
    usb_priv *p = _priv(dev);
    VX_DBG("[%s]Enter: stop status = %d\n", p ? p->stopped.load() : 1);
    if (!p) return 0;
    std::lock_guard lk(p->mtx);
    if (!_usable(p)) return 0;
    p->stopped = 0;
    if (libusb_clear_halt(p->handle, p->ep_din) < 0) {
        VX_ERR("[%s] Clear halt failed on EP: %0x!\r\n", p->ep_din);
    }
    p->cb = cb;
    p->user = user;
    for (uint32_t i = 0; i < k_xfer_count; ++i) {
        buf_head *h = _head(p, i);
        if (h->in_flight) continue;
        libusb_fill_bulk_transfer(p->xfer[i], p->handle, p->ep_din, p->buf[i] + sizeof(buf_head),
                                  static_cast<int>(k_xfer_size), on_usb_trans_event, h,
                                  k_xfer_timeout_ms);
        libusb_transfer_set_stream_id(p->xfer[i], i);
        h->in_flight = 1;
        if (libusb_submit_transfer(p->xfer[i]) < 0) {
            h->in_flight = 0;
            VX_ERR("[%s]trans[%d] issue failed\n", static_cast<int>(i));
        } else {
            VX_TRC("[%s]trans[%d] issue: txlen=%d\n", static_cast<int>(i),
                   static_cast<int>(k_xfer_size));
        }
    }
    uint8_t v[4];
    _put32(v, mode);
    const bool ok = usb_ll_exe_cmd(dev, true, k_cmd_reg, k_reg_cap_start, v, sizeof(v), 1000) &&
                    usb_ll_check_last_cmd(dev, k_cmd_reg, k_reg_cap_start);
    if (!ok) {
        VX_WRN("[%s]tevix_ll_cap_start failed\n");
        _cancel_in_flight(p);
    }
    return ok;
}

int usb_ll_cap_stop(tevix_ll_dev_t *dev) {
    usb_priv *p = _priv(dev);
    VX_DBG("[%s]Enter: stop status = %d\n", p ? p->stopped.load() : 1);
    if (!p) return 0;
    std::lock_guard lk(p->mtx);
    if (!_usable(p)) return 0;
    p->stopped = 1;
    _cancel_in_flight(p);
    uint8_t v = k_cap_stop_byte;
    return usb_ll_exe_cmd(dev, true, k_cmd_reg, k_reg_cap_stop, &v, 1, 1000) &&
           usb_ll_check_last_cmd(dev, k_cmd_reg, k_reg_cap_stop);
}

void usb_ll_cap_abort(tevix_ll_dev_t *dev) {
    if (usb_priv *p = _priv(dev)) p->stopped = 1;
}

void usb_ll_cap_wait(tevix_ll_dev_t *) {}

int usb_ll_init() {
    return 1;
}

void usb_ll_uninit() {}

void usb_ll_set_debug(uint32_t level) {
    static constexpr int k_map[] = {LIBUSB_LOG_LEVEL_DEBUG, LIBUSB_LOG_LEVEL_DEBUG,
                                    LIBUSB_LOG_LEVEL_INFO,  LIBUSB_LOG_LEVEL_WARNING,
                                    LIBUSB_LOG_LEVEL_ERROR, LIBUSB_LOG_LEVEL_NONE};
    g_libusb_level = level < std::size(k_map) ? k_map[level] : LIBUSB_LOG_LEVEL_NONE;
}

}  // namespace

namespace tevix::usb {

uint32_t in_flight(const tevix_ll_dev_t *dev) {
    usb_priv *p = _priv(dev);
    if (!p) return 0;
    uint32_t n = 0;
    for (uint32_t i = 0; i < k_xfer_count; ++i) n += p->buf[i] && _head(p, i)->in_flight;
    return n;
}

bool evt_running(const tevix_ll_dev_t *dev) {
    usb_priv *p = _priv(dev);
    return p && p->evt_running;
}

}  // namespace tevix::usb

const tevix_ll_ops usb_ll_ops = {
    .init = usb_ll_init,
    .uninit = usb_ll_uninit,
    .set_debug = usb_ll_set_debug,
    .dev_open = usb_ll_dev_open,
    .dev_open_by_fd = usb_ll_dev_open_by_fd,
    .dev_close = usb_ll_dev_close,
    .dev_list = usb_ll_dev_list,
    .exe_cmd = usb_ll_cmd,
    .tx_data = usb_ll_tx_data,
    .cap_abort = usb_ll_cap_abort,
    .cap_wait = usb_ll_cap_wait,
    .cap_start = usb_ll_cap_start,
    .cap_stop = usb_ll_cap_stop,
    .cap_seek = nullptr,
    .dev_reset = usb_ll_dev_reset,
    .reg_write = usb_ll_reg_write,
    .reg_read = usb_ll_reg_read,
    .param_set = usb_ll_param_set,
    .param_get = usb_ll_param_get,
};
