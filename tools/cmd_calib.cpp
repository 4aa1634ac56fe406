// tevix calib fetch URI [--dir DIR]            the camera's calibration into the cache
// tevix calib pack URI [FILE] [--zip]          FILE (default: the cached container) packed for
//                                              the camera, kept as tcm_ex_encode_rel_W..._C....bin
// tevix calib download URI [FILE] [--zip]      packed and downloaded into the camera, which resets
// tevix calibrate URI --out FILE [--download]  the calibration station (see _calibrate)
#include "cmd_calib.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "tevix/tevix_param.h"
#include "tool_lib.h"

namespace {

// The scene control of the virtual camera (parameter 224: u32 target distance in mm, s16 board
// and s16 sensor temperature in 0.1 C, u8 flags): a station whose target and temperatures the
// host drives. A real camera answers it with an empty value.
constexpr uint32_t k_scene_param = 224;
constexpr uint8_t k_scene_len = 9;

struct scene_ctl {
    uint32_t target = 0;
    int16_t tcb = 0, tib = 0;
    uint8_t flags = 0;
};

bool _scene_get(tevix_dev_t *dev, scene_ctl &c) {
    tevix_param_item_t it{};
    it.id = k_scene_param;
    it.len = k_scene_len;
    if (!tevix_param_batch_get(dev, &it, 1) || it.len < k_scene_len) return false;
    std::memcpy(&c.target, it.value.u8, 4);
    std::memcpy(&c.tcb, it.value.u8 + 4, 2);
    std::memcpy(&c.tib, it.value.u8 + 6, 2);
    c.flags = it.value.u8[8];
    return true;
}

bool _scene_set(tevix_dev_t *dev, const scene_ctl &c) {
    tevix_param_item_t it{};
    it.id = k_scene_param;
    it.len = k_scene_len;
    std::memcpy(it.value.u8, &c.target, 4);
    std::memcpy(it.value.u8 + 4, &c.tcb, 2);
    std::memcpy(it.value.u8 + 6, &c.tib, 2);
    it.value.u8[8] = c.flags;
    return tevix_param_batch_set(dev, &it, 1) == 1;
}

// The driven station: the target and the temperatures set through the scene control.
struct driven {
    scene_ctl now;
};

int _place_driven(tevix_dev_t *dev, const tevix_station_step_t *step, void *user) {
    auto *d = static_cast<driven *>(user);
    d->now.target = step->distance_mm;
    if (step->tcb != TEVIX_STATION_TEMP_ASIS) d->now.tcb = step->tcb;
    if (step->tib != TEVIX_STATION_TEMP_ASIS) d->now.tib = step->tib;
    return _scene_set(dev, d->now) ? 0 : 1;
}

// The operator's station: each step asked for on the terminal and confirmed with Enter.
int _place_operator(tevix_dev_t *, const tevix_station_step_t *step, void *) {
    std::printf("step %u/%u: place the flat target square to the camera at %u mm (%.1f MHz)",
                step->index + 1, step->count, step->distance_mm, step->freq_hz / 1e6);
    if (step->tcb != TEVIX_STATION_TEMP_ASIS)
        std::printf(", the camera at board %.1f C, sensor %.1f C", step->tcb / 10.0,
                    step->tib / 10.0);
    std::printf("; Enter to measure, q to stop: ");
    std::fflush(stdout);
    std::string line;
    if (!std::getline(std::cin, line) || line == "q") return 1;
    return 0;
}

void _report(const tevix_station_step_t *step, uint32_t valid, float centre, int16_t tcb,
             int16_t tib, void *) {
    std::printf(
        "step %u/%u  %.1f MHz  %5u mm  %u pixels  centre %.1f mm  board %.1f C  sensor %.1f "
        "C\n",
        step->index + 1, step->count, step->freq_hz / 1e6, step->distance_mm, valid, double(centre),
        tcb / 10.0, tib / 10.0);
    std::fflush(stdout);
}

// "FROM:TO:STEP" or a comma list of distances in mm.
bool _distances(const std::string &text, std::vector<uint32_t> &out) {
    unsigned from, to, step;
    char tail;
    if (std::sscanf(text.c_str(), "%u:%u:%u%c", &from, &to, &step, &tail) == 3) {
        if (step == 0 || from == 0 || to < from) return false;
        for (uint32_t d = from; d <= to; d += step) out.push_back(d);
        return true;
    }
    const char *at = text.c_str();
    while (*at) {
        char *end = nullptr;
        const unsigned long d = std::strtoul(at, &end, 10);
        if (end == at || d == 0 || d > 60000 || (*end && *end != ',')) return false;
        out.push_back(uint32_t(d));
        at = *end ? end + 1 : end;
    }
    return !out.empty();
}

// "BOARD/SENSOR,..." in C, to pairs in 0.1 C.
bool _temps(const std::string &text, std::vector<int16_t> &out) {
    const char *at = text.c_str();
    while (*at) {
        double cb, ib;
        int used = 0;
        if (std::sscanf(at, "%lf/%lf%n", &cb, &ib, &used) != 2 || cb < -40 || cb > 125 ||
            ib < -40 || ib > 125)
            return false;
        out.push_back(int16_t(std::lround(cb * 10)));
        out.push_back(int16_t(std::lround(ib * 10)));
        at += used;
        if (*at == ',')
            ++at;
        else if (*at)
            return false;
    }
    return true;
}

int _calibrate(const calib_cmd &c) {
    std::vector<uint32_t> dist;
    std::vector<int16_t> temps;
    if (!_distances(c.distances, dist) || dist.size() < 2 || dist.size() > 48) {
        std::fprintf(stderr,
                     "tevix calibrate: --distances wants FROM:TO:STEP or a list of 2..48 "
                     "distances in mm\n");
        return 2;
    }
    if (!_temps(c.temps, temps) || temps.size() > 32) {
        std::fprintf(stderr, "tevix calibrate: --temps wants up to 16 BOARD/SENSOR pairs in C\n");
        return 2;
    }
    tool_library lib(c.verbosity, true);
    if (!c.dir.empty()) tevix_path_set((c.dir.back() == '/' ? c.dir : c.dir + "/").c_str());
    tool_device dev(c.uri);
    if (!dev.get()) return 1;
    driven d;
    const bool drive = !c.operator_mode && _scene_get(dev.get(), d.now);
    const scene_ctl before = d.now;
    tevix_station_cfg_t cfg{};
    cfg.freqs = c.freqs.data();
    cfg.n_freqs = uint32_t(c.freqs.size());
    cfg.distances_mm = dist.data();
    cfg.n_distances = uint32_t(dist.size());
    cfg.cal_tcb = cfg.cal_tib = TEVIX_STATION_TEMP_ASIS;
    if (drive) {
        // The camera's own temperatures for the distance sweep; without --temps a drift sweep
        // around them in 5 C steps, board and sensor moving apart.
        cfg.cal_tcb = d.now.tcb;
        cfg.cal_tib = d.now.tib;
        if (c.temps.empty())
            for (int k : {-50, -50, -50, 0, 0, 50, 50, 50, 50, 0}) {
                const bool board = temps.size() % 2 == 0;
                temps.push_back(int16_t((board ? d.now.tcb : d.now.tib) + k));
            }
    }
    cfg.temps = temps.data();
    cfg.n_temps = uint32_t(temps.size() / 2);
    cfg.drift_distance_mm = c.drift_at;
    cfg.frames = c.frames;
    cfg.measurements = c.measurements;
    cfg.place = drive ? _place_driven : _place_operator;
    cfg.place_user = &d;
    cfg.report = _report;
    std::printf("calibration station, %s: %zu distances%s, %u frames a step\n",
                drive ? "target and temperatures driven through the camera"
                      : "the operator places the target",
                dist.size(), cfg.n_temps ? " and a drift sweep" : "", cfg.frames);
    const auto t0 = std::chrono::steady_clock::now();
    const int r = tevix_calib_station(dev.get(), &cfg, c.out.c_str());
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (drive) _scene_set(dev.get(), before);
    std::fflush(stdout);
    if (r != 1) {
        std::fprintf(
            stderr, "calibrate %s\n",
            r == -2 ? "stopped: no file written" : "failed: the library's reason is printed above");
        return 1;
    }
    std::printf("wrote the calibration to %s in %.1f s\n", c.out.c_str(), secs);
    if (!c.download_after) return 0;
    if (!tevix_calib_bin_data_pk_and_download_ex(dev.get(), c.zip, true, c.out.c_str())) {
        std::fflush(stdout);
        std::fprintf(stderr, "calibrate: download failed: the library's reason is printed above\n");
        return 1;
    }
    std::printf("downloaded %s into the camera%s\n", c.out.c_str(), c.zip ? " (zipped)" : "");
    return 0;
}

}  // namespace

