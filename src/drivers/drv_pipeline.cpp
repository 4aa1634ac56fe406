// Pipeline stages shared by the sensor drivers (see drv_pipeline.h).
#include "drivers/drv_pipeline.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "drivers/epc/epc_kernels.h"
#include "log/log.h"
#include "platform/platform.h"
#include "tevix/tevix_param.h"

namespace tevix::drv {

namespace {

constexpr uint16_t k_fmt_calib = 171;
constexpr uint16_t k_fmt_grey = 11;
constexpr int32_t k_raw_grey = 56506;

// Process-wide time of the last automatic integration adjustment.
std::atomic<uint64_t> g_auto_intg_us{0};
std::atomic<bool> g_auto_intg_done{false};

int16_t _median7(const int16_t *ring) {
    int16_t v[k_temp_ring];
    std::copy(ring, ring + k_temp_ring, v);
    std::nth_element(v, v + k_temp_ring / 2, v + k_temp_ring);
    return v[k_temp_ring / 2];
}

void _temp_filter(drv_state &s, int16_t *tcb, int16_t *tib) {
    if (!s.ring_full) return;
    const int16_t mcb = _median7(s.ring_cb), mib = _median7(s.ring_ib);
    const int16_t hcb = *tcb, hib = *tib;
    if (std::abs(hcb - mcb) > 100) {
        *tcb = mcb;
        VX_LOG_AS(VX_LOG_DBG, s.names->get_info,
                  "[%s]cb temp jump: Tcb in hdr=%d, Tcb filterd=%d\n", hcb, mcb);
    }
    if (std::abs(hib - mib) > 100) {
        *tib = mib;
        VX_LOG_AS(VX_LOG_DBG, s.names->get_info,
                  "[%s]ib temp jump: Tib in hdr=%d, Tib filterd=%d\n", hib, mib);
    }
}

void _temp_push(drv_state &s, int16_t tcb, int16_t tib) {
    s.ring_cb[s.ring_pos] = tcb;
    s.ring_ib[s.ring_pos] = tib;
    if (++s.ring_pos == k_temp_ring) {
        s.ring_pos = 0;
        s.ring_full = 1;
    }
}

void _temp_accept(drv_state &s, int16_t tcb, int16_t tib) {
    if (tib >= -300 && tib <= 900 && std::abs(tib - tcb) <= 600) {
        if (tcb < -40 || tcb > 1000)
            VX_LOG_AS(VX_LOG_WRN, s.names->get_info,
                      "[%s]wrong CB temp %d detected: distance value may be wrong \n", tcb);
        s.tcb = tcb;
        s.tib = tib;
        return;
    }
    const bool already = s.tib == s.tcb - 100 && s.tib != 0;
    if (!already)
        VX_LOG_AS(VX_LOG_WRN, s.names->get_info,
                  "[%s]wrong IB temp %d detected: corrected to temp_cb - 10 (reported only once)\n",
                  tib);
    s.tcb = tcb;
    s.tib = static_cast<int16_t>(tcb - 100);
}

void _feature_temp_monitor(drv_state &s, uint16_t format) {
    if (!s.temp_mon || format == k_fmt_calib) {
        VX_TRC("[%s]Temp monitor not enable\n");
        return;
    }
    const uint64_t now = tevix::plat::mono_ms();
    if (now - s.temp_report_ms <= 9000 && s.temp_report_ms != 0) return;
    s.temp_report_ms = now;
    VX_DBG("[%s]Tib:%.2f, Tcb:%.2f, FPS:%.1f/%d\n", s.tib / 10.0, s.tcb / 10.0,
           static_cast<double>(s.fps), static_cast<int>(s.fps_host));
}

uint32_t _today_utc_midnight() {
    int64_t sec = 0;
    uint32_t usec = 0;
    tevix::plat::now_utc(&sec, &usec);
    return static_cast<uint32_t>(sec - sec % 86400);
}

template <class T>
bool _grow(T *&buf, uint32_t n) {
    void *q = std::realloc(buf, static_cast<size_t>(n) * sizeof(T));
    if (!q) return false;
    buf = static_cast<T *>(q);
    return true;
}

void _bfps_fill(drv_state &s, uint8_t *out) {
    const uint32_t fs = s.bfps_fs, q = fs / 4;
    uint8_t *old_f = s.bfps_buf, *new_f = s.bfps_buf + fs;
    VX_LOG_AS(VX_LOG_TRC, "_feature_bfps_fill_data",
              "[%s]bfps: frbuf=%p, frbuf_len=%d, fs=%d, roll=%d\n", static_cast<void *>(s.bfps_buf),
              s.bfps_len, fs, s.bfps_roll);
    const uint32_t roll = s.bfps_roll;
    if (roll == 0) {
        std::memcpy(out, old_f, fs);
        s.bfps_roll = q;
        return;
    }
    std::memcpy(out, new_f, roll);
    std::memcpy(out + roll, old_f + roll, fs - roll);
    if (roll == q) {
        s.bfps_roll = fs / 2;
    } else if (roll == fs / 2) {
        s.bfps_roll = 3 * q;
    } else {
        std::memmove(s.bfps_buf, new_f, fs);
        s.bfps_len = fs;
        s.bfps_roll = 0;
    }
}

// Lens undistortion is the device's lens-calibration setting, kept by the camera interface.
void _set_lens_calib(tevix_dev_t *dev, uint8_t on) {
    tevix_lens_calib_cfg_t *cfg = tevix_lens_calib_config_get(dev);
    if (!cfg) return;
    tevix_lens_calib_cfg_t next = *cfg;
    next.en_2d = on;
    tevix_lens_calib_config_set(dev, &next);
}

// Whether the local calibration file opens as a valid container; its timestamp into *ts.
bool _local_file_valid(const drv_state &s, uint32_t *ts) {
    tevix_param_handle_t h{};
    if (!tevix_param_open_file(&h, s.param_path)) return false;
    *ts = h.hdr.ts;
    tevix_param_close(&h);
    return true;
}

}  // namespace

void die_malloc(const char *name) {
    VX_LOG_AS(VX_LOG_ERR, name, "[%s]malloc failed\n");
    std::exit(-3);
}

tevix_param_item_t param_item(uint32_t id, uint8_t len) {
    tevix_param_item_t it{};
    it.id = id;
    it.len = len;
    return it;
}

uint32_t item_u32(const tevix_param_item_t &it, int i) {
    uint32_t v;
    std::memcpy(&v, it.value.u8 + 4 * i, 4);
    return v;
}

bool param_set_u32(tevix_dev_t *dev, uint32_t id, uint32_t value, uint8_t len) {
    tevix_param_item_t it = param_item(id, len);
    std::memcpy(it.value.u8, &value, 4);
    return tevix_param_batch_set(dev, &it, 1) != 0;
}

void send_host_clock(tevix_dev_t *dev) {
    int64_t sec = 0;
    uint32_t usec = 0;
    tevix::plat::now_utc(&sec, &usec);
    tevix_param_item_t clk = param_item(TEVIX_PARAM_HOST_CLOCK, 8);
    clk.value.u32[0] = static_cast<uint32_t>(sec);
    clk.value.u32[1] = usec + 100;
    tevix_param_batch_set(dev, &clk, 1);
}

bool product_fields(const tevix_dev_t *dev, char (&model)[17], char (&chip)[17], char (&rev)[17]) {
    model[0] = chip[0] = rev[0] = '\0';
    char product[sizeof dev->product + 1];
    std::memcpy(product, dev->product, sizeof dev->product);
    product[sizeof dev->product] = '\0';
    return std::sscanf(product, "%16[^-]-%16[^-]-%16[^-]", model, chip, rev) == 3;
}

void read_sys_calib(drv_state &s, tevix_dev_t *dev, bool log_invalid, bool *ok) {
    tevix_param_item_t it = param_item(TEVIX_PARAM_SYS_CALIB, 9);
    const bool valid = tevix_param_batch_get(dev, &it, 1) && it.value.u8[8] != 0;
    if (valid) {
        s.sys_scale = it.value.f32[0];
        s.sys_offset = it.value.f32[1];
    } else if (log_invalid) {
        VX_LOG_AS(VX_LOG_ERR, s.names->filter_enable, "[%s]Sys calib param not valid\n");
    }
    if (ok) *ok = valid;
}

void bpf_reload(drv_state &s, bool force) {
    if (!force && s.bpf_ok && s.bpf_ss == s.bpf_ss_built && s.bpf_sr == s.bpf_sr_built &&
        s.bpf_min == s.bpf_min_built && s.bpf_max == s.bpf_max_built)
        return;
    VX_LOG_AS(VX_LOG_DBG, "_filter_bpf_reload_parameter", "[%s]bpf2d_iir reload: %f/%f/%u/%u\n",
              static_cast<double>(s.bpf_ss), static_cast<double>(s.bpf_sr), s.bpf_min, s.bpf_max);
    std::lock_guard<std::mutex> lock(s.filter_mtx);
    vx_bpf2d_iir_uninit(&s.bpf);
    s.bpf_ss_built = s.bpf_ss;
    s.bpf_sr_built = s.bpf_sr;
    s.bpf_min_built = s.bpf_min;
    s.bpf_max_built = s.bpf_max;
    s.bpf_ok =
        vx_bpf2d_iir_init(&s.bpf, s.width, s.height, s.bpf_ss, s.bpf_sr, s.bpf_min, s.bpf_max);
    if (!s.bpf_ok)
        VX_LOG_AS(VX_LOG_ERR, "_filter_bpf_reload_parameter", "[%s]vx_bpf2d_iir_init failed\n");
}

bool frame_info(drv_state &s, const tevix_dev_t *dev, tevix_frame_info_t *info, const uint8_t *raw,
                uint32_t def_w, uint32_t def_h) {
    std::memset(info, 0, sizeof *info);
    uint32_t size, time_word;
    uint16_t idx, fmt, w, h;
    int16_t tcb, tib;
    std::memcpy(&size, raw, 4);
    std::memcpy(&idx, raw + 4, 2);
    std::memcpy(&fmt, raw + 6, 2);
    std::memcpy(&w, raw + 8, 2);
    std::memcpy(&h, raw + 10, 2);
    std::memcpy(&tcb, raw + 12, 2);
    std::memcpy(&tib, raw + 14, 2);
    std::memcpy(&time_word, raw + 16, 4);

    if (fmt != k_fmt_calib) {
        if (!dev || dev->type != TEVIX_DEV_FILE) {
            const int16_t hcb = tcb, hib = tib;
            _temp_filter(s, &tcb, &tib);
            _temp_push(s, hcb, hib);
        }
        _temp_accept(s, tcb, tib);
    }
    _feature_temp_monitor(s, fmt);

    info->size = size;
    info->format = fmt;
    info->index = idx;
    info->width = w ? w : def_w;
    info->height = h ? h : def_h;
    if (fmt < 256)
        info->depth = (size / info->width / info->height) & 0xFF;
    else
        info->depth = time_word;
    info->temperature =
        static_cast<uint16_t>(s.tcb) | (static_cast<uint32_t>(static_cast<uint16_t>(s.tib)) << 16);
    info->ts_sec = _today_utc_midnight() + (time_word & 0x1F) * 3600 +
                   ((time_word >> 5) & 0x3F) * 60 + ((time_word >> 11) & 0x3F);
    info->ts_usec = (time_word >> 17) * 64;
    if (fmt < 256 && fmt != k_fmt_calib && size % (info->width * info->height) != 0) {
        VX_LOG_AS(VX_LOG_ERR, s.names->get_info, "[%s]Wrong frame size %d,%d (%d,%d)\n", size,
                  info->depth, info->width, info->height);
        return false;
    }
    s.frame_pending = 1;

    ++s.frame_cnt;
    const uint64_t now = tevix::plat::mono_ms();
    if (s.fps_host_set) {
        s.fps = static_cast<float>(s.fps_host);
        s.fps_host_set = 0;
        s.meas_cnt = s.frame_cnt;
        s.meas_ms = now;
    } else if (s.meas_ms == 0) {
        s.meas_cnt = s.frame_cnt;
        s.meas_ms = now;
    } else if (now - s.meas_ms >= 3000) {
        const uint16_t frames = static_cast<uint16_t>(s.frame_cnt - s.meas_cnt);
        s.fps = static_cast<float>(frames * 1000.0 / static_cast<double>(now - s.meas_ms));
        s.meas_cnt = s.frame_cnt;
        s.meas_ms = now;
    }
    return true;
}

void auto_intg(drv_state &st, tevix_dev_t *dev, const uint16_t *samples, uint32_t count) {
    if (!st.auto_intg || !st.auto_intg_th || st.hdr ||
        (g_auto_intg_done && tevix::plat::mono_us() - g_auto_intg_us < 2000))
        return;
    drv_state *p = &st;
    const tevix::epc::sample_stats s = tevix::epc::classify_samples(samples, count);
    const uint32_t bad_pct =
        s.samples ? static_cast<uint32_t>(static_cast<uint64_t>(s.bad) * 1000 / s.samples) : 0;
    VX_LOG_AS(VX_LOG_TRC, "_feature_auto_intg_calc_step",
              "[%s]bad_pct:%d, bad_cnt:%d, cnt_high/low:%d,%d sat_ratio: %d,\n", bad_pct, s.bad,
              s.high, s.low, p->auto_intg_th);
    const int32_t step = tevix::epc::auto_intg_step(s, p->auto_intg_th);
    tevix_param_item_t it = param_item(TEVIX_PARAM_INTG1, 2);
    if (!tevix_param_batch_get(dev, &it, 1)) {
        VX_LOG_AS(VX_LOG_ERR, "_feature_auto_intg", "[%s]get intg failed\n");
    } else {
        const int32_t cur = it.value.u16[0];
        const int32_t next = std::clamp(cur + step, 50, 1500);
        if (next != cur) {
            VX_LOG_AS(VX_LOG_DBG, "_feature_auto_intg", "[%s]AUTO_INTG: %d->%d\n", cur, next);
            tevix_param_item_t set = param_item(TEVIX_PARAM_INTG1, 2);
            set.value.u16[0] = static_cast<uint16_t>(next);
            if (!tevix_param_batch_set(dev, &set, 1))
                VX_LOG_AS(VX_LOG_ERR, "_feature_auto_intg",
                          "[%s]adjust intg from %d to %d failed\n", cur, next);
        }
    }
    g_auto_intg_us = tevix::plat::mono_us();
    g_auto_intg_done = true;
}

bool roi_resize(drv_state &s, const tevix_roi_t &roi, uint32_t w, uint32_t h) {
    VX_LOG_AS(VX_LOG_DBG, "on_update_roi", "[%s] roi updated: %ux%u @ (%u, %u), binning=%u\n", w, h,
              roi.left, roi.top, roi.binning);
    if (w == s.width && h == s.height) return false;
    s.width = w;
    s.height = h;
    bpf_reload(s, true);
    return true;
}

uint32_t dev_fps(const drv_state &s) {
    return s.fps_host ? s.fps_host : static_cast<uint32_t>(s.fps);
}

bool grow_work(drv_state &s, uint32_t n) {
    if (s.work_n >= n) return true;
    if (!_grow(s.dist32, n) || !_grow(s.conf_raw, n) || !_grow(s.work16, n)) return false;
    s.work_n = n;
    return true;
}

bool ensure_work(drv_state &s, uint32_t n) {
    if (s.work_n >= n && s.conf_n == n) return true;
    if (!grow_work(s, n)) return false;
    if (!_grow(s.conf, n)) {
        s.conf_n = 0;
        return false;
    }
    s.conf_n = n;
    return true;
}

void publish_conf(drv_state &s, uint32_t n) {
    if (s.work_n == s.conf_n && s.conf_n == n)
        std::swap(s.conf, s.conf_raw);
    else
        std::memcpy(s.conf, s.conf_raw, size_t{n} * 4);
}

bool grey_from_cache(drv_state &s, uint16_t *out, uint32_t n, const tevix_frame_info_t &info) {
    if (!s.conf || s.conf_n != n || s.hash != tevix::epc::info_hash(info)) return false;
    VX_LOG_AS(VX_LOG_TRC, s.names->decode, "[%s]use confid hash to calc gray ...\n");
    tevix::epc::grey_from_conf(s.conf, n, out);
    return true;
}

int32_t raw_proc(drv_state &s, uint8_t *raw, uint32_t count, tevix_frame_info_t *info) {
    if (!raw || !info || count != 1) return 0;
    const char *fn = s.names->raw_proc;
    if (info->format == k_fmt_grey) {
        std::lock_guard<std::mutex> lock(s.calib_mtx);
        if (s.grey_size < info->size) {
            VX_LOG_AS(VX_LOG_DBG, fn, "[%s]change gray size to %d\n", info->size);
            void *q = std::realloc(s.grey, info->size);
            if (!q) die_malloc(fn);
            s.grey = static_cast<uint8_t *>(q);
            s.grey_size = info->size;
        }
        if (s.grey_valid) {
            const int32_t div = s.grey_div ? s.grey_div : 1;
            for (uint32_t i = 0; i + 1 < info->size; i += 2) {
                uint16_t v16;
                std::memcpy(&v16, raw + i, 2);
                const auto v =
                    static_cast<int16_t>(((static_cast<int32_t>(v16) - 2048) / div) * s.grey_scale);
                std::memcpy(s.grey + i, &v, 2);
            }
        } else {
            std::memset(s.grey, 0, s.grey_size);
        }
        return k_raw_grey;
    }
    if (!s.bfps || s.sport) return 0;
    if (s.bfps_mode == 2) return 0;
    if (s.bfps_mode == 4 && dev_fps(s) > 19) {
        if (info->format != 2) return 0;
        const uint32_t fs = info->size;
        if (!s.bfps_buf || s.bfps_fs != fs) {
            if (s.bfps_buf)
                VX_LOG_AS(VX_LOG_DBG, fn,
                          "[%s]realloc bfps buffer since frame size changed : %d -> %d (blen=%d, "
                          "fsz=%d)\n",
                          s.bfps_fs, fs, s.bfps_len, fs);
            std::free(s.bfps_buf);
            s.bfps_buf = static_cast<uint8_t *>(std::calloc(4, fs));
            if (!s.bfps_buf) die_malloc(fn);
            s.bfps_fs = fs;
            s.bfps_len = 0;
            s.bfps_roll = 0;
            VX_LOG_AS(VX_LOG_DBG, fn, "[%s]alloc bfps buffer: frbuf_idx=%d, fsize=%d, fidx=%d\n", 0,
                      fs, info->index);
        }
        VX_LOG_AS(VX_LOG_TRC, fn, "[%s]bfps cache frame: buflen=%d, fridx=%d, frsz=%d\n",
                  s.bfps_len, info->index, fs);
        s.bfps_info = *info;
        if (s.bfps_len + fs > 4 * fs) {
            s.bfps_len = 0;
            s.bfps_roll = 0;
        }
        std::memcpy(s.bfps_buf + s.bfps_len, raw, fs);
        s.bfps_len += fs;
        _bfps_fill(s, raw);
        return 0;
    }
    s.bfps_info = *info;
    return 1;
}

bool need_data(drv_state &s, uint8_t *out, uint32_t kind, tevix_frame_info_t *info) {
    if (!out || !info) return false;
    const uint32_t fps = dev_fps(s);
    if (!s.bfps || kind != TEVIX_DECODE_DIST || s.sport || s.bfps_info.format != 2 ||
        s.bfps_mode != 4 || fps < 20 || !s.bfps_buf || s.bfps_len < s.bfps_roll + s.bfps_fs)
        return false;
    _bfps_fill(s, out);
    uint32_t d = fps ? 1000 / (4 * fps) : 5;
    if (fps && d > 1) d -= 1;
    uint32_t usec = s.bfps_info.ts_usec + d * 1000;
    s.bfps_info.ts_sec += usec / 1000000;
    s.bfps_info.ts_usec = usec % 1000000;
    *info = s.bfps_info;
    return true;
}

void *op_lens_bin_get(tevix_drv_t *drv) {
    drv_state *s = state_of(drv);
    return s ? s->lens_bin : nullptr;
}

uint32_t op_calib_freq_list_get(tevix_drv_t *drv, uint32_t *list, uint32_t *count) {
    drv_state *s = state_of(drv);
    const uint32_t n = s ? s->freq_list_n : 0;
    if (list && n) std::memcpy(list, s->freq_list, n * 4);
    if (count) *count = n;
    return n;
}

int32_t op_reserved9(tevix_drv_t *) {
    return 0;
}
int32_t op_reserved18(tevix_drv_t *, uint32_t, uint32_t, uint32_t) {
    return 0;
}
int32_t op_reserved19(tevix_drv_t *) {
    return 1;
}

void op_on_cap_state(tevix_drv_t *drv, uint32_t state) {
    drv_state *s = state_of(drv);
    if (!s || state) return;
    s->frame_cnt = s->meas_cnt = 0;
    s->meas_ms = 0;
    s->fps = 0.0f;
}

void op_on_update_fps(tevix_drv_t *drv, uint32_t fps) {
    drv_state *s = state_of(drv);
    if (!s) return;
    s->fps_host = fps;
    s->fps_host_set = 1;
}

void op_on_update_frame_format(tevix_drv_t *drv, uint32_t format) {
    drv_state *s = state_of(drv);
    if (!s) return;
    if (format == 4 || format == 1) {
        s->sport = 1;
        s->sport_level = format == 4 ? 1 : 0;
    } else {
        s->sport = 0;
    }
    read_sys_calib(*s, drv->dev, false, nullptr);
}

void op_on_update_frame_count(tevix_drv_t *drv, uint16_t count) {
    drv_state *s = state_of(drv);
    if (s) s->grey_div = count ? count : 1;
}

bool op_need_data(tevix_drv_t *drv, uint8_t *out, uint32_t kind, tevix_frame_info_t *info) {
    drv_state *s = state_of(drv);
    return s && need_data(*s, out, kind, info);
}

int32_t op_frame_raw_proc(tevix_drv_t *drv, uint8_t *raw, uint32_t count,
                          tevix_frame_info_t *info) {
    drv_state *s = state_of(drv);
    return s ? raw_proc(*s, raw, count, info) : 0;
}

void intg_time_update(drv_state &s, uint32_t value, uint8_t index) {
    if (index == 1) s.hdr = value != 0;
    VX_LOG_AS(VX_LOG_DBG, s.names->intg_time, "[%s]intg%d: %d, hdr_en=%d\n", index + 1, value,
              s.hdr);
}

bool filter_enable(drv_state &s, tevix_dev_t *dev, uint32_t id, const tevix_filter_arg_t *arg,
                   bool calibrated, uint32_t grey_full) {
    if (id > 14) return false;
    static const tevix_filter_arg_t zero{};
    const tevix_filter_arg_t &a = arg ? *arg : zero;
    const char *fn = s.names->filter_enable;
    switch (id) {
        case 0:
            s.lens_calib = 1;
            _set_lens_calib(dev, 1);
            return true;
        case 1:
            s.pix_calib = 1;
            if (!calibrated || (s.sport && s.sport_level == 1)) return false;
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]pix calib enabled\n");
            return true;
        case 2:
            s.smooth_variant = a.u8[0];
            s.smooth_strength = a.u8[1];
            s.smooth = 1;
            if (s.smooth_variant == 240) {
                s.bpf_ss = s.smooth_strength / 100.0f;
                s.bpf_sr = 0.05f;
                s.bpf_min = 4096;
                s.bpf_max = 0;
                if (s.smooth_strength > 66) {
                    s.smooth_level = 5;
                } else if (s.smooth_strength >= 11) {
                    s.smooth_level = 3;
                } else {
                    s.smooth_level = 0;
                    s.smooth = 0;
                }
            }
            bpf_reload(s, false);
            return true;
        case 3:
            return false;
        case 4:
            s.minamp = 1;
            s.minamp_th = a.u16[0];
            return true;
        case 5:
            s.auto_intg = 1;
            s.auto_intg_th = a.u16[0];
            return true;
        case 6:
            s.consist = 1;
            s.consist_val = a.u16[0];
            return true;
        case 7:
            s.temp_mon = 1;
            s.temp_mon_val = a.u16[0];
            return true;
        case 8: {
            tevix_param_item_t it[2] = {param_item(TEVIX_PARAM_INTG1, 2),
                                        param_item(TEVIX_PARAM_INTG2, 2)};
            it[0].value.u16[0] = a.u16[0];
            it[1].value.u16[0] = a.u16[1];
            if (!tevix_param_batch_set(dev, it, 2)) {
                VX_LOG_AS(VX_LOG_ERR, fn, "[%s]enable HDR failed\n");
                return false;
            }
            s.hdr = 1;
            s.hdr_setting = a.u32[0];
            return true;
        }
        case 9:
            if (s.offset_mm != a.s16[0])
                VX_LOG_AS(VX_LOG_DBG, fn, "[%s]offset_mm: %d -> %d\n", s.offset_mm, a.s16[0]);
            s.offset_mm = a.s16[0];
            s.offset_en = 1;
            return true;
        case 10: {
            const uint8_t level = a.u8[0];
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]Enable sport mode: %d\n", level);
            static constexpr uint32_t fmt[3] = {1, 4, 2};
            if (level > 2) {
                VX_LOG_AS(VX_LOG_ERR, fn, "[%s]wrong SPORT MODE: %d\n", level);
                return false;
            }
            if (!param_set_u32(dev, TEVIX_PARAM_FRM_FMT, fmt[level], 4)) {
                if (level == 0)
                    VX_LOG_AS(VX_LOG_ERR, fn, "[%s]enable SPORT MODE 0 failed\n");
                else
                    VX_LOG_AS(VX_LOG_ERR, fn, "[%s]enable SPORT MODE 1 failed\n");
                return false;
            }
            s.sport_level = level;
            s.sport = 1;
            return true;
        }
        case 11: {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]Enable sys calib\n");
            bool ok = false;
            read_sys_calib(s, dev, true, &ok);
            if (!ok) return false;
            s.sys_calib = 1;
            return true;
        }
        case 12: {
            std::lock_guard<std::mutex> lock(s.calib_mtx);
            if (!s.grey) {
                s.grey = static_cast<uint8_t *>(std::calloc(grey_full, 1));
                if (!s.grey) {
                    VX_LOG_AS(VX_LOG_ERR, fn, "[%s]malloc failed\n");
                    return false;
                }
                s.grey_size = grey_full;
            }
            s.grey_div = a.u16[0] ? a.u16[0] : 1;
            s.grey_scale = 1;
            return true;
        }
        case 13:
            s.flypix_level = std::min<uint8_t>(a.u8[0], 31);
            s.flypix = 1;
            return true;
        default:
            s.temp_comp = 1;
            return true;
    }
}

