// Calibration from the device (upload mode, frames of the stored image, the upload header, zip)
// and the reverse: packing a container and downloading it into the device.
#include "calib/calib_dev_xfer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "calib/calib.h"
#include "calib/calib_dev.h"
#include "log/log.h"
#include "platform/platform.h"
#include "tevix/tevix.h"
#include "tevix/tevix_param.h"

namespace tevix::calib {

namespace {

constexpr const char *k_tmp_zip = "tmp.zip";
constexpr uint32_t k_chunk = 4096;
constexpr uint16_t k_fmt_calib = 171;

struct upload_hdr {
    uint8_t valid = 0, compressed = 0;
    uint32_t ver = 0, ts = 0, fsize = 0, dsize = 0;
};

void _put32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t _get32(const uint8_t *p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void _encode(const upload_hdr &h, uint8_t out[k_upload_hdr]) {
    out[0] = h.valid;
    out[1] = h.compressed;
    _put32(out + 2, h.ver);
    _put32(out + 6, h.ts);
    _put32(out + 10, h.fsize);
    _put32(out + 14, h.dsize);
}

upload_hdr _decode(const uint8_t in[k_upload_hdr]) {
    upload_hdr h;
    h.valid = in[0];
    h.compressed = in[1];
    h.ver = _get32(in + 2);
    h.ts = _get32(in + 6);
    h.fsize = _get32(in + 10);
    h.dsize = _get32(in + 14);
    return h;
}

// Holds the working directory's lock for as long as "tmp.zip" is in use.
class tmp_zip_lock {
  public:
    tmp_zip_lock() {
        fd_ = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd_ >= 0)
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
    }
    ~tmp_zip_lock() {
        if (fd_ >= 0) ::close(fd_);  // closing releases the lock
    }
    tmp_zip_lock(const tmp_zip_lock &) = delete;
    tmp_zip_lock &operator=(const tmp_zip_lock &) = delete;

  private:
    int fd_ = -1;
};

// The last path element: archive entries are extracted under their base name only.
std::string _base_name(const char *name) {
    const char *slash = std::strrchr(name, '/');
    return slash ? slash + 1 : name;
}

bool _zip_file(const char *source) {
    constexpr const char *fn = "file_zip";
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]zip(%s,%s)\n", k_tmp_zip, source);
    int err = 0;
    zip_t *za = zip_open(k_tmp_zip, ZIP_CREATE | ZIP_TRUNCATE, &err);
    file_ptr in(std::fopen(source, "rb"));
    if (!za || !in) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]%s open Error\n", za ? source : k_tmp_zip);
        if (za) zip_discard(za);
        return false;
    }
    // The source is read here in 4 KiB chunks and handed to the archive as one buffer.
    std::vector<uint8_t> data;
    uint8_t buf[k_chunk];
    const int64_t size = plat::file_size(source);
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, in.get())) > 0)
        data.insert(data.end(), buf, buf + n);
    if (size < 0 || data.size() != static_cast<size_t>(size)) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]expect readlen %d,but:%d\n", static_cast<int>(size),
                  static_cast<int>(data.size()));
        zip_discard(za);
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]End\n");
        return false;
    }
    zip_source_t *src = zip_source_buffer(za, data.data(), data.size(), 0);
    const zip_int64_t idx = src ? zip_file_add(za, source, src, ZIP_FL_OVERWRITE) : -1;
    if (idx < 0) {
        if (src) zip_source_free(src);
        zip_discard(za);
        return false;
    }
    zip_set_file_compression(za, static_cast<zip_uint64_t>(idx), ZIP_CM_DEFLATE, 6);
    // The entry takes the source's time, not the time of packing: the same container packs into
    // the same bytes.
    struct stat st {};
    if (::stat(source, &st) == 0)
        zip_file_set_mtime(za, static_cast<zip_uint64_t>(idx), st.st_mtime, 0);
    const bool ok = zip_close(za) == 0;
    if (!ok) zip_discard(za);
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]End\n");
    return ok;
}

