// SONY operation table until its driver exists: init refuses the device with a clear line, so an
// open of a SONY camera fails cleanly instead of decoding garbage.
#include "drivers/drv.h"
#include "log/log.h"

namespace {

bool _imx_init(tevix_drv_t *, tevix_dev_t *dev) {
    VX_ERR("[%s]SONY chip driver not available: product=%s\n", dev ? dev->product : "");
    return false;
}

void _imx_uninit(tevix_drv_t *) {}
int32_t _imx_ret0(tevix_drv_t *) {
    return 0;
}
int32_t _imx_ret1(tevix_drv_t *) {
    return 1;
}
int32_t _imx_reserved18(tevix_drv_t *, uint32_t, uint32_t, uint32_t) {
    return 0;
}

}  // namespace

tevix_drv_ops imx_drv_ops = {
    _imx_init,
    _imx_uninit,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    drv_lens_param_get,
    nullptr,
    nullptr,
    _imx_ret0,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    _imx_reserved18,
    _imx_ret1,
    nullptr,
    nullptr,
    {nullptr, nullptr},
    k_imx_default_lens,
};
