// TI OP8241 stub: stores the device, copies the header fields into the frame information and
// decodes nothing.
#include <cstring>

#include "drivers/drv.h"

namespace {

bool _ti_init(tevix_drv_t *drv, tevix_dev_t *dev) {
    drv->dev = dev;
    return true;
}

void _ti_uninit(tevix_drv_t *) {}

bool _ti_frame_get_info(tevix_drv_t *, tevix_frame_info_t *info, const uint8_t *raw) {
    if (!info || !raw) return false;
    std::memset(info, 0, sizeof *info);
    uint16_t w, h;
    std::memcpy(&info->size, raw, 4);
    std::memcpy(&info->index, raw + 4, 2);
    std::memcpy(&info->format, raw + 6, 2);
    std::memcpy(&w, raw + 8, 2);
    std::memcpy(&h, raw + 10, 2);
    info->width = w;
    info->height = h;
    return true;
}

int32_t _ti_frame_decode(tevix_drv_t *, uint8_t *, uint32_t, uint32_t, const uint8_t *, uint32_t,
                         const tevix_frame_info_t *) {
    return -1;
}

int32_t _ti_ret0(tevix_drv_t *) {
    return 0;
}
int32_t _ti_ret1(tevix_drv_t *) {
    return 1;
}
int32_t _ti_calib_load(tevix_drv_t *, uint32_t, uint32_t, uint32_t mode) {
    return static_cast<int32_t>(mode);
}
int32_t _ti_reserved18(tevix_drv_t *, uint32_t, uint32_t, uint32_t c) {
    return static_cast<int32_t>(c);
}

}  // namespace

tevix_drv_ops ti_drv_ops = {
    _ti_init,
    _ti_uninit,
    _ti_frame_get_info,
    _ti_frame_decode,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    _ti_ret0,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    _ti_calib_load,
    _ti_reserved18,
    _ti_ret1,
    nullptr,
    nullptr,
    {nullptr, nullptr},
    {},
};
