// ONI recordings: the 16z / 16zT frame codecs, the record reader and the recording writer.
// Everything here depends only on the log, so the command-line tool can compile it in.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace tevix::oni {

// Codec ids as the four bytes stored in the file.
constexpr uint32_t fourcc(char a, char b, char c, char d) {
    return static_cast<uint32_t>(static_cast<uint8_t>(a)) |
           static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24;
}
constexpr uint32_t k_codec_none = fourcc('N', 'O', 'N', 'E');
constexpr uint32_t k_codec_16z = fourcc('1', '6', 'z', 'P');
constexpr uint32_t k_codec_16zt = fourcc('1', '6', 'z', 'T');
constexpr uint32_t k_codec_im8z = fourcc('I', 'm', '8', 'z');
constexpr uint32_t k_codec_jpeg = fourcc('J', 'P', 'E', 'G');

constexpr uint32_t k_file_magic = 0x3031494E;    // "NI10"
constexpr uint32_t k_record_magic = 0x0052494E;  // "NIR\0"
constexpr uint32_t k_max_nodes = 8;
constexpr size_t k_rdbuf_size = 0x300100;
constexpr size_t k_seek_entry_size = 20;

enum class rec : uint32_t {
    prop_int = 3,
    prop_real = 4,
    prop_string = 5,
    prop_general = 6,
    node_removed = 7,
    node_data_begin = 8,
    node_state_ready = 9,
    new_data = 10,
    end = 11,
    node_added_old = 12,
    node_added = 13,
    seek_table = 14,
};

enum class node_type : uint32_t { device = 1, depth = 2, image = 3, ir = 5 };

// ---- codecs ----

// Plain 16z of a row-ordered u16 image. False when a value cannot be coded (a full-value escape
// above 32767). out is replaced.
bool z16_encode(std::span<const uint16_t> px, std::vector<uint8_t> &out);
// Decodes at most out.size() pixels; the number written, or -1 when the stream is cut inside an
// escape. Surplus pixels beyond out.size() are dropped.
int64_t z16_decode(std::span<const uint8_t> in, std::span<uint16_t> out);
// 16zT: table of the distinct values, then 16z of the indices. False for an image with more than
// 32768 distinct values.
bool z16t_encode(std::span<const uint16_t> px, std::vector<uint8_t> &out);
// The number of pixels written, or -1 for a short table, a cut escape or an index outside it.
int64_t z16t_decode(std::span<const uint8_t> in, std::span<uint16_t> out);

// ---- records ----

struct node_desc {
    uint32_t type = 0;
    uint32_t codec = 0;
    uint32_t frames = 0;
    uint64_t min_ts = 0;
    uint64_t max_ts = 0;
    uint64_t seek_pos = 0;
};

struct seek_entry {
    uint64_t timestamp;
    uint32_t config_id;
    uint64_t pos;
};

struct node {
    bool used = false;
    std::string name;
    node_desc desc;
    uint64_t added_pos = 0;
    bool has_seek = false;
    std::vector<seek_entry> seek;
    uint64_t first_data_pos = 0;           // the node's first new-data record, 0 until seen
    uint32_t cur_frame = 0;                // frames read since the last rewind or seek
    uint32_t xres = 0, yres = 0, fps = 0;  // from "xnMapOutputMode"
    uint64_t data_records = 0;             // new-data records met so far
};

class reader;

// Property callback: (reader, kind 3..6, name, value, value bytes, user). Strings arrive with
// their terminating zero; integers as u64 and reals as f64, both 8 bytes.
using prop_cb = void (*)(reader *r, uint32_t kind, const char *name, const void *value,
                         uint32_t size, void *user);

// Last record read by read_next().
struct record {
    uint32_t type = 0;
    uint32_t node_id = 0;
    uint64_t pos = 0;
    uint64_t timestamp = 0;  // new data: microseconds; data begin: max timestamp
    uint32_t frame_no = 0;   // new data: number from 1; data begin: frame count
    std::span<const uint8_t> payload;
};