void tool_add_calib(CLI::App &app, calib_cmd &c) {
    auto *calib =
        app.add_subcommand("calib", "calibration data of a camera: fetch, pack, download");
    calib->require_subcommand(1);
    c.fetch = calib->add_subcommand("fetch", "read the camera's calibration into the cache");
    c.pack = calib->add_subcommand("pack", "pack a calibration container for the camera");
    c.download = calib->add_subcommand("download", "pack and download a container into the camera");
    for (CLI::App *sub : {c.fetch, c.pack, c.download}) {
        sub->add_option("uri", c.uri, "camera URI (\"\": the first camera)")->required();
        sub->add_option("--dir", c.dir, "parameter directory (the cache)");
    }
    for (CLI::App *sub : {c.pack, c.download}) {
        sub->add_option("file", c.file, "container (default: the camera's cached one)");
        sub->add_flag("--zip", c.zip, "zip-compress the container");
    }
    auto *cal = c.calibrate = app.add_subcommand(
        "calibrate", "calibration station: measure a flat target, fit, write a container");
    cal->add_option("uri", c.uri, "camera URI (\"\": the first camera)")->required();
    cal->add_option("--out", c.out, "calibration container to write")->required();
    cal->add_option("--freq", c.freqs, "modulation frequencies, Hz (default: the camera's)")
        ->delimiter(',');
    cal->add_option("--distances", c.distances, "distance sweep, FROM:TO:STEP or a list (mm)")
        ->capture_default_str();
    cal->add_option("--temps", c.temps,
                    "drift sweep, BOARD/SENSOR pairs in C (default: none, or around the camera's "
                    "temperatures when the station is driven)");
    cal->add_option("--drift-at", c.drift_at, "distance of the drift sweep (default: the middle)");
    cal->add_option("--frames", c.frames, "frames averaged per step")->capture_default_str();
    cal->add_flag("--measurements", c.measurements,
                  "store the measurements for the camera to fit at each mount");
    cal->add_flag("--operator", c.operator_mode,
                  "ask for each step on the terminal even when the camera can drive the station");
    cal->add_flag("--download", c.download_after, "pack and download the result into the camera");
    cal->add_flag("--zip", c.zip, "zip-compress what is downloaded");
    cal->add_option("--dir", c.dir, "parameter directory (the cache)");
}

