// The camera's data-transfer protocol (command 0xCC): moving firmware images and data blobs
// between the host and the camera's flash. Shared by the library and the virtual camera.
//
// Every subcommand is a class request 0xCC with the subcommand in wValue. "Read" subcommands send
// their payload to the camera first (it selects what to answer) and then read the answer back.
//
//   0  read  16  data info. Out: u8 type at 0. In: u16 version at 0, u16 type at 2, u32 address
//                at 4, u32 size at 8, u16 CRC-16 of the stored data at 12.
//   1  write 12  action info: u8 type at 0, u16 version at 2, u32 size at 4, u32 address at 8.
//   4  read  13  acknowledgement: u16 packet number at 0 (packets taken so far), u8 status at 2,
//                u16 packet size at 3 (bytes of data a packet carries), u32 bytes taken at 5,
//                u16 CRC-16 of everything taken at 9.
//   5  read   9  short acknowledgement: u16 packet number at 0, u8 status at 2.
//   7  write 13  erase: u8 type at 0, u32 address at 1, u32 size at 5.
//   17 read      data piece: out 12 bytes, u8 type at 0, u16 piece number at 4; in a 12-byte piece
//                header (u16 piece number at 0, u16 length at 2, u16 CRC-16 of the piece at 4,
//                u8 status at 6: 0 the piece follows, 1 no data of that type, 2 no such piece)
//                followed by the piece's bytes, at most k_piece_size.
//
// A data packet on the bulk-out endpoint: u16 CRC-16 of the chunk, u16 chunk length, u16 packet
// number (low 16 bits of the packet index), then the chunk; the camera takes a packet only when
// its number is the next one and its CRC matches, and takes a repeated packet again without
// storing it twice. The address names where the data goes in flash; the camera stores each type
// in a region of its own, so the address is kept and reported but places nothing.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tevix::xfer {

constexpr uint8_t k_cmd = 0xCC;
constexpr uint16_t k_sub_info = 0, k_sub_action = 1, k_sub_ack = 4, k_sub_short_ack = 5,
                   k_sub_erase = 7, k_sub_piece = 17;
constexpr uint32_t k_info_len = 16, k_action_len = 12, k_ack_len = 13, k_short_ack_len = 9,
                   k_erase_len = 13, k_piece_req_len = 12, k_piece_hdr = 12;

// Acknowledgement status.
constexpr uint8_t k_st_ready = 1, k_st_info_ok = 3, k_st_erasing = 4;

// Data bytes of one upload piece: header and piece fill one 4096-byte control transfer.
constexpr uint32_t k_piece_size = 4096 - k_piece_hdr;
constexpr uint32_t k_packet_hdr = 6;

// Type 255 asks for an erase only; it travels as type 3.
constexpr uint8_t k_type_erase_only = 255, k_type_data = 3;
// A camera whose stored version is this or higher takes any version.
constexpr uint16_t k_version_any = 65000;

// CRC-16 with polynomial 0x1021, initial value 0, most significant bit first, no final XOR
// (CRC-16/XMODEM; "123456789" gives 0x31C3).
constexpr uint16_t crc16(const uint8_t *data, size_t len, uint16_t crc = 0) {
    for (size_t i = 0; i < len; ++i) {
        crc = static_cast<uint16_t>(crc ^ (data[i] << 8));
        for (int b = 0; b < 8; ++b)
            crc = static_cast<uint16_t>(crc & 0x8000 ? (crc << 1) ^ 0x1021 : crc << 1);
    }
    return crc;
}

inline void put16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
inline void put32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint16_t get16(const uint8_t *p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}
inline uint32_t get32(const uint8_t *p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace tevix::xfer
