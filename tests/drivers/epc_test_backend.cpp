#include "drivers/epc_test_backend.h"

#include <cstdio>
#include <cstring>

#include "api/session.h"

namespace tevix::test {

namespace {

fake_camera *_cam(tevix_ll_dev_t *dev) {
    return static_cast<fake_camera *>(dev->priv);
}

int _reg_write(tevix_ll_dev_t *dev, uint8_t, uint32_t addr, uint8_t *data, uint16_t count) {
    fake_camera *c = _cam(dev);
    if (c->fail_reg) return 0;
    for (uint16_t i = 0; i < count; ++i) {
        uint32_t v;
        std::memcpy(&v, data + 4 * i, 4);
        c->regs[addr + i] = v;
        c->reg_writes.emplace_back(addr + i, v);
    }
    return 1;
}

int _reg_read(tevix_ll_dev_t *dev, uint8_t, uint32_t addr, uint8_t *data, uint16_t count) {
    fake_camera *c = _cam(dev);
    if (c->fail_reg) return 0;
    for (uint16_t i = 0; i < count; ++i) {
        const uint32_t v = c->regs[addr + i];
        std::memcpy(data + 4 * i, &v, 4);
    }
    return 1;
}

int _param_set(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count) {
    fake_camera *c = _cam(dev);
    if (c->fail_param_set) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        std::array<uint8_t, 18> v;
        std::memcpy(v.data(), items[i].value, 18);
        c->params[items[i].id] = v;
        c->param_writes.emplace_back(items[i].id, v);
    }
    return 1;
}

int _param_get(tevix_ll_dev_t *dev, tevix_param_wire_t *items, uint32_t count) {
    fake_camera *c = _cam(dev);
    if (c->fail_param_get) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        auto it = c->params.find(items[i].id);
        if (it == c->params.end())
            std::memset(items[i].value, 0, 18);
        else
            std::memcpy(items[i].value, it->second.data(), 18);
    }
    return 1;
}

const tevix_ll_ops g_ops = [] {
    tevix_ll_ops ops{};
    ops.reg_write = _reg_write;
    ops.reg_read = _reg_read;
    ops.param_set = _param_set;
    ops.param_get = _param_get;
    return ops;
}();

}  // namespace

std::vector<std::array<uint8_t, 18>> fake_camera::writes_of(uint8_t id) const {
    std::vector<std::array<uint8_t, 18>> out;
    for (const auto &w : param_writes)
        if (w.first == id) out.push_back(w.second);
    return out;
}

void fake_camera::set_u32(uint8_t id, uint32_t v) {
    std::array<uint8_t, 18> a{};
    std::memcpy(a.data(), &v, 4);
    params[id] = a;
}

fake_device::fake_device(const char *product, uint32_t type) {
    std::snprintf(dev_.product, sizeof dev_.product, "%s", product);
    dev_.type = type;
    dev_.path_prefix = "/nonexistent-tevix-test/";
    cam_.regs[18] = 2;  // chip identification: the 320x240 sensor
    tevix_ll_dev_t ll{};
    ll.priv = &cam_;
    ll.ops = &g_ops;
    tevix::api::session_attach(&dev_, ll);
}

fake_device::~fake_device() {
    tevix::api::session_detach(&dev_);
}

void fake_device::bind(tevix_drv_t *drv) {
    if (dev_.session) dev_.session->drv = drv;
}

}  // namespace tevix::test
