// The driver table: nine static rows, each used directly as the driver instance of the device
// whose product string names its chip code.
#include <cstdio>
#include <cstring>

#include "drivers/drv.h"
#include "log/log.h"

namespace {

tevix_drv_t g_rows[k_drv_rows] = {
    {"TI OP8241 chip driver", "T0", &ti_drv_ops, nullptr, nullptr},
    {"EPC chip driver", "E1", &epc_drv_ops, nullptr, nullptr},
    {"EPC chip driver", "E2", &epc_drv_ops, nullptr, nullptr},
    {"EPC chip driver", "E3", &epc_drv_ops, nullptr, nullptr},
    {"SONY chip driver", "S1", &imx_drv_ops, nullptr, nullptr},
    {"SONY chip driver", "S2", &imx_drv_ops, nullptr, nullptr},
    {"SONY chip driver", "S3", &imx_drv_ops, nullptr, nullptr},
    {"EPC chip driver", "E4", &epc_drv_ops, nullptr, nullptr},
    {"EPC chip driver", "E5", &epc_drv_ops, nullptr, nullptr},
};

}  // namespace

tevix_drv_t *tevix_drv_table() {
    return g_rows;
}

tevix_drv_t *tevix_drv_find(const tevix_dev_t *dev) {
    if (!dev) return nullptr;
    char model[17], chip[17], rev[17];
    char product[sizeof dev->product + 1];
    std::memcpy(product, dev->product, sizeof dev->product);
    product[sizeof dev->product] = '\0';
    if (std::sscanf(product, "%16[^-]-%16[^-]-%16[^-]", model, chip, rev) < 3) return nullptr;
    for (tevix_drv_t &row : g_rows) {
        if (std::strcmp(row.chip, chip) != 0) continue;
        VX_DBG("[%s] find driver: %s (device=%s [SW=%u,BT=%u,HW=%u])\n", row.desc, product,
               dev->version[0], dev->version[1], dev->version[2]);
        return &row;
    }
    return nullptr;
}

bool drv_lens_param_get(tevix_drv_t *drv, tevix_lens_param_t *lens, uint32_t width,
                        uint32_t height) {
    if (!drv || !drv->ops || !lens || width < 1 || height < 1) return false;
    const tevix_lens_param_t &def = drv->ops->lens;
    if (def.width % width != 0 || def.height % height != 0) {
        VX_WRN("[%s]lens param not match the frame size: lens: %dx%d, frame: %dx%d\n", def.width,
               def.height, width, height);
        return false;
    }
    const double dx = static_cast<double>(def.width / width);
    const double dy = static_cast<double>(def.height / height);
    *lens = def;
    lens->cx = def.cx / dx;
    lens->cy = def.cy / dy;
    lens->fx = def.fx / dx;
    lens->fy = def.fy / dy;
    lens->width = width;
    lens->height = height;
    return true;
}
