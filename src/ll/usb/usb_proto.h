// The camera's USB identity and control protocol: shared by the USB backend and the virtual camera.
#pragma once

#include <cstdint>

namespace tevix::usb {

// The one vendor/product pair the backend accepts as a camera.
constexpr uint16_t k_vid = 0x3e77;
constexpr uint16_t k_pid = 0x0001;

// bmRequestType of the commands: class request to an endpoint, out or in.
constexpr uint8_t k_req_out = 0x22;
constexpr uint8_t k_req_in = 0xA2;

// bRequest codes.
constexpr uint8_t k_cmd_sys = 0xC0;     // reset, parameter set/get
constexpr uint8_t k_cmd_reg = 0xC2;     // registers, capture start/stop
constexpr uint8_t k_cmd_status = 0xB0;  // last-command status record

// wValue of k_cmd_sys.
constexpr uint16_t k_sys_reset = 0;
constexpr uint16_t k_sys_param_set = 3;
constexpr uint16_t k_sys_param_get = 4;
// wValue of k_cmd_reg.
constexpr uint16_t k_reg_write = 0;
constexpr uint16_t k_reg_read = 1;
constexpr uint16_t k_reg_cap_start = 4;
constexpr uint16_t k_reg_cap_stop = 5;
constexpr uint8_t k_cap_stop_byte = 0xC2;

// Reset target that resets the USB interface: the camera re-enumerates.
constexpr uint8_t k_reset_usb_if = 3;

// Status record: state, last bRequest, last wValue low byte, error text.
constexpr uint32_t k_status_size = 60;
constexpr uint8_t k_state_done = 0x00;
constexpr uint8_t k_state_busy = 0xFE;
constexpr uint8_t k_state_error = 0xFF;
constexpr uint32_t k_status_text = 3;

// Register write header: u8 target, u32 first address, u16 byte count.
constexpr uint32_t k_reg_hdr = 7;
constexpr uint32_t k_regs_per_cmd = 15;
constexpr uint32_t k_params_per_cmd = 3;
constexpr uint32_t k_param_item = 20;

// Bulk-in pool kept in flight during capture.
constexpr uint32_t k_xfer_count = 16;
constexpr uint32_t k_xfer_size = 153600;
constexpr uint32_t k_xfer_timeout_ms = 8500;

// Endpoints of the camera's one interface.
constexpr uint8_t k_ep_in = 0x81;
constexpr uint8_t k_ep_out = 0x01;

}  // namespace tevix::usb
