// Calibration container: open and verify, close, file name.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "calib/calib.h"
#include "calib/calib_dev.h"
#include "log/log.h"

namespace tevix::calib {

void fletcher16::feed(std::span<const uint8_t> bytes) {
    uint32_t s1 = s1_, s2 = s2_;
    for (uint8_t b : bytes) {
        s1 = (s1 + b) % 255;
        s2 = (s2 + s1) % 255;
    }
    s1_ = s1;
    s2_ = s2;
}

uint64_t file_remaining(FILE *fp) {
    long pos = std::ftell(fp);
    if (pos < 0 || std::fseek(fp, 0, SEEK_END) != 0) return 0;
    long end = std::ftell(fp);
    std::fseek(fp, pos, SEEK_SET);
    return end > pos ? static_cast<uint64_t>(end - pos) : 0;
}

uint16_t param_header_cksum(const tevix_param_t &hdr) {
    const auto *p = reinterpret_cast<const uint8_t *>(&hdr);
    return fletcher16_of(
        std::span(p + TEVIX_PARAM_CKSUM_FIRST, p + static_cast<size_t>(TEVIX_PARAM_CKSUM_END)));
}

}  // namespace tevix::calib

namespace {

using tevix::calib::fletcher16;

using tevix::calib::file_ptr;

struct free_deleter {
    void operator()(void *p) const { std::free(p); }
};

// Block failures are reported under the open operation's name.
constexpr const char *k_open_fn = "tevix_param_open_file";

bool _param_verify(const tevix_param_t &hdr) {
    const bool current = hdr.ver >= TEVIX_PARAM_VER_CURRENT;
    const uint32_t magic = current ? TEVIX_PARAM_MAGIC : uint32_t{TEVIX_PARAM_MAGIC_OLD};
    if (hdr.magic != magic) {
        VX_WRN("[%s]wrong magic id (ver=%d): 0x%x\n", hdr.ver, hdr.magic);
        return false;
    }
    if (tevix::calib::param_header_cksum(hdr) != hdr.cksum) {
        VX_WRN("[%s]wrong cksum (ver=%d): 0x%x\n", hdr.ver, hdr.cksum);
        return false;
    }
    if (hdr.lens_name[0] != '\0') {
        const double cx = hdr.cx, cy = hdr.cy;
        // NaN fails as well: the drivers divide by these.
        if (!(cx >= 16.0 && cx <= 1024.0 && cy >= 16.0 && cy <= 1024.0)) {
            char name[sizeof hdr.lens_name + 1] = {};
            std::memcpy(name, hdr.lens_name, sizeof hdr.lens_name);
            VX_WRN("[%s]wrong range for lens param: cx/cy=%.1f/%.1f, name=%64s\n", cx, cy, name);
            return false;
        }
    }
    if (hdr.blk_cnt < 0 || hdr.blk_cnt >= TEVIX_PARAM_MAX_BLKS) {
        VX_WRN("[%s]too much param blks: %d\n", hdr.blk_cnt);
        return false;
    }
    if (current && hdr.blk_size != 0 &&
        (hdr.blk_size < static_cast<uint32_t>(hdr.blk_cnt) * sizeof(par_dev_hdr) ||
         hdr.blk_size > TEVIX_PARAM_BLK_SIZE_MAX)) {
        VX_WRN("[%s]wrong blk total size: %d,max blk size is %d\n", static_cast<int>(hdr.blk_size),
               TEVIX_PARAM_BLK_SIZE_MAX);
        return false;
    }
    return true;
}

// Reads the current-format blocks into the handle. Returns false after logging.
bool _read_blocks(tevix_param_handle_t *h, FILE *fp, const char *path) {
    const tevix_param_t &hdr = h->hdr;
    fletcher16 ck;
    uint64_t total = 0;
    for (int32_t i = 0; i < hdr.blk_cnt; ++i) {
        par_dev_hdr bh;
        if (std::fread(&bh, sizeof bh, 1, fp) != 1) {
            VX_LOG_AS(6, k_open_fn, "[%s]read par_dev_hdr failed: %s\n", path);
            return false;
        }
        ck.feed(std::span(reinterpret_cast<const uint8_t *>(&bh), sizeof bh));
        h->offset[i] = static_cast<uint32_t>(std::ftell(fp));
        h->blk[i] = bh;
        total += uint64_t{bh.size} + sizeof bh;
        // A payload longer than the rest of the file cannot be read; say so without allocating.
        if (bh.size > tevix::calib::file_remaining(fp)) {
            VX_LOG_AS(6, k_open_fn, "[%s]read blk#%d data failed: %s\n", i, path);
            return false;
        }
        std::unique_ptr<uint8_t, free_deleter> buf(
            static_cast<uint8_t *>(std::malloc(bh.size ? bh.size : 1)));
        if (!buf) {
            VX_LOG_AS(6, k_open_fn, "[%s]malloc %u bytes failed\n", bh.size);
            return false;
        }
        if (std::fread(buf.get(), 1, bh.size, fp) != bh.size) {
            VX_LOG_AS(6, k_open_fn, "[%s]read blk#%d data failed: %s\n", i, path);
            return false;
        }
        ck.feed(std::span(buf.get(), bh.size));
    }
    if (hdr.blk_size != 0 && hdr.blk_size != total) {
        VX_LOG_AS(6, k_open_fn, "[%s]param blks size wrong: size=%d (expect %d)\n",
                  static_cast<int>(total), static_cast<int>(hdr.blk_size));
        return false;
    }
    if (ck.value() != hdr.blk_cksum) {
        VX_LOG_AS(6, k_open_fn, "[%s]param blks cksum failed: ck_sum=0x%x (expect 0x%x)\n",
                  ck.value(), hdr.blk_cksum);
        return false;
    }
    return true;
}

// Walks the old-format blocks, presenting each as a current-format block whose payload starts
// with the 41 header bytes after the type byte.
bool _read_old_blocks(tevix_param_handle_t *h, FILE *fp, const char *path) {
    for (int32_t i = 0; i < h->hdr.blk_cnt; ++i) {
        blk_unit_hdr bh;
        if (std::fread(&bh, sizeof bh, 1, fp) != 1) {
            VX_LOG_AS(6, k_open_fn, "[%s]read blk_unit_hdr failed: %s\n", path);
            return false;
        }
        if (bh.type != 1) {
            VX_LOG_AS(6, k_open_fn, "[%s]wrong blk unit type: %d\n", bh.type);
            return false;
        }
        constexpr uint32_t after_type = sizeof(blk_unit_hdr) - 1;
        h->blk[i].type = 1;
        h->blk[i].size = bh.size + after_type;
        h->offset[i] = static_cast<uint32_t>(std::ftell(fp) - after_type);
        std::fseek(fp, static_cast<long>(bh.size), SEEK_CUR);
    }
    return true;
}

}  // namespace

