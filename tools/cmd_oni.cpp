// oni info FILE: header, nodes and every property of a recording.
// oni repair IN [OUT]: a recording whose writer never finished made playable again.
// oni export FILE --node NAME --frame N --out PATH: one frame as raw little-endian u16 pixels, a
// colour PNG (PATH ending in .png), or as stored for codecs that are not 16-bit depth (JPEG).
#include "cmd_oni.h"
#include "png_out.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ll/oni/oni.h"
#include "tevix/vx_log.h"

namespace oni = tevix::oni;

namespace {

constexpr int k_ok = 0;
constexpr int k_failed = 1;
constexpr int k_usage = 2;

struct oni_args {
    std::string file;
    std::string node;
    std::string out;
    std::string repaired;
    int64_t frame = 0;
    bool all = false;
    CLI::App *info = nullptr;
    CLI::App *exp = nullptr;
    CLI::App *repair = nullptr;
} g_args;

// Console diagnostics only when asked for, for the command's duration.
struct log_scope {
    explicit log_scope(int verbosity) {
        vx_log_init(nullptr, nullptr, "VX");
        vx_log_cfg(nullptr, 0, verbosity >= 2 ? 0 : verbosity == 1 ? 4 : 7, 1);
    }
    ~log_scope() { vx_log_uninit(nullptr); }
    log_scope(const log_scope &) = delete;
    log_scope &operator=(const log_scope &) = delete;
};

std::string _codec_name(uint32_t c) {
    std::string s;
    for (int i = 0; i < 4; ++i) {
        const char ch = static_cast<char>((c >> (8 * i)) & 0xFF);
        s += std::isprint(static_cast<unsigned char>(ch)) ? ch : '?';
    }
    return s;
}

const char *_type_name(uint32_t t) {
    switch (t) {
        case 1:
            return "device";
        case 2:
            return "depth";
        case 3:
            return "image";
        case 5:
            return "ir";
        default:
            return "other";
    }
}

const char *_kind_name(uint32_t k) {
    switch (k) {
        case 3:
            return "int";
        case 4:
            return "real";
        case 5:
            return "string";
        default:
            return "general";
    }
}

std::string _node_label(const oni::reader &r, uint32_t id) {
    const oni::node *n = r.node_at(id);
    return n ? n->name : "node " + std::to_string(id);
}

// A property value as the listing shows it.
std::string _value_text(uint32_t kind, const std::string &v) {
    char buf[64];
    if (kind == 3 || kind == 4) {
        uint64_t x = 0;
        std::memcpy(&x, v.data(), std::min<size_t>(8, v.size()));
        double d;
        std::memcpy(&d, &x, 8);
        if (kind == 3)
            std::snprintf(buf, sizeof buf, "%" PRIu64, x);
        else
            std::snprintf(buf, sizeof buf, "%g", d);
        return buf;
    }
    if (kind == 5) return "\"" + std::string(v.c_str()) + "\"";
    std::string out = std::to_string(v.size()) + " bytes:";
    for (size_t i = 0; i < v.size() && i < 16; ++i) {
        std::snprintf(buf, sizeof buf, " %02x", static_cast<uint8_t>(v[i]));
        out += buf;
    }
    return out + (v.size() > 16 ? " ..." : "");
}

// Properties in file order; with grouping, a name repeated on a node (per-frame records such as
// the frame information) is listed once with its count, first and last value.
struct property_list {
    struct entry {
        std::string node, name, first, last;
        uint32_t kind = 0, count = 0;
    };
    std::vector<entry> entries;
    bool group = true;
};

void _note_property(oni::reader *r, uint32_t kind, const char *name, const void *v, uint32_t size,
                    void *user) {
    auto *list = static_cast<property_list *>(user);
    const std::string node = _node_label(*r, r->last().node_id);
    const std::string value(static_cast<const char *>(v), size);
    if (list->group)
        for (auto &e : list->entries)
            if (e.node == node && e.name == name && e.kind == kind) {
                e.last = value;
                ++e.count;
                return;
            }
    list->entries.push_back({node, name, value, value, kind, 1});
}

void _print_properties(const property_list &list) {
    for (const auto &e : list.entries) {
        std::printf("  [%s] %-7s %s", e.node.c_str(), _kind_name(e.kind), e.name.c_str());
        if (e.count == 1)
            std::printf(" = %s\n", _value_text(e.kind, e.first).c_str());
        else
            std::printf(" x%u: first = %s, last = %s\n", e.count,
                        _value_text(e.kind, e.first).c_str(), _value_text(e.kind, e.last).c_str());
    }
}

// Every record after the open: 0 at the end, -1 when the file is damaged.
int _walk(oni::reader &r) {
    int t;
    while ((t = r.read_next()) > 0 && t != static_cast<int>(oni::rec::end)) {
    }
    return t < 0 ? -1 : 0;
}

int _cmd_info(const std::string &path, bool all) {
    auto r = oni::reader::open(path.c_str(), nullptr, nullptr);
    if (!r) {
        std::fprintf(stderr, "oni: %s is not a readable ONI recording (-v for details)\n",
                     path.c_str());
        return k_failed;
    }
    const int walked = _walk(*r);
    std::printf("file: %s\n", path.c_str());
    std::printf("version: %u.%u.%u.%u (%s record headers)\n", r->version_major(),
                r->version_minor(), r->version_maintenance(), r->version_build(),
                r->old_format() ? "24-byte" : "28-byte");
    std::printf("max timestamp: %" PRIu64 "\n", r->max_timestamp());
    std::printf("nodes: %u\n", r->max_node_id());
    for (uint32_t id = 1; id <= r->max_node_id(); ++id) {
        const oni::node *n = r->node_at(id);
        if (!n) {
            std::printf("  node %u: absent\n", id);
            continue;
        }
        std::printf("  node %u \"%s\": type %s (%u), codec %s, frames %u (%" PRIu64
                    " data records), ",
                    id, n->name.c_str(), _type_name(n->desc.type), n->desc.type,
                    _codec_name(n->desc.codec).c_str(), n->desc.frames, n->data_records);
        if (n->xres && n->yres)
            std::printf("%ux%u @ %u fps, ", n->xres, n->yres, n->fps);
        else
            std::printf("resolution unknown, ");
        std::printf("timestamps %" PRIu64 "..%" PRIu64 ", seek table %s\n", n->desc.min_ts,
                    n->desc.max_ts, n->has_seek ? "yes" : "no");
    }
    std::printf("properties:%s\n", all ? "" : " (repeated ones grouped; --all lists each)");
    r.reset();
    property_list props;
    props.group = !all;
    r = oni::reader::open(path.c_str(), _note_property, &props);
    if (r) _walk(*r);
    _print_properties(props);
    if (walked < 0) {
        std::fprintf(stderr, "oni: %s is damaged after its header (-v for details)\n",
                     path.c_str());
        return k_failed;
    }
    return k_ok;
}

uint32_t _find_node(const oni::reader &r, const std::string &name) {
    if (uint32_t id = r.find_node(name.c_str())) return id;
    std::string want = name;
    std::transform(want.begin(), want.end(), want.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (uint32_t id = 1; id <= r.max_node_id(); ++id) {
        const oni::node *n = r.node_at(id);
        if (n && want == _type_name(n->desc.type)) return id;
    }
    return 0;
}

bool _ends_with(const std::string &s, const char *tail) {
    const size_t n = std::strlen(tail);
    if (s.size() < n) return false;
    return std::equal(s.end() - static_cast<std::ptrdiff_t>(n), s.end(), tail,
                      [](char a, char b) { return std::tolower(a) == std::tolower(b); });
}

// Black for 0 (no measurement); near values blue, far values red.
void _ramp(uint16_t v, uint16_t lo, uint16_t hi, uint8_t *rgb) {
    if (v == 0) {
        rgb[0] = rgb[1] = rgb[2] = 0;
        return;
    }
    const double t = hi > lo ? static_cast<double>(v - lo) / (hi - lo) : 0.0;
    const double x = std::clamp(t, 0.0, 1.0) * 4.0;
    const auto ch = [](double c) { return static_cast<uint8_t>(std::clamp(c, 0.0, 1.0) * 255.0); };
    rgb[0] = ch(x - 2.0);
    rgb[1] = ch(x < 2.0 ? x - 0.0 : 4.0 - x);
    rgb[2] = ch(2.0 - x);
}

bool _write_png(const std::string &path, const std::vector<uint16_t> &px, uint32_t w, uint32_t h) {
    uint16_t lo = 0xFFFF, hi = 0;
    for (uint16_t v : px)
        if (v) {
            lo = std::min(lo, v);
            hi = std::max(hi, v);
        }
    std::vector<uint8_t> rgb(size_t{w} * h * 3);
    for (size_t i = 0; i < px.size(); ++i) _ramp(px[i], lo, hi, &rgb[i * 3]);
    return png_write(path, rgb.data(), w, h, 3);
}

bool _write_bytes(const std::string &path, const void *data, size_t n) {
    std::FILE *fp = std::fopen(path.c_str(), "wb");
    if (!fp) return false;
    const bool ok = std::fwrite(data, 1, n, fp) == n;
    return std::fclose(fp) == 0 && ok;
}

int _cmd_export(const oni_args &a) {
    auto r = oni::reader::open(a.file.c_str(), nullptr, nullptr);
    if (!r) {
        std::fprintf(stderr, "oni: %s is not a readable ONI recording (-v for details)\n",
                     a.file.c_str());
        return k_failed;
    }
    const uint32_t id = _find_node(*r, a.node);
    if (!id) {
        std::fprintf(stderr, "oni: no node \"%s\" in %s\n", a.node.c_str(), a.file.c_str());
        return k_failed;
    }
    const oni::node *n = r->node_at(id);
    bool found = false;
    if (n->has_seek) {
        found = a.frame < n->desc.frames &&
                (a.frame == 0 || r->seek(id, static_cast<int32_t>(a.frame), 0) == a.frame) &&
                r->read_frame(id) == 1;
    } else {
        int64_t k = 0;
        while (r->read_frame(id) == 1)
            if (k++ == a.frame) {
                found = true;
                break;
            }
    }
    if (!found) {
        std::fprintf(stderr, "oni: node \"%s\" has no frame %" PRId64 "\n", n->name.c_str(),
                     a.frame);
        return k_failed;
    }
    const std::span<const uint8_t> payload = r->last().payload;
    const bool sixteen =
        n->desc.codec == oni::k_codec_16zt || n->desc.codec == oni::k_codec_16z ||
        (n->desc.codec == oni::k_codec_none && (n->desc.type == 2 || n->desc.type == 5));
    if (!sixteen) {
        if (_ends_with(a.out, ".png")) {
            if (n->desc.codec == oni::k_codec_jpeg)
                std::fprintf(stderr,
                             "oni: frame %" PRId64
                             " of \"%s\" is stored as JPEG: write it to a "
                             ".jpg file\n",
                             a.frame, n->name.c_str());
            else
                std::fprintf(stderr,
                             "oni: \"%s\" holds %s, not an image: a .png would only carry its "
                             "bytes. Decode it with: tevix export %s --frame %" PRId64
                             " --depth D.png --ir I.png --points P.ply\n",
                             n->name.c_str(),
                             n->name == "VX_REPLAY" ? "raw sensor frames" : "data of its own codec",
                             a.file.c_str(), a.frame);
            return k_failed;
        }
        if (!_write_bytes(a.out, payload.data(), payload.size())) {
            std::fprintf(stderr, "oni: cannot write %s\n", a.out.c_str());
            return k_failed;
        }
        std::printf("wrote %s: frame %u of \"%s\" as stored (%s, %zu bytes)\n", a.out.c_str(),
                    r->last().frame_no, n->name.c_str(), _codec_name(n->desc.codec).c_str(),
                    payload.size());
        return k_ok;
    }
    std::vector<uint16_t> px;
    const int64_t got = r->decode_frame(id, payload, px);
    if (got <= 0) {
        std::fprintf(stderr, "oni: frame %" PRId64 " of \"%s\" does not decode\n", a.frame,
                     n->name.c_str());
        return k_failed;
    }
    uint32_t w = n->xres, h = n->yres;
    if (uint64_t{w} * h != static_cast<uint64_t>(got)) {
        w = static_cast<uint32_t>(got);
        h = 1;
    }
    bool ok;
    if (_ends_with(a.out, ".png")) {
        ok = _write_png(a.out, px, w, h);
    } else {
        std::vector<uint8_t> le(px.size() * 2);
        for (size_t i = 0; i < px.size(); ++i) {
            le[2 * i] = static_cast<uint8_t>(px[i] & 0xFF);
            le[2 * i + 1] = static_cast<uint8_t>(px[i] >> 8);
        }
        ok = _write_bytes(a.out, le.data(), le.size());
    }
    if (!ok) {
        std::fprintf(stderr, "oni: cannot write %s\n", a.out.c_str());
        return k_failed;
    }
    std::printf("wrote %s: frame %u of \"%s\", %ux%u 16-bit pixels\n", a.out.c_str(),
                r->last().frame_no, n->name.c_str(), w, h);
    return k_ok;
}

// Default name of a repaired copy: "rec.oni" -> "rec.repaired.oni".
std::string _repaired_name(const std::string &in) {
    const size_t dot = in.rfind('.');
    const size_t slash = in.rfind('/');
    const bool ext = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    return (ext ? in.substr(0, dot) : in) + ".repaired.oni";
}

int _cmd_repair(const oni_args &a) {
    const std::string out = a.repaired.empty() ? _repaired_name(a.file) : a.repaired;
    oni::scan_result found;
    const int64_t frames = oni::repair(a.file.c_str(), out.c_str(), &found);
    if (frames < 0) {
        std::fprintf(stderr, "oni: cannot repair %s: %s (-v for details)\n", a.file.c_str(),
                     found.stop.empty() ? "the output cannot be written" : found.stop.c_str());
        return k_failed;
    }
    if (found.finished) {
        std::printf("%s is a finished recording: %s is a copy of it\n", a.file.c_str(),
                    out.c_str());
        return k_ok;
    }
    for (size_t i = 0; i < found.nodes.size() && found.nodes[i].used; ++i) {
        const oni::scan_node &n = found.nodes[i];
        std::printf("  node %zu \"%s\": %zu frames, %u properties\n", i + 1, n.name.c_str(),
                    n.frames.size(), n.properties);
    }
    const uint64_t dropped = found.file_size - found.valid_end;
    std::printf("repaired %s into %s: %" PRId64 " frames kept", a.file.c_str(), out.c_str(),
                frames);
    if (dropped)
        std::printf(", the last %" PRIu64 " bytes dropped (%s)", dropped, found.stop.c_str());
    std::printf("\n");
    return k_ok;
}

}  // namespace

CLI::App *tool_add_oni(CLI::App &app) {
    auto *cmd = app.add_subcommand("oni", "inspect ONI recordings and export frames");
    cmd->require_subcommand(1);
    g_args.info = cmd->add_subcommand("info", "header, nodes and properties of a recording");
    g_args.info->add_option("FILE", g_args.file, "recording")->required();
    g_args.info->add_flag("--all", g_args.all, "every property record, repeated ones too");
    g_args.exp = cmd->add_subcommand("export", "write one frame of a node to a file");
    g_args.exp->add_option("FILE", g_args.file, "recording")->required();
    g_args.exp->add_option("--node", g_args.node, "node name (or type: depth, image, ir)")
        ->required();
    g_args.exp->add_option("--frame", g_args.frame, "frame index from 0")
        ->required()
        ->check(CLI::NonNegativeNumber);
    g_args.exp
        ->add_option("--out", g_args.out,
                     "output: raw little-endian u16 pixels, or a colour PNG (*.png)")
        ->required();
    g_args.repair = cmd->add_subcommand(
        "repair", "make a recording whose writer never finished playable (every whole frame)");
    g_args.repair->add_option("IN", g_args.file, "unfinished recording")->required();
    g_args.repair->add_option("OUT", g_args.repaired,
                              "repaired recording (default IN with .repaired.oni; may be IN)");
    return cmd;
}

int tool_run_oni(CLI::App *, int verbosity) {
    log_scope log(verbosity);
    if (g_args.info->parsed()) return _cmd_info(g_args.file, g_args.all);
    if (g_args.exp->parsed()) return _cmd_export(g_args);
    if (g_args.repair->parsed()) return _cmd_repair(g_args);
    return k_usage;
}
