// SONY raw frames: any bytes through the driver's frame information and decode of every kind, in
// single and dual frequency. The first byte picks the frequency mode; the frame follows it, its
// header naming format, geometry and size.
#include <cstdint>
#include <cstring>
#include <vector>

#include "drivers/drv.h"
#include "drivers/sony/imx_priv.h"
#include "tevix/vx_log.h"

namespace {

tevix_drv_t *_row() {
    static tevix_drv_t row = [] {
        vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
        tevix_drv_t r{"SONY chip driver", "S1", &imx_drv_ops, nullptr, nullptr};
        r.priv = static_cast<tevix::drv::drv_state *>(new tevix::imx::imx_priv);
        return r;
    }();
    return &row;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 21 || size > (8u << 20)) return 0;
    tevix_drv_t *drv = _row();
    auto *p = tevix::imx::priv_of(drv);
    if (data[0] & 1)
        tevix::imx::event_freq_change(p, 100000000, 80000000, false);
    else
        tevix::imx::event_freq_change(p, 20000000, 0, false);
    // An even-aligned copy, as the capture engine hands frames over.
    std::vector<uint16_t> frame((size - 1 + 1) / 2);
    std::memcpy(frame.data(), data + 1, size - 1);
    const auto *raw = reinterpret_cast<const uint8_t *>(frame.data());
    tevix_frame_info_t info{};
    if (!drv->ops->frame_get_info(drv, &info, raw)) return 0;
    if (uint64_t{info.width} * info.height > (1u << 20)) return 0;
    std::vector<uint16_t> out(size_t{info.width} * info.height);
    for (uint32_t kind = 0; kind < 3; ++kind) {
        const int32_t r =
            drv->ops->frame_decode(drv, reinterpret_cast<uint8_t *>(out.data()),
                                   uint32_t(out.size() * 2), kind, raw, uint32_t(size - 1), &info);
        if (r != -1 && r != int32_t(out.size() * 2)) __builtin_trap();
    }
    return 0;
}