class reader {
  public:
    ~reader();
    reader(const reader &) = delete;
    reader &operator=(const reader &) = delete;

    // Null on failure (already logged).
    static std::unique_ptr<reader> open(const char *path, prop_cb cb, void *user);

    // Record type, 0 at the end of the file (or after End), -1 on error.
    int read_next();
    const record &last() const { return last_; }

    // Next frame of one node: 1 with the frame in last(), 0 at the end, -1 on error.
    int read_frame(uint32_t node_id);

    // Moves node_id's position (frame index from 0) per whence 0 set / 1 add / 2 from the
    // frame count / else keep; the position reached or -1.
    int32_t seek(uint32_t node_id, int32_t frame, uint32_t whence);
    // Back to the first data record, every node at its first frame.
    bool rewind();

    uint8_t version_major() const { return ver_[0]; }
    uint8_t version_minor() const { return ver_[1]; }
    uint16_t version_maintenance() const { return static_cast<uint16_t>(ver_[2] | ver_[3] << 8); }
    uint32_t version_build() const { return build_; }
    bool old_format() const { return old_; }
    uint64_t max_timestamp() const { return max_ts_; }
    uint32_t max_node_id() const { return static_cast<uint32_t>(nodes_.size()); }
    // Node by id (1-based); null when absent or unused.
    const node *node_at(uint32_t id) const;
    // Id of the first node of that name, 0 when none.
    uint32_t find_node(const char *name) const;
    // Decodes a frame of node_id into out (sized to the node's resolution when known). The pixels
    // decoded, or -1. Only 16-bit codecs ("NONE" with even length, "16zP", "16zT").
    int64_t decode_frame(uint32_t node_id, std::span<const uint8_t> payload,
                         std::vector<uint16_t> &out) const;

  private:
    reader() = default;
    bool read_at(uint64_t pos, void *dst, size_t n, size_t *got);
    int parse_record(uint64_t pos, uint32_t type, uint32_t node_id, size_t fields, size_t payload);
    bool load_seek_table(node &n);
    bool read_string(const uint8_t *p, size_t len, size_t &idx, std::string &out);
    void note_property(uint32_t kind, const std::string &name, const uint8_t *v, uint32_t size);

    std::FILE *fp_ = nullptr;
    uint64_t pos_ = 0;  // next record
    uint64_t file_size_ = 0;
    uint64_t data_pos_ = 0;  // first data record
    uint8_t ver_[4] = {};
    uint32_t build_ = 0;
    uint64_t max_ts_ = 0;
    bool old_ = false;
    bool at_end_ = false;
    bool loading_seek_ = false;
    size_t hdr_size_ = 28;
    std::vector<node> nodes_;
    // One record at a time, k_rdbuf_size bytes; left uninitialised: only what a record fills is
    // read.
    std::unique_ptr<uint8_t[]> buf_;
    record last_;
    prop_cb cb_ = nullptr;
    void *user_ = nullptr;
};

// Node description given to writer::add_node.
struct stream_desc {
    uint32_t type = 0;          // node_type, or 0xFFFFFFFF
    uint32_t pixel_format = 0;  // 100 depth 1 mm, 101 100 um, 200..204 image formats
    uint32_t max_depth = 0;
    uint32_t xres = 0, yres = 0;
    uint32_t bytes_per_pixel = 0;
    uint32_t fps = 0;
};

// What a scan of a recording found: its whole records from the start up to the first record
// that is cut short or damaged. A recording whose writer never finished (a killed process, a
// power loss) has no seek tables, no end record and zero counts in its headers, but every record
// the writer completed is intact; the scan is what a repair rebuilds the missing parts from.
struct scan_node {
    bool used = false;
    std::string name;
    uint32_t type = 0, codec = 0;
    uint64_t added_pos = 0;  // its node-added record
    uint64_t begin_pos = 0;  // its node-data-begin record, 0 when none
    uint64_t min_ts = 0, max_ts = 0;
    std::vector<seek_entry> frames;  // every whole new-data record
    uint32_t properties = 0;
};

