// Camera subcommands of the tevix tool: info, param, reg, filter, capture.
#include "cmd_camera.h"

#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "api/session.h"
#include "drivers/drv.h"
#include "tevix/tevix.h"
#include "tool_lib.h"

namespace {

constexpr int k_exit_ok = 0;
constexpr int k_exit_failed = 1;
constexpr int k_exit_usage = 2;

struct param_name {
    const char *name;
    uint32_t id;
};
// Parameters with host-side meaning can be named; any id can be given as a number.
constexpr param_name k_param_names[] = {
    {"DEV_MOD", TEVIX_PARAM_DEV_MOD},
    {"MOD_FREQ", TEVIX_PARAM_MOD_FREQ},
    {"ROI", TEVIX_PARAM_ROI},
    {"FRM_FMT", TEVIX_PARAM_FRM_FMT},
    {"FPS", TEVIX_PARAM_FPS},
    {"INTG1", TEVIX_PARAM_INTG1},
    {"INTG2", TEVIX_PARAM_INTG2},
    {"FRAME_COUNT", TEVIX_PARAM_FRAME_COUNT},
    {"DUAL_FREQ", TEVIX_PARAM_DUAL_FREQ},
    {"DEV_CAP_MOD", TEVIX_PARAM_DEV_CAP_MOD},
};

std::optional<uint32_t> _param_id(const std::string &text) {
    for (const auto &p : k_param_names)
        if (strcasecmp(text.c_str(), p.name) == 0) return p.id;  // "fps" as well as "FPS"
    char *end = nullptr;
    unsigned long v = std::strtoul(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || v > 255) return std::nullopt;
    return static_cast<uint32_t>(v);
}

std::vector<uint32_t> _numbers(const std::string &text) {
    std::vector<uint32_t> out;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ',');) {
        char *end = nullptr;
        unsigned long v = std::strtoul(part.c_str(), &end, 0);
        if (part.empty() || *end != '\0') return {};
        out.push_back(static_cast<uint32_t>(v));
    }
    return out;
}

int _cmd_info(const camera_cmds &c) {
    tool_library lib(c.verbosity);
    tool_device cam(c.uri);
    if (!cam.get()) return k_exit_failed;
    tevix_dev_t *dev = cam.get();
    char uri[300];
    tevix_dev_info_t info{};
    tevix_dev_get_info(dev, &info);
    std::printf("uri          %s\n", tevix_dev_get_uri(dev, uri, sizeof uri) ? uri : "?");
    std::printf("product      %s\n", dev->product);
    std::printf("vendor       %s\n", dev->vendor);
    std::printf("serial       %s\n", dev->serial);
    std::printf("hardware id  0x%016llX\n", static_cast<unsigned long long>(dev->hw_id));
    std::printf("versions     software %u, boot loader %u, hardware %u\n", dev->version[0],
                dev->version[1], dev->version[2]);
    std::printf("sensor       %ux%u\n", info.roi_limits[0], info.roi_limits[1]);
    const char *chip = nullptr;
    if (const char *drv = tevix_dev_get_driver(dev, &chip))
        std::printf("driver       %s (chip %s)\n", drv, chip);
    else
        std::printf("driver       none\n");
    tevix_lens_t lens{};
    if (tevix_lens_param_get(dev, &lens)) {
        std::printf("lens         %ux%u cx %.3f cy %.3f fx %.3f fy %.3f\n", lens.width, lens.height,
                    lens.cx, lens.cy, lens.fx, lens.fy);
        std::printf("distortion  ");
        for (uint32_t i = 0; i < lens.n_dcoef && i < 16; ++i) std::printf(" %g", lens.dcoef[i]);
        std::printf("\n");
    } else {
        std::printf("lens         none\n");
    }
    return k_exit_ok;
}