int tool_run_calib(const calib_cmd &c) {
    if (c.calibrate && c.calibrate->parsed()) return _calibrate(c);
    CLI::App *which = c.fetch && c.fetch->parsed()         ? c.fetch
                      : c.pack && c.pack->parsed()         ? c.pack
                      : c.download && c.download->parsed() ? c.download
                                                           : nullptr;
    if (!which) return -1;
    tool_library lib(c.verbosity, true);
    if (!c.dir.empty()) tevix_path_set((c.dir.back() == '/' ? c.dir : c.dir + "/").c_str());
    tool_device dev(c.uri);
    if (!dev.get()) return 1;
    char name[512];
    tevix_get_param_absolute_name(dev.get(), name, sizeof name);
    bool ok;
    if (which == c.fetch) {
        ok = tevix_param_load_from_dev(dev.get());
        tevix_param_handle_t h{};
        ok = ok && tevix_param_open_file(&h, name);
        if (ok) {
            std::printf("fetched the calibration into %s (ts %u, %d blocks)\n", name, h.hdr.ts,
                        h.hdr.blk_cnt);
            tevix_param_close(&h);
        }
    } else {
        ok = tevix_calib_bin_data_pk_and_download_ex(dev.get(), c.zip, which == c.download,
                                                     c.file.empty() ? nullptr : c.file.c_str());
        if (ok)
            std::printf("%s %s%s\n", which == c.download ? "downloaded" : "packed",
                        c.file.empty() ? name : c.file.c_str(), c.zip ? " (zipped)" : "");
    }
    std::fflush(stdout);
    if (!ok)
        std::fprintf(stderr, "calib %s failed: the library's reason is printed above\n",
                     which->get_name().c_str());
    return ok ? 0 : 1;
}
