// Parameter, register and filter control.
#include <cstring>
#include <memory>
#include <new>

#include "api/session.h"
#include "drivers/drv.h"
#include "log/log.h"

using tevix::api::busy_guard;
using tevix::api::dev_check;

namespace {

uint32_t _u32(const tevix_param_item_t &it, int i) {
    uint32_t v;
    std::memcpy(&v, it.value.u8 + 4 * i, 4);
    return v;
}

uint16_t _u16(const tevix_param_item_t &it) {
    uint16_t v;
    std::memcpy(&v, it.value.u8, 2);
    return v;
}

std::unique_ptr<tevix_param_wire_t[]> _wire_alloc(uint32_t count) {
    // One element at least, so that an empty batch still has a valid buffer to send.
    return std::unique_ptr<tevix_param_wire_t[]>(new (std::nothrow)
                                                     tevix_param_wire_t[count ? count : 1]());
}

// Mirrors an accepted parameter into the session, the driver and the recording.
void _apply_host_side(tevix_session *s, const tevix_param_item_t &it) {
    tevix_drv_t *drv = s->drv;
    tevix_drv_ops *ops = drv ? drv->ops : nullptr;
    switch (it.id) {
        case TEVIX_PARAM_DEV_MOD:
            s->dev_mode = _u32(it, 0);
            VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set DEV_MOD: %d\n", s->dev_mode);
            break;
        case TEVIX_PARAM_MOD_FREQ: {
            uint32_t f = _u32(it, 0);
            if (ops && ops->on_update_mod_freq) ops->on_update_mod_freq(drv, f, 0);
            s->mod_freq[0] = s->mod_freq[1] = f;
            tevix::api::session_record_int(s, "VX_FRAME_MOD_FREQ", f);
            VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set MOD_FREQ: %d\n", f);
            break;
        }
        case TEVIX_PARAM_ROI: {
            tevix_roi_t roi;
            std::memcpy(&roi, it.value.u8, sizeof roi);
            if (ops && ops->on_update_roi) ops->on_update_roi(drv, &roi);
            tevix::api::session_record_raw(s, "VX_FRAME_ROI_INFO", it.value.u8, 13);
            VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set ROI: TL @ [%u, %u], BR @ [%u, %u]\n",
                      roi.left, roi.top, roi.right, roi.bottom);
            break;
        }
        case TEVIX_PARAM_FRM_FMT:
            s->frame_format = _u32(it, 0);
            if (ops && ops->on_update_frame_format)
                ops->on_update_frame_format(drv, s->frame_format);
            tevix::api::session_record_int(s, "VX_FRAME_FMT", s->frame_format);
            VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set FRM_FMT: %d\n", s->frame_format);
            break;
        case TEVIX_PARAM_FPS:
            s->fps = _u32(it, 0);
            if (ops && ops->on_update_fps) ops->on_update_fps(drv, s->fps);
            tevix::api::session_record_int(s, "VX_FRAME_FPS", s->fps);
            VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set FPS:%d\n", s->fps);
            break;
        case TEVIX_PARAM_INTG1:
        case TEVIX_PARAM_INTG2: {
            uint8_t index = it.id == TEVIX_PARAM_INTG1 ? 0 : 1;
            s->intg[index] = _u16(it);
            if (ops && ops->on_update_intg_time)
                ops->on_update_intg_time(drv, s->intg[index], index);
            tevix::api::session_record_int(s, index ? "VX_CONF_INTG2_US" : "VX_CONF_INTG1_US",
                                           s->intg[index]);
            if (index)
                VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set INTG2: %d\n", s->intg[1]);
            else
                VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set INTG1: %d\n", s->intg[0]);
            break;
        }
        case TEVIX_PARAM_FRAME_COUNT:
            if (ops && ops->on_update_frame_count) ops->on_update_frame_count(drv, _u16(it));
            break;
        case TEVIX_PARAM_DUAL_FREQ: {
            if (!ops || !ops->on_update_mod_freq) break;
            uint32_t f0 = _u32(it, 0), f1 = _u32(it, 1);
            ops->on_update_mod_freq(drv, f0, f1);
            s->mod_freq[0] = f0;
            s->mod_freq[1] = f1;
            tevix::api::session_record_int(s, "VX_FRAME_MOD_FREQ", f0);
            tevix::api::session_record_int(s, "VX_FRAME_MOD_FREQ1", f1);
            VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set DUAL-FREQ: %u, %u\n", f0, f1);
            break;
        }
        case TEVIX_PARAM_DEV_CAP_MOD:
            s->cap_mode = _u32(it, 0);
            VX_LOG_AS(2, "tevix_param_batch_set", "[%s]Set DEV_CAP_MOD: %d %d\n", s->cap_mode,
                      _u32(it, 1));
            break;
        default:
            break;
    }
}

}  // namespace