extern "C" int tevix_param_open_file(tevix_param_handle_t *handle, const char *path) noexcept {
    if (!handle) return 0;
    std::memset(handle, 0, sizeof *handle);
    if (!path) path = "";
    file_ptr fp(std::fopen(path, "rb"));
    if (!fp) {
        VX_DBG("[%s]open calib bin failed: %s\n", path);
        return 0;
    }
    bool ok = false;
    if (std::fread(&handle->hdr, sizeof handle->hdr, 1, fp.get()) != 1) {
        VX_ERR("[%s]read tevix_param_t failed: %s\n", path);
    } else if (!_param_verify(handle->hdr)) {
        VX_ERR("[%s]_param_verify failed: %s\n", path);
    } else {
        const tevix_param_t &hdr = handle->hdr;
        VX_DBG("[%s]calib param : ver=%d, ts=%u, blk cnt=%d, size=%u, cksum=0x%x\n", hdr.ver,
               hdr.par_ts, hdr.blk_cnt, hdr.blk_size, hdr.blk_cksum);
        if (hdr.ver >= TEVIX_PARAM_VER_CURRENT)
            ok = _read_blocks(handle, fp.get(), path);
        else
            ok = _read_old_blocks(handle, fp.get(), path);
        if (ok && std::strlen(path) > TEVIX_PARAM_NAME_MAX) {
            VX_ERR("[%s]param filename too long: len=%d\n", static_cast<int>(std::strlen(path)));
            ok = false;
        }
    }
    if (!ok) {
        std::memset(handle, 0, sizeof *handle);
        return 0;
    }
    std::snprintf(handle->name, sizeof handle->name, "%s", path);
    handle->fp = fp.release();
    handle->opened = 1;
    return 1;
}

extern "C" void tevix_param_close(tevix_param_handle_t *handle) noexcept {
    if (!handle || !handle->opened) return;
    if (handle->fp) std::fclose(handle->fp);
    handle->fp = nullptr;
    handle->opened = 0;
}

extern "C" char *tevix_get_param_absolute_name(const tevix_dev_t *dev, char *buf,
                                               uint32_t size) noexcept {
    if (!buf || size == 0) return buf;
    std::snprintf(buf, size, "%stevix_param_%u.bin", tevix::calib::dev_path_prefix(dev),
                  tevix::calib::dev_ident(dev));
    buf[size - 1] = '\0';
    return buf;
}
