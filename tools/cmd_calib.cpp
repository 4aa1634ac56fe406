// tevix calib fetch URI [--dir DIR]            the camera's calibration into the cache
// tevix calib pack URI [FILE] [--zip]          FILE (default: the cached container) packed for
//                                              the camera, kept as tcm_ex_encode_rel_W..._C....bin
// tevix calib download URI [FILE] [--zip]      packed and downloaded into the camera, which resets
#include "cmd_calib.h"

#include <cstdio>

#include "tevix/tevix_param.h"
#include "tool_lib.h"

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
}

int tool_run_calib(const calib_cmd &c) {
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
