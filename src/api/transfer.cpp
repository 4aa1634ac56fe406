// Data transfer and firmware upgrade: whole files moved between the host and the camera's flash
// over the 0xCC command and the bulk-out endpoint (the protocol is laid out in xfer_proto.h).
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "api/session.h"
#include "ll/usb/xfer_proto.h"
#include "log/log.h"
#include "platform/platform.h"
#include "tevix/tevix.h"
#include "tevix/tevix_ll.h"

namespace {

namespace x = tevix::xfer;

constexpr int64_t k_file_max = 104857600;
// An erase longer than this is taken for a camera that stopped answering.
constexpr uint32_t k_erase_wait_ms = 120000;
constexpr int k_piece_tries = 3;

struct ack {
    uint16_t num = 0;
    uint8_t status = 0;
    uint16_t packet_size = 0;
};

bool _device_ok(const tevix_dev_t *dev) {
    return dev && dev->session && dev->session->open && dev->api_mutex;
}

int _cmd(tevix_dev_t *dev, bool write, uint16_t sub, uint8_t *payload, uint32_t len,
         uint32_t timeout_ms) {
    return tevix_ll_exe_cmd(&dev->session->ll, write ? 1 : 0, x::k_cmd, sub, payload, len,
                            timeout_ms);
}

bool _read_ack(tevix_dev_t *dev, ack &a) {
    uint8_t buf[x::k_ack_len] = {};
    if (!_cmd(dev, false, x::k_sub_ack, buf, sizeof buf, 50000)) return false;
    a.num = x::get16(buf);
    a.status = buf[2];
    a.packet_size = x::get16(buf + 3);
    return true;
}

bool _read_file(const char *fn, const char *path, std::vector<uint8_t> &out) {
    std::FILE *f = std::fopen(path, "rb");
    if (!f) {
        VX_LOG_AS(4, fn, "[%s]File open failed:%s\n", path);
        return false;
    }
    int64_t size = -1;
    if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
    if (size < 1 || size > k_file_max) {
        VX_LOG_AS(6, fn, "[%s]Wrong File size:%d\n", static_cast<int>(size));
        std::fclose(f);
        return false;
    }
    std::rewind(f);
    out.resize(static_cast<size_t>(size));
    const size_t got = std::fread(out.data(), 1, out.size(), f);
    std::fclose(f);
    if (got != out.size()) {
        VX_LOG_AS(6, fn, "[%s]Firmware image file loading failed.\n");
        return false;
    }
    VX_LOG_AS(4, fn, "[%s]File read ok,%d\n", static_cast<int>(size));
    VX_LOG_AS(4, fn, "[%s]Firmware image file loaded.\n");
    return true;
}

// The packets of a download; 1, or -1 with the reason logged.
int _send_packets(tevix_dev_t *dev, const std::vector<uint8_t> &data, uint32_t psize,
                  tevix_progress_cb progress, void *user) {
    const char *fn = "tevix_data_download";
    const uint32_t count = static_cast<uint32_t>((data.size() + psize - 1) / psize);
    std::vector<uint8_t> pkt(x::k_packet_hdr + psize);
    uint32_t idx = 0;
    int errors = 0;
    while (idx < count) {
        if (errors > 3) {
            VX_LOG_AS(6, fn, "[%s]Data transfer failed.\n");
            return -1;
        }
        const size_t at = size_t{idx} * psize;
        const uint32_t len = static_cast<uint32_t>(std::min<size_t>(psize, data.size() - at));
        if (len == 0) {
            VX_LOG_AS(6, fn, "[%s]Frame Length is zero.\n");
            break;
        }
        x::put16(pkt.data(), x::crc16(data.data() + at, len));
        x::put16(pkt.data() + 2, static_cast<uint16_t>(len));
        x::put16(pkt.data() + 4, static_cast<uint16_t>(idx));
        std::memcpy(pkt.data() + x::k_packet_hdr, data.data() + at, len);
        const int32_t sent = tevix_ll_tx_data(&dev->session->ll, pkt.data(), x::k_packet_hdr + len);
        if (sent <= 0) {
            if (sent < 0) VX_LOG_AS(6, "tevix_data_pk_transf", "[%s]tx data failed\n");
            VX_LOG_AS(6, fn, "[%s]Data transfer failed D.\n");
            ++errors;
            continue;
        }
        ack a;
        const bool read = _read_ack(dev, a);
        VX_LOG_AS(0, fn, "[%s]ret = %d status = %d  num = %d, index:%d\n", read ? 1 : 0, a.status,
                  a.num, static_cast<int>(idx));
        const uint16_t next = static_cast<uint16_t>(idx + 1);
        if (!read) {
            VX_LOG_AS(6, fn, "[%s]Data transfer failed C.\n");
            ++errors;
            continue;
        }
        if (a.num == static_cast<uint16_t>(idx)) {
            // Not taken yet: give the camera a moment and ask again.
            VX_LOG_AS(6, fn, "[%s]Data transfer failed A.indx:%d, :%d, retry..\n",
                      static_cast<int>(idx), a.num);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            if (_read_ack(dev, a) && a.num == next) {
                ++idx;
                errors = 0;
                if (progress)
                    progress(std::min<uint64_t>(uint64_t{idx} * psize, data.size()), data.size(),
                             user);
            } else {
                errors += 2;
            }
            continue;
        }
        if (a.num != next) {
            VX_LOG_AS(6, fn, "[%s]Data transfer failed B.\n");
            ++errors;
            continue;
        }
        ++idx;
        errors = 0;
        if (progress)
            progress(std::min<uint64_t>(uint64_t{idx} * psize, data.size()), data.size(), user);
    }
    if (errors > 2) {
        VX_LOG_AS(6, fn, "[%s]Data transfer failed.\n");
        return -1;
    }
    VX_LOG_AS(1, fn, "[%s]Data transfer finished.\n");
    return 1;
}

int _download(tevix_dev_t *dev, const char *path, uint16_t type, uint16_t version, uint32_t addr,
              tevix_progress_cb progress, void *user) {
    const char *fn = "tevix_data_download";
    if (!_device_ok(dev) || !path || type > 255) {
        VX_LOG_AS(1, fn, "[%s]Wrong params\n");
        return -1;
    }
    tevix::api::busy_guard busy(dev);
    VX_LOG_AS(0, fn, "[%s]name:%s, type:%hu, version:%hu\n", path, type, version);
    std::vector<uint8_t> data;
    if (!_read_file(fn, path, data)) return -1;
    const uint8_t wire_type = type == x::k_type_erase_only ? x::k_type_data : uint8_t(type);

    uint8_t info[x::k_info_len] = {wire_type};
    if (!_cmd(dev, false, x::k_sub_info, info, sizeof info, 1000)) {
        VX_LOG_AS(6, fn, "[%s]Cmd:(0x%x,0x%x) failed\n", x::k_cmd, x::k_sub_info);
        std::memset(info, 0, sizeof info);
    }
    const uint16_t dev_version = x::get16(info);
    VX_LOG_AS(4, fn, "[%s]Version:%hu,type:%hu, addr:0x%x,data size:%d\n", dev_version,
              x::get16(info + 2), x::get32(info + 4), static_cast<int>(x::get32(info + 8)));
    if (dev_version >= version && dev_version < x::k_version_any && wire_type != x::k_type_data) {
        VX_LOG_AS(6, fn, "[%s]Can't upgrade from %d to %d\n", dev_version, version);
        return -1;
    }
    VX_LOG_AS(4, fn, "[%s]Upgrade from v%d to v%d\n", dev_version, version);

    VX_LOG_AS(4, fn, "[%s]send action info\n");
    uint8_t action[x::k_action_len] = {wire_type};
    x::put16(action + 2, version);
    x::put32(action + 4, static_cast<uint32_t>(data.size()));
    x::put32(action + 8, addr);
    VX_LOG_AS(4, fn, "[%s]type = %hu, version = %hu, size = %d\n", uint16_t(wire_type), version,
              static_cast<int>(data.size()));
    if (!_cmd(dev, true, x::k_sub_action, action, sizeof action, 10000)) {
        VX_LOG_AS(6, fn, "[%s]Cmd:(0x%x,0x%x) failed\n", x::k_cmd, x::k_sub_action);
        return -1;
    }
    VX_LOG_AS(4, fn, "[%s]send action pack read\n");
    ack a;
    if (!_read_ack(dev, a) || a.num != 0 || a.status != x::k_st_info_ok) {
        VX_LOG_AS(6, fn, "[%s]Wrong ACK(NUM:%d,VER:%d)\n", a.num, a.status);
        return -1;
    }
    VX_LOG_AS(4, fn, "[%s]INFO ack ok\n");

    VX_LOG_AS(4, fn, "[%s] * Erase ...\n");
    uint8_t erase[x::k_erase_len] = {wire_type};
    x::put32(erase + 1, addr);
    x::put32(erase + 5, static_cast<uint32_t>(data.size()));
    if (!_cmd(dev, true, x::k_sub_erase, erase, sizeof erase, 20000)) {
        VX_LOG_AS(6, fn, "[%s]Cmd:(0x%x,0x%x) failed\n", x::k_cmd, x::k_sub_erase);
        return -1;
    }
    VX_LOG_AS(4, fn, "[%s]loop check.....\n");
    const uint64_t erase_start = tevix::plat::mono_ms();
    for (;;) {
        if (!_read_ack(dev, a) || tevix::plat::mono_ms() - erase_start > k_erase_wait_ms) {
            VX_LOG_AS(6, fn, "[%s]DATA ACK failed\n");
            return -1;
        }
        if (a.status != x::k_st_erasing) break;
        VX_LOG_AS(0, fn, "[%s]erase ack,%d\n", a.num);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    VX_LOG_AS(4, fn, "[%s]erase ok,%d\n", a.num);
    if (type == x::k_type_erase_only) return 1;

    VX_LOG_AS(4, fn, "[%s] * Write ...\n");
    if (a.num != 0 || a.status != x::k_st_ready || a.packet_size == 0 ||
        a.packet_size > 0xFFFF - x::k_packet_hdr) {
        VX_LOG_AS(6, fn, "[%s]Wrong ACK(NUM:%d,VER:%d)\n", a.num, a.status);
        return -1;
    }
    if (progress) progress(0, data.size(), user);
    return _send_packets(dev, data, a.packet_size, progress, user);
}

int _upload(tevix_dev_t *dev, uint16_t type, const char *path, tevix_progress_cb progress,
            void *user) {
    const char *fn = "tevix_data_upload";
    if (!_device_ok(dev) || !path || type > 255) {
        VX_LOG_AS(1, fn, "[%s]Wrong params\n");
        return -1;
    }
    tevix::api::busy_guard busy(dev);
    VX_LOG_AS(0, fn, "[%s]type:%hu, file:%s\n", type, path);
    uint8_t info[x::k_info_len] = {uint8_t(type)};
    if (!_cmd(dev, false, x::k_sub_info, info, sizeof info, 1000)) {
        VX_LOG_AS(6, fn, "[%s]Cmd:(0x%x,0x%x) failed\n", x::k_cmd, x::k_sub_info);
        return -1;
    }
    const uint32_t size = x::get32(info + 8);
    const uint16_t crc = x::get16(info + 12);
    VX_LOG_AS(4, fn, "[%s]Version:%hu,type:%hu, addr:0x%x,data size:%d\n", x::get16(info),
              x::get16(info + 2), x::get32(info + 4), static_cast<int>(size));
    if (size == 0 || size > k_file_max) {
        VX_LOG_AS(6, fn, "[%s]No data of type %hu on the device (size %u)\n", type, size);
        return -1;
    }
    std::vector<uint8_t> data(size);
    std::vector<uint8_t> buf(x::k_piece_hdr + x::k_piece_size);
    const uint32_t pieces = (size + x::k_piece_size - 1) / x::k_piece_size;
    for (uint32_t k = 0; k < pieces; ++k) {
        const size_t at = size_t{k} * x::k_piece_size;
        const uint32_t want = static_cast<uint32_t>(std::min<size_t>(x::k_piece_size, size - at));
        bool ok = false;
        for (int attempt = 0; attempt < k_piece_tries && !ok; ++attempt) {
            std::fill(buf.begin(), buf.end(), 0);
            buf[0] = uint8_t(type);
            x::put16(buf.data() + 4, static_cast<uint16_t>(k));
            if (!_cmd(dev, false, x::k_sub_piece, buf.data(), static_cast<uint32_t>(buf.size()),
                      1000)) {
                VX_LOG_AS(6, fn, "[%s]Cmd:(0x%x,0x%x) failed\n", x::k_cmd, x::k_sub_piece);
                continue;
            }
            const uint8_t *d = buf.data() + x::k_piece_hdr;
            ok = buf[6] == 0 && x::get16(buf.data()) == static_cast<uint16_t>(k) &&
                 x::get16(buf.data() + 2) == want && x::crc16(d, want) == x::get16(buf.data() + 4);
            if (ok)
                std::memcpy(data.data() + at, d, want);
            else
                VX_LOG_AS(5, fn, "[%s]piece %d arrived damaged (status %d), again\n",
                          static_cast<int>(k), buf[6]);
        }
        if (!ok) {
            VX_LOG_AS(6, fn, "[%s]Data upload failed at piece %d\n", static_cast<int>(k));
            return -1;
        }
        if (progress) progress(at + want, size, user);
    }
    if (x::crc16(data.data(), data.size()) != crc) {
        VX_LOG_AS(6, fn, "[%s]Data upload failed: CRC 0x%04x, the device says 0x%04x\n",
                  x::crc16(data.data(), data.size()), crc);
        return -1;
    }
    // Written beside the target and renamed: a failed upload leaves no partial file.
    const std::string part = std::string(path) + ".part";
    std::FILE *f = std::fopen(part.c_str(), "wb");
    const bool written = f && std::fwrite(data.data(), 1, data.size(), f) == data.size();
    if (f && std::fclose(f) != 0) f = nullptr;
    if (!written || !f || tevix::plat::rename_file(part.c_str(), path) != 0) {
        tevix::plat::remove_file(part.c_str());
        VX_LOG_AS(6, fn, "[%s]File write failed:%s\n", path);
        return -1;
    }
    VX_LOG_AS(1, fn, "[%s]Data upload finished, %d bytes\n", static_cast<int>(size));
    return 1;
}

}  // namespace

extern "C" {

int tevix_firmware_upgrade(tevix_dev_t *dev, uint16_t type, uint16_t version,
                           const char *path) noexcept {
    return _download(dev, path, type, version, 0, nullptr, nullptr);
}

int tevix_data_download(tevix_dev_t *dev, const char *path, uint16_t type, uint16_t version,
                        uint32_t addr) noexcept {
    return _download(dev, path, type, version, addr, nullptr, nullptr);
}

int tevix_data_upload(tevix_dev_t *dev, uint16_t type, const char *path) noexcept {
    return _upload(dev, type, path, nullptr, nullptr);
}

int tevix_data_download_ex(tevix_dev_t *dev, const char *path, uint16_t type, uint16_t version,
                           uint32_t addr, tevix_progress_cb progress, void *user) noexcept {
    return _download(dev, path, type, version, addr, progress, user);
}

int tevix_data_upload_ex(tevix_dev_t *dev, uint16_t type, const char *path,
                         tevix_progress_cb progress, void *user) noexcept {
    return _upload(dev, type, path, progress, user);
}

}  // extern "C"
