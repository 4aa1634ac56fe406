// Calibration of the SONY driver: blocks of type 2 in the shared block format
// (drivers/drv_calib.h), one per modulation frequency, mounted for f0 alone or for f0 and f1 in
// dual frequency; the frequency change event; and the decision at open which file to trust and at
// which frequency to run.
#include <cstring>
#include <mutex>

#include "drivers/drv_pipeline.h"
#include "drivers/epc/epc_kernels.h"
#include "drivers/sony/imx_format.h"
#include "drivers/sony/imx_priv.h"
#include "log/log.h"

namespace tevix::imx {

namespace drv = tevix::drv;

namespace {

// The device runs at this frequency when it cannot tell its own and nothing is calibrated.
constexpr uint32_t k_default_freq = 100000000;

int _defaults(imx_priv *p, const char *fn) {
    calib_unmount(p);
    VX_LOG_AS(VX_LOG_INF, fn,
              "[%s]No calib data : freq=%d. Use default scale_um/offset_mm = %d/%d\n",
              static_cast<int>(p->f0), 1000, 0);
    return -1;
}

// Millimetres per degree (or per frame per second) of a coefficient in phase units at range r.
double _mm(float coef, uint32_t r) {
    return double(coef) * r * (1.0 / 32768.0);
}

}  // namespace

void calib_unmount(imx_priv *p) {
    p->slot = drv::calib_slot{};
    p->slot1 = drv::calib_slot{};
    if (p->calib_mounted) {
        VX_LOG_AS(VX_LOG_DBG, p->names->unmount, "[%s]Calib data unload [freq=%d, %d]\n",
                  static_cast<int>(p->f0), static_cast<int>(p->f1));
        p->calib_mounted = 0;
    }
}

int calib_mount(imx_priv *p) {
    if (p->f1 == 0) {
        if (drv::mount_block(*p, k_block_type, &p->f0, p->slot) < 0)
            return _defaults(p, p->names->mount);
    } else {
        // Dual frequency: each frequency's block, or none at all.
        if (drv::mount_block(*p, k_block_type, &p->f0, p->slot) < 0 ||
            drv::mount_block(*p, k_block_type, &p->f1, p->slot1) < 0)
            return _defaults(p, "imx_calc_mount_calib_ex");
    }
    p->calib_mounted = 1;
    return 1;
}

bool calib_valid(const imx_priv *p) {
    if (!p->calib_mounted || !p->slot.block || p->slot.block->freq != p->f0) return false;
    return p->f1 == 0 || (p->slot1.block && p->slot1.block->freq == p->f1);
}

void event_freq_change(imx_priv *p, uint32_t f0, uint32_t f1, bool from_load) {
    constexpr const char *fn = "imx_event_freq_change";
    if (f0 != p->f0 || f1 != p->f1) {
        VX_LOG_AS(VX_LOG_DBG, fn, "[%s]MOD_FREQ change: [%d, %d] -> [%d, %d] HZ\n",
                  static_cast<int>(p->f0), static_cast<int>(p->f1), static_cast<int>(f0),
                  static_cast<int>(f1));
    } else {
        if (p->calib_mounted && !from_load) return;
        VX_LOG_AS(VX_LOG_DBG, fn, "[%s]MOD_FREQ [%d, %d] HZ: try loading calib data\n",
                  static_cast<int>(f0), static_cast<int>(f1));
    }
    std::lock_guard<std::mutex> lock(p->calib_mtx);
    calib_unmount(p);
    p->f0 = p->freq = f0;
    p->f1 = f1;
    calib_mount(p);
    p->r0 = p->range = tevix::epc::range_mm(f0);
    p->r1 = tevix::epc::range_mm(f1);
    p->rx0 = float(exact_range_mm(f0));
    p->rx1 = float(exact_range_mm(f1));
    if (p->r0) {
        p->tc_cb = p->c1 * 32768.0f / float(p->r0);
        p->tc_ib = p->c2 * 32768.0f / float(p->r0);
        // c3 is in micrometres per frame per second.
        p->tc_fps = float(p->c3) / 1000.0f * 32768.0f / float(p->r0);
    }
    if (f1) {
        if (!tevix::algo::dual_freq_init(p->unwrap, f0, f1))
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]MOD_FREQ [%d, %d] HZ not support\n",
                      static_cast<int>(f0), static_cast<int>(f1));
        VX_LOG_AS(VX_LOG_INF, fn, "[%s] tcoef: f0=%.1f MHz, cb/ib=%.1f/%.1f mm/deg, %.1f/fps\n",
                  f0 / 1e6, _mm(p->tc_cb, p->r0), _mm(p->tc_ib, p->r0), _mm(p->tc_fps, p->r0));
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]        f1=%.1f MHz, cb/ib=%.1f/%.1f mm/deg, %.1f/fps\n",
                  f1 / 1e6, _mm(p->tc_cb, p->r1), _mm(p->tc_ib, p->r1), _mm(p->tc_fps, p->r1));
    } else {
        p->unwrap = tevix::algo::dual_freq{};
        VX_LOG_AS(VX_LOG_INF, fn, "[%s] * tcoef: f=%.1f MHz, cb/ib=%.1f/%.1f mm/deg\n", f0 / 1e6,
                  _mm(p->tc_cb, p->r0), _mm(p->tc_ib, p->r0));
    }
}

int32_t calib_load(tevix_drv_t *drv, uint32_t, uint32_t, uint32_t) {
    constexpr const char *fn = "imx_calib_load";
    imx_priv *p = priv_of(drv);
    if (!p) return -1;
    tevix_dev_t *dev = drv->dev;
    const int trust = drv::calib_trust_local(*p, dev);
    if (trust < 0) return -1;
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Decide mod-freq begin... \n");
    tevix_param_item_t it[3] = {drv::param_item(TEVIX_PARAM_MOD_FREQ, 4),
                                drv::param_item(TEVIX_PARAM_FRM_FMT, 4),
                                drv::param_item(TEVIX_PARAM_DUAL_FREQ, 8)};
    const bool read = tevix_param_batch_get(dev, it, 3) && drv::item_u32(it[0], 0);
    if (!read) VX_LOG_AS(VX_LOG_ERR, fn, "[%s] get mod freq failed\n");
    uint32_t f0 = read ? drv::item_u32(it[0], 0) : k_default_freq, f1 = 0;
    const uint32_t fmt = drv::item_u32(it[1], 0) & 0x7F;
    if (read && (fmt == 14 || fmt == 17)) {
        const uint32_t d[2] = {drv::item_u32(it[2], 0), drv::item_u32(it[2], 1)};
        if (d[0] && d[1]) {
            f0 = d[0];
            f1 = d[1];
        } else {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s] Get current dual mod freq failed\n");
        }
    }
    if (trust > 0) {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s] adapting to device MOD_FREQ : [%u, %u] HZ\n", f0, f1);
        event_freq_change(p, f0, f1, true);
        if (!p->calib_mounted && f1 == 0 && p->freq_list_n > 0) {
            // The device runs at a frequency the file does not calibrate: run at one it does.
            const uint32_t first = p->freq_list[0];
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]set device freq to first calibrated freq: %u\n", first);
            drv::write_mod_freq(dev, first);
            event_freq_change(p, first, 0, true);
        }
    } else {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]calib not valid: set freq to %u\n", f0);
        event_freq_change(p, f0, f1, true);
    }
    if (!read) drv::write_mod_freq(dev, f0);
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Decide mod-freq end... \n");
    return 0;
}

}  // namespace tevix::imx
