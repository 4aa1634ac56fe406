// tevix firmware URI FILE [--type T] [--version V]
// tevix data download URI FILE [--type T] [--version V] [--addr A]
// tevix data upload URI FILE [--type T]
//
// Each shows a progress bar on a terminal and ends with a summary line; a failure exits with 1
// after the library's own error lines.
#include "cmd_xfer.h"

#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>

#include "tool_lib.h"

namespace {

constexpr int k_ok = 0;
constexpr int k_failed = 1;

struct progress_state {
    bool tty;
    const char *what;
};

void _progress(uint64_t done, uint64_t total, void *user) {
    const auto *p = static_cast<const progress_state *>(user);
    if (!p->tty) return;
    constexpr int k_width = 40;
    const int fill = total ? static_cast<int>(done * k_width / total) : k_width;
    std::fprintf(stderr, "\r%s [%.*s%*s] %" PRIu64 "/%" PRIu64 " bytes", p->what, fill,
                 "########################################", k_width - fill, "", done, total);
}

int _run(const xfer_cmd &x, bool upload) {
    tool_library lib(x.verbosity, true);
    tool_device dev(x.uri);
    if (!dev.get()) return k_failed;
    progress_state ps{isatty(STDERR_FILENO) == 1, upload ? "upload" : "download"};
    const auto t0 = std::chrono::steady_clock::now();
    const int r = upload ? tevix_data_upload_ex(dev.get(), x.type, x.file.c_str(), _progress, &ps)
                         : tevix_data_download_ex(dev.get(), x.file.c_str(), x.type, x.version,
                                                  x.addr, _progress, &ps);
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (ps.tty) std::fprintf(stderr, "\n");
    std::fflush(stdout);  // the library's lines first
    if (r != 1) {
        std::fprintf(stderr, "%s of %s failed (%d): the library's reason is printed above\n",
                     upload ? "upload" : "download", x.file.c_str(), r);
        return k_failed;
    }
    if (upload)
        std::printf("uploaded type %u into %s in %.2f s\n", unsigned{x.type}, x.file.c_str(), s);
    else if (x.type == 255)
        std::printf("erased the data of type 3 in %.2f s\n", s);
    else
        std::printf("downloaded %s as type %u version %u in %.2f s\n", x.file.c_str(),
                    unsigned{x.type}, unsigned{x.version}, s);
    return k_ok;
}

}  // namespace

void tool_add_xfer(CLI::App &app, xfer_cmd &x) {
    x.firmware = app.add_subcommand("firmware", "upgrade a camera's firmware from an image file");
    x.firmware->add_option("uri", x.uri, "camera URI (\"\": the first camera)")->required();
    x.firmware->add_option("file", x.file, "firmware image")->required();
    x.firmware->add_option("--type", x.type, "image type")->capture_default_str();
    x.firmware->add_option("--version", x.version, "version of the image")->capture_default_str();
    auto *data = app.add_subcommand("data", "move data files to and from a camera's flash");
    data->require_subcommand(1);
    x.download = data->add_subcommand("download", "send a file to the camera");
    x.download->add_option("uri", x.uri, "camera URI (\"\": the first camera)")->required();
    x.download->add_option("file", x.file, "file to send")->required();
    x.download->add_option("--type", x.type, "data type (3: data; 255: erase only)")
        ->capture_default_str();
    x.download->add_option("--version", x.version, "version of the data")->capture_default_str();
    x.download->add_option("--addr", x.addr, "target address")->capture_default_str();
    x.upload = data->add_subcommand("upload", "read the camera's data of a type into a file");
    x.upload->add_option("uri", x.uri, "camera URI (\"\": the first camera)")->required();
    x.upload->add_option("file", x.file, "file to write")->required();
    x.upload->add_option("--type", x.type, "data type")->capture_default_str();
}

int tool_run_xfer(const xfer_cmd &x) {
    if (x.firmware && x.firmware->parsed()) return _run(x, false);
    if (x.download && x.download->parsed()) return _run(x, false);
    if (x.upload && x.upload->parsed()) return _run(x, true);
    return -1;
}
