// Recovery of recordings whose writer never finished. The writer puts every record on disk as it
// completes it, so after a crash the file holds whole records followed by at most one record cut
// short; what is missing is the data-begin counts, the seek tables, the end record and the header
// fields that finish() writes. The scan finds the whole records, the repair keeps them byte for
// byte and lets the writer finish the file.
#include <algorithm>
#include <cstring>
#include <memory>

#include "ll/oni/oni.h"
#include "log/log.h"

namespace tevix::oni {

namespace {

constexpr size_t k_rec_hdr = 28;
constexpr size_t k_file_hdr = 24;
constexpr size_t k_copy_chunk = 1 << 20;

template <typename T>
T _get(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Fields of one record, read with bounds.
struct fields {
    const uint8_t *p;
    size_t len;
    size_t idx = 0;
    template <typename T>
    bool take(T &v) {
        if (len - idx < sizeof(T)) return false;
        v = _get<T>(p + idx);
        idx += sizeof(T);
        return true;
    }
    bool text(std::string &out) {
        uint32_t n = 0;
        if (!take(n) || n == 0 || n > len - idx || p[idx + n - 1] != 0) return false;
        out.assign(reinterpret_cast<const char *>(p + idx), n - 1);
        idx += n;
        return true;
    }
    bool done() const { return idx == len; }
};

// Checks one record's fields and notes what it adds. An empty result accepts the record.
const char *_note(scan_result &out, uint64_t pos, uint32_t type, uint32_t node_id, fields f) {
    scan_node *n = node_id >= 1 && node_id <= k_max_nodes ? &out.nodes[node_id - 1] : nullptr;
    switch (static_cast<rec>(type)) {
        case rec::node_added: {
            std::string name;
            node_desc d;
            if (!f.text(name) || !f.take(d.type) || !f.take(d.codec) || !f.take(d.frames) ||
                !f.take(d.min_ts) || !f.take(d.max_ts) || !f.take(d.seek_pos) || !f.done())
                return "a node header that does not parse";
            if (!n) return "a node id outside 1..8";
            if (n->used) return nullptr;  // a node header rewritten in place is met once
            // Node ids follow one another: a gap means records are missing.
            if (node_id > 1 && !out.nodes[node_id - 2].used) return "a node added out of order";
            n->used = true;
            n->name = name;
            n->type = d.type;
            n->codec = d.codec;
            n->added_pos = pos;
            return nullptr;
        }
        case rec::node_added_old:
            return "a node header of the older form";
        case rec::prop_int:
        case rec::prop_real:
        case rec::prop_string:
        case rec::prop_general: {
            std::string name;
            uint32_t size = 0;
            if (!f.text(name) || !f.take(size) || size != f.len - f.idx)
                return "a property that does not parse";
            if (node_id != 0 && (!n || !n->used)) return "a property of an unknown node";
            if (n) ++n->properties;
            return nullptr;
        }
        case rec::node_data_begin: {
            uint32_t frames = 0;
            uint64_t ts = 0;
            if (!f.take(frames) || !f.take(ts) || !f.done())
                return "a data begin that does not parse";
            if (!n || !n->used) return "a data begin of an unknown node";
            if (n->begin_pos == 0) n->begin_pos = pos;
            return nullptr;
        }
        case rec::new_data: {
            uint64_t ts = 0;
            uint32_t number = 0;
            if (!f.take(ts) || !f.take(number) || !f.done())
                return "a frame header that does not parse";
            if (!n || !n->used) return "a frame of an unknown node";
            if (n->begin_pos == 0) return "a frame before its node's data begin";
            if (n->frames.empty() || ts < n->min_ts) n->min_ts = ts;
            n->max_ts = std::max(n->max_ts, ts);
            n->frames.push_back({ts, 0, pos});
            return nullptr;
        }
        case rec::node_state_ready:
        case rec::node_removed:
        case rec::seek_table:
        case rec::end:
            return nullptr;
    }
    return "an unknown record type";
}

size_t _read_file(void *src, uint64_t pos, void *dst, size_t size) {
    auto *fp = static_cast<std::FILE *>(src);
    if (fseeko(fp, static_cast<off_t>(pos), SEEK_SET) != 0) return 0;
    return std::fread(dst, 1, size, fp);
}

struct file_closer {
    void operator()(std::FILE *fp) const { std::fclose(fp); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

bool _copy_prefix(std::FILE *in, const char *out_path, uint64_t bytes) {
    file_ptr out(std::fopen(out_path, "wb"));
    if (!out) {
        VX_ERR("[%s]open file failed: %s\n", out_path);
        return false;
    }
    std::vector<uint8_t> buf(static_cast<size_t>(std::min<uint64_t>(k_copy_chunk, bytes)));
    for (uint64_t at = 0; at < bytes;) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), bytes - at));
        if (_read_file(in, at, buf.data(), n) != n ||
            std::fwrite(buf.data(), 1, n, out.get()) != n) {
            VX_ERR("[%s]copy to %s failed at 0x%llx\n", out_path,
                   static_cast<unsigned long long>(at));
            return false;
        }
        at += n;
    }
    if (std::fclose(out.release()) != 0) {
        VX_ERR("[%s]write %s failed\n", out_path);
        return false;
    }
    return true;
}

}  // namespace