struct scan_result {
    uint64_t file_size = 0;
    uint64_t valid_end = 0;  // whole records end here; bytes from here on are cut or damaged
    bool finished = false;   // an end record was met: the file needs no repair
    uint32_t records = 0;
    std::string stop;              // why the scan stopped before the end of the file, or ""
    std::vector<scan_node> nodes;  // by id - 1 (ids 1..8)
};

// Reads `size` bytes at `pos` into dst; the bytes read (short at the end of the source).
using read_fn = size_t (*)(void *src, uint64_t pos, void *dst, size_t size);

// Scans a recording with 28-byte record headers record by record. False when the source is no
// such recording (wrong magic, the old 24-byte record form), with the reason in out.stop.
bool scan(read_fn read, void *src, uint64_t size, scan_result &out);

// Rebuilds a recording that was not finished: the whole records of `in` are kept byte for byte
// (frames, properties and node headers), the cut or damaged tail is dropped, and the data-begin
// records, seek tables, end record and corrected headers are written. `out` may be `in` (the file
// is repaired in place: its tail is cut and the missing records appended). Returns the number of
// frames recovered over all nodes, or -1 (logged) when `in` cannot be read or `out` written.
int64_t repair(const char *in, const char *out, scan_result *found = nullptr);

class writer {
  public:
    ~writer();  // finishes and closes
    writer(const writer &) = delete;
    writer &operator=(const writer &) = delete;

    static std::unique_ptr<writer> create(const char *path);
    // Continues an unfinished recording at `path` from its scan: the file is cut after its last
    // whole record and the writer stands there, knowing its nodes and frames. Null on failure.
    static std::unique_ptr<writer> resume(const char *path, const scan_result &found);

    // Node id (1..8) or -1. Writes the node, its standard properties and node-state-ready.
    int add_node(const char *name, const stream_desc &desc, uint32_t codec);
    bool write_int(int node_id, const char *name, uint64_t v);
    bool write_real(int node_id, const char *name, double v);
    bool write_string(int node_id, const char *name, const char *v);
    bool write_general(int node_id, const char *name, const void *v, uint32_t size);
    // One frame; timestamp 0 takes the current time in microseconds.
    bool write_data(int node_id, const void *data, uint32_t size, uint64_t timestamp);
    // Data begin of idle nodes, node removed, seek tables, end, corrected headers; then closes.
    bool finish();
    // Hands what the writer holds to the operating system, so that a process that dies keeps
    // every record written so far; with sync also to the disk, for a power loss.
    bool flush(bool sync);

  private:
    struct wnode {
        std::string name;
        stream_desc desc;
        uint32_t codec = 0;
        uint64_t added_pos = 0;
        uint64_t begin_pos = 0;  // 0 until the first frame
        uint64_t last_data_pos = 0;
        uint64_t min_ts = 0, max_ts = 0;
        std::vector<seek_entry> frames;
        std::map<std::string, uint64_t> prop_pos;
    };
    writer() = default;
    bool put_record(uint32_t type, uint32_t node_id, std::span<const uint8_t> fields,
                    std::span<const uint8_t> payload, uint64_t undo, uint64_t *at);
    bool put_prop(int node_id, uint32_t kind, const char *name, const void *v, uint32_t size);
    bool put_node_added(uint32_t id, const wnode &n, uint32_t frames, uint64_t seek_pos);
    bool put_data_begin(uint32_t id, wnode &n);
    wnode *node_of(int id);

    std::FILE *fp_ = nullptr;
    uint64_t pos_ = 0;
    bool failed_ = false;
    std::vector<wnode> nodes_;
    std::vector<uint8_t> zbuf_;
    uint64_t synced_ms_ = 0;
};

}  // namespace tevix::oni
