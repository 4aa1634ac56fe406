#include "calib/calib_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "calib/calib.h"

namespace tevix::calib {

namespace {

void _append_bytes(std::vector<uint8_t> &out, const void *p, size_t n) {
    if (n == 0) return;
    const size_t at = out.size();
    out.resize(at + n);
    std::memcpy(out.data() + at, p, n);
}

template <class T>
void _append(std::vector<uint8_t> &out, const T &rec) {
    _append_bytes(out, &rec, sizeof rec);
}

tevix_param_t &_hdr_of(std::span<uint8_t> image) {
    return *reinterpret_cast<tevix_param_t *>(image.data());
}

}  // namespace

std::vector<uint8_t> param_container_build(const param_container &d) {
    const bool current = d.ver >= TEVIX_PARAM_VER_CURRENT;
    tevix_param_t h{};
    h.ver = d.ver;
    h.ts = d.ts;
    h.magic = current ? TEVIX_PARAM_MAGIC : uint32_t{TEVIX_PARAM_MAGIC_OLD};
    std::memcpy(h.lens_name, d.lens_name.data(), std::min(d.lens_name.size(), sizeof h.lens_name));
    h.cx = d.lens.cx;
    h.cy = d.lens.cy;
    h.fx = d.lens.fx;
    h.fy = d.lens.fy;
    std::memcpy(h.dcoef, d.lens.dcoef, sizeof h.dcoef);
    h.n_dcoef = d.lens.n_dcoef;
    h.width = d.lens.width;
    h.height = d.lens.height;
    if (!d.par_area.empty())
        std::memcpy(h.par_area, d.par_area.data(), std::min(d.par_area.size(), sizeof h.par_area));
    h.par_ts = d.par_ts;
    h.blk_cnt = static_cast<int32_t>(d.blocks.size());

    std::vector<uint8_t> out;
    _append(out, h);
    for (const param_block &b : d.blocks) {
        if (current) {
            _append(out, par_dev_hdr{b.type, static_cast<uint32_t>(b.payload.size())});
        } else {
            blk_unit_hdr u{};
            u.type = b.type;
            std::memcpy(u.drv_a, b.drv_a.data(), sizeof u.drv_a);
            u.size = static_cast<uint32_t>(b.payload.size());
            std::memcpy(u.drv_b, b.drv_b.data(), sizeof u.drv_b);
            _append(out, u);
        }
        _append_bytes(out, b.payload.data(), b.payload.size());
    }
    if (current) {
        _hdr_of(out).blk_size =
            d.record_blk_size ? static_cast<uint32_t>(out.size() - sizeof h) : 0;
        param_blocks_seal(out);
    } else {
        param_header_seal(out);
    }
    return out;
}

void param_header_seal(std::span<uint8_t> image) {
    if (image.size() < sizeof(tevix_param_t)) return;
    tevix_param_t &h = _hdr_of(image);
    h.cksum = param_header_cksum(h);
}

void param_blocks_seal(std::span<uint8_t> image) {
    if (image.size() < sizeof(tevix_param_t)) return;
    tevix_param_t &h = _hdr_of(image);
    const auto blocks = image.subspan(sizeof(tevix_param_t));
    if (h.blk_size != 0) h.blk_size = static_cast<uint32_t>(blocks.size());
    h.blk_cksum = fletcher16_of(blocks);
    param_header_seal(image);
}

bool param_container_write(const std::string &path, const param_container &desc) {
    return write_file(path, param_container_build(desc));
}

std::vector<uint8_t> lens_bin_build(const lens_bin_file &d) {
    tevix_lens_bin_t h{};
    h.type = d.type;
    const size_t entries = d.grad.size() + d.reflect.size();
    h.hdrsz = static_cast<uint32_t>(220 + 4 * entries);
    std::memcpy(h.name, d.name.data(), std::min(d.name.size(), sizeof h.name));
    h.cx = static_cast<float>(d.lens.cx);
    h.cy = static_cast<float>(d.lens.cy);
    h.fx = static_cast<float>(d.lens.fx);
    h.fy = static_cast<float>(d.lens.fy);
    for (int i = 0; i < TEVIX_LENS_MAX_DCOEF; ++i) h.dcoef[i] = static_cast<float>(d.lens.dcoef[i]);
    h.width = d.lens.width;
    h.height = d.lens.height;
    h.n_dcoef = static_cast<uint8_t>(std::min<uint32_t>(d.lens.n_dcoef, 255));
    h.n_grad = static_cast<uint32_t>(d.grad.size());
    h.n_reflect = static_cast<uint32_t>(d.reflect.size());

    std::vector<uint8_t> out;
    out.reserve(sizeof h + 4 * entries);
    _append(out, h);
    for (uint32_t v : d.grad) _append(out, v);
    for (uint32_t v : d.reflect) _append(out, v);
    return out;
}

bool lens_bin_write(const std::string &path, const lens_bin_file &desc) {
    return write_file(path, lens_bin_build(desc));
}

std::string lens_text_build(const tevix_lens_param_t &l) {
    std::string out;
    char num[40];
    auto put = [&](double v, char sep) {
        std::snprintf(num, sizeof num, "%.17g%c", v, sep);
        out += num;
    };
    put(l.cx, ' ');
    put(l.cy, ' ');
    put(l.fx, ' ');
    put(l.fy, '\n');
    const uint32_t n = std::min<uint32_t>(l.n_dcoef, 14);
    for (uint32_t i = 0; i < n; ++i) put(l.dcoef[i], ' ');
    put(l.width, ' ');
    put(l.height, '\n');
    return out;
}

bool lens_text_write(const std::string &path, const tevix_lens_param_t &lens) {
    const std::string text = lens_text_build(lens);
    return write_file(path, std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
}

bool write_file(const std::string &path, std::span<const uint8_t> bytes) {
    file_ptr fp(std::fopen(path.c_str(), "wb"));
    if (!fp) return false;
    if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), fp.get()) != bytes.size())
        return false;
    return std::fclose(fp.release()) == 0;
}

}  // namespace tevix::calib
