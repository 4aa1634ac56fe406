#include "ll/dispatch.h"

#include "log/log.h"

namespace tevix::ll {
namespace {

const tevix_ll_ops *g_backends[k_backend_count] = {&file_ll_ops, nullptr, &usb_ll_ops, nullptr};

const tevix_ll_ops *_usb() {
    return g_backends[k_backend_usb];
}
const tevix_ll_ops *_file() {
    return g_backends[k_backend_file];
}

// The op table that owns an open record, or null.
const tevix_ll_ops *_ops(tevix_ll_dev_t *dev) {
    return dev ? dev->ops : nullptr;
}

}  // namespace

const tevix_ll_ops *backend_swap(int idx, const tevix_ll_ops *ops) {
    if (idx < 0 || idx >= k_backend_count) return nullptr;
    const tevix_ll_ops *old = g_backends[idx];
    g_backends[idx] = ops;
    return old;
}

}  // namespace tevix::ll

using tevix::ll::_file;
using tevix::ll::_ops;
using tevix::ll::_usb;

extern "C" {

int tevix_ll_init(void) noexcept {
    if (!_usb() || !_usb()->init || !_usb()->init()) {
        VX_ERR("[%s]ll_init failed: ll[%d]\n", 0);
        return 0;
    }
    int r = _file() && _file()->init ? _file()->init() : 0;
    if (!r) VX_ERR("[%s]ll_init failed: ll[%d]\n", 1);
    return r;
}

void tevix_ll_uninit(void) noexcept {
    if (_usb() && _usb()->uninit) _usb()->uninit();
    if (_file() && _file()->uninit) _file()->uninit();
}

void tevix_ll_set_debug(uint32_t level) noexcept {
    if (_usb() && _usb()->set_debug) _usb()->set_debug(level);
    if (_file() && _file()->set_debug) _file()->set_debug(level);
}

int tevix_ll_dev_list(tevix_ll_dev_t *list, int max) noexcept {
    if (!list || max < 1) return 0;
    uint32_t n = 0;
    if (_usb() && _usb()->dev_list) n = _usb()->dev_list(list, static_cast<uint32_t>(max));
    if (n < static_cast<uint32_t>(max) && _file() && _file()->dev_list)
        n += _file()->dev_list(list + n, static_cast<uint32_t>(max) - n);
    return static_cast<int>(n);
}

tevix_ll_dev_t *tevix_ll_dev_open(tevix_ll_dev_t *dev) noexcept {
    if (!dev) return nullptr;
    if (dev->ops) return dev->ops->dev_open ? dev->ops->dev_open(dev) : nullptr;
    tevix_ll_dev_t *r = nullptr;
    if (_usb() && _usb()->dev_open) r = _usb()->dev_open(dev);
    if (!r && _file() && _file()->dev_open) r = _file()->dev_open(dev);
    return r;
}

tevix_ll_dev_t *tevix_ll_dev_open_by_fd(tevix_ll_dev_t *dev, int fd) noexcept {
    if (!dev) return nullptr;
    if (dev->ops) return dev->ops->dev_open_by_fd ? dev->ops->dev_open_by_fd(dev, fd) : nullptr;
    tevix_ll_dev_t *r = nullptr;
    if (_usb() && _usb()->dev_open_by_fd) r = _usb()->dev_open_by_fd(dev, fd);
    if (!r && _file() && _file()->dev_open_by_fd) r = _file()->dev_open_by_fd(dev, fd);
    return r;
}

void tevix_ll_dev_close(tevix_ll_dev_t *dev) noexcept {
    if (auto ops = _ops(dev); ops && ops->dev_close) ops->dev_close(dev);
}

int tevix_ll_dev_reset(tevix_ll_dev_t *dev, uint8_t target) noexcept {
    auto ops = _ops(dev);
    return ops && ops->dev_reset ? ops->dev_reset(dev, target) : 0;
}

int tevix_ll_exe_cmd(tevix_ll_dev_t *dev, uint8_t write_only, uint8_t cmd, uint16_t value,
                     uint8_t *data, uint32_t length, uint32_t timeout_ms) noexcept {
    auto ops = _ops(dev);
    return ops && ops->exe_cmd ? ops->exe_cmd(dev, write_only, cmd, value, data, length, timeout_ms)
                               : 0;
}

int32_t tevix_ll_tx_data(tevix_ll_dev_t *dev, const uint8_t *data, uint32_t length) noexcept {
    auto ops = _ops(dev);
    return ops && ops->tx_data ? ops->tx_data(dev, data, length) : 0;
}

int tevix_ll_cap_start(tevix_ll_dev_t *dev, uint32_t mode, tevix_ll_evt_cb cb,
                       void *user) noexcept {
    auto ops = _ops(dev);
    return ops && ops->cap_start ? ops->cap_start(dev, mode, cb, user) : 0;
}

int tevix_ll_cap_stop(tevix_ll_dev_t *dev) noexcept {
    auto ops = _ops(dev);
    return ops && ops->cap_stop ? ops->cap_stop(dev) : 0;
}

void tevix_ll_cap_abort(tevix_ll_dev_t *dev) noexcept {
    if (auto ops = _ops(dev); ops && ops->cap_abort) ops->cap_abort(dev);
}

void tevix_ll_cap_wait(tevix_ll_dev_t *dev) noexcept {
    if (auto ops = _ops(dev); ops && ops->cap_wait) ops->cap_wait(dev);
}

int32_t tevix_ll_cap_seek(tevix_ll_dev_t *dev, uint32_t frame_idx, uint32_t whence) noexcept {
    auto ops = _ops(dev);
    // The USB backend has no seek: refused rather than called through an empty slot.
    return ops && ops->cap_seek ? ops->cap_seek(dev, frame_idx, whence) : -1;
}

int tevix_ll_reg_write(tevix_ll_dev_t *dev, uint8_t target, uint32_t addr, uint8_t *data,
                       uint16_t count) noexcept {
    auto ops = _ops(dev);
    return ops && ops->reg_write ? ops->reg_write(dev, target, addr, data, count) : 0;
}

int tevix_ll_reg_read(tevix_ll_dev_t *dev, uint8_t target, uint32_t addr, uint8_t *data,
                      uint16_t count) noexcept {
    auto ops = _ops(dev);
    return ops && ops->reg_read ? ops->reg_read(dev, target, addr, data, count) : 0;
}

int tevix_ll_param_set(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count) noexcept {
    auto ops = _ops(dev);
    return ops && ops->param_set ? ops->param_set(dev, items, count) : 0;
}

int tevix_ll_param_get(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count) noexcept {
    auto ops = _ops(dev);
    return ops && ops->param_get ? ops->param_get(dev, items, count) : 0;
}

}  // extern "C"
