// tevix-vcam [options] -- COMMAND [ARGS]: attaches virtual cameras and runs an unmodified program
// against them, the way umockdev-run does (UMOCKDEV_DIR and the umockdev preload library).
//
// Exit status: the command's, 127 when it cannot be started, 2 on wrong usage.
#include <getopt.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vcam.h"
#ifdef TEVIX_VCAM_SCENE
#include "scene/scene.h"
#include "scene/sony_scene.h"
#endif

extern char **environ;

namespace {

void _usage(FILE *f) {
    std::fprintf(
        f,
        "usage: tevix-vcam [options] -- COMMAND [ARGS...]\n"
        "Runs COMMAND with virtual USB cameras attached (seen through libusb).\n"
        "  -n, --cameras N       number of cameras (default 1): two a bus (buses 1..,\n"
        "                        ports and addresses 2 and 3), each with its own serial\n"
        "                        and, unless --product is given, its own chip code\n"
        "                        (E1, E2, E4, E5; S1, S2, S3: one driver row each)\n"
        "      --model epc|sony  the kind of unit (default epc): sony is a 640x480 SONY\n"
        "                        unit (VXCAM-S1-R1) with its lens intrinsics, streaming the\n"
        "                        scene in the format of its parameter 10 (at start 17: dual\n"
        "                        frequency, 100 + 80 MHz)\n"
        "      --deep            the scene's room 6.2 m deep instead of 4.8 m\n"
        "  -f, --fps N           frame rate (default 30; 0 = as fast as the host reads)\n"
        "      --product TEXT    product string (default VXCAM-E1-R1)\n"
        "      --vendor TEXT     vendor string (default \"Tevix Virtual\")\n"
        "      --scene FORMAT    stream the rendered scene in an EPC frame format (1, 2, "
        "4, 10, 11)\n"
        "                        instead of the test pattern; for a sony unit the format\n"
        "                        at start (2, 10, 13, 14, 15, 16, 17, 142, 145)\n"
        "      --unit-errors     the scene seen through each unit's own systematic errors\n"
        "                        (offset per pixel, cyclic error, temperature drift)\n"
        "      --no-cksum        stream headers without the data checksum\n"
        "      --full-speed      report a 12 Mbit/s link\n"
        "      --garbage N       N garbage bytes before the first frame\n"
        "      --drop N          lose the first N bulk chunks of the stream\n"
        "      --corrupt N       wrong data checksum in the first N packets\n"
        "      --busy N          the first N status reads report busy\n"
        "      --fail TEXT       the first command ends with this error text\n"
        "      --unplug-after MS unplug every camera MS ms after the command starts\n"
        "      --replug-after MS plug them back MS ms after the unplug\n"
        "  -h, --help            this text\n");
}

struct options {
    int cameras = 1;
    long scene = -1;
    bool unit_errors = false;
    bool sony = false, deep = false;
    tevix::emu::camera_config cfg;
    uint32_t garbage = 0, drop = 0, corrupt = 0, busy = 0;
    std::string fail;
    long unplug_ms = -1, replug_ms = -1;
    bool product_set = false;
};

// Chip codes of the units after the first: each picks a driver row of its own, as cameras of
// different models do (the library serves one camera per chip code).
constexpr const char *k_unit_chips[] = {"E1", "E2", "E4", "E5"};
constexpr const char *k_sony_chips[] = {"S1", "S2", "S3"};

bool _num(const char *s, long lo, long hi, long *out) {
    char *end = nullptr;
    const long v = std::strtol(s, &end, 10);
    if (!s[0] || *end || v < lo || v > hi) return false;
    *out = v;
    return true;
}

int _parse(int argc, char **argv, options &o) {
    enum {
        o_product = 256,
        o_vendor,
        o_nocksum,
        o_fs,
        o_garbage,
        o_drop,
        o_corrupt,
        o_busy,
        o_fail,
        o_unplug,
        o_replug,
        o_scene,
        o_errors,
        o_model,
        o_deep
    };
    static const option longs[] = {{"cameras", required_argument, nullptr, 'n'},
                                   {"fps", required_argument, nullptr, 'f'},
                                   {"product", required_argument, nullptr, o_product},
                                   {"vendor", required_argument, nullptr, o_vendor},
                                   {"no-cksum", no_argument, nullptr, o_nocksum},
                                   {"full-speed", no_argument, nullptr, o_fs},
                                   {"garbage", required_argument, nullptr, o_garbage},
                                   {"drop", required_argument, nullptr, o_drop},
                                   {"corrupt", required_argument, nullptr, o_corrupt},
                                   {"busy", required_argument, nullptr, o_busy},
                                   {"fail", required_argument, nullptr, o_fail},
                                   {"unplug-after", required_argument, nullptr, o_unplug},
                                   {"replug-after", required_argument, nullptr, o_replug},
                                   {"scene", required_argument, nullptr, o_scene},
                                   {"unit-errors", no_argument, nullptr, o_errors},
                                   {"model", required_argument, nullptr, o_model},
                                   {"deep", no_argument, nullptr, o_deep},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    int c;
    long v;
    while ((c = getopt_long(argc, argv, "+n:f:h", longs, nullptr)) != -1) {
        const bool ok = [&] {
            switch (c) {
                case 'n':
                    return _num(optarg, 1, 100, &v) && (o.cameras = static_cast<int>(v), true);
                case 'f':
                    return _num(optarg, 0, 10000, &v) &&
                           (o.cfg.fps = static_cast<uint32_t>(v), true);
                case o_product:
                    return o.cfg.product = optarg, o.product_set = true, true;
                case o_vendor:
                    return o.cfg.vendor = optarg, true;
                case o_nocksum:
                    return o.cfg.data_cksum = false, true;
                case o_fs:
                    return o.cfg.speed_mbps = 12, true;
                case o_garbage:
                    return _num(optarg, 0, 1 << 20, &v) &&
                           (o.garbage = static_cast<uint32_t>(v), true);
                case o_drop:
                    return _num(optarg, 0, 1 << 20, &v) &&
                           (o.drop = static_cast<uint32_t>(v), true);
                case o_corrupt:
                    return _num(optarg, 0, 1 << 20, &v) &&
                           (o.corrupt = static_cast<uint32_t>(v), true);
                case o_busy:
                    return _num(optarg, 0, 1 << 20, &v) &&
                           (o.busy = static_cast<uint32_t>(v), true);
                case o_fail:
                    return o.fail = optarg, true;
                case o_unplug:
                    return _num(optarg, 0, 86400000, &o.unplug_ms);
                case o_replug:
                    return _num(optarg, 0, 86400000, &o.replug_ms);
                case o_scene:
                    return _num(optarg, 0, 255, &o.scene);
                case o_errors:
                    return o.unit_errors = true, true;
                case o_model:
                    if (std::strcmp(optarg, "sony") == 0) return o.sony = true, true;
                    return std::strcmp(optarg, "epc") == 0;
                case o_deep:
                    return o.deep = true, true;
                case 'h':
                    _usage(stdout);
                    std::exit(0);
                default:
                    return false;
            }
        }();
        if (!ok) {
            if (c != '?') std::fprintf(stderr, "tevix-vcam: bad value for an option\n");
            _usage(stderr);
            return -1;
        }
    }
    if (optind >= argc) {
        std::fprintf(stderr, "tevix-vcam: no command given\n");
        _usage(stderr);
        return -1;
    }
    return optind;
}

volatile sig_atomic_t g_child = 0;

void _forward_signal(int sig) {
    if (g_child > 0) kill(static_cast<pid_t>(g_child), sig);
}

}  // namespace

int main(int argc, char **argv) {
    options o;
    const int cmd = _parse(argc, argv, o);
    if (cmd < 0) return 2;

    // The testbed sets UMOCKDEV_DIR for the command.
    tevix::emu::testbed tb;
    for (int i = 0; i < o.cameras; ++i) {
        tevix::emu::camera_config cfg = o.cfg;
        cfg.bus = static_cast<uint8_t>(1 + i / 2);
        cfg.port = static_cast<uint8_t>(2 + i % 2);
        cfg.addr = static_cast<uint8_t>(2 + i % 2);
        cfg.uid[2] += static_cast<uint32_t>(i);
        if (!o.product_set)
            cfg.product = std::string("VXCAM-") +
                          (o.sony ? k_sony_chips[i % 3] : k_unit_chips[i % 4]) + "-R1";
        std::unique_ptr<tevix::emu::frame_source> src;
        if (o.scene >= 0 || o.sony) {
#ifdef TEVIX_VCAM_SCENE
            tevix::emu::scene_config sc =
                o.sony ? tevix::emu::sony_scene_config() : tevix::emu::scene_config{};
            // Each unit's own systematic errors, drawn from its serial number.
            sc.unit_errors = o.unit_errors;
            sc.unit_seed = cfg.uid[0] ^ cfg.uid[1] ^ cfg.uid[2];
            if (o.deep) sc.room_back_mm = 6200;
            if (o.sony) {
                cfg.width = 640;
                cfg.height = 480;
                cfg.mod_freq = 100000000;
                // Dual frequency (100 + 80 MHz, 7.5 m) unless another format is asked for.
                cfg.frame_format = o.scene >= 0 ? static_cast<uint32_t>(o.scene) : 17;
                cfg.dual_freq = {100000000, 80000000};
                cfg.lens.assign(std::begin(tevix::emu::k_sony_lens),
                                std::end(tevix::emu::k_sony_lens));
                src = std::make_unique<tevix::emu::sony_renderer>(sc);
            } else {
                src = std::make_unique<tevix::emu::scene_renderer>(sc,
                                                                   static_cast<uint16_t>(o.scene));
            }
#else
            std::fprintf(stderr, "tevix-vcam: built without the scene renderer\n");
            return 2;
#endif
        }
        tevix::emu::camera *cam = tb.add(cfg, std::move(src));
        if (!cam) return 1;
        cam->garbage_next(o.garbage);
        cam->drop_next(o.drop);
        cam->corrupt_cksum_next(o.corrupt);
        cam->with_firmware([&](tevix::emu::firmware &fw) {
            fw.busy_reads(o.busy);
            if (!o.fail.empty()) fw.fail_next(o.fail);
        });
    }

    std::string preload = "libumockdev-preload.so.0";
    if (const char *old = std::getenv("LD_PRELOAD"); old && *old) preload += std::string(":") + old;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    // A command built with AddressSanitizer would refuse to start behind the preload library.
    std::string asan = "verify_asan_link_order=0";
    if (const char *old = std::getenv("ASAN_OPTIONS"); old && *old)
        asan = std::string(old) + ":" + asan;
    setenv("ASAN_OPTIONS", asan.c_str(), 1);
    pid_t pid = 0;
    const int r = posix_spawnp(&pid, argv[cmd], nullptr, nullptr, argv + cmd, environ);
    unsetenv("LD_PRELOAD");
    if (r != 0) {
        std::fprintf(stderr, "tevix-vcam: cannot run %s: %s\n", argv[cmd], std::strerror(r));
        return 127;
    }

    std::mutex m;
    std::condition_variable cv;
    bool ended = false;
    std::thread faults([&] {
        if (o.unplug_ms < 0) return;
        std::unique_lock lk(m);
        if (cv.wait_for(lk, std::chrono::milliseconds(o.unplug_ms), [&] { return ended; })) return;
        for (size_t i = 0; i < tb.size(); ++i) tb.at(i)->unplug();
        if (o.replug_ms < 0) return;
        if (cv.wait_for(lk, std::chrono::milliseconds(o.replug_ms), [&] { return ended; })) return;
        for (size_t i = 0; i < tb.size(); ++i) tb.at(i)->replug();
    });

    // Ctrl-C reaches the command through the terminal's process group; a SIGTERM or SIGHUP sent
    // to us alone is passed on, so that stopping the wrapper never leaves the command running.
    signal(SIGINT, SIG_IGN);
    g_child = pid;
    struct sigaction sa {};
    sa.sa_handler = _forward_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    {
        std::lock_guard lk(m);
        ended = true;
    }
    cv.notify_all();
    faults.join();
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 1;
}