// Extracts "tmp.zip" into the parameter directory: its one entry as the device's container
// (the archive names it by the path it was packed from, which need not be the device's file
// name), several entries under their base names.
bool _unzip(const tevix_dev_t *dev, const std::string &dir, const char *fn) {
    int err = 0;
    zip_t *za = zip_open(k_tmp_zip, ZIP_RDONLY, &err);
    if (!za) return false;
    const zip_int64_t total = zip_get_num_entries(za, 0);
    bool ok = total > 0;
    for (zip_int64_t i = 0; ok && i < total; ++i) {
        const char *name = zip_get_name(za, static_cast<zip_uint64_t>(i), 0);
        const std::string base = name ? _base_name(name) : "";
        if (base.empty() || base == "." || base == "..") {
            ok = false;
            break;
        }
        zip_file_t *zf = zip_fopen_index(za, static_cast<zip_uint64_t>(i), 0);
        char own[512];
        const std::string out_path =
            total == 1 ? std::string(tevix_get_param_absolute_name(dev, own, sizeof own))
                       : dir + base;
        file_ptr out(zf ? std::fopen(out_path.c_str(), "wb") : nullptr);
        if (!zf || !out) {
            if (zf) zip_fclose(zf);
            ok = false;
            break;
        }
        uint8_t buf[k_chunk];
        zip_int64_t n;
        while ((n = zip_fread(zf, buf, sizeof buf)) > 0)
            if (std::fwrite(buf, 1, static_cast<size_t>(n), out.get()) != static_cast<size_t>(n))
                n = -1;
        zip_fclose(zf);
        ok = n == 0 && std::fflush(out.get()) == 0;
        if (!ok) {
            out.reset();
            plat::remove_file(out_path.c_str());
            break;
        }
        VX_LOG_AS(VX_LOG_DBG, fn, "[%s]Extracted: %s (%d of %d)\n", base.c_str(),
                  static_cast<int>(i + 1), static_cast<int>(total));
    }
    zip_discard(za);
    return ok;
}

}  // namespace

// Steps 8 to 11 of the load: header check, container or archive out, archive extracted. Every
// failure is logged; the caller's result does not depend on it.
void _calib_pk_parse(const tevix_dev_t *dev, const std::string &bin) {
    constexpr const char *fn = "_calib_pk_parse";
    const std::string dir = dev_path_prefix(dev);
    file_ptr in(std::fopen(bin.c_str(), "rb"));
    if (!in) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]Open %s failed\n", bin.c_str());
        return;
    }
    const int64_t size = plat::file_size(bin.c_str());
    uint8_t raw[k_upload_hdr];
    if (std::fread(raw, 1, sizeof raw, in.get()) != sizeof raw) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]Read header of %s falied\n", bin.c_str());
        in.reset();
        plat::remove_file(bin.c_str());
        return;
    }
    const upload_hdr h = _decode(raw);
    VX_LOG_AS(VX_LOG_TRC, fn,
              "[%s]CALIB HDR(compressed): valid=%d, fsize=%d, dsize=%d, ver=%d, ts=%d\n", h.valid,
              static_cast<int>(h.fsize), static_cast<int>(h.dsize), static_cast<int>(h.ver),
              static_cast<int>(h.ts));
    if (!h.valid || int64_t{h.fsize} != size || !h.dsize || !h.ts ||
        uint64_t{h.dsize} + k_upload_hdr > h.fsize) {
        VX_LOG_AS(VX_LOG_ERR, fn,
                  "[%s]%s header verify failed: valid=%d, ts=%u, fsize=%d (expect=%d), dsize=%d)\n",
                  bin.c_str(), h.valid, h.ts, static_cast<int>(size), static_cast<int>(h.fsize),
                  static_cast<int>(h.dsize));
        in.reset();
        plat::remove_file(bin.c_str());
        return;
    }
    const bool zipped = h.compressed == 1;
    std::unique_ptr<tmp_zip_lock> lock;
    char name[512];
    std::string dest;
    if (zipped) {
        lock = std::make_unique<tmp_zip_lock>();
        plat::remove_file(k_tmp_zip);
        dest = k_tmp_zip;
    } else {
        dest = tevix_get_param_absolute_name(dev, name, sizeof name);
    }
    // Written beside the destination and renamed: a failure leaves no half container.
    const std::string part = dest + ".part";
    file_ptr out(std::fopen(part.c_str(), "wb"));
    if (!out) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]Open %s failed\n", dest.c_str());
        in.reset();
        plat::remove_file(bin.c_str());
        return;
    }
    uint32_t rem = h.dsize;
    uint8_t buf[k_chunk];
    bool ok = true;
    while (rem && ok) {
        const size_t want = rem < k_chunk ? rem : k_chunk;
        if (std::fread(buf, 1, want, in.get()) != want) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]read %s failed: rem_size = %d\n", bin.c_str(),
                      static_cast<int>(rem));
            ok = false;
        } else if (std::fwrite(buf, 1, want, out.get()) != want) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]write %s failed: rem_size = %d\n", dest.c_str(),
                      static_cast<int>(rem));
            ok = false;
        } else {
            rem -= static_cast<uint32_t>(want);
        }
    }
    ok = std::fclose(out.release()) == 0 && ok;
    in.reset();
    if (ok) ok = plat::rename_file(part.c_str(), dest.c_str()) == 0;
    plat::remove_file(part.c_str());
    if (ok && zipped) {
        if (_unzip(dev, dir, fn)) {
            VX_LOG_AS(VX_LOG_TRC, fn, "[%s]unzip %s OK\n", k_tmp_zip);
        } else {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]unzip %s failed\n", k_tmp_zip);
        }
    }
    if (zipped) plat::remove_file(k_tmp_zip);
    plat::remove_file(bin.c_str());
}

