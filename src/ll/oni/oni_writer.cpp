// ONI writer. The layout follows what OpenNI2's player needs: node added, its properties and
// node-state-ready, a data-begin before the node's first frame, and on finish node removed, one
// seek table per node (frames + 1 entries), end, and the node headers rewritten in place.
//
// A recording must survive its process: node headers and each frame are handed to the operating
// system as soon as they are written, and the disk is synchronised about once a second, so that
// a crash leaves whole records that repair() turns back into a playable file.
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "ll/oni/oni.h"
#include "log/log.h"

namespace tevix::oni {

namespace {

constexpr uint32_t k_version_1010 = 0x00010001;  // bytes 01 00 01 00: version 1.0.1, build 0
constexpr size_t k_rec_hdr = 28;

struct bytes {
    std::vector<uint8_t> v;
    template <typename T>
    bytes &put(T x) {
        const auto *p = reinterpret_cast<const uint8_t *>(&x);
        v.insert(v.end(), p, p + sizeof x);
        return *this;
    }
    bytes &raw(const void *p, size_t n) {
        const auto *b = static_cast<const uint8_t *>(p);
        v.insert(v.end(), b, b + n);
        return *this;
    }
    bytes &str(const char *s) {
        const size_t n = std::strlen(s) + 1;
        put(static_cast<uint32_t>(n));
        return raw(s, n);
    }
};

constexpr uint64_t k_sync_interval_ms = 1000;

uint64_t _mono_ms() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

uint64_t _now_us() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

uint32_t _pixel_format_mask(uint32_t fmt) {
    return fmt >= 200 && fmt <= 204 ? 1u << (fmt - 200) : 8u;
}

uint32_t _xn_pixel_format(uint32_t fmt) {
    return fmt >= 200 && fmt <= 204 ? fmt - 199 : 0;
}

}  // namespace

writer::~writer() {
    finish();
}

std::unique_ptr<writer> writer::create(const char *path) {
    std::unique_ptr<writer> w(new (std::nothrow) writer());
    if (!w) return nullptr;
    w->fp_ = path ? std::fopen(path, "wb+") : nullptr;
    if (!w->fp_) {
        VX_ERR("[%s]open file failed: %s\n", path ? path : "(null)");
        return nullptr;
    }
    uint8_t h[24] = {};
    std::memcpy(h, &k_file_magic, 4);
    std::memcpy(h + 4, &k_version_1010, 4);
    if (std::fwrite(h, 1, sizeof h, w->fp_) != sizeof h) {
        VX_ERR("[%s]write file header failed: %s\n", path);
        return nullptr;
    }
    w->pos_ = sizeof h;
    return w;
}

std::unique_ptr<writer> writer::resume(const char *path, const scan_result &found) {
    std::unique_ptr<writer> w(new (std::nothrow) writer());
    if (!w) return nullptr;
    w->fp_ = path ? std::fopen(path, "rb+") : nullptr;
    if (!w->fp_ || ftruncate(fileno(w->fp_), static_cast<off_t>(found.valid_end)) != 0 ||
        fseeko(w->fp_, static_cast<off_t>(found.valid_end), SEEK_SET) != 0) {
        VX_ERR("[%s]open file failed: %s\n", path ? path : "(null)");
        return nullptr;
    }
    w->pos_ = found.valid_end;
    for (const scan_node &s : found.nodes) {
        if (!s.used) break;
        wnode n;
        n.name = s.name;
        n.desc.type = s.type;
        n.codec = s.codec;
        n.added_pos = s.added_pos;
        n.begin_pos = s.begin_pos;
        n.last_data_pos = s.frames.empty() ? 0 : s.frames.back().pos;
        n.min_ts = s.min_ts;
        n.max_ts = s.max_ts;
        n.frames = s.frames;
        w->nodes_.push_back(std::move(n));
    }
    return w;
}

bool writer::flush(bool sync) {
    if (!fp_) return false;
    bool ok = std::fflush(fp_) == 0;
    if (sync) {
        ok = fdatasync(fileno(fp_)) == 0 && ok;
        synced_ms_ = _mono_ms();
    }
    return ok;
}

writer::wnode *writer::node_of(int id) {
    if (!fp_ || id < 1 || static_cast<size_t>(id) > nodes_.size()) return nullptr;
    return &nodes_[static_cast<size_t>(id - 1)];
}

bool writer::put_record(uint32_t type, uint32_t node_id, std::span<const uint8_t> fields,
                        std::span<const uint8_t> payload, uint64_t undo, uint64_t *at) {
    if (!fp_ || failed_) return false;
    bytes h;
    h.put(k_record_magic)
        .put(type)
        .put(node_id)
        .put(static_cast<uint32_t>(k_rec_hdr + fields.size()))
        .put(static_cast<uint32_t>(payload.size()))
        .put(undo);
    const auto put = [this](std::span<const uint8_t> b) {
        return b.empty() || std::fwrite(b.data(), 1, b.size(), fp_) == b.size();
    };
    const bool ok = put(h.v) && put(fields) && put(payload);
    if (!ok) {
        VX_ERR("[%s]write record failed: type=0x%x\n", type);
        failed_ = true;
        return false;
    }
    if (at) *at = pos_;
    pos_ += h.v.size() + fields.size() + payload.size();
    return true;
}

bool writer::put_node_added(uint32_t id, const wnode &n, uint32_t frames, uint64_t seek_pos) {
    bytes f;
    f.str(n.name.c_str())
        .put(n.desc.type)
        .put(n.codec)
        .put(frames)
        .put(n.min_ts)
        .put(n.max_ts)
        .put(seek_pos);
    return put_record(static_cast<uint32_t>(rec::node_added), id, f.v, {}, 0, nullptr);
}

int writer::add_node(const char *name, const stream_desc &desc, uint32_t codec) {
    if (!fp_ || !name) return -1;
    if (nodes_.size() >= k_max_nodes) {
        VX_ERR("[%s]too many nodes: %s\n", name);
        return -1;
    }
    wnode n;
    n.name = name;
    n.desc = desc;
    n.codec = codec ? codec : k_codec_none;
    n.added_pos = pos_;
    const auto id = static_cast<uint32_t>(nodes_.size() + 1);
    if (!put_node_added(id, n, 0, 0)) return -1;
    nodes_.push_back(std::move(n));
    const int nid = static_cast<int>(id);
    if (desc.type != static_cast<uint32_t>(node_type::device) && desc.type != 0xFFFFFFFFu) {
        const uint32_t mode[3] = {desc.xres, desc.yres, desc.fps};
        const uint32_t crop[3] = {0, 0, 0};
        const uint32_t mask = _pixel_format_mask(desc.pixel_format);
        bool ok = write_int(nid, "oniRequiredFrameSize",
                            uint64_t{desc.xres} * desc.yres * desc.bytes_per_pixel) &&
                  write_int(nid, "xnIsGenerating", 1);
        if (ok && (desc.pixel_format == 100 || desc.pixel_format == 101))
            ok = write_int(nid, "xnDeviceMaxDepth", desc.max_depth);
        ok = ok && write_int(nid, "xnSupportedMapOutputModesCount", 1) &&
             write_general(nid, "xnSupportedMapOutputModes", mode, sizeof mode) &&
             write_general(nid, "xnMapOutputMode", mode, sizeof mode) &&
             write_general(nid, "xnSupportedPixelFormats", &mask, sizeof mask) &&
             write_int(nid, "xnPixelFormat", _xn_pixel_format(desc.pixel_format)) &&
             write_int(nid, "oniPixelFormat", desc.pixel_format) &&
             write_general(nid, "xnCropping", crop, sizeof crop);
        if (!ok) return -1;
    }
    if (!put_record(static_cast<uint32_t>(rec::node_state_ready), id, {}, {}, 0, nullptr) ||
        !flush(true))
        return -1;
    return nid;
}

bool writer::put_prop(int node_id, uint32_t kind, const char *name, const void *v, uint32_t size) {
    wnode *n = node_of(node_id);
    if (!n || !name || (size && !v)) return false;
    bytes f;
    f.str(name).put(size).raw(v, size);
    auto it = n->prop_pos.find(name);
    const uint64_t undo = it == n->prop_pos.end() ? 0 : it->second;
    uint64_t at = 0;
    if (!put_record(kind, static_cast<uint32_t>(node_id), f.v, {}, undo, &at)) return false;
    n->prop_pos[name] = at;
    return true;
}

bool writer::write_int(int node_id, const char *name, uint64_t v) {
    return put_prop(node_id, static_cast<uint32_t>(rec::prop_int), name, &v, sizeof v);
}

bool writer::write_real(int node_id, const char *name, double v) {
    return put_prop(node_id, static_cast<uint32_t>(rec::prop_real), name, &v, sizeof v);
}

bool writer::write_string(int node_id, const char *name, const char *v) {
    if (!v) return false;
    return put_prop(node_id, static_cast<uint32_t>(rec::prop_string), name, v,
                    static_cast<uint32_t>(std::strlen(v) + 1));
}

bool writer::write_general(int node_id, const char *name, const void *v, uint32_t size) {
    return put_prop(node_id, static_cast<uint32_t>(rec::prop_general), name, v, size);
}

bool writer::put_data_begin(uint32_t id, wnode &n) {
    bytes f;
    f.put(uint32_t{0xFFFFFFFF}).put(~uint64_t{0});
    return put_record(static_cast<uint32_t>(rec::node_data_begin), id, f.v, {}, 0, &n.begin_pos);
}

bool writer::write_data(int node_id, const void *data, uint32_t size, uint64_t timestamp) {
    wnode *n = node_of(node_id);
    if (!n || (size && !data)) return false;
    const auto id = static_cast<uint32_t>(node_id);
    if (n->begin_pos == 0 && !put_data_begin(id, *n)) return false;
    std::span<const uint8_t> payload(static_cast<const uint8_t *>(data), size);
    if (n->codec == k_codec_16zt) {
        std::vector<uint16_t> px(size / 2);
        if (size) std::memcpy(px.data(), data, px.size() * 2);
        if (size % 2 != 0 || !z16t_encode(px, zbuf_)) {
            VX_ERR("[%s]compress data failed\n");
            return false;
        }
        payload = zbuf_;
    }
    const uint64_t ts = timestamp ? timestamp : _now_us();
    const auto number = static_cast<uint32_t>(n->frames.size() + 1);
    bytes f;
    f.put(ts).put(number);
    uint64_t at = 0;
    if (!put_record(static_cast<uint32_t>(rec::new_data), id, f.v, payload, n->last_data_pos, &at))
        return false;
    n->last_data_pos = at;
    if (n->frames.empty() || ts < n->min_ts) n->min_ts = ts;
    if (ts > n->max_ts) n->max_ts = ts;
    n->frames.push_back({ts, 0, at});
    // Only whole records reach the file: a process that dies now loses no finished frame.
    return flush(_mono_ms() - synced_ms_ >= k_sync_interval_ms);
}

bool writer::finish() {
    if (!fp_) return false;
    bool ok = true;
    for (size_t i = 0; i < nodes_.size(); ++i)
        if (nodes_[i].begin_pos == 0)
            ok = put_data_begin(static_cast<uint32_t>(i + 1), nodes_[i]) && ok;
    for (size_t i = 0; i < nodes_.size(); ++i)
        ok = put_record(static_cast<uint32_t>(rec::node_removed), static_cast<uint32_t>(i + 1), {},
                        {}, nodes_[i].added_pos, nullptr) &&
             ok;
    std::vector<uint64_t> seek_pos(nodes_.size(), 0);
    for (size_t i = 0; i < nodes_.size(); ++i) {
        bytes t;
        t.put(uint64_t{0}).put(uint32_t{0}).put(uint64_t{0});
        for (const seek_entry &e : nodes_[i].frames) t.put(e.timestamp).put(e.config_id).put(e.pos);
        ok = put_record(static_cast<uint32_t>(rec::seek_table), static_cast<uint32_t>(i + 1), {},
                        t.v, 0, &seek_pos[i]) &&
             ok;
    }
    ok = put_record(static_cast<uint32_t>(rec::end), 0, {}, {}, 0, nullptr) && ok;

    uint64_t max_ts = 0;
    for (size_t i = 0; ok && i < nodes_.size(); ++i) {
        wnode &n = nodes_[i];
        const auto frames = static_cast<uint32_t>(n.frames.size());
        if (n.max_ts > max_ts) max_ts = n.max_ts;
        const uint64_t end = pos_;
        ok = fseeko(fp_, static_cast<off_t>(n.added_pos), SEEK_SET) == 0 &&
             put_node_added(static_cast<uint32_t>(i + 1), n, frames, seek_pos[i]);
        bytes b;
        b.put(frames).put(n.max_ts);
        ok = ok && fseeko(fp_, static_cast<off_t>(n.begin_pos + k_rec_hdr), SEEK_SET) == 0 &&
             std::fwrite(b.v.data(), 1, b.v.size(), fp_) == b.v.size();
        pos_ = end;
    }
    bytes h;
    h.put(max_ts).put(static_cast<uint32_t>(nodes_.size()));
    ok = ok && fseeko(fp_, 12, SEEK_SET) == 0 &&
         std::fwrite(h.v.data(), 1, h.v.size(), fp_) == h.v.size();
    ok = std::fclose(fp_) == 0 && ok && !failed_;
    fp_ = nullptr;
    if (!ok) VX_ERR("[%s]finish recording failed\n");
    return ok;
}

}  // namespace tevix::oni