namespace {

// Shared by the two filter calls: finds the driver, then runs op on it under the busy count.
template <class Op>
int _filter_call(tevix_dev_t *dev, const char *caller, Op op) {
    if (!dev) return -1;
    if (!dev_check(dev, caller)) return -1;
    busy_guard busy(dev);
    tevix_session *s = dev->session;
    if (!s->drv) s->drv = tevix_drv_find(dev);
    if (!s->drv) {
        VX_LOG_AS(VX_LOG_ERR, caller, "[%s]cannot find driver for device: product=%s\n",
                  dev->product);
        // The count stays raised here by design: a later close waits out its full timeout.
        busy.keep_raised();
        return -1;
    }
    return op(s->drv) ? 0 : -1;
}

}  // namespace

extern "C" {

int tevix_param_batch_set(tevix_dev_t *dev, tevix_param_item_t *items, uint32_t count) noexcept {
    if (!dev_check(dev, __func__)) return 0;
    if (!items && count > 0) return 0;
    busy_guard busy(dev);
    tevix_session *s = dev->session;
    auto wire = _wire_alloc(count);
    if (!wire) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        // 171 travels as 18; a read keeps the id as it is, so the mapping is one-way.
        wire[i].id = items[i].id == TEVIX_PARAM_CALIB_DATA ? 18 : static_cast<uint8_t>(items[i].id);
        wire[i].len = items[i].len;
        std::memcpy(wire[i].value, items[i].value.u8, sizeof wire[i].value);
    }
    VX_LOG_AS(0, "_tevix_param_batch_set", "[%s]set %d param\n", static_cast<int>(count));
    if (!tevix_ll_param_set(&s->ll, wire.get(), count)) return 0;
    for (uint32_t i = 0; i < count; ++i) _apply_host_side(s, items[i]);
    return 1;
}

int tevix_param_batch_get(tevix_dev_t *dev, tevix_param_item_t *items, uint32_t count) noexcept {
    if (!dev_check(dev, __func__)) return 0;
    if (!items && count > 0) return 0;
    busy_guard busy(dev);
    tevix_session *s = dev->session;
    auto wire = _wire_alloc(count);
    if (!wire) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        wire[i].id = static_cast<uint8_t>(items[i].id);
        wire[i].len = items[i].len;
    }
    VX_LOG_AS(0, "_tevix_param_batch_get", "[%s]get %d param\n", static_cast<int>(count));
    if (!tevix_ll_param_get(&s->ll, wire.get(), count)) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        items[i].len = wire[i].len;
        std::memcpy(items[i].value.u8, wire[i].value, sizeof wire[i].value);
    }
    return 1;
}

int tevix_reg_batch_write(tevix_dev_t *dev, uint8_t target, uint32_t reg_base,
                          const uint32_t *values, uint16_t count) noexcept {
    VX_TRC("[%s]target=%d,reg_base=%d,reg_cnt=%d,val_buf=%p\n", target, reg_base, count,
           static_cast<const void *>(values));
    if (!dev_check(dev, __func__)) return 0;
    if (!values && count > 0) return 0;
    busy_guard busy(dev);
    // The transport sends the words as they are; it never writes through this pointer.
    auto *data = reinterpret_cast<uint8_t *>(const_cast<uint32_t *>(values));
    return tevix_ll_reg_write(&dev->session->ll, target, reg_base, data, count);
}

int tevix_reg_batch_read(tevix_dev_t *dev, uint8_t target, uint32_t reg_base, uint32_t *values,
                         uint16_t count) noexcept {
    VX_TRC("[%s]target=%d,reg_base=%d,reg_cnt=%d,val_buf=%p\n", target, reg_base, count,
           static_cast<void *>(values));
    if (!dev_check(dev, __func__)) return 0;
    if (!values && count > 0) return 0;
    busy_guard busy(dev);
    return tevix_ll_reg_read(&dev->session->ll, target, reg_base,
                             reinterpret_cast<uint8_t *>(values), count);
}

int tevix_filter_enable(tevix_dev_t *dev, uint32_t filter_id,
                        const tevix_filter_arg_t *filter_arg) noexcept {
    return _filter_call(dev, __func__, [&](tevix_drv_t *drv) {
        return drv->ops->filter_enable && drv->ops->filter_enable(drv, filter_id, filter_arg);
    });
}

int tevix_filter_disable(tevix_dev_t *dev, uint32_t filter_id) noexcept {
    return _filter_call(dev, __func__, [&](tevix_drv_t *drv) {
        return drv->ops->filter_disable && drv->ops->filter_disable(drv, filter_id);
    });
}

}  // extern "C"