namespace {

bool _set_mode(tevix_dev_t *dev, uint32_t mode) {
    tevix_param_item_t it{};
    it.id = TEVIX_PARAM_DEV_MOD;
    it.len = 4;
    it.value.u32[0] = mode;
    return tevix_param_batch_set(dev, &it, 1) == 1;
}

}  // namespace

bool _tevix_param_encode_construct(const char *source, const char *destination, uint32_t ver,
                                   bool compress) {
    constexpr const char *fn = "_tevix_param_encode_construct";
    if (!source || !destination) return false;
    std::vector<uint8_t> pad(k_chunk, 0x01);
    const int64_t size = plat::file_size(source);
    if (size < 0) VX_LOG_AS(VX_LOG_ERR, "file_size", "[%s]%s open failed\n", source);
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]%s,file size:%d\n", source, static_cast<int>(size));
    if (size < 0 || size > int64_t{k_upload_max}) return false;
    upload_hdr h;
    tevix_param_handle_t ph{};
    if (tevix_param_open_file(&ph, source)) {
        h.ts = ph.hdr.ts;
        tevix_param_close(&ph);
    }
    h.valid = 1;
    h.ver = ver;
    h.dsize = static_cast<uint32_t>(size);
    h.fsize = h.dsize + k_upload_hdr;
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]calib size:%d\n", static_cast<int>(h.dsize));
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]Final ts:%d\n", static_cast<int>(h.ts));
    std::unique_ptr<tmp_zip_lock> lock;
    const char *data = source;
    if (compress) {
        lock = std::make_unique<tmp_zip_lock>();
        const int64_t zsize = _zip_file(source) ? plat::file_size(k_tmp_zip) : -1;
        if (zsize < 1) {
            plat::remove_file(k_tmp_zip);
            return false;
        }
        h.compressed = 1;
        h.dsize = static_cast<uint32_t>(zsize);
        h.fsize = h.dsize + k_upload_hdr;
        data = k_tmp_zip;
    }
    uint32_t pad_len = 0;
    if (h.fsize % k_upload_frame) {
        pad_len = k_upload_frame - h.fsize % k_upload_frame;
        h.fsize += pad_len;
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]%d,%d,%d\n", static_cast<int>(k_upload_frame),
                  static_cast<int>(h.fsize), static_cast<int>(pad_len));
    }
    bool ok = false;
    {
        file_ptr out(std::fopen(destination, "wb"));
        file_ptr in(out ? std::fopen(data, "rb") : nullptr);
        if (!out) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]Error open %s\n", destination);
        } else if (!in) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]open :%s failed \n", data);
        } else {
            uint8_t hdr[k_upload_hdr];
            _encode(h, hdr);
            ok = std::fwrite(hdr, 1, sizeof hdr, out.get()) == sizeof hdr;
            uint8_t buf[k_chunk];
            for (uint32_t rem = h.dsize; ok && rem;) {
                const size_t want = rem < k_chunk ? rem : k_chunk;
                const size_t got = std::fread(buf, 1, want, in.get());
                if (got != want) {
                    VX_LOG_AS(VX_LOG_ERR, fn, "[%s]1expect read:%d ,but:%d\n",
                              static_cast<int>(want), static_cast<int>(got));
                    ok = false;
                    break;
                }
                ok = std::fwrite(buf, 1, want, out.get()) == want;
                rem -= static_cast<uint32_t>(want);
            }
            for (uint32_t rem = pad_len; ok && rem;) {
                const size_t n = rem < k_chunk ? rem : k_chunk;
                ok = std::fwrite(pad.data(), 1, n, out.get()) == n;
                rem -= static_cast<uint32_t>(n);
            }
            ok = std::fclose(out.release()) == 0 && ok;
        }
    }
    if (compress) plat::remove_file(k_tmp_zip);
    if (!ok) plat::remove_file(destination);
    return ok;
}

}  // namespace tevix::calib