int _cmd_param(const camera_cmds &c) {
    auto id = _param_id(c.param_id);
    if (!id) {
        std::fprintf(stderr, "tevix: unknown parameter '%s'\n", c.param_id.c_str());
        return k_exit_usage;
    }
    tevix_param_item_t item{};
    item.id = *id;
    if (c.param_set) {
        std::vector<uint32_t> words = _numbers(c.param_value);
        bool u16 = *id == TEVIX_PARAM_INTG1 || *id == TEVIX_PARAM_INTG2 ||
                   *id == TEVIX_PARAM_FRAME_COUNT || *id == TEVIX_PARAM_ROI;
        if (words.empty() || words.size() > (u16 ? 9u : 4u)) {
            std::fprintf(stderr, "tevix: bad value '%s' (numbers separated by commas)\n",
                         c.param_value.c_str());
            return k_exit_usage;
        }
        for (size_t i = 0; i < words.size(); ++i) {
            if (u16)
                item.value.u16[i] = static_cast<uint16_t>(words[i]);
            else
                item.value.u32[i] = words[i];
        }
        item.len = static_cast<uint8_t>(words.size() * (u16 ? 2 : 4));
        if (*id == TEVIX_PARAM_ROI) item.len = 13;
    }
    tool_library lib(c.verbosity);
    tool_device cam(c.uri);
    if (!cam.get()) return k_exit_failed;
    if (c.param_set) {
        if (!tevix_param_batch_set(cam.get(), &item, 1)) {
            std::fprintf(stderr, "tevix: the camera refused parameter %u\n", *id);
            return k_exit_failed;
        }
        std::printf("parameter %u set\n", *id);
        return k_exit_ok;
    }
    if (!tevix_param_batch_get(cam.get(), &item, 1)) {
        std::fprintf(stderr, "tevix: cannot read parameter %u\n", *id);
        return k_exit_failed;
    }
    std::printf("parameter %u, %u bytes:", *id, item.len);
    for (int i = 0; i < item.len && i < 18; ++i) std::printf(" %02X", item.value.u8[i]);
    std::printf("\n  as u32:");
    for (int i = 0; i < 4 && i * 4 < item.len; ++i) std::printf(" %u", item.value.u32[i]);
    std::printf("\n");
    return k_exit_ok;
}

int _cmd_reg(const camera_cmds &c) {
    tool_library lib(c.verbosity);
    tool_device cam(c.uri);
    if (!cam.get()) return k_exit_failed;
    if (c.reg_write) {
        std::vector<uint32_t> values = c.reg_values;
        if (values.empty() || values.size() > 65535) {
            std::fprintf(stderr, "tevix: give the register values to write\n");
            return k_exit_usage;
        }
        if (!tevix_reg_batch_write(cam.get(), c.reg_target, c.reg_addr, values.data(),
                                   static_cast<uint16_t>(values.size()))) {
            std::fprintf(stderr, "tevix: register write failed\n");
            return k_exit_failed;
        }
        std::printf("%zu register(s) written from %u\n", values.size(), c.reg_addr);
        return k_exit_ok;
    }
    std::vector<uint32_t> values(c.reg_count);
    if (!tevix_reg_batch_read(cam.get(), c.reg_target, c.reg_addr, values.data(),
                              static_cast<uint16_t>(values.size()))) {
        std::fprintf(stderr, "tevix: register read failed\n");
        return k_exit_failed;
    }
    for (size_t i = 0; i < values.size(); ++i)
        std::printf("%u: 0x%08X (%u)\n", c.reg_addr + static_cast<uint32_t>(i), values[i],
                    values[i]);
    return k_exit_ok;
}

int _cmd_filter(const camera_cmds &c) {
    tool_library lib(c.verbosity);
    tool_device cam(c.uri);
    if (!cam.get()) return k_exit_failed;
    int r;
    if (c.filter_enable) {
        tevix_filter_arg_t arg{};
        for (size_t i = 0; i < c.filter_args.size() && i < 8; ++i)
            arg.u8[i] = static_cast<uint8_t>(c.filter_args[i]);
        if (c.filter_args.size() == 1) arg.u16[0] = static_cast<uint16_t>(c.filter_args[0]);
        r = tevix_filter_enable(cam.get(), c.filter_id, &arg);
    } else {
        r = tevix_filter_disable(cam.get(), c.filter_id);
    }
    if (r != 0) {
        std::fprintf(stderr, "tevix: the driver refused filter %u\n", c.filter_id);
        return k_exit_failed;
    }
    std::printf("filter %u %s\n", c.filter_id, c.filter_enable ? "enabled" : "disabled");
    return k_exit_ok;
}

// What one camera's capture met; the error callback runs on the pulling thread, so each
// camera's thread finds its own record.
struct capture_report {
    std::string uri, product, serial;
    uint32_t frames = 0, wanted = 0, discards = 0, gaps = 0;
    double seconds = 0.0;
    std::map<std::string, uint32_t> errors;
    bool started = false;
};
thread_local capture_report *t_report = nullptr;

int _on_error(tevix_dev_t *, int code, uint32_t extra) {
    if (!t_report) return 1;
    if (code == TEVIX_ERR_CAP_FRAME_DISCARD)
        t_report->discards = extra;
    else
        ++t_report->errors[tevix_error_name(code)];
    return 1;
}