bool filter_disable(drv_state &s, tevix_dev_t *dev, uint32_t id) {
    if (id > 14 || id == 3) return false;
    const char *fn = s.names->filter_disable;
    switch (id) {
        case 0:
            s.lens_calib = 0;
            _set_lens_calib(dev, 0);
            return true;
        case 1:
            s.pix_calib = 0;
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]pix calib disabled\n");
            return true;
        case 2:
            s.smooth = 0;
            s.smooth_variant = s.smooth_strength = 0;
            return true;
        case 4:
            s.minamp = 0;
            std::free(s.marks);
            s.marks = nullptr;
            s.marks_n = 0;
            return true;
        case 5:
            s.auto_intg = 0;
            s.auto_intg_th = 0;
            return true;
        case 6:
            s.consist = 0;
            return true;
        case 7:
            s.temp_mon = 0;
            return true;
        case 8: {
            tevix_param_item_t it = param_item(TEVIX_PARAM_INTG2, 2);
            if (!tevix_param_batch_set(dev, &it, 1)) {
                VX_LOG_AS(VX_LOG_ERR, fn, "[%s]disable HDR failed\n");
                return false;
            }
            s.hdr = 0;
            s.hdr_setting = 0;
            return true;
        }
        case 9:
            s.offset_en = 0;
            return true;
        case 10:
            if (!param_set_u32(dev, TEVIX_PARAM_FRM_FMT, 2, 4)) {
                VX_LOG_AS(VX_LOG_ERR, fn, "[%s]disable sport mode failed\n");
                return false;
            }
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]Disable sport mode\n");
            s.sport = 0;
            return true;
        case 11:
            s.sys_calib = 0;
            return true;
        case 12:
            s.grey_scale = 0;
            return true;
        case 13:
            s.flypix = 0;
            return true;
        default:
            s.temp_comp = 0;
            return true;
    }
}

