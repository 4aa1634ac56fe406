// tevix save URI --kind raw|dist|gray --format F -n N FILE
// tevix load FILE [--frame K] --out PNG
//
// "save" pulls N frames (a recording plays every frame, none skipped) and appends them to FILE
// through one descriptor: one header, N frames. Raw frames keep the sensor's sub-frames:
// width x height x (bytes / (2 x width x height)). "load" reads frame K of a frame file and
// writes a colour-mapped depth, an infrared or (raw) the first sub-frame as a grey picture.
#include "cmd_frames.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "frame_export.h"
#include "png_out.h"
#include "tool_lib.h"

namespace {

constexpr int k_ok = 0;
constexpr int k_failed = 1;
constexpr int k_usage = 2;

void _progress(int done, int total) {
    constexpr int k_width = 40;
    const int fill = total > 0 ? done * k_width / total : k_width;
    std::fprintf(stderr, "\rsave [%.*s%*s] %d/%d", fill, "########################################",
                 k_width - fill, "", done, total);
}

int _save(const frames_cmd &f) {
    const bool raw = f.kind == "raw", dist = f.kind == "dist";
    const bool ok_format = raw    ? f.format == TEVIX_FILE_U32 || f.format == TEVIX_FILE_U16
                           : dist ? f.format >= TEVIX_FILE_F32 && f.format <= TEVIX_FILE_U16
                                  : f.format == TEVIX_FILE_GRAY_U8 || f.format == TEVIX_FILE_U16;
    if (!ok_format) {
        std::fprintf(stderr,
                     "save: format %d does not exist for %s (raw: 1 U32, 2 U16; dist: 0 F32, "
                     "1 U32, 2 U16; gray: 1 U8, 2 U16)\n",
                     f.format, f.kind.c_str());
        return k_usage;
    }
    tool_library lib(f.verbosity);
    tool_device dev(f.uri);
    if (!dev.get()) return k_failed;
    if (dev.get()->type == TEVIX_DEV_FILE) {
        tevix_param_item_t sync{};
        sync.id = TEVIX_PARAM_FPS;
        sync.len = 4;  // frame rate 0: one frame per pull, none skipped
        tevix_param_batch_set(dev.get(), &sync, 1);
    }
    const int fd = tevix_file_open(f.file.c_str(), "wb");
    if (fd < 0) {
        std::fprintf(stderr, "save: cannot write %s: %s\n", f.file.c_str(), std::strerror(errno));
        return k_failed;
    }
    if (tevix_cap_start(dev.get()) != 1) {
        std::fprintf(stderr, "save: the capture does not start\n");
        tevix_file_close(fd);
        return k_failed;
    }
    const bool tty = isatty(STDERR_FILENO) == 1;
    std::vector<uint8_t> buf(8u << 20);
    std::vector<float> values;
    int saved = 0, misses = 0, rc = k_ok;
    uint32_t w = 0, h = 0, sub = 1;
    while (saved < f.frames && rc == k_ok) {
        tevix_frame_info_t info{};
        const int got = tevix_cap_get_frames(dev.get(), 1, buf.data(),
                                             static_cast<uint32_t>(buf.size()), &info);
        if (got != 1) {
            if (got == TEVIX_ERR_CAP_EOF || ++misses > 50) {
                std::fprintf(stderr, "%ssave: the %s ended after %d frames\n", tty ? "\n" : "",
                             dev.get()->type == TEVIX_DEV_FILE ? "recording" : "capture", saved);
                rc = k_failed;
            }
            continue;
        }
        w = info.width, h = info.height;
        const uint32_t n = w * h;
        int ok = 0;
        if (raw) {
            // The sensor's sub-frames when the frame is a whole number of them, else one row.
            const uint32_t samples = info.size / 2;
            sub = n && samples % n == 0 ? samples / n : 0;
            if (!sub) w = samples, h = 1, sub = 1;
            char tag[32];
            std::snprintf(tag, sizeof tag, "format%u", info.format);
            ok = tevix_frame_save_raw(fd, f.format, reinterpret_cast<const uint16_t *>(buf.data()),
                                      int(samples), int(w), int(h), int(sub), tag);
        } else {
            values.resize(n);
            const int dec = dist ? tevix_frame_get_dist_f32(dev.get(), values.data(), n, buf.data(),
                                                            info.size, &info)
                                 : tevix_frame_get_gray_f32(dev.get(), values.data(), n, buf.data(),
                                                            info.size, &info);
            ok = dec > 0 && (dist ? tevix_frame_save_distance(fd, f.format, values.data(), int(n),
                                                              int(w), int(h))
                                  : tevix_frame_save_gray(fd, f.format, values.data(), int(n),
                                                          int(w), int(h)));
        }
        if (!ok) {
            std::fprintf(stderr, "%ssave: frame %d could not be written (-v for the reason)\n",
                         tty ? "\n" : "", saved);
            rc = k_failed;
            break;
        }
        ++saved;
        if (tty) _progress(saved, f.frames);
    }
    if (tty) std::fprintf(stderr, "\n");
    tevix_cap_stop(dev.get());
    if (tevix_file_close(fd) != 0) rc = k_failed;
    if (rc == k_ok)
        std::printf("saved %d %s frames of %ux%u%s (format %d) to %s\n", saved, f.kind.c_str(), w,
                    h, raw ? (" x " + std::to_string(sub)).c_str() : "", f.format, f.file.c_str());
    return rc;
}

bool _ends_with(const std::string &s, const char *tail) {
    const size_t n = std::strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

int _load(const frames_cmd &f) {
    if (!_ends_with(f.out, ".png")) {
        std::fprintf(stderr, "load: the picture is a PNG file: %s does not end in .png\n",
                     f.out.c_str());
        return k_usage;
    }
    tool_library lib(f.verbosity);
    const int fd = tevix_file_open(f.file.c_str(), "rb");
    if (fd < 0) {
        std::fprintf(stderr, "load: cannot read %s: %s\n", f.file.c_str(), std::strerror(errno));
        return k_failed;
    }
    char head[8] = {};
    const bool peeked = ::read(fd, head, 7) == 7 && lseek(fd, 0, SEEK_SET) == 0;
    const std::string kind = !peeked                                 ? ""
                             : std::strncmp(head, "VX_RAW,", 7) == 0 ? "raw"
                             : std::strncmp(head, "VX_DIST", 7) == 0 ? "dist"
                             : std::strncmp(head, "VX_GRAY", 7) == 0 ? "gray"
                                                                     : "";
    if (kind.empty()) {
        std::fprintf(stderr, "load: %s is no frame file (no VX_RAW, VX_DIST or VX_GRAY header)\n",
                     f.file.c_str());
        tevix_file_close(fd);
        return k_failed;
    }
    constexpr uint32_t k_cap = 64u << 20;
    std::vector<uint16_t> raw(kind == "raw" ? k_cap / 2 : 0);
    std::vector<float> values(kind == "raw" ? 0 : k_cap / 4);
    uint32_t w = 0, h = 0, sub = 1;
    int got = 0;
    for (int k = 0; k <= f.frame; ++k) {
        got = kind == "raw"
                  ? tevix_frame_load_raw(fd, raw.data(), uint32_t(raw.size()), &w, &h, &sub)
              : kind == "dist"
                  ? tevix_frame_load_distance(fd, values.data(), uint32_t(values.size()), &w, &h)
                  : tevix_frame_load_gray(fd, values.data(), uint32_t(values.size()), &w, &h);
        if (got <= 0) break;
    }
    tevix_file_close(fd);
    if (got <= 0) {
        std::fprintf(stderr, "load: %s has no frame %d, or it is damaged (-v for the reason)\n",
                     f.file.c_str(), f.frame);
        return k_failed;
    }
    const uint32_t n = w * h;
    bool written = false;
    if (kind == "dist") {
        std::vector<uint16_t> mm(n);
        for (uint32_t i = 0; i < n; ++i)
            mm[i] = values[i] > 0 ? uint16_t(std::min(values[i] * 1000.0f + 0.5f, 65535.0f)) : 0;
        std::vector<uint8_t> rgb(3 * size_t{n});
        tevix_cmap_dist_u16_to_RGB(rgb.data(), 3 * n, mm.data(), n, TEVIX_PIX_RGB, 0,
                                   k_export_depth_max_mm, nullptr);
        written = png_write(f.out, rgb.data(), w, h, 3);
    } else {
        // Grey, or the first sub-frame of a raw frame, stretched up to its 99th percentile (a
        // few hot pixels would leave the rest black).
        std::vector<float> px(n);
        for (uint32_t i = 0; i < n; ++i) px[i] = kind == "raw" ? float(raw[i]) : values[i];
        std::vector<float> sorted = px;
        std::nth_element(sorted.begin(), sorted.begin() + n * 99 / 100, sorted.end());
        const float top = std::max(1.0f, sorted[n * 99 / 100]);
        std::vector<uint8_t> grey(n);
        for (uint32_t i = 0; i < n; ++i)
            grey[i] = uint8_t(std::clamp(px[i] * 255.0f / top + 0.5f, 0.0f, 255.0f));
        written = png_write(f.out, grey.data(), w, h, 1);
    }
    if (!written) {
        std::fprintf(stderr, "load: cannot write %s\n", f.out.c_str());
        return k_failed;
    }
    std::printf("%s: %s frame %d of %ux%u%s -> %s\n", f.file.c_str(), kind.c_str(), f.frame, w, h,
                kind == "raw" ? (" x " + std::to_string(sub)).c_str() : "", f.out.c_str());
    return k_ok;
}

}  // namespace

void tool_add_frames(CLI::App &app, frames_cmd &f) {
    f.save = app.add_subcommand("save", "append frames of a camera or recording to a frame file");
    f.save->add_option("uri", f.uri, "camera or file://recording.oni (\"\": the first camera)")
        ->required();
    f.save->add_option("file", f.file, "frame file to write")->required();
    f.save->add_option("--kind", f.kind, "raw, dist or gray")
        ->check(CLI::IsMember({"raw", "dist", "gray"}))
        ->capture_default_str();
    f.save
        ->add_option("--format", f.format,
                     "raw 1 U32, 2 U16; dist 0 F32, 1 U32, 2 U16; "
                     "gray 1 U8, 2 U16")
        ->capture_default_str();
    f.save->add_option("-n,--frames", f.frames, "number of frames")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    f.load = app.add_subcommand("load", "a frame of a frame file as a PNG picture");
    f.load->add_option("file", f.file, "frame file")->required();
    f.load->add_option("--frame", f.frame, "frame index from 0")->check(CLI::NonNegativeNumber);
    f.load->add_option("--out", f.out, "PNG to write")->required();
}

int tool_run_frames(const frames_cmd &f) {
    if (f.save && f.save->parsed()) return _save(f);
    if (f.load && f.load->parsed()) return _load(f);
    return -1;
}