// Captures `wanted` frames from dev; with progress, a live line on a terminal.
void _capture_one(tevix_dev_t *dev, capture_report &r, bool progress) {
    t_report = &r;
    tevix_cap_cfg_t cfg{};
    tevix_cap_config_get(dev, &cfg);
    cfg.on_cap_err = _on_error;
    tevix_cap_config_set(dev, &cfg);
    if (!tevix_cap_start(dev)) return;
    r.started = true;
    bool tty = progress && isatty(STDERR_FILENO) == 1;
    std::vector<uint8_t> buf(8u << 20);
    uint32_t failures = 0;
    int32_t last = -1;
    auto t0 = std::chrono::steady_clock::now();
    while (r.frames < r.wanted && failures < 3) {
        tevix_frame_info_t info{};
        int n = tevix_cap_get_frames(dev, 1, buf.data(), static_cast<uint32_t>(buf.size()), &info);
        if (n < 0) {
            ++r.errors[tevix_error_name(n)];
            ++failures;
            continue;
        }
        if (n == 0) {
            ++failures;
            continue;
        }
        failures = 0;
        r.frames += static_cast<uint32_t>(n);
        if (last >= 0) r.gaps += static_cast<uint16_t>(info.index - last - 1);
        last = info.index;
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (tty)
            std::fprintf(stderr, "\rframe %u/%u  #%u  %ux%u fmt %u  %.1f fps  discarded %u ",
                         r.frames, r.wanted, info.index, info.width, info.height, info.format,
                         s > 0 ? r.frames / s : 0.0, r.discards);
    }
    if (tty) std::fprintf(stderr, "\n");
    tevix_cap_stop(dev);
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    t_report = nullptr;
}

void _print_report(const capture_report &r, bool named) {
    if (named) std::printf("%s %s serial %s: ", r.uri.c_str(), r.product.c_str(), r.serial.c_str());
    std::printf("captured %u of %u frames in %.2f s (%.1f fps), %u discarded", r.frames, r.wanted,
                r.seconds, r.seconds > 0 ? r.frames / r.seconds : 0.0, r.discards);
    if (named) std::printf(", %u index gaps", r.gaps);
    std::printf("\n");
    for (const auto &[name, count] : r.errors) std::printf("  %s: %u\n", name.c_str(), count);
}

// Arrivals and removals as they happen, until interrupted or for the given time.
std::atomic<bool> g_stop{false};

void _on_plug(const tevix_hotplug_event_t *ev, void *) {
    std::printf("%s %s%s%s%s%s\n", ev->event == TEVIX_HOTPLUG_ARRIVED ? "arrived" : "left   ",
                ev->uri, ev->product[0] ? "  " : "", ev->product, ev->serial[0] ? "  serial " : "",
                ev->serial);
    std::fflush(stdout);
}

int _cmd_monitor(const camera_cmds &c) {
    tool_library lib(c.verbosity);
    std::signal(SIGINT, [](int) { g_stop = true; });
    std::signal(SIGTERM, [](int) { g_stop = true; });
    const int handle = tevix_hotplug_register(_on_plug, nullptr, 1);
    if (!handle) {
        std::fprintf(stderr, "tevix: hot-plug events cannot start\n");
        return k_exit_failed;
    }
    const auto t0 = std::chrono::steady_clock::now();
    while (
        !g_stop &&
        (c.seconds <= 0.0 ||
         std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() < c.seconds))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    tevix_hotplug_deregister(handle);
    return k_exit_ok;
}

// One camera, or several at once (each captured on a thread of its own, reported per camera).
int _cmd_capture(const camera_cmds &c) {
    tool_library lib(c.verbosity);
    std::vector<std::string> uris = c.uris;
    if (c.all) {
        std::vector<tevix_dev_t> list(32);
        const int n = tevix_dev_list(list.data(), static_cast<int>(list.size()));
        for (int i = 0; i < n; ++i) {
            char uri[64];
            const tevix_dev_t &d = list[static_cast<size_t>(i)];
            std::snprintf(uri, sizeof uri, "usb://%03u:%03u:%03u", d.addr.usb.bus, d.addr.usb.port,
                          d.addr.usb.addr);
            uris.push_back(uri);
        }
        if (uris.empty()) {
            std::fprintf(stderr, "tevix: no camera found\n");
            return k_exit_failed;
        }
    }
    if (uris.empty()) uris.push_back("");
    std::vector<std::unique_ptr<tool_device>> cams;
    std::vector<capture_report> reports(uris.size());
    for (size_t i = 0; i < uris.size(); ++i) {
        cams.push_back(std::make_unique<tool_device>(uris[i]));
        tevix_dev_t *dev = cams.back()->get();
        if (!dev) return k_exit_failed;
        char uri[300];
        reports[i].uri = tevix_dev_get_uri(dev, uri, sizeof uri) ? uri : uris[i];
        reports[i].product = dev->product;
        reports[i].serial = dev->serial;
        reports[i].wanted = c.frames;
    }
    const bool one = cams.size() == 1;
    std::vector<std::thread> workers;
    for (size_t i = 0; i < cams.size(); ++i)
        workers.emplace_back(_capture_one, cams[i]->get(), std::ref(reports[i]), one);
    for (auto &w : workers) w.join();
    bool ok = true;
    for (const capture_report &r : reports) {
        if (!r.started) std::fprintf(stderr, "tevix: capture of %s did not start\n", r.uri.c_str());
        _print_report(r, !one);
        ok = ok && r.started && r.frames == r.wanted;
    }
    return ok ? k_exit_ok : k_exit_failed;
}

}  // namespace