extern "C" {

bool tevix_param_load_from_dev(tevix_dev_t *dev) noexcept {
    constexpr const char *fn = "tevix_param_load_from_dev";
    using namespace tevix::calib;
    if (!dev) return false;
    tevix_cap_stop(dev);
    if (!_set_mode(dev, 9)) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s] set mode to DATA_UP failed!\n");
        return false;
    }
    bool result = false;
    tevix_param_item_t info{};
    info.id = TEVIX_PARAM_CALIB_INFO;
    info.len = 16;
    const std::string bin = std::string(dev_path_prefix(dev)) + "calibration.bin";
    if (!tevix_param_batch_get(dev, &info, 1)) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s] get param of calib data failed!\n");
    } else {
        const uint8_t valid = info.value.u8[0], present = info.value.u8[1];
        uint16_t ver;
        uint32_t fsize, dsize;
        std::memcpy(&ver, info.value.u8 + 2, 2);
        std::memcpy(&fsize, info.value.u8 + 4, 4);
        std::memcpy(&dsize, info.value.u8 + 8, 4);
        const uint32_t expected = fsize / k_upload_frame;
        VX_LOG_AS(VX_LOG_DBG, fn, "[%s]dev calib: valid=%d, fsize=%d, fr_num=%d\n", valid,
                  static_cast<int>(fsize), static_cast<int>(expected));
        FILE *out = nullptr;
        if (valid != 1 || ver < 133 || !present || fsize > k_upload_max ||
            uint64_t{fsize} < uint64_t{dsize} + k_upload_hdr) {
            // refused: no calibration worth fetching
        } else if (!(out = std::fopen(bin.c_str(), "wb"))) {
            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]open %s failed\n", bin.c_str());
        } else {
            result = true;
            std::vector<uint8_t> frame(8u << 20);
            if (tevix_cap_start(dev) == 1) {
                uint32_t got = 0;
                int strays = 0;
                while (got < expected) {
                    tevix_frame_info_t fi{};
                    const int r = tevix_cap_get_frames(dev, 1, frame.data(),
                                                       static_cast<uint32_t>(frame.size()), &fi);
                    if (r != 1) {
                        VX_LOG_AS(VX_LOG_DBG, fn, "[%s]get calib frames failed: ret=%d\n", r);
                        break;
                    }
                    if (fi.format == k_fmt_calib && fi.size) {
                        if (std::fwrite(frame.data(), 1, k_upload_frame, out) != k_upload_frame) {
                            VX_LOG_AS(VX_LOG_ERR, fn, "[%s]write calib frames to %s failed\n",
                                      bin.c_str());
                            break;
                        }
                        ++got;
                        if (fi.index >= expected - 1) break;
                        continue;
                    }
                    VX_LOG_AS(VX_LOG_DBG, fn,
                              "[%s]Get non-calib frames: fmt=%d, size=%u, fr_num = %d, inv=%d\n",
                              fi.format, fi.size, static_cast<int>(got), strays);
                    // One stray frame before the data is tolerated.
                    if (got || ++strays > 1) break;
                }
                tevix_cap_stop(dev);
            }
            std::fclose(out);
            _calib_pk_parse(dev, bin);
        }
    }
    if (!_set_mode(dev, 0) && !_set_mode(dev, 0))
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]Device set back to normal mode failed! It may not work\n");
    return result;
}

bool tevix_calib_bin_data_pk_and_download_ex(tevix_dev_t *dev, bool compress, bool download,
                                             const char *source) noexcept {
    constexpr const char *fn = "tevix_calib_bin_data_pk_and_download_ex";
    using namespace tevix::calib;
    if (!dev) return false;
    tevix_param_item_t chip{};
    chip.id = TEVIX_PARAM_SENSOR;
    chip.len = 6;
    if (!tevix_param_batch_get(dev, &chip, 1)) {
        VX_LOG_AS(VX_LOG_ERR, fn, "[%s]Get chip info failed\n");
        return false;
    }
    const uint16_t wafer = chip.value.u16[1], chip_id = chip.value.u16[2];
    const uint32_t ver = uint32_t{chip_id} << 16 | wafer;
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]ver:%d\n", static_cast<int>(ver));
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]wafer_id:%d,chip_id:%d\n", wafer, chip_id);
    char out[64];
    std::snprintf(out, sizeof out, "tcm_ex_encode_rel_W%03i_C%03i.bin", int{wafer}, int{chip_id});
    char name[512];
    if (source) {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]download calib file from Specified file.\n");
    } else {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]download calib file from calibration.\n");
        source = tevix_get_param_absolute_name(dev, name, sizeof name);
    }
    if (!_tevix_param_encode_construct(source, out, ver, compress)) {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]Construct calibration file failed\n");
        return false;
    }
    if (!download) return true;
    if (tevix_data_download(dev, out, 3, 0xFFFB, 0x10194010) < 1) {
        VX_LOG_AS(VX_LOG_INF, fn, "[%s]Download failed\n");
        tevix::plat::remove_file(out);
        return false;
    }
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]Clibration data:%s download ok\n", out);
    VX_LOG_AS(VX_LOG_INF, fn, "[%s]reset device\n");
    tevix_dev_reset(dev, 0);
    tevix::plat::remove_file(out);
    return true;
}

}  // extern "C"
