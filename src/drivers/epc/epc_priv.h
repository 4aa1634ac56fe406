// Private state of the EPC driver, one per driver row, allocated zeroed at init: the state every
// driver keeps (drivers/drv_state.h) and the sensor mode.
#pragma once

#include <cstdint>

#include "drivers/drv_state.h"

namespace tevix::epc {

constexpr uint32_t k_grey_buf_full = 153600;  // 320 x 240 x 2
constexpr uint32_t k_grey_buf_small = 19200;  // 160 x 60 x 2
using tevix::drv::k_freq_list_max;
using tevix::drv::k_temp_ring;

inline constexpr tevix::drv::drv_names k_epc_names = {"epc_init",
                                                      "epc_frame_get_info",
                                                      "epc_frame_decode",
                                                      "epc_frame_raw_proc",
                                                      "epc_filter_enable",
                                                      "epc_filter_disable",
                                                      "epc_on_update_intg_time",
                                                      "epc_calc_mount_calib",
                                                      "epc_calc_unmount_clib",
                                                      "_epc_calc_calib_coeff",
                                                      "epc_calib_load"};

struct epc_priv : tevix::drv::drv_state {
    epc_priv() { names = &k_epc_names; }
    uint32_t sensor_mode = 2;  // 2: 320x240 sensor, 4: 160x60 sensor
};

inline epc_priv *priv_of(tevix_drv_t *drv) {
    return drv && drv->priv
               ? static_cast<epc_priv *>(static_cast<tevix::drv::drv_state *>(drv->priv))
               : nullptr;
}

}  // namespace tevix::epc