void release(drv_state &s) {
    {
        std::lock_guard<std::mutex> lock(s.filter_mtx);
        vx_bpf2d_iir_uninit(&s.bpf);
    }
    std::free(s.bfps_buf);
    std::free(s.conf);
    std::free(s.conf_raw);
    std::free(s.dist32);
    std::free(s.work16);
    s.bfps_buf = nullptr;
    s.conf = s.conf_raw = nullptr;
    s.dist32 = nullptr;
    s.work16 = nullptr;
    s.work_n = s.conf_n = 0;
    {
        std::lock_guard<std::mutex> lock(s.calib_mtx);
        std::free(s.grey);
        s.grey = nullptr;
    }
    std::free(s.marks);
    s.marks = nullptr;
    tevix_param_len_bin_free(s.lens_bin);
    s.lens_bin = nullptr;
}

int calib_trust_local(drv_state &s, tevix_dev_t *dev) {
    const char *fn = s.names->calib_load;
    if (!tevix_get_param_absolute_name(dev, s.param_path, sizeof s.param_path) ||
        !s.param_path[0]) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]cannot get param name!\n");
        return -1;
    }
    VX_LOG_AS(VX_LOG_DBG, fn, "[%s]param_name:%s\n", s.param_path);
    uint32_t local_ts = 0;
    bool valid = _local_file_valid(s, &local_ts);
    if (valid) {
        // Calibration information: u8 valid, u8 data present, u16 version, u32 stored size,
        // u32 data size, u32 timestamp.
        tevix_param_item_t info = param_item(TEVIX_PARAM_CALIB_INFO, 16);
        if (!tevix_param_batch_get(dev, &info, 1)) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s] get PARAM_INFO_CALIB failed!\n");
            valid = false;
        } else if (info.value.u8[0] != 1 || !info.value.u8[1]) {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s] No valid calib data on dev, use local cache!\n");
        } else if (info.value.u32[3] > local_ts) {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]local param (ts=%u) is not up-to-date (dev ts=%u)\n",
                      local_ts, info.value.u32[3]);
            valid = false;
        }
    }
    if (!valid) {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Try to load calib data from device ... \n");
        if (tevix_param_load_from_dev(dev)) {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Load calibration data from device OK\n");
            valid = _local_file_valid(s, &local_ts);
        } else {
            VX_LOG_AS(VX_LOG_INF, fn, "[%s]---- Load calibration data from device failed\n");
        }
    }
    std::lock_guard<std::mutex> lock(s.calib_mtx);
    s.local_valid = valid ? 1 : 0;
    return valid ? 1 : 0;
}

void write_mod_freq(tevix_dev_t *dev, uint32_t freq) {
    tevix_param_item_t it = param_item(TEVIX_PARAM_MOD_FREQ, 4);
    it.value.u32[0] = freq;
    tevix_param_batch_set(dev, &it, 1);
}

void pingpong::finish() {
    if (cur != out) std::memcpy(out, cur, size_t{n} * 2);
}

void bilateral_stage(drv_state &s, pingpong &pp, uint32_t w, uint32_t h) {
    std::lock_guard<std::mutex> lock(s.filter_mtx);
    if (!s.bpf_ok || s.bpf.width != w || s.bpf.height != h) return;
    vx_bpf2d_iir(&s.bpf, pp.other, pp.cur, w, h);
    pp.flip();
}

}  // namespace tevix::drv