bool scan(read_fn read, void *src, uint64_t size, scan_result &out) {
    out = scan_result{};
    out.file_size = size;
    out.nodes.resize(k_max_nodes);
    uint8_t h[k_rec_hdr];
    if (read(src, 0, h, k_file_hdr) != k_file_hdr) {
        out.stop = "shorter than the file header";
        return false;
    }
    if (_get<uint32_t>(h) != k_file_magic) {
        out.stop = "not an ONI recording";
        return false;
    }
    if (_get<uint32_t>(h + 4) == 1) {
        out.stop = "a recording of the old 24-byte record form";
        return false;
    }
    out.valid_end = k_file_hdr;
    std::vector<uint8_t> buf;
    uint64_t pos = k_file_hdr;
    while (pos < size) {
        if (read(src, pos, h, k_rec_hdr) != k_rec_hdr) {
            out.stop = "a record header cut short";
            break;
        }
        const uint32_t type = _get<uint32_t>(h + 4), node_id = _get<uint32_t>(h + 8);
        const uint32_t field_size = _get<uint32_t>(h + 12), payload = _get<uint32_t>(h + 16);
        if (_get<uint32_t>(h) != k_record_magic) {
            out.stop = "bytes that are no record";
            break;
        }
        if (type < static_cast<uint32_t>(rec::prop_int) ||
            type > static_cast<uint32_t>(rec::seek_table)) {
            out.stop = "an unknown record type";
            break;
        }
        if (field_size < k_rec_hdr || uint64_t{field_size} - k_rec_hdr + payload > k_rdbuf_size) {
            out.stop = "a record of impossible size";
            break;
        }
        const uint64_t end = pos + field_size + payload;
        if (end > size) {
            out.stop = "a record cut short";
            break;
        }
        buf.resize(field_size - k_rec_hdr);
        if (!buf.empty() && read(src, pos + k_rec_hdr, buf.data(), buf.size()) != buf.size()) {
            out.stop = "a record that cannot be read";
            break;
        }
        if (const char *why = _note(out, pos, type, node_id, fields{buf.data(), buf.size()})) {
            out.stop = why;
            break;
        }
        ++out.records;
        pos = end;
        out.valid_end = end;
        if (type == static_cast<uint32_t>(rec::end)) {
            out.finished = true;
            break;
        }
    }
    return true;
}

int64_t repair(const char *in, const char *out, scan_result *found) {
    scan_result local;
    scan_result &s = found ? *found : local;
    file_ptr fp(in ? std::fopen(in, "rb") : nullptr);
    if (!fp || !out) {
        VX_ERR("[%s]open file failed: %s\n", in ? in : "(null)");
        return -1;
    }
    fseeko(fp.get(), 0, SEEK_END);
    const auto size = static_cast<uint64_t>(ftello(fp.get()));
    if (!scan(_read_file, fp.get(), size, s)) {
        VX_ERR("[%s]%s: %s\n", in, s.stop.c_str());
        return -1;
    }
    int64_t frames = 0;
    for (const scan_node &n : s.nodes) frames += static_cast<int64_t>(n.frames.size());
    if (s.finished) {
        VX_INF("[%s]%s is a finished recording: nothing to repair\n", in);
        fp.reset();
        if (std::strcmp(in, out) == 0) return frames;
        file_ptr src(std::fopen(in, "rb"));
        return src && _copy_prefix(src.get(), out, size) ? frames : -1;
    }
    if (!s.nodes[0].used) {
        VX_ERR("[%s]%s holds no node to recover\n", in);
        return -1;
    }
    if (!s.stop.empty())
        VX_WRN("[%s]%s: %llu of %llu bytes kept, then %s\n", in,
               static_cast<unsigned long long>(s.valid_end), static_cast<unsigned long long>(size),
               s.stop.c_str());
    if (std::strcmp(in, out) != 0 && !_copy_prefix(fp.get(), out, s.valid_end)) return -1;
    fp.reset();
    auto w = writer::resume(out, s);
    if (!w || !w->finish()) return -1;
    VX_INF("[%s]%s: %lld frames recovered into %s\n", in, static_cast<long long>(frames), out);
    return frames;
}

}  // namespace tevix::oni
