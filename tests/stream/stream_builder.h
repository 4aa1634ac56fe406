// Builds frame streams through the header maker, as a camera or recorder would send them. Shared
// by the stream tests, the stream benchmarks and the fuzz corpus generator.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "tevix/vx_stream.h"

namespace tevix::test {

// Byte i of frame fridx: differs between neighbouring frames and along the frame.
inline uint8_t frame_byte(uint32_t fridx, uint32_t i) {
    return static_cast<uint8_t>(fridx * 31u + i * 7u + (i >> 8));
}

inline std::vector<uint8_t> frame_bytes(uint32_t fridx, uint32_t frlen) {
    std::vector<uint8_t> v(frlen);
    for (uint32_t i = 0; i < frlen; ++i) v[i] = frame_byte(fridx, i);
    return v;
}

inline vx_frame_desc_t make_desc(uint32_t frlen, uint16_t fridx, uint16_t frfmt = 2) {
    vx_frame_desc_t d{};
    d.frlen = frlen;
    d.fridx = fridx;
    d.frfmt = frfmt;
    d.width = 320;
    d.height = 240;
    d.tcb = -12;
    d.tib = 345;
    d.time = 0x12345678u ^ fridx;
    return d;
}

class stream_builder {
  public:
    explicit stream_builder(bool data_cksum = false)
        : os_(vx_ostream_create(), vx_ostream_destroy) {
        const uint8_t cfg = data_cksum ? 1 : 0;
        vx_ostream_set_cfg(os_.get(), &cfg);
    }

    // One packet: header for desc (fridx decides continuation) and the payload bytes.
    void packet(const vx_frame_desc_t &desc, const uint8_t *payload, uint32_t len) {
        std::vector<uint32_t> words(len / 4 + 1);
        std::memcpy(words.data(), payload, len);
        uint8_t hdr[VX_STREAM_HDR_SIZE];
        vx_ostream_mkhdr(os_.get(), hdr, &desc, words.data(), static_cast<int32_t>(len));
        bytes_.insert(bytes_.end(), hdr, hdr + sizeof hdr);
        bytes_.insert(bytes_.end(), payload, payload + len);
    }

    // One frame cut into packets of at most packet_len payload bytes.
    void frame(uint16_t fridx, uint32_t frlen, uint32_t packet_len) {
        const auto data = frame_bytes(fridx, frlen);
        const auto desc = make_desc(frlen, fridx);
        for (uint32_t ofs = 0; ofs < frlen; ofs += packet_len)
            packet(desc, data.data() + ofs, std::min(packet_len, frlen - ofs));
    }

    // count whole frames with consecutive indices from fridx in one packet.
    void multi(uint16_t fridx, uint32_t frlen, uint32_t count) {
        std::vector<uint8_t> data;
        for (uint32_t k = 0; k < count; ++k) {
            const auto f = frame_bytes(static_cast<uint16_t>(fridx + k), frlen);
            data.insert(data.end(), f.begin(), f.end());
        }
        packet(make_desc(frlen, fridx), data.data(), static_cast<uint32_t>(data.size()));
    }

    void raw(const std::vector<uint8_t> &b) { bytes_.insert(bytes_.end(), b.begin(), b.end()); }

    std::vector<uint8_t> &bytes() { return bytes_; }

  private:
    std::unique_ptr<vx_ostream_t, void (*)(vx_ostream_t *)> os_;
    std::vector<uint8_t> bytes_;
};

}  // namespace tevix::test
