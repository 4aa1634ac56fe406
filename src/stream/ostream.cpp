// Header maker for the producing side of the frame stream (recorder, virtual camera).
#include <cstring>
#include <new>

#include "log/log.h"
#include "stream/stream_sum.h"
#include "tevix/vx_stream.h"

struct vx_ostream {
    uint8_t cfg;           // bit 0: compute data_cksum
    uint32_t ofs;          // bytes of the current frame already described
    uint32_t frame_size;   // frlen of the current frame
    uint32_t last_fridx;   // index of the current frame, UINT32_MAX for none
    uint32_t hdr_counter;  // idx of the next header
};

extern "C" vx_ostream_t *vx_ostream_create(void) noexcept {
    auto *obj = new (std::nothrow) vx_ostream{};
    if (obj) obj->last_fridx = UINT32_MAX;
    return obj;
}

extern "C" void vx_ostream_destroy(vx_ostream_t *obj) noexcept {
    delete obj;
}

extern "C" void vx_ostream_reset(vx_ostream_t *obj) noexcept {
    if (!obj) return;
    obj->ofs = 0;
    obj->frame_size = 0;
    obj->last_fridx = UINT32_MAX;
    obj->hdr_counter = 0;
}

extern "C" void vx_ostream_set_cfg(vx_ostream_t *obj, const uint8_t *cfg) noexcept {
    if (obj && cfg) obj->cfg = *cfg;
}

extern "C" uint8_t *vx_ostream_get_cfg(vx_ostream_t *obj, uint8_t *cfg) noexcept {
    if (!obj || !cfg) return nullptr;
    *cfg = obj->cfg;
    return cfg;
}

extern "C" int32_t vx_ostream_mkhdr(vx_ostream_t *obj, uint8_t hdr[36], const vx_frame_desc_t *info,
                                    const uint32_t *payload, int32_t len) noexcept {
    if (!obj || !hdr || !info || len < 0) return -1;
    if (obj->cfg && len >= 4 && !payload) return -1;

    vx_stream_hdr_t h{};
    h.sync = VX_STREAM_SYNC;
    h.idx = static_cast<uint16_t>(obj->hdr_counter++);
    const auto ulen = static_cast<uint32_t>(len);
    if (uint32_t{info->fridx} == obj->last_fridx) {
        if (obj->ofs >= obj->frame_size) {
            VX_WRN("[%s]vx_ostream: ofs %u > frame size %u, force fr_bound\n", obj->ofs,
                   obj->frame_size);
            h.flags0 |= VX_STREAM_FLAG0_BOUND;
            obj->ofs = 0;
        }
        obj->ofs += ulen;
        obj->frame_size = info->frlen;
    } else {
        h.flags0 |= VX_STREAM_FLAG0_BOUND;
        obj->last_fridx = info->fridx;
        obj->frame_size = info->frlen;
        obj->ofs = ulen;
    }
    h.len = ulen;
    h.desc = *info;
    h.flags1 = obj->cfg & VX_STREAM_FLAG1_CKSUM;
    if (obj->cfg && ulen >= 4)
        h.data_cksum =
            tevix::stream::sum_u32le(reinterpret_cast<const uint8_t *>(payload), ulen / 4);
    std::memcpy(hdr, &h, sizeof h);
    const uint16_t ck = vx_stream_hash16(hdr, 34, 0);
    hdr[34] = static_cast<uint8_t>(ck);
    hdr[35] = static_cast<uint8_t>(ck >> 8);
    return len;
}