void tool_add_camera(CLI::App &app, camera_cmds &c) {
    c.info = app.add_subcommand("info", "identity, hardware id, driver and lens of a camera");
    c.info->add_option("uri", c.uri,
                       "usb://bus:port[:addr] or file://recording.oni (default: the first camera)");

    c.param = app.add_subcommand("param", "read or write a camera parameter");
    c.param->require_subcommand(1);
    auto *pget = c.param->add_subcommand("get", "read a parameter");
    pget->add_option("uri", c.uri, "device URI")->required();
    pget->add_option("id", c.param_id, "parameter id or name (FPS, INTG1, MOD_FREQ, ...)")
        ->required();
    auto *pset = c.param->add_subcommand("set", "write a parameter");
    pset->add_option("uri", c.uri, "device URI")->required();
    pset->add_option("id", c.param_id, "parameter id or name")->required();
    pset->add_option("value", c.param_value, "numbers separated by commas")->required();
    pset->callback([&c] { c.param_set = true; });

    c.reg = app.add_subcommand("reg", "read or write sensor registers");
    c.reg->require_subcommand(1);
    auto *rread = c.reg->add_subcommand("read", "read registers");
    rread->add_option("uri", c.uri, "device URI")->required();
    rread->add_option("target", c.reg_target, "register class")->required();
    rread->add_option("addr", c.reg_addr, "first register")->required();
    rread->add_option("count", c.reg_count, "number of registers")->check(CLI::Range(1, 65535));
    auto *rwrite = c.reg->add_subcommand("write", "write registers");
    rwrite->add_option("uri", c.uri, "device URI")->required();
    rwrite->add_option("target", c.reg_target, "register class")->required();
    rwrite->add_option("addr", c.reg_addr, "first register")->required();
    rwrite->add_option("values", c.reg_values, "values")->required();
    rwrite->callback([&c] { c.reg_write = true; });

    c.filter = app.add_subcommand("filter", "switch a host-side filter of the driver");
    c.filter->require_subcommand(1);
    auto *fen = c.filter->add_subcommand("enable", "switch a filter on");
    fen->add_option("uri", c.uri, "device URI")->required();
    fen->add_option("id", c.filter_id, "filter id 0..14")->required()->check(CLI::Range(0, 14));
    fen->add_option("args", c.filter_args, "argument bytes (one value: a 16-bit argument)");
    fen->callback([&c] { c.filter_enable = true; });
    auto *fdis = c.filter->add_subcommand("disable", "switch a filter off");
    fdis->add_option("uri", c.uri, "device URI")->required();
    fdis->add_option("id", c.filter_id, "filter id 0..14")->required()->check(CLI::Range(0, 14));

    c.capture = app.add_subcommand(
        "capture", "capture frames and report the rate and errors (several cameras at once)");
    c.capture->add_option("uri", c.uris, "device URIs (default: the first camera)");
    c.capture->add_flag("--all", c.all, "every camera attached");

    c.monitor = app.add_subcommand("monitor", "print cameras as they arrive and leave");
    c.monitor->add_option("-s,--seconds", c.seconds, "stop after this time (default: Ctrl-C)")
        ->check(CLI::NonNegativeNumber);
    c.capture->add_option("-n,--frames", c.frames, "number of frames")
        ->check(CLI::Range(1, 100000000));
}

int tool_run_camera(const camera_cmds &c) {
    if (c.monitor && c.monitor->parsed()) return _cmd_monitor(c);
    if (c.info && c.info->parsed()) return _cmd_info(c);
    if (c.param && c.param->parsed()) return _cmd_param(c);
    if (c.reg && c.reg->parsed()) return _cmd_reg(c);
    if (c.filter && c.filter->parsed()) return _cmd_filter(c);
    if (c.capture && c.capture->parsed()) return _cmd_capture(c);
    return -1;
}
