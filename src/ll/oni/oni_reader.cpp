// ONI reader: file header, records (28-byte headers; 24 bytes in 1.0.0.x files), node tables and
// seek tables. Every read is bounded by the record it belongs to.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ll/oni/oni.h"
#include "log/log.h"

namespace tevix::oni {

namespace {

constexpr size_t k_scan = 128;

template <typename T>
T _get(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Cursor over the fields of one record.
struct cursor {
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
};

}  // namespace

reader::~reader() {
    if (fp_) std::fclose(fp_);
}

const node *reader::node_at(uint32_t id) const {
    if (id == 0 || id > nodes_.size() || !nodes_[id - 1].used) return nullptr;
    return &nodes_[id - 1];
}

uint32_t reader::find_node(const char *name) const {
    for (size_t i = 0; i < nodes_.size(); ++i)
        if (nodes_[i].used && nodes_[i].name == name) return static_cast<uint32_t>(i + 1);
    return 0;
}

bool reader::read_at(uint64_t pos, void *dst, size_t n, size_t *got) {
    *got = 0;
    if (fseeko(fp_, static_cast<off_t>(pos), SEEK_SET) != 0) return false;
    *got = std::fread(dst, 1, n, fp_);
    return !std::ferror(fp_);
}

std::unique_ptr<reader> reader::open(const char *path, prop_cb cb, void *user) {
    std::unique_ptr<reader> r(new (std::nothrow) reader());
    if (!r) return nullptr;
    r->fp_ = path ? std::fopen(path, "rb") : nullptr;
    if (!r->fp_) {
        VX_ERR("[%s]open file failed: %s\n", path ? path : "(null)");
        return nullptr;
    }
    uint8_t h[24];
    size_t got = 0;
    if (!r->read_at(0, h, sizeof h, &got) || got != sizeof h) {
        VX_ERR("[%s]parse file header failed: fpos=%u\n", static_cast<unsigned>(got));
        return nullptr;
    }
    const uint32_t magic = _get<uint32_t>(h);
    if (magic != k_file_magic) {
        VX_ERR("[%s]wrong oni file: id=%u\n", magic);
        return nullptr;
    }
    std::memcpy(r->ver_, h + 4, 4);
    r->build_ = _get<uint32_t>(h + 8);
    r->max_ts_ = _get<uint64_t>(h + 12);
    const uint32_t max_node = _get<uint32_t>(h + 20);
    if (max_node > k_max_nodes) {
        VX_ERR("[%s]max node id too large: %d\n", static_cast<int>(max_node));
        return nullptr;
    }
    r->old_ = _get<uint32_t>(h + 4) == 1;
    r->hdr_size_ = r->old_ ? 24 : 28;
    r->nodes_.resize(max_node);
    r->buf_.reset(new (std::nothrow) uint8_t[k_rdbuf_size]);
    if (!r->buf_) {
        VX_ERR("[%s]malloc failed\n");
        return nullptr;
    }
    r->cb_ = cb;
    r->user_ = user;
    r->pos_ = sizeof h;
    fseeko(r->fp_, 0, SEEK_END);
    r->file_size_ = static_cast<uint64_t>(ftello(r->fp_));

    uint64_t first_data = 0;
    for (;;) {
        const uint64_t at = r->pos_;
        const int t = r->read_next();
        if (t < 0) return nullptr;
        if (t == 0 || t == static_cast<int>(rec::end)) break;
        if (t == static_cast<int>(rec::new_data) && first_data == 0) first_data = at;
        if (t == static_cast<int>(rec::node_data_begin) &&
            (max_node == 0 || r->nodes_[max_node - 1].used))
            break;
    }
    r->data_pos_ = first_data ? first_data : r->pos_;
    r->rewind();
    return r;
}

bool reader::read_string(const uint8_t *p, size_t len, size_t &idx, std::string &out) {
    out.clear();
    if (len - idx < 4) {
        VX_ERR("[%s]wrong string (size outrange): nsize=%d\n", -1);
        return false;
    }
    const uint32_t n = _get<uint32_t>(p + idx);
    idx += 4;
    if (n > len - idx) {
        VX_ERR("[%s]wrong string (size outrange): nsize=%d\n", static_cast<int>(n));
        return false;
    }
    if (n > 0 && p[idx + n - 1] != 0) {
        VX_ERR("[%s]wrong string (not terminated): nsize=%d\n", static_cast<int>(n));
    } else if (n > 0) {
        out.assign(reinterpret_cast<const char *>(p + idx), n - 1);
        out.resize(std::strlen(out.c_str()));
    }
    idx += n;
    return true;
}

void reader::note_property(uint32_t kind, const std::string &name, const uint8_t *v,
                           uint32_t size) {
    const uint32_t id = last_.node_id;
    if (kind == static_cast<uint32_t>(rec::prop_general) && name == "xnMapOutputMode" &&
        size >= 12 && id >= 1 && id <= nodes_.size()) {
        node &n = nodes_[id - 1];
        n.xres = _get<uint32_t>(v);
        n.yres = _get<uint32_t>(v + 4);
        n.fps = _get<uint32_t>(v + 8);
    }
    if (cb_) cb_(this, kind, name.c_str(), v, size, user_);
}

int reader::read_next() {
    if (at_end_) return 0;
    uint8_t scan[k_scan];
    for (;;) {
        size_t got = 0;
        if (!read_at(pos_, scan, sizeof scan, &got)) {
            VX_ERR("[%s]cannot find record header: fpos=0x%x\n", static_cast<unsigned>(pos_));
            return -1;
        }
        if (got < 4) return 0;
        size_t k = 0;
        while (k + 4 <= got && _get<uint32_t>(scan + k) != k_record_magic) ++k;
        if (k + 4 <= got) {
            if (k > 0)
                VX_WRN("[%s]ONI: unknown %llu data before: fpos=0x%llx\n",
                       static_cast<unsigned long long>(k),
                       static_cast<unsigned long long>(pos_ + k));
            pos_ += k;
            break;
        }
        if (got < sizeof scan) return 0;
        VX_WRN("[%s]ONI: unknown %llu data before: fpos=0x%llx\n",
               static_cast<unsigned long long>(got - 3),
               static_cast<unsigned long long>(pos_ + got - 3));
        pos_ += got - 3;
    }

    uint8_t h[28];
    size_t got = 0;
    if (!read_at(pos_, h, hdr_size_, &got) || got != hdr_size_) {
        VX_ERR("[%s]read record header failed: fpos=0x%x, errno=%d\n", static_cast<unsigned>(pos_),
               errno);
        return -1;
    }
    const uint32_t magic = _get<uint32_t>(h);
    const uint32_t type = _get<uint32_t>(h + 4);
    const uint32_t node_id = _get<uint32_t>(h + 8);
    const uint32_t fields = _get<uint32_t>(h + 12);
    const uint32_t payload = _get<uint32_t>(h + 16);
    if (magic != k_record_magic) {
        VX_ERR("[%s]wrong record magic: 0x%x, fpos=%u\n", magic, static_cast<unsigned>(pos_));
        return -1;
    }
    if (type > 14) {
        VX_ERR("[%s]unsupported record type: 0x%x\n", type);
        return -1;
    }
    if (type < 3) {
        VX_ERR("[%s]rec type not support: 0x%x\n", type);
        return -1;
    }
    if (fields < hdr_size_) {
        VX_ERR("[%s]parse record failed: type=0x%x, rd_idx/len=%d/%d\n", type, 0,
               static_cast<int>(fields));
        return -1;
    }
    const uint64_t body = uint64_t{fields} - hdr_size_ + payload;
    if (body > k_rdbuf_size) {
        VX_ERR("[%s]No more space in rdbuf : field size = %u, buf rem = %u\n", fields,
               static_cast<unsigned>(k_rdbuf_size));
        return -1;
    }
    const uint64_t at = pos_;
    if (!read_at(at + hdr_size_, buf_.get(), body, &got) || got != body) {
        VX_ERR("[%s]parse record failed: fpos=%u\n", static_cast<unsigned>(at));
        return -1;
    }
    pos_ = at + hdr_size_ + body;
    last_ = record{};
    last_.type = type;
    last_.node_id = node_id;
    last_.pos = at;
    if (loading_seek_) {
        last_.payload = std::span<const uint8_t>(buf_.get() + (fields - hdr_size_), payload);
        return static_cast<int>(type);
    }
    if (type == static_cast<uint32_t>(rec::end)) at_end_ = true;
    return parse_record(at, type, node_id, fields - hdr_size_, payload);
}

int reader::parse_record(uint64_t pos, uint32_t type, uint32_t node_id, size_t fields,
                         size_t payload) {
    cursor c{buf_.get(), fields};
    last_.payload = std::span<const uint8_t>(buf_.get() + fields, payload);
    node *n = (node_id >= 1 && node_id <= nodes_.size()) ? &nodes_[node_id - 1] : nullptr;
    bool ok = true;
    switch (static_cast<rec>(type)) {
        case rec::prop_int:
        case rec::prop_real:
        case rec::prop_string:
        case rec::prop_general: {
            std::string name;
            uint32_t size = 0;
            ok = read_string(c.p, c.len, c.idx, name) && c.take(size) && size <= c.len - c.idx;
            if (!ok) break;
            const uint8_t *v = c.p + c.idx;
            c.idx += size;
            if (type == static_cast<uint32_t>(rec::prop_int) ||
                type == static_cast<uint32_t>(rec::prop_real)) {
                uint8_t word[8] = {};
                std::memcpy(word, v, std::min<size_t>(size, 8));
                note_property(type, name, word, 8);
            } else if (type == static_cast<uint32_t>(rec::prop_string)) {
                std::string s;
                if (size > 0 && v[size - 1] != 0)
                    VX_ERR("[%s]wrong string (not terminated): nsize=%d\n", static_cast<int>(size));
                else if (size > 0)
                    s.assign(reinterpret_cast<const char *>(v));
                note_property(type, name, reinterpret_cast<const uint8_t *>(s.c_str()),
                              static_cast<uint32_t>(s.size() + 1));
            } else {
                note_property(type, name, v, size);
            }
            break;
        }
        case rec::node_data_begin: {
            uint32_t frames = 0;
            uint64_t ts = 0;
            ok = c.take(frames) && c.take(ts);
            last_.frame_no = frames;
            last_.timestamp = ts;
            break;
        }
        case rec::new_data: {
            uint64_t ts = 0;
            uint32_t no = 0;
            ok = c.take(ts) && c.take(no);
            last_.timestamp = ts;
            last_.frame_no = no;
            if (ok && n && n->used) {
                if (n->first_data_pos == 0) n->first_data_pos = pos;
                ++n->cur_frame;
                ++n->data_records;
            }
            break;
        }
        case rec::node_added_old:
        case rec::node_added: {
            std::string name;
            node_desc d;
            ok = read_string(c.p, c.len, c.idx, name) && c.take(d.type) && c.take(d.codec) &&
                 c.take(d.frames) && c.take(d.min_ts) && c.take(d.max_ts);
            const bool with_seek = !old_ && type == static_cast<uint32_t>(rec::node_added);
            if (ok && with_seek) ok = c.take(d.seek_pos);
            if (!ok || c.idx != c.len) break;
            if (!n) {
                VX_ERR("[%s]parse record failed: type=0x%x, rd_idx/len=%d/%d\n", type,
                       static_cast<int>(c.idx), static_cast<int>(c.len));
                return -1;
            }
            if (n->used) break;
            n->used = true;
            n->name = name;
            n->desc = d;
            n->added_pos = pos;
            if (with_seek && d.seek_pos != 0 && !load_seek_table(*n)) return -1;
            break;
        }
        case rec::seek_table:
        case rec::node_removed:
        case rec::node_state_ready:
        case rec::end:
            break;
    }
    if (!ok || c.idx != c.len) {
        VX_ERR("[%s]parse record failed: type=0x%x, rd_idx/len=%d/%d\n", type,
               static_cast<int>(c.idx), static_cast<int>(c.len));
        return -1;
    }
    return static_cast<int>(type);
}

bool reader::load_seek_table(node &n) {
    const uint64_t back = pos_;
    const record keep = last_;
    pos_ = n.desc.seek_pos;
    loading_seek_ = true;
    const int t = read_next();
    loading_seek_ = false;
    const std::span<const uint8_t> table = last_.payload;
    pos_ = back;
    last_ = keep;
    if (t != static_cast<int>(rec::seek_table)) {
        VX_ERR("[%s]expect RECORD_SEEK_TABLE but get 0x%x\n", static_cast<unsigned>(t));
        return false;
    }
    const uint64_t need = (uint64_t{n.desc.frames} + 1) * k_seek_entry_size;
    if (table.size() < need) {
        VX_ERR("[%s]parse record failed: type=0x%x, rd_idx/len=%d/%d\n", 14u,
               static_cast<int>(table.size()), static_cast<int>(need));
        return false;
    }
    n.seek.resize(n.desc.frames);
    for (uint32_t i = 0; i < n.desc.frames; ++i) {
        const uint8_t *e = table.data() + (i + 1) * k_seek_entry_size;
        n.seek[i] = {_get<uint64_t>(e), _get<uint32_t>(e + 8), _get<uint64_t>(e + 12)};
    }
    n.has_seek = true;
    if (!n.seek.empty()) n.first_data_pos = n.seek[0].pos;
    return true;
}

int reader::read_frame(uint32_t node_id) {
    for (;;) {
        const int t = read_next();
        if (t <= 0 || t == static_cast<int>(rec::end)) return t < 0 ? -1 : 0;
        if (t == static_cast<int>(rec::new_data) && last_.node_id == node_id) return 1;
    }
}

bool reader::rewind() {
    pos_ = data_pos_;
    at_end_ = false;
    for (node &n : nodes_) n.cur_frame = 0;
    return true;
}

int32_t reader::seek(uint32_t node_id, int32_t frame, uint32_t whence) {
    if (node_id == 0 || node_id > nodes_.size() || !nodes_[node_id - 1].used) return -1;
    node &n = nodes_[node_id - 1];
    int64_t p = n.cur_frame;
    if (whence == 0)
        p = frame;
    else if (whence == 1)
        p = int64_t{n.cur_frame} + frame;
    else if (whence == 2)
        p = int64_t{n.desc.frames} + frame;
    p = std::clamp<int64_t>(p, 0, n.desc.frames);
    if (!n.has_seek) {
        if (p == 0) rewind();
        return -1;
    }
    at_end_ = false;
    if (p == 0) {
        pos_ = n.first_data_pos ? n.first_data_pos : data_pos_;
        n.cur_frame = 0;
        return 0;
    }
    pos_ = n.seek[static_cast<size_t>(p - 1)].pos;
    const int t = read_next();
    if (t != static_cast<int>(rec::new_data) || last_.node_id != node_id) return -1;
    n.cur_frame = static_cast<uint32_t>(p);
    return static_cast<int32_t>(p);
}

int64_t reader::decode_frame(uint32_t node_id, std::span<const uint8_t> payload,
                             std::vector<uint16_t> &out) const {
    const node *n = node_at(node_id);
    if (!n) return -1;
    constexpr uint64_t k_max_pixels = uint64_t{1} << 24;
    uint64_t cap = uint64_t{n->xres} * n->yres;
    if (cap == 0 || cap > k_max_pixels)
        cap = std::min<uint64_t>(payload.size() * 30 + 2, k_max_pixels);
    out.resize(static_cast<size_t>(cap));
    int64_t got = -1;
    if (n->desc.codec == k_codec_16zt) {
        got = z16t_decode(payload, out);
    } else if (n->desc.codec == k_codec_16z) {
        got = z16_decode(payload, out);
    } else if (n->desc.codec == k_codec_none && payload.size() % 2 == 0) {
        got = static_cast<int64_t>(std::min<uint64_t>(cap, payload.size() / 2));
        std::memcpy(out.data(), payload.data(), static_cast<size_t>(got) * 2);
    }
    out.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return got;
}

}  // namespace tevix::oni
