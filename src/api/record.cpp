// Recording during capture: the device description, the calibration file and the raw, distance
// and gray frame streams of an ONI file.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "api/session.h"
#include "log/log.h"
#include "tevix/tevix_param.h"

namespace tevix::api {
namespace {

constexpr uint32_t k_calib_chunk = 524288;

bool _wants_recording(const tevix_session *s) {
    return s->save_file[0] &&
           (s->cap_cfg.save_replay || s->cap_cfg.save_dist || s->cap_cfg.save_gray);
}

// Embeds the device's calibration container, if there is one, as a name and chunks of data.
void _embed_calib(tevix_dev_t *dev, tevix_session *s) {
    char name[300];
    tevix_get_param_absolute_name(dev, name, sizeof name);
    std::FILE *fp = std::fopen(name, "rb");
    if (!fp) {
        VX_LOG_AS(VX_LOG_DBG, "_tevix_cap_replay_start", "[%s]No calib data in replay file\n");
        return;
    }
    s->rec->write_string(s->rec_dev_node, "VX_FILENAME_CALIB", name);
    auto *chunk = static_cast<uint8_t *>(std::malloc(k_calib_chunk));
    if (!chunk) {
        VX_LOG_AS(VX_LOG_ERR, "_tevix_cap_replay_start", "[%s]malloc failed\n");
        std::exit(-3);
    }
    for (;;) {
        size_t n = std::fread(chunk, 1, k_calib_chunk, fp);
        if (n > 0)
            s->rec->write_general(s->rec_dev_node, "VX_FILEDATA_CALIB", chunk,
                                  static_cast<uint32_t>(n));
        if (n < k_calib_chunk) {
            if (std::ferror(fp))
                VX_LOG_AS(VX_LOG_WRN, "_tevix_cap_replay_start",
                          "[%s]save calib data into replay failed\n");
            break;
        }
    }
    std::free(chunk);
    std::fclose(fp);
}

// Opens the frame streams the switches ask for; under the recording mutex.
void _open_streams(tevix_dev_t *dev, tevix_session *s, const tevix_frame_info_t &info) {
    const tevix_cap_cfg_t &cfg = s->cap_cfg;
    auto image_stream = [&](const char *name, oni::node_type type, uint32_t pixel_format,
                            uint32_t codec, int &node) {
        oni::stream_desc d;
        d.type = static_cast<uint32_t>(type);
        d.pixel_format = pixel_format;
        d.max_depth = 65535;
        d.xres = info.width;
        d.yres = info.height;
        d.bytes_per_pixel = 2;
        d.fps = s->fps;
        node = s->rec->add_node(name, d, codec);
        if (node < 0) {
            VX_LOG_AS(VX_LOG_WRN, "_tevix_cap_get_frames", "[%s]cannot open gray u16 stream\n");
            return;
        }
        s->rec->write_int(node, "VX_FRAME_IMGW", info.width);
        s->rec->write_int(node, "VX_FRAME_IMGH", info.height);
        s->rec->write_int(node, "VX_FRAME_FPS", s->fps);
    };
    if (cfg.save_dist && s->rec_dist < 0)
        image_stream("VX_DEPTH", oni::node_type::depth, 100, oni::k_codec_16zt, s->rec_dist);
    if (cfg.save_gray && s->rec_gray < 0)
        image_stream("VX_IR", oni::node_type::ir, 203, oni::k_codec_none, s->rec_gray);
    if (!cfg.save_replay || s->rec_replay > 0) return;

    oni::stream_desc d;
    d.type = 0xFFFFFFFFu;  // raw sensor frames: no image properties
    d.xres = info.width;
    d.yres = info.height;
    d.bytes_per_pixel = info.width && info.height ? info.size / (info.width * info.height) : 0;
    d.fps = s->fps;
    s->rec_replay = s->rec->add_node("VX_REPLAY", d, oni::k_codec_none);
    if (s->rec_replay < 0) {
        VX_LOG_AS(VX_LOG_WRN, "_tevix_cap_get_frames", "[%s]cannot open replay stream\n");
        return;
    }
    oni::writer &w = *s->rec;
    w.write_int(s->rec_replay, "VX_FRAME_IMGW", info.width);
    w.write_int(s->rec_replay, "VX_FRAME_IMGH", info.height);
    w.write_int(s->rec_replay, "VX_FRAME_FMT", info.format);
    w.write_int(s->rec_replay, "VX_FRAME_FPS", s->fps);
    w.write_int(s->rec_replay, "VX_FRAME_MOD_FREQ", s->mod_freq[0]);
    w.write_int(s->rec_replay, "VX_FRAME_MOD_FREQ1", s->mod_freq[1]);
    w.write_int(s->rec_replay, "VX_CONF_INTG1_US", s->intg[0]);
    w.write_int(s->rec_replay, "VX_CONF_INTG2_US", s->intg[1]);
    tevix_param_item_t roi{};
    roi.id = TEVIX_PARAM_ROI;
    if (s->type != TEVIX_DEV_FILE && tevix_param_batch_get(dev, &roi, 1))
        w.write_general(s->rec_replay, "VX_FRAME_ROI_INFO", roi.value.u8, 13);
    else
        VX_LOG_AS(VX_LOG_WRN, "_tevix_cap_get_frames", "[%s]roi info save failed\n");
}

}  // namespace

void record_start(tevix_dev_t *dev) {
    tevix_session *s = dev->session;
    if (!_wants_recording(s)) return;
    VX_LOG_AS(VX_LOG_DBG, "_tevix_cap_replay_start", "[%s]enable replay file: %s\n", s->save_file);
    std::lock_guard<std::mutex> lock(s->rec_mtx);
    s->rec.reset();
    s->rec_dev_node = s->rec_replay = s->rec_dist = s->rec_gray = -1;
    s->rec = oni::writer::create(s->save_file);
    if (!s->rec) {
        VX_LOG_AS(VX_LOG_WRN, "_tevix_cap_replay_start", "[%s]open replay file %s failed\n",
                  s->save_file);
        return;
    }
    if (!s->cap_cfg.save_replay) return;
    oni::stream_desc d;
    d.type = static_cast<uint32_t>(oni::node_type::device);
    s->rec_dev_node = s->rec->add_node("Device", d, oni::k_codec_none);
    if (s->rec_dev_node < 0) {
        VX_LOG_AS(VX_LOG_WRN, "_tevix_cap_replay_start", "[%s]open replay stream failed\n");
        return;
    }
    oni::writer &w = *s->rec;
    int n = s->rec_dev_node;
    w.write_real(n, "VX_REP_VER", 1.0);
    w.write_string(n, "VX_VENDOR", dev->vendor);
    w.write_string(n, "VX_PRODUCT", dev->product);
    w.write_string(n, "VX_SERIAL", dev->serial);
    w.write_int(n, "VX_DEV_ID", dev->hw_id);
    w.write_general(n, "VX_DEV_VER", dev->version, sizeof dev->version);
    w.write_int(n, "VX_DEV_MAX_FPS", s->max_fps);
    w.write_int(n, "VX_DEV_MAX_INTG_US", s->max_intg_us);
    _embed_calib(dev, s);
    w.flush(true);
}

void record_stop(tevix_session *s) {
    std::lock_guard<std::mutex> lock(s->rec_mtx);
    if (!s->rec) return;
    VX_LOG_AS(VX_LOG_DBG, "_tevix_cap_replay_stop", "[%s]disable replay saving\n");
    s->rec->finish();
    s->rec.reset();
    s->rec_dev_node = s->rec_replay = s->rec_dist = s->rec_gray = -1;
}

void record_frame(tevix_dev_t *dev, const uint8_t *frame, const tevix_frame_info_t &info,
                  bool first_of_pull) {
    tevix_session *s = dev->session;
    std::lock_guard<std::mutex> lock(s->rec_mtx);
    if (!s->rec) return;
    _open_streams(dev, s, info);
    if (s->cap_cfg.save_manual || s->rec_replay < 0 || !frame) return;
    if (first_of_pull) s->rec->write_general(s->rec_replay, "VX_FRAME_INFO", &info, sizeof info);
    s->rec->write_data(s->rec_replay, frame, info.size, 0);
}

void record_decoded(tevix_session *s, uint32_t kind, const uint16_t *img, uint32_t values) {
    std::lock_guard<std::mutex> lock(s->rec_mtx);
    if (!s->rec) return;
    int node = kind == 1 && s->cap_cfg.save_dist   ? s->rec_dist
               : kind == 2 && s->cap_cfg.save_gray ? s->rec_gray
                                                   : -1;
    if (node > 0) s->rec->write_data(node, img, values * 2, 0);
}

int record_save_frame(tevix_dev_t *dev, const uint8_t *data, uint32_t len,
                      const tevix_frame_info_t &info) {
    tevix_session *s = dev->session;
    std::lock_guard<std::mutex> lock(s->rec_mtx);
    if (!s->rec || !s->cap_cfg.save_manual || !s->cap_cfg.save_replay) return -9;
    _open_streams(dev, s, info);
    if (s->rec_replay < 0) return -9;
    s->rec->write_general(s->rec_replay, "VX_FRAME_INFO", &info, sizeof info);
    s->rec->write_data(s->rec_replay, data, len, 0);
    return 0;
}

}  // namespace tevix::api

int64_t tevix_oni_repair(const char *in_path, const char *out_path) noexcept {
    if (!in_path || !out_path) {
        VX_ERR("[%s]Wrong params\n");
        return -1;
    }
    return tevix::oni::repair(in_path, out_path);
}
