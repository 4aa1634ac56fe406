// The umockdev testbed holding the virtual cameras, and the default test pattern.
#include <umockdev.h>

#include <cstdio>
#include <cstring>

#include "vcam.h"

namespace tevix::emu {

testbed::testbed() {
    auto *tb = umockdev_testbed_new();
    tb_ = tb;
    gchar *root = umockdev_testbed_get_root_dir(tb);
    root_ = root ? root : "";
    g_free(root);
}

// The cameras' engines stop first (they send uevents), then the testbed goes: that ends its
// worker thread, which runs the cameras' ioctl handlers.
testbed::~testbed() {
    for (auto &c : cams_) c->_halt();
    g_object_unref(static_cast<UMockdevTestbed *>(tb_));
    cams_.clear();
}

camera *testbed::add(const camera_config &cfg, std::unique_ptr<frame_source> src) {
    for (auto &c : cams_) {
        const camera_config &o = c->config();
        if ((o.bus == cfg.bus && o.addr == cfg.addr) || (o.bus == cfg.bus && o.port == cfg.port)) {
            std::fprintf(stderr, "tevix-vcam: bus %u port %u address %u is taken\n", cfg.bus,
                         cfg.port, cfg.addr);
            return nullptr;
        }
    }
    cams_.push_back(std::make_unique<camera>(*this, cfg, std::move(src)));
    return cams_.back().get();
}

vx_frame_desc_t test_pattern::describe() const {
    vx_frame_desc_t d{};
    d.frlen = uint32_t{k_width} * k_height * k_planes * 2;
    d.frfmt = k_format;
    d.width = k_width;
    d.height = k_height;
    return d;
}

void test_pattern::render(uint32_t index, std::span<uint8_t> out, vx_frame_desc_t &desc) {
    desc.tcb = 25;
    desc.tib = 27;
    desc.time = index * 33;
    const size_t plane = size_t{k_width} * k_height;
    if (out.size() < plane * k_planes * 2) return;
    for (uint32_t p = 0; p < k_planes; ++p) {
        for (uint32_t y = 0; y < k_height; ++y) {
            uint8_t *row = out.data() + 2 * (p * plane + size_t{y} * k_width);
            const uint32_t base = 3 * y + 1024 * p + 5 * index;
            for (uint32_t x = 0; x < k_width; ++x) {
                const uint16_t v = static_cast<uint16_t>((x + base) & 0xFFF);
                row[2 * x] = static_cast<uint8_t>(v);
                row[2 * x + 1] = static_cast<uint8_t>(v >> 8);
            }
        }
    }
}

}  // namespace tevix::emu
