// Distance calibration of the EPC driver: its blocks (type 1 of the calibration container, in the
// shared block format of drivers/drv_calib.h), mounted for the current modulation frequency, and
// the calibrated decodes.
#pragma once

#include <cstdint>

#include "drivers/drv_calib.h"
#include "drivers/epc/epc_priv.h"

namespace tevix::epc {

using tevix::drv::block_payload;
using tevix::drv::calc_coeff;
using tevix::drv::calib_block;
using tevix::drv::k_drv_hdr;
using tevix::drv::k_phase_lut;
using tevix::drv::parse_block;
using tevix::drv::parse_drv_hdr;

constexpr uint8_t k_block_type = 1;

// Mounts the block of p->freq from the device's calibration file: 1 when mounted, -1 when the
// defaults are used. Unmount releases it. Both run under p->calib_mtx.
int calib_mount(epc_priv *p);
void calib_unmount(epc_priv *p);

// True when a block is mounted for the current frequency.
bool calib_valid(const epc_priv *p);

// The mounted block applied to phases in sensor row order (drv::apply_calibration at the
// driver's range).
void apply_calibration(epc_priv *p, int32_t *dist, uint32_t w, uint32_t h, bool pixels);

}  // namespace tevix::epc
