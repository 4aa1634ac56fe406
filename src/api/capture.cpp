// Capture engine: start and stop, backend events into the stream assembler, pulls with
// time-outs, frame-ready and error callbacks on the pulling thread.
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "api/session.h"
#include "drivers/drv.h"
#include "log/log.h"
#include "platform/platform.h"

using tevix::api::busy_guard;
using tevix::api::dev_check;

namespace {

constexpr uint32_t k_max_timeouts = 33;       // accumulated over the whole capture
constexpr uint32_t k_max_stalls = 17;         // consecutive
constexpr uint32_t k_callback_buf = 4194304;  // callback-only delivery buffer
constexpr uint32_t k_one_year_ms = 31536000;
constexpr uint64_t k_fb_log_interval_ms = 10000;

uint32_t _ready_count(tevix_session *s) {
    return vx_stream_fetch_frames(s->stream, nullptr, 0, UINT_MAX, nullptr, true);
}

void _drain(tevix_session *s) {
    while (vx_stream_fetch_frames(s->stream, nullptr, 0, UINT_MAX, nullptr, false) > 0) {
    }
}

// Event handler of the backend, on its event thread. It never blocks beyond the short capture
// mutex sections.
void _on_capture_event(tevix_ll_dev_t *, int32_t status, uint8_t *data, uint32_t len, void *user) {
    auto *dev = static_cast<tevix_dev_t *>(user);
    tevix_session *s = dev->session;
    if (!s) return;
    if (status == TEVIX_LL_EVT_DATA) {
        bool ready = len > 0 && vx_stream_feed_input(s->stream, data, len);
        std::lock_guard<std::mutex> lock(s->cap_mtx);
        s->n_stall = 0;
        if (ready) s->cap_cond.notify_all();
    } else {
        bool abort = false;
        {
            std::lock_guard<std::mutex> lock(s->cap_mtx);
            switch (status) {
                case -3:  // cancel
                    s->stop_req = 1;
                    abort = true;
                    break;
                case TEVIX_LL_EVT_TIMEOUT:
                    // Timeouts accumulate over the whole capture while stalls must be
                    // consecutive: only start resets this count.
                    if (++s->n_timeout >= k_max_timeouts && !s->stop_req) {
                        VX_WRN("[%s]trans timeout -> stop\n");
                        s->stop_req = 1;
                        s->pending_err = TEVIX_ERR_CAP_TIMEOUT;
                        s->pending_extra = 0;
                        abort = true;
                    }
                    break;
                case TEVIX_LL_EVT_STALL:
                    if (++s->n_stall >= k_max_stalls && !s->stop_req) {
                        VX_WRN("[%s]trans stall -> stop\n");
                        s->stop_req = 1;
                        s->pending_err = TEVIX_ERR_CAP_STALL;
                        s->pending_extra = 0;
                        abort = true;
                    }
                    break;
                default:
                    s->pending_err = status;
                    s->pending_extra = 0;
                    if (!s->stop_req) {
                        s->stop_req = 1;
                        abort = true;
                    }
                    break;
            }
            s->cap_cond.notify_all();
        }
        if (abort) tevix_ll_cap_abort(&s->ll);
        if (status != -3 && status != TEVIX_LL_EVT_TIMEOUT && status != TEVIX_LL_EVT_STALL) return;
    }

    vx_stream_state_t st{};
    vx_stream_get_state(s->stream, &st);
    std::lock_guard<std::mutex> lock(s->cap_mtx);
    // Frames lost either way: incomplete ones and those dropped from a full ready list.
    uint32_t lost = st.discarded + st.overflow;
    uint32_t lost_before = s->last_state.discarded + s->last_state.overflow;
    if (lost > lost_before) {
        VX_DBG("[%s]trans discard %d frames\n", static_cast<int>(lost - lost_before));
        s->pending_err = TEVIX_ERR_CAP_FRAME_DISCARD;
        s->pending_extra = lost;
    }
    uint64_t now = tevix::plat::mono_ms();
    if (s->dev_mode == 0 && now - s->last_fb_log_ms >= k_fb_log_interval_ms) {
        s->last_fb_log_ms = now;
        VX_DBG("[%s]FB state: Idx:%d, Total:%d, rdyInBuf=%d, rdyMaxWL=%d\n", st.readied,
               st.completed, st.ready, st.ready_max);
    }
    s->last_state = st;
}

// Hands ready frames to the active request and the frame-ready callback, on the pulling thread.
uint32_t _cap_handle_rdy_data(tevix_dev_t *dev) {
    tevix_session *s = dev->session;
    int32_t err = 0;
    uint32_t extra = 0;
    {
        std::lock_guard<std::mutex> lock(s->cap_mtx);
        if (s->cap_cfg.on_cap_err && s->pending_err) {
            err = s->pending_err;
            extra = s->pending_extra;
            s->pending_err = 0;
            s->pending_extra = 0;
        }
    }
    if (err) {
        VX_DBG("[%s]error cb invoke: %s\n", tevix_error_name(err));
        if (!s->cap_cfg.on_cap_err(dev, err, extra)) {
            VX_DBG("[%s]error cb return false to stop capture\n");
            s->force_stop = 1;
            s->stop_req = 1;
        }
    }
    if (s->force_stop) {
        VX_DBG("[%s]error callback force cap to stop\n");
        return 0;
    }

    std::unique_ptr<uint8_t, decltype(&std::free)> temp(nullptr, &std::free);
    uint8_t *buf = nullptr;
    uint32_t room = 0;
    bool use_request = s->req.active && s->req.buf;
    if (use_request) {
        buf = s->req.buf;
        room = s->req.rem;
    } else if (s->cap_cfg.on_cap_frdy) {
        temp.reset(static_cast<uint8_t *>(std::malloc(k_callback_buf)));
        if (!temp) {
            VX_ERR("[%s]malloc failed\n");
            return 0;
        }
        buf = temp.get();
        room = k_callback_buf;
    }

    tevix_drv_t *drv = s->drv;
    uint32_t handled = 0;
    uint32_t want = s->req.active ? s->req.max - s->req.got : UINT_MAX;
    while (handled < want) {
        // A peek with a buffer of no room fills the descriptor without copying anything.
        vx_frame_desc_t desc{};
        uint8_t none = 0;
        if (vx_stream_fetch_frames(s->stream, &none, 0, 1, &desc, true) == 0) break;
        if (buf && room < desc.frlen) {
            // The frame stays for a pull with room for it.
            VX_WRN("[%s]Buffer size %u too small to keep frame (size=%u)\n", room, desc.frlen);
            s->req.full = true;
            break;
        }
        vx_stream_fetch_frames(s->stream, buf, static_cast<int32_t>(room), 1, nullptr, false);

        tevix_frame_info_t info{};
        if (drv && drv->ops->frame_get_info &&
            !drv->ops->frame_get_info(drv, &info, reinterpret_cast<const uint8_t *>(&desc))) {
            VX_ERR("[%s] driver frame_get_info failed!\n");
            info = tevix_frame_info_t{};
        }
        if (s->req.active && buf && drv && drv->ops->frame_raw_proc &&
            drv->ops->frame_raw_proc(drv, buf, 1, &info) == k_raw_proc_consumed)
            continue;
        s->last_info = info;
        if (s->req.active) {
            if (s->req.got == 0 && s->req.info_out) *s->req.info_out = info;
            ++s->req.got;
        }
        if (s->cap_cfg.on_cap_frdy && buf) {
            VX_TRC("[%s]frdy cb invoke: %u,%u\n", info.index, info.size);
            uint64_t t0 = tevix::plat::mono_us();
            tevix_frame_t frame{info, buf};
            s->cap_cfg.on_cap_frdy(dev, &frame);
            uint64_t us = tevix::plat::mono_us() - t0;
            VX_TRC("[%s]frdy cb (%u,%u) spends: %d.%03u ms\n", info.index, info.size,
                   static_cast<int>(us / 1000), static_cast<unsigned>(us % 1000));
        }
        tevix::api::record_frame(dev, buf, info, handled == 0);
        ++handled;
        if (use_request) {
            buf += desc.frlen;
            room -= desc.frlen;
            s->req.buf = buf;
            s->req.rem = room;
        }
    }
    VX_TRC("[%s]handle %u ready frames (reqmax: %d, rem: %d)\n", handled,
           static_cast<int>(s->req.max), static_cast<int>(s->req.max - s->req.got));
    return handled;
}

int _tevix_cap_get_frames(tevix_dev_t *dev, uint32_t frame_num, uint8_t *buf, uint32_t buf_size,
                          tevix_frame_info_t *info, uint32_t timeout_ms, const char *caller) {
    if (!dev || !dev->session || !dev->session->open || !dev->api_mutex || frame_num == 0) {
        VX_LOG_AS(VX_LOG_DBG, caller, "[%s]Wrong params\n");
        return -1;
    }
    busy_guard busy(dev);
    tevix_session *s = dev->session;
    tevix_drv_t *drv = s->drv;
    if (drv && drv->ops->need_data && buf) {
        tevix_frame_info_t fi{};
        if (drv->ops->need_data(drv, buf, TEVIX_DECODE_DIST, &fi)) {
            VX_LOG_AS(VX_LOG_TRC, caller, "[%s]get %d frames (drv)\n", 1);
            if (info) *info = fi;
            s->last_info = fi;
            return 1;
        }
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    VX_LOG_AS(VX_LOG_TRC, caller, "[%s]frame_num = %d, timeout_msec=%d\n",
              static_cast<int>(frame_num), static_cast<int>(timeout_ms));
    s->req.active = true;
    s->req.max = frame_num;
    s->req.buf = buf;
    s->req.rem = buf ? buf_size : 0;
    s->req.info_out = info;
    s->req.got = 0;
    s->req.full = false;
    {
        // With an error callback the error goes to the callback instead, on this thread.
        std::lock_guard<std::mutex> lock(s->cap_mtx);
        if (s->pending_err < 0 && !s->cap_cfg.on_cap_err) {
            int32_t err = s->pending_err;
            s->pending_err = 0;
            s->pending_extra = 0;
            s->req.active = false;
            return err;
        }
    }
    for (;;) {
        bool timed_out = false;
        {
            std::unique_lock<std::mutex> lock(s->cap_mtx);
            if (_ready_count(s) == 0 && !s->stop_req) {
                lock.unlock();
                tevix_ll_cap_wait(&s->ll);
                lock.lock();
                bool woke = s->cap_cond.wait_until(lock, deadline, [&] {
                    return s->stop_req || s->pending_err != 0 || _ready_count(s) > 0;
                });
                if (!woke) {
                    VX_LOG_AS(VX_LOG_INF, caller, "[%s] timeout ... (%s)\n",
                              std::strerror(ETIMEDOUT));
                    timed_out = true;
                }
            }
        }
        _cap_handle_rdy_data(dev);
        if (timed_out || s->req.full || s->req.got >= s->req.max || s->stop_req || timeout_ms == 0)
            break;
    }
    s->req.active = false;
    int result = static_cast<int>(s->req.got);
    if (s->capturing != 1) {
        VX_LOG_AS(VX_LOG_DBG, caller, "[%s]device is not capturing\n");
        result = TEVIX_ERR_CAP_WRONG_STATE;
    }
    VX_LOG_AS(VX_LOG_TRC, caller, "[%s]get %d frames\n", result);
    return result;
}

int _tevix_cap_stop(tevix_dev_t *dev) {
    tevix_session *s = dev->session;
    VX_TRC("[%s]Enter\n");
    s->stop_req = 1;
    VX_DBG("[%s]issue stop cmd\n");
    int r = tevix_ll_cap_stop(&s->ll);
    {
        std::lock_guard<std::mutex> lock(s->cap_mtx);
        s->cap_cond.notify_all();
    }
    s->capturing = r ? 0 : 1;
    tevix::api::record_stop(s);
    _drain(s);
    if (s->drv && s->drv->ops->on_cap_state) s->drv->ops->on_cap_state(s->drv, 0);
    VX_TRC("[%s]Exit\n");
    return r;
}

uint32_t _u32(const tevix_param_item_t &it, int i) {
    uint32_t v;
    std::memcpy(&v, it.value.u8 + 4 * i, 4);
    return v;
}

// Reads what the driver must know before frames arrive: rate, integration, format, frequency.
void _sync_stream_params(tevix_dev_t *dev, tevix_session *s) {
    tevix_param_item_t items[6] = {};
    const uint32_t ids[6] = {TEVIX_PARAM_FPS,       TEVIX_PARAM_MOD_FREQ, TEVIX_PARAM_FRM_FMT,
                             TEVIX_PARAM_DUAL_FREQ, TEVIX_PARAM_INTG1,    TEVIX_PARAM_INTG2};
    for (int i = 0; i < 6; ++i) items[i].id = ids[i];
    if (!tevix_param_batch_get(dev, items, 6)) return;
    tevix_drv_t *drv = s->drv;
    tevix_drv_ops *ops = drv ? drv->ops : nullptr;
    s->fps = _u32(items[0], 0);
    if (items[4].len == 8) {
        s->intg[0] = _u32(items[4], 0);
        s->intg[1] = _u32(items[4], 1);
        VX_DBG("[%s]intg_time:%d %d\n", s->intg[0], s->intg[1]);
    } else {
        uint16_t a, b;
        std::memcpy(&a, items[4].value.u8, 2);
        std::memcpy(&b, items[5].value.u8, 2);
        s->intg[0] = a;
        s->intg[1] = b;
    }
    if (ops && ops->on_update_intg_time) {
        ops->on_update_intg_time(drv, s->intg[0], 0);
        ops->on_update_intg_time(drv, s->intg[1], 1);
    }
    uint32_t fmt = _u32(items[2], 0) & 127;
    if (fmt == 14 || fmt == 17) {
        uint32_t f0 = _u32(items[3], 0), f1 = _u32(items[3], 1);
        if (f0 != s->mod_freq[0] || f1 != s->mod_freq[1]) {
            s->mod_freq[0] = f0;
            s->mod_freq[1] = f1;
            if (ops && ops->on_update_mod_freq) ops->on_update_mod_freq(drv, f0, f1);
        }
    } else {
        uint32_t f = _u32(items[1], 0);
        if (f != s->mod_freq[0]) {
            s->mod_freq[0] = f;
            if (ops && ops->on_update_mod_freq) ops->on_update_mod_freq(drv, f, 0);
        }
    }
}

int _tevix_cap_start(tevix_dev_t *dev) {
    tevix_session *s = dev->session;
    if (s->capturing && _tevix_cap_stop(dev)) s->capturing = 0;
    if (s->dev_mode == 0) _sync_stream_params(dev, s);
    uint32_t cfg = 0;
    if (!s->stream || *vx_stream_get_cfg(s->stream, &cfg) <= 1) {
        VX_ERR("[%s] capture buffer not set or size is not correct \n");
        return 0;
    }
    VX_TRC("[%s]Enter ... \n");
    {
        std::lock_guard<std::mutex> lock(s->cap_mtx);
        s->stop_req = 0;
        s->n_timeout = s->n_stall = 0;
        s->discard_reported = 0;
        s->pending_err = 0;
        s->pending_extra = 0;
        s->force_stop = 0;
        s->last_state = vx_stream_state_t{};
    }
    vx_stream_reset(s->stream);
    tevix::api::record_start(dev);
    _drain(s);
    VX_DBG("[%s]issue start cmd\n");
    uint32_t mode = (s->type == TEVIX_DEV_FILE && s->cap_cfg.file_replay_mode) ? 1 : 0;
    if (!tevix_ll_cap_start(&s->ll, mode, _on_capture_event, dev)) return 0;
    s->capturing = 1;
    if (s->drv && s->drv->ops->on_cap_state) s->drv->ops->on_cap_state(s->drv, 1);
    return 1;
}

// Takes over a whole configuration; the session keeps its own copy of the file name.
void _take_config(tevix_session *s, const tevix_cap_cfg_t *cfg) {
    s->cap_cfg = *cfg;
    if (cfg->save_file) {
        std::snprintf(s->save_file, sizeof s->save_file, "%s", cfg->save_file);
        s->cap_cfg.save_file = s->save_file;
    } else {
        s->save_file[0] = '\0';
    }
}

}  // namespace

namespace tevix::api {

int capture_stop_for_close(tevix_dev_t *dev) {
    tevix_session *s = dev->session;
    if (!s || !s->capturing) return 1;
    return _tevix_cap_stop(dev);
}

}  // namespace tevix::api

extern "C" {

int tevix_cap_config_set(tevix_dev_t *dev, const tevix_cap_cfg_t *cfg) noexcept {
    if (!dev || !cfg) return 0;
    tevix_session *s = dev->session;
    if (!s || !s->open) {
        VX_WRN("[%s]Cannot set capture config when device is closed \n");
        return 1;
    }
    VX_TRC("[%s]cap: buffer=%d, en_save=[replay/dist/gray/manual:%d/%d/%d/%d]\n",
           static_cast<int>(cfg->cache_frames_cnt), cfg->save_replay, cfg->save_dist,
           cfg->save_gray, cfg->save_manual);
    if (s->capturing) {
        if (cfg->cache_frames_cnt != s->cap_cfg.cache_frames_cnt)
            VX_WRN("[%s]Change cache_frames_cnt %d to %d is not allowed during capturing\n",
                   static_cast<int>(s->cap_cfg.cache_frames_cnt),
                   static_cast<int>(cfg->cache_frames_cnt));
        bool want = cfg->save_file && (cfg->save_replay || cfg->save_dist || cfg->save_gray);
        bool now = false;
        {
            std::lock_guard<std::mutex> lock(s->rec_mtx);
            now = s->rec != nullptr;
        }
        bool same_name = !cfg->save_file || !s->save_file[0] ||
                         std::strncmp(cfg->save_file, s->save_file, 512) == 0;
        if (want == now && same_name) {
            // Only the callbacks, the replay mode and the save switches change.
            s->cap_cfg.on_cap_frdy = cfg->on_cap_frdy;
            s->cap_cfg.on_cap_err = cfg->on_cap_err;
            s->cap_cfg.file_replay_mode = cfg->file_replay_mode;
            s->cap_cfg.save_manual = cfg->save_manual;
            s->cap_cfg.save_replay = cfg->save_replay;
            s->cap_cfg.save_dist = cfg->save_dist;
            s->cap_cfg.save_gray = cfg->save_gray;
            return 1;
        }
        tevix::api::record_stop(s);
        uint32_t keep = s->cap_cfg.cache_frames_cnt;
        _take_config(s, cfg);
        s->cap_cfg.cache_frames_cnt = keep;
        tevix::api::record_start(dev);
        return 1;
    }
    _take_config(s, cfg);
    VX_TRC("[%s]set callback : on_cap_frdy->%p, on_cap_err->%p\n",
           reinterpret_cast<void *>(cfg->on_cap_frdy), reinterpret_cast<void *>(cfg->on_cap_err));
    if (s->stream) {
        s->fb_slots = cfg->cache_frames_cnt;
        vx_stream_set_cfg(s->stream, &s->fb_slots);
    }
    return 1;
}

int tevix_cap_config_get(tevix_dev_t *dev, tevix_cap_cfg_t *cfg) noexcept {
    if (!dev || !cfg || !dev->session) return 0;
    *cfg = dev->session->cap_cfg;
    cfg->cache_frames_cnt = dev->session->fb_slots;
    return 1;
}

int tevix_cap_set_callback_on_frame_ready(tevix_dev_t *dev, tevix_cap_frdy_cb cb) noexcept {
    if (!dev_check(dev, __func__)) return 0;
    busy_guard busy(dev);
    dev->session->cap_cfg.on_cap_frdy = cb;
    VX_DBG("[%s]set on_cap_frdy to %p\n", reinterpret_cast<void *>(cb));
    return 1;
}

int tevix_cap_set_callback_on_error(tevix_dev_t *dev, tevix_cap_err_cb cb) noexcept {
    if (!dev_check(dev, __func__)) return 0;
    busy_guard busy(dev);
    dev->session->cap_cfg.on_cap_err = cb;
    VX_DBG("[%s]set on_cap_err to %p\n", reinterpret_cast<void *>(cb));
    return 1;
}

int tevix_cap_start(tevix_dev_t *dev) noexcept {
    if (!dev_check(dev, __func__)) return 0;
    busy_guard busy(dev);
    return _tevix_cap_start(dev);
}

int tevix_cap_stop(tevix_dev_t *dev) noexcept {
    if (!dev_check(dev, __func__)) return 0;
    busy_guard busy(dev);
    return _tevix_cap_stop(dev);
}

int tevix_cap_is_ongoing(tevix_dev_t *dev) noexcept {
    if (!dev || !dev->session) return 0;
    return dev->session->capturing == 1 && !dev->session->stop_req;
}

int tevix_cap_get_frames(tevix_dev_t *dev, uint32_t frame_num, uint8_t *buf, uint32_t buf_size,
                         tevix_frame_info_t *first_frame_info) noexcept {
    uint32_t timeout = 0;
    if (dev && dev->session) {
        tevix_session *s = dev->session;
        if (s->fps == 0) s->fps = 20;
        if (s->cap_mode)
            timeout = k_one_year_ms;
        else
            timeout = frame_num * 100 + (1000 / s->fps) * frame_num + 2000;
    }
    return _tevix_cap_get_frames(dev, frame_num, buf, buf_size, first_frame_info, timeout,
                                 __func__);
}

int tevix_cap_get_frame(tevix_dev_t *dev, uint8_t *buf, uint32_t buf_size,
                        tevix_frame_info_t *frame_info) noexcept {
    return _tevix_cap_get_frames(dev, 1, buf, buf_size, frame_info, 0, __func__);
}

int tevix_cap_snapshot(tevix_dev_t *dev, uint8_t *buf, uint32_t buf_size,
                       tevix_frame_info_t *frame_info) noexcept {
    if (!dev || !dev->session || !dev->session->open) {
        VX_ERR("[%s]wrong parameters\n");
        return 0;
    }
    if (dev->session->capturing)
        return tevix_cap_get_frames(dev, 1, buf, buf_size, frame_info) == 1;
    if (!tevix_cap_start(dev)) return 0;
    int n = tevix_cap_get_frames(dev, 1, buf, buf_size, frame_info);
    tevix_cap_stop(dev);
    return n == 1;
}

int tevix_cap_save_frame(tevix_dev_t *dev, const uint8_t *data, uint32_t len,
                         const tevix_frame_info_t *frame_info) noexcept {
    if (!dev || !dev->session || !data || !frame_info) return -22;
    if (len != frame_info->size) {
        VX_DBG("[%s]wrong frame len: %u (expect %u)\n", len, frame_info->size);
        return -22;
    }
    return tevix::api::record_save_frame(dev, data, len, *frame_info);
}

int tevix_cap_seek_frame(tevix_dev_t *dev, uint32_t frame_idx, uint32_t whence) noexcept {
    if (!dev_check(dev, __func__)) return -1;
    if (dev->session->type != TEVIX_DEV_FILE) return -1;
    busy_guard busy(dev);
    return tevix_ll_cap_seek(&dev->session->ll, frame_idx, whence);
}

}  // extern "C"
