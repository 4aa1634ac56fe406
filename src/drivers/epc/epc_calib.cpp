// Distance calibration of the EPC driver: the block of the current frequency mounted through the
// shared block code, the defaults on any fault.
#include "drivers/epc/epc_calib.h"

#include "log/log.h"

namespace tevix::epc {

namespace {

// Defaults: nothing mounted, scale 1000 and offset 0.
int _defaults(epc_priv *p) {
    calib_unmount(p);
    VX_LOG_AS(VX_LOG_INF, p->names->mount,
              "[%s]No calib data : freq=%d. Use default scale_um/offset_mm = %d/%d\n",
              static_cast<int>(p->freq), 1000, 0);
    return -1;
}

}  // namespace

void calib_unmount(epc_priv *p) {
    p->slot = tevix::drv::calib_slot{};
    if (p->calib_mounted) {
        VX_LOG_AS(VX_LOG_DBG, p->names->unmount, "[%s]Calib data unload [freq=%d, %d]\n",
                  static_cast<int>(p->freq), 0);
        p->calib_mounted = 0;
    }
}

int calib_mount(epc_priv *p) {
    if (tevix::drv::mount_block(*p, k_block_type, &p->freq, p->slot) < 0) return _defaults(p);
    p->calib_mounted = 1;
    return 1;
}

bool calib_valid(const epc_priv *p) {
    return p->calib_mounted && p->slot.block && p->slot.block->freq == p->freq;
}

void apply_calibration(epc_priv *p, int32_t *dist, uint32_t w, uint32_t h, bool pixels) {
    tevix::drv::apply_calibration(*p, p->slot, p->range, dist, w, h, pixels);
}

}  // namespace tevix::epc
