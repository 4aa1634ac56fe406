// Lens parameter files: names, the binary and text loaders, and the drivers' search order.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "calib/calib.h"
#include "calib/calib_dev.h"
#include "log/log.h"

namespace {

using tevix::calib::file_ptr;

std::string _full_name(const tevix_dev_t *dev, const char *name) {
    return std::string(tevix::calib::dev_path_prefix(dev)) + (name ? name : "");
}

// An image dimension read as a double: a whole number of at least 1, within 0.001.
bool _whole_size(double v, uint32_t *out) {
    if (!(v >= 1.0 && v < 4294967296.0)) return false;
    const auto n = static_cast<uint32_t>(v);
    if (std::fabs(v - n) > 0.001) return false;
    *out = n;
    return true;
}

tevix_lens_bin_t *_len_bin_read(FILE *fp, const char *name) {
    tevix_lens_bin_t hdr;
    if (std::fread(&hdr, sizeof hdr, 1, fp) != 1) return nullptr;
    const uint32_t px = hdr.width * hdr.height;
    if (hdr.n_grad > 2 * uint64_t{px} || hdr.n_reflect > 4 * uint64_t{px}) return nullptr;
    const uint64_t table_bytes = 4 * (uint64_t{hdr.n_grad} + hdr.n_reflect);
    const uint64_t expect = 220 + table_bytes;
    if (hdr.hdrsz != expect) {
        VX_LOG_AS(5, "tevix_param_len_bin_load", "[%s]sz wrong: hdrsz=%d, expect=%d\n",
                  static_cast<int>(hdr.hdrsz), static_cast<int>(expect));
        return nullptr;
    }
    // Tables longer than the file would end in a short read; skip without allocating them.
    if (table_bytes > tevix::calib::file_remaining(fp)) return nullptr;
    auto *obj = static_cast<tevix_lens_bin_t *>(std::malloc(sizeof hdr + table_bytes));
    if (!obj) return nullptr;
    std::memcpy(obj, &hdr, sizeof hdr);
    if (std::fread(reinterpret_cast<uint8_t *>(obj) + sizeof hdr, 1, table_bytes, fp) !=
        table_bytes) {
        std::free(obj);
        return nullptr;
    }
    VX_LOG_AS(1, "tevix_param_len_bin_load",
              "[%s] Load %s: cx/cy/fx/fy=%.3f/%.3f/%.3f/%.3f, img=%u x %u, n_dcoef=%d, "
              "n_grad=%d, n_reflect=%d\n",
              name, static_cast<double>(hdr.cx), static_cast<double>(hdr.cy),
              static_cast<double>(hdr.fx), static_cast<double>(hdr.fy), hdr.width, hdr.height,
              hdr.n_dcoef, static_cast<int>(hdr.n_grad), static_cast<int>(hdr.n_reflect));
    return obj;
}

// Reads the text form into *out; false for a skip.
bool _len_text_read(FILE *fp, tevix_lens_param_t *out) {
    double head[4] = {};
    for (double &v : head) {
        // A token that is not a number leaves the value at zero without ending the read.
        if (std::fscanf(fp, "%lf", &v) == EOF) return false;
    }
    double rest[16] = {};
    int k = 0;
    for (; k < 16; ++k) {
        if (std::fscanf(fp, "%lf", &rest[k]) == EOF) break;
    }
    if (k < 2) return false;
    uint32_t width = 0, height = 0;
    if (!_whole_size(rest[k - 2], &width) || !_whole_size(rest[k - 1], &height)) return false;
    rest[k - 2] = 0.0;
    rest[k - 1] = 0.0;
    out->cx = head[0];
    out->cy = head[1];
    out->fx = head[2];
    out->fy = head[3];
    std::memcpy(out->dcoef, rest, sizeof rest);
    out->n_dcoef = static_cast<uint32_t>(k - 2);
    out->width = width;
    out->height = height;
    return true;
}

}  // namespace

namespace tevix::calib {

void lens_file_name(char *buf, uint32_t size, const char *prefix, uint32_t id, bool binary,
                    bool with_id) {
    if (!buf || size == 0) return;
    const char *ext = binary ? "bin" : "txt";
    if (with_id)
        std::snprintf(buf, size, "%slens_param_%u.%s", prefix, id, ext);
    else
        std::snprintf(buf, size, "%slens_param.%s", prefix, ext);
    buf[size - 1] = '\0';
}

bool lens_load_search(const tevix_dev_t *dev, tevix_lens_param_t *record, void **bin_out) {
    if (!record) return false;
    const uint32_t id = dev_ident(dev);
    char name[64];
    for (bool with_id : {true, false}) {
        lens_file_name(name, sizeof name, "", id, true, with_id);
        if (tevix_lens_bin_t *bin = tevix_param_len_bin_load(dev, name)) {
            *record = lens_from_bin(*bin);
            if (bin_out)
                *bin_out = bin;
            else
                tevix_param_len_bin_free(bin);
            return true;
        }
        lens_file_name(name, sizeof name, "", id, false, with_id);
        if (tevix_param_load_len_2d_file(dev, record, name)) return true;
    }
    return false;
}

}  // namespace tevix::calib

extern "C" char *tevix_lens_param_filename(const tevix_dev_t *dev, char *buf, uint32_t size,
                                           int binary, int with_id) noexcept {
    tevix::calib::lens_file_name(buf, size, tevix::calib::dev_path_prefix(dev),
                                 tevix::calib::dev_ident(dev), binary != 0, with_id != 0);
    return buf;
}

extern "C" tevix_lens_bin_t *tevix_param_len_bin_load(const tevix_dev_t *dev,
                                                      const char *name) noexcept {
    try {
        const std::string path = _full_name(dev, name);
        tevix_lens_bin_t *obj = nullptr;
        if (file_ptr fp{std::fopen(path.c_str(), "rb")}) {
            obj = _len_bin_read(fp.get(), name ? name : "");
        } else {
            VX_TRC("[%s]%s Open failed\n", path.c_str());
        }
        if (!obj) VX_DBG("[%s] Load %s: skipped\n", name ? name : "");
        return obj;
    } catch (...) {
        return nullptr;
    }
}

extern "C" void tevix_param_len_bin_free(void *lens) noexcept {
    std::free(lens);
}

extern "C" int tevix_param_load_len_2d_file(const tevix_dev_t *dev, tevix_lens_param_t *lens,
                                            const char *name) noexcept {
    try {
        const std::string path = _full_name(dev, name);
        tevix_lens_param_t rec{};
        bool ok = false;
        if (file_ptr fp{std::fopen(path.c_str(), "r")}) {
            ok = lens && _len_text_read(fp.get(), &rec);
        } else {
            VX_TRC("[%s]%s Open failed\n", path.c_str());
        }
        if (!ok) {
            VX_DBG("[%s] Load %s: skipped\n", name ? name : "");
            return 0;
        }
        *lens = rec;
        VX_DBG("[%s] Load %s: cx/cy/fx/fy=%.3f/%.3f/%.3f/%.3f, img=%u x %u, n_dcoef=%d\n",
               name ? name : "", rec.cx, rec.cy, rec.fx, rec.fy, rec.width, rec.height,
               static_cast<int>(rec.n_dcoef));
        return 1;
    } catch (...) {
        return 0;
    }
}
