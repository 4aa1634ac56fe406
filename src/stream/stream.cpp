// Frame stream assembler: finds and checks 36-byte stream headers in arbitrary transport chunks,
// rebuilds whole frames and keeps them in a bounded ready list for the capture engine.
//
// Feeding runs on one thread (the transport's event thread); fetching and state reads run on the
// caller's thread. Only the ready list is shared; it sits behind a read-write lock. The statistics
// are relaxed atomics so that a state read never races with the feeder's counting.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <shared_mutex>

#include "log/log.h"
#include "platform/platform.h"
#include "stream/stream_internal.h"
#include "stream/stream_sum.h"
#include "tevix/vx_stream.h"

namespace {

constexpr uint32_t kNone = UINT32_MAX;  // prev_idx / prev_fridx unknown
constexpr uint32_t kHdr = VX_STREAM_HDR_SIZE;
constexpr uint32_t kNodeHdr = 48;
// Fetched and dropped nodes are kept for reuse, so that a steady capture allocates no frame memory:
// a large buffer malloc'ed on the feeding thread and freed on the fetching one every frame leaves
// the allocator's per-thread arenas fragmented and resident memory creeping up.
constexpr uint32_t kSpareMax = 2;

tevix::stream::node_alloc_fn g_node_alloc = nullptr;

// One frame: links, descriptor, fill state, then room data bytes in the same allocation (cap of
// them in use: a reused node may be larger than its frame).
struct fr_node {
    fr_node *next;
    fr_node *prev;
    vx_frame_desc_t desc;
    uint32_t filled;
    uint32_t cap;
    uint32_t room;

    uint8_t *data() { return reinterpret_cast<uint8_t *>(this) + kNodeHdr; }
    bool full() const { return filled >= cap; }
};
static_assert(sizeof(fr_node) == kNodeHdr, "frame node header is 48 bytes");

struct fr_list {
    fr_node *head = nullptr;
    fr_node *tail = nullptr;

    void push_back(fr_node *n) {
        n->next = nullptr;
        n->prev = tail;
        (tail ? tail->next : head) = n;
        tail = n;
    }
    void unlink(fr_node *n) {
        (n->prev ? n->prev->next : head) = n->next;
        (n->next ? n->next->prev : tail) = n->prev;
        n->next = n->prev = nullptr;
    }
    // Moves all of other to the end of this list.
    void splice_back(fr_list &other) {
        if (!other.head) return;
        other.head->prev = tail;
        (tail ? tail->next : head) = other.head;
        tail = other.tail;
        other.head = other.tail = nullptr;
    }
    // Detaches the first n nodes (fewer if the list is shorter) as a chain.
    fr_node *cut_front(uint32_t n) {
        fr_node *first = head;
        fr_node *last = nullptr;
        for (fr_node *it = head; it && n; it = it->next, --n) last = it;
        if (!last) return nullptr;
        head = last->next;
        (head ? head->prev : tail) = nullptr;
        last->next = nullptr;
        return first;
    }
};

void _free_chain(fr_node *n) {
    while (n) {
        fr_node *next = n->next;
        std::free(n);
        n = next;
    }
}

using counter = std::atomic<uint32_t>;

// Statistics in vx_stream_state_t order.
struct stream_stats {
    counter completed, readied, discarded, overflow, ready, ready_max, zero0, discarded_bytes,
        zero1, reset_sec, reset_usec, zero2;
};

// Only the feeder writes these counters (ready excepted, which changes under the write lock), so
// a relaxed load and store is enough and costs no locked instruction.
inline void _add(counter &c, uint32_t n) {
    c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}
inline uint32_t _get(const counter &c) {
    return c.load(std::memory_order_relaxed);
}

}  // namespace

struct vx_stream {
    std::atomic<uint32_t> cfg{0};
    std::shared_mutex lock;
    fr_list ready;             // complete frames, oldest first; under lock
    fr_list asm_;              // frames being filled; feeder only
    fr_node *spare = nullptr;  // nodes for reuse, linked by next; under lock
    uint32_t n_spare = 0;
    union {
        uint8_t hdr_buf[kHdr];
        vx_stream_hdr_t hdr;
    };
    uint32_t hdr_fill = 0;
    uint8_t need_bound = 0;
    uint8_t payload_done = 0;
    uint32_t consumed = 0;
    uint32_t sum = 0;
    uint16_t pkt_done = 0;
    uint16_t fpp = 1;
    uint32_t prev_idx = kNone;
    uint32_t prev_fridx = kNone;
    stream_stats st{};
};

void tevix::stream::set_node_alloc(node_alloc_fn fn) {
    g_node_alloc = fn;
}

namespace {

// Keeps nodes of chain as spares up to the limit; returns the rest. The caller holds the lock.
fr_node *_stash_locked(vx_stream *s, fr_node *chain) {
    while (chain && s->n_spare < kSpareMax) {
        fr_node *next = chain->next;
        chain->next = s->spare;
        s->spare = chain;
        ++s->n_spare;
        chain = next;
    }
    return chain;
}

void _recycle(vx_stream *s, fr_node *chain) {
    if (!chain) return;
    {
        std::unique_lock lk(s->lock);
        chain = _stash_locked(s, chain);
    }
    _free_chain(chain);
}

// A node with room for frlen bytes: a spare when one fits, else a new allocation.
fr_node *_node_get(vx_stream *s, uint32_t frlen) {
    fr_node *n = nullptr;
    {
        std::unique_lock lk(s->lock);
        if (s->spare) {
            n = s->spare;
            s->spare = n->next;
            --s->n_spare;
        }
    }
    if (n && n->room >= frlen) return n;
    std::free(n);
    const size_t bytes = size_t{frlen} + kNodeHdr;
    n = static_cast<fr_node *>(g_node_alloc ? g_node_alloc(bytes) : std::malloc(bytes));
    if (!n) {
        VX_LOG_AS(VX_LOG_ERR, "_fr_node_add_data", "[%s]malloc failed: %d bytes\n",
                  static_cast<int>(bytes));
        return nullptr;
    }
    n->room = frlen;
    return n;
}

bool _hdr_valid(const uint8_t *p) {
    vx_stream_hdr_t h;
    std::memcpy(&h, p, sizeof h);
    return h.sync == VX_STREAM_SYNC && h.hdr_cksum == vx_stream_hash16(p, 34, 0) &&
           h.len - 1u <= VX_STREAM_LEN_MAX - 1u && h.desc.frlen - 1u <= VX_STREAM_FRLEN_MAX - 1u;
}

void _clear_payload(vx_stream *s) {
    s->consumed = 0;
    s->sum = 0;
    s->pkt_done = 0;
}

void _discard_cur_frame(vx_stream *s) {
    fr_node *n = s->asm_.tail;
    if (!n || n->full()) return;
    _add(s->st.discarded_bytes, n->filled);
    _add(s->st.discarded, 1);
    VX_TRC("[%s]discard frame: idx = %d\n", n->desc.fridx);
    s->asm_.unlink(n);
    _recycle(s, n);
}

void _count_completed(vx_stream *s) {
    _add(s->st.completed, 1);
    ++s->pkt_done;
}

void _fr_node_add_data(vx_stream *s, const uint8_t *p, uint32_t n) {
    if (fr_node *t = s->asm_.tail; t && !t->full()) {
        const uint32_t k = std::min(t->cap - t->filled, n);
        std::memcpy(t->data() + t->filled, p, k);
        t->filled += k;
        VX_TRC("[%s]frame#%u assembly: %u/%u\n", t->desc.fridx, t->filled, t->cap);
        if (t->full()) _count_completed(s);
        p += k;
        n -= k;
    }
    const uint32_t frlen = s->hdr.desc.frlen;
    while (n) {
        fr_node *node = _node_get(s, frlen);
        if (!node) {
            // Without room the rest of this frame cannot be kept; skip to the next frame start
            // instead of filling a later node with the middle of this one.
            _add(s->st.discarded_bytes, n);
            s->need_bound = 1;
            return;
        }
        node->desc = s->hdr.desc;
        node->desc.fridx = static_cast<uint16_t>(s->hdr.desc.fridx + s->pkt_done);
        node->cap = frlen;
        const uint32_t k = std::min(frlen, n);
        std::memcpy(node->data(), p, k);
        node->filled = k;
        s->asm_.push_back(node);
        if (node->full()) _count_completed(s);
        p += k;
        n -= k;
    }
}

void _fr_list_refresh(vx_stream *s) {
    if (s->asm_.head && s->asm_.head->full()) {
        uint32_t moved = 0;
        for (fr_node *it = s->asm_.head; it; it = it->next) ++moved;
        {
            std::unique_lock lk(s->lock);
            s->ready.splice_back(s->asm_);
            if (!s->ready.tail->full()) {
                fr_node *back = s->ready.tail;
                s->ready.unlink(back);
                s->asm_.push_back(back);
                --moved;
            }
            _add(s->st.ready, moved);
            _add(s->st.readied, moved);
        }
        VX_TRC("[%s]assembly %u frames to ready list\n", moved);
    }
    const uint32_t ready = _get(s->st.ready);
    if (ready > _get(s->st.ready_max)) s->st.ready_max.store(ready, std::memory_order_relaxed);
    const uint32_t cap = s->cfg.load(std::memory_order_relaxed);
    if (ready <= cap) return;
    // The oldest frames leave the list under the lock; logging and freeing happen outside it.
    fr_node *dropped;
    uint32_t n = 0;
    {
        std::unique_lock lk(s->lock);
        dropped = s->ready.cut_front(_get(s->st.ready) - cap);
        for (fr_node *it = dropped; it; it = it->next) ++n;
        _add(s->st.ready, 0u - n);
    }
    if (!dropped) return;
    VX_TRC("[%s]discard frames: frame buffer is full (%d/%d)\n", static_cast<int>(n),
           static_cast<int>(_get(s->st.overflow) + n));
    for (fr_node *it = dropped; it; it = it->next) {
        VX_TRC("[%s]discard frame: idx = %d\n", it->desc.fridx);
        _add(s->st.overflow, 1);
        _add(s->st.discarded_bytes, it->desc.frlen);
    }
    _recycle(s, dropped);
}

struct sync_result {
    uint32_t used;  // bytes consumed from the chunk
    bool found;     // a whole valid header now sits in the header buffer
};

// Header search over data[pos, len). hdr_fill becomes 36 for a found header, 1..35 for a partial
// one at the end of the chunk, or stays as it was.
sync_result _sync_stream_hdr(vx_stream *s, const uint8_t *data, uint32_t pos, uint32_t len) {
    const uint8_t *p = data + pos;
    const uint32_t left = len - pos;
    uint32_t at = 0;
    bool found = false;
    uint32_t partial = 0;
    while (at < left) {
        const void *hit = std::memchr(p + at, 0xFB, left - at);
        if (!hit) {
            at = left;
            break;
        }
        at = static_cast<uint32_t>(static_cast<const uint8_t *>(hit) - p);
        const uint32_t rest = left - at;
        if (rest == 1) {
            partial = 1;
            break;
        }
        if (p[at + 1] != 0x98) {
            ++at;
            continue;
        }
        if (rest < kHdr) {
            partial = rest;
            break;
        }
        if (_hdr_valid(p + at)) {
            found = true;
            break;
        }
        ++at;
    }
    const uint32_t skip = at;
    _add(s->st.discarded_bytes, skip);
    uint32_t used = skip;
    if (found) {
        std::memcpy(s->hdr_buf, p + at, kHdr);
        s->hdr_fill = kHdr;
        _clear_payload(s);
        used += kHdr;
        VX_TRC("[%s]HDR found: idx/len=%d/%d (frlen:%d,fridx=%d,frfmt=%d,b=%d,e=%d)\n", s->hdr.idx,
               static_cast<int>(s->hdr.len), static_cast<int>(s->hdr.desc.frlen), s->hdr.desc.fridx,
               s->hdr.desc.frfmt, s->hdr.flags0 & VX_STREAM_FLAG0_BOUND,
               s->hdr.flags1 & VX_STREAM_FLAG1_CKSUM);
    } else if (partial) {
        std::memcpy(s->hdr_buf, p + at, partial);
        s->hdr_fill = partial;
        used += partial;
    }
    VX_TRC("[%s]raw @ %u/%u: sync hdr use %u [valid=%u, len=%u, skip=%u]\n", pos, len, used,
           found ? 1u : 0u, found ? kHdr : 0u, skip);
    if (partial)
        VX_TRC("[%s]partial hdr found: %u/%u.\n", partial, kHdr - partial);
    else if (!found)
        VX_TRC("[%s]not find hdr: skip %u bytes\n", skip);
    return {used, found};
}

// Bound and continuity checks on a newly accepted header.
void _check_new_hdr(vx_stream *s, uint32_t pos, uint32_t len) {
    const bool b = s->hdr.flags0 & VX_STREAM_FLAG0_BOUND;
    const uint32_t fridx = s->hdr.desc.fridx;
    if (s->need_bound) {
        if (!b) {
            VX_TRC("[%s]HDR skip: no fr-bound @ %u/%u \n", pos, len);
            return;
        }
        s->need_bound = 0;
        s->prev_idx = kNone;
    }
    if (!b) {
        if (s->prev_fridx != kNone && s->prev_fridx != fridx) {
            VX_TRC("[%s]discard frame: frame idx not consist (prev=%d, cur=%d)\n",
                   static_cast<int>(s->prev_fridx), static_cast<int>(fridx));
            _discard_cur_frame(s);
            s->prev_idx = kNone;
        }
    } else if (s->asm_.head) {
        VX_TRC("[%s]discard frame: frame bound met, prev not complete\n");
        _discard_cur_frame(s);
        s->prev_idx = kNone;
    } else if (_get(s->st.completed) && s->prev_fridx != kNone) {
        const uint32_t expect = (s->prev_fridx + s->fpp) & 0xFFFFu;
        if (expect != fridx)
            VX_TRC("[%s]missing frame: jumpping frame idx (prev=%d, cur=%d)\n",
                   static_cast<int>(expect), static_cast<int>(fridx));
    }
    if (b || s->prev_idx == kNone || s->hdr.idx == ((s->prev_idx + 1) & 0xFFFFu)) return;
    VX_TRC("[%s]discard frame: stream hdr idx not correct (prev=%d, cur=%d)\n",
           static_cast<int>(s->prev_idx), s->hdr.idx);
    s->need_bound = 1;
    _discard_cur_frame(s);
}

// Consumes payload bytes of the held header from data[pos, len); returns the bytes taken.
uint32_t _take_payload(vx_stream *s, const uint8_t *data, uint32_t pos, uint32_t len) {
    const uint32_t n = std::min(s->hdr.len - s->consumed, len - pos);
    const uint8_t *p = data + pos;
    s->consumed += n;
    const bool e = s->hdr.flags1 & VX_STREAM_FLAG1_CKSUM;
    // Each piece is summed on its own: a piece that does not end on a 4-byte boundary leaves its
    // tail bytes out, as the device firmware does.
    if (e) s->sum += tevix::stream::sum_u32le(p, n / 4);
    if (s->consumed == s->hdr.len) {
        if (e && s->sum != s->hdr.data_cksum) {
            VX_TRC("[%s]discard frame: verify data checksum failed: sidx=%d\n", s->hdr.idx);
            _discard_cur_frame(s);
            _add(s->st.discarded_bytes, n);
            s->need_bound = 1;
            s->payload_done = 1;
            _clear_payload(s);
            return n;
        }
        s->payload_done = 1;
    }
    _fr_node_add_data(s, p, n);
    if (s->payload_done) _clear_payload(s);
    _fr_list_refresh(s);
    VX_TRC("[%s]raw @ %u/%u[data use %u]\n", pos, len, n);
    return n;
}

void _forget_continuity(vx_stream *s) {
    s->fpp = 1;
    s->prev_idx = kNone;
    s->prev_fridx = kNone;
}

}  // namespace

extern "C" vx_stream_t *vx_stream_create(const uint32_t *cfg) noexcept {
    if (!cfg) return nullptr;
    auto *s = new (std::nothrow) vx_stream;
    if (!s) return nullptr;
    s->cfg.store(*cfg, std::memory_order_relaxed);
    vx_stream_reset(s);
    return s;
}

extern "C" void vx_stream_destroy(vx_stream_t *stream) noexcept {
    if (!stream) return;
    vx_stream_reset(stream);
    fr_node *all;
    {
        std::unique_lock lk(stream->lock);
        all = stream->ready.head;
        stream->ready.head = stream->ready.tail = nullptr;
    }
    _free_chain(all);
    delete stream;
}

extern "C" void vx_stream_reset(vx_stream_t *stream) noexcept {
    if (!stream) return;
    vx_stream *s = stream;
    _free_chain(s->asm_.head);
    s->asm_ = fr_list{};
    fr_node *spare;
    {
        std::unique_lock lk(s->lock);
        spare = s->spare;
        s->spare = nullptr;
        s->n_spare = 0;
    }
    _free_chain(spare);
    std::memset(s->hdr_buf, 0, sizeof s->hdr_buf);
    s->hdr.idx = 0xFFFF;
    s->hdr_fill = 0;
    s->payload_done = 0;
    _clear_payload(s);
    s->fpp = 1;
    s->prev_idx = kNone;
    s->prev_fridx = kNone;
    s->need_bound = 1;
    for (counter *c :
         {&s->st.completed, &s->st.readied, &s->st.discarded, &s->st.overflow, &s->st.ready,
          &s->st.ready_max, &s->st.zero0, &s->st.discarded_bytes, &s->st.zero1, &s->st.zero2})
        c->store(0, std::memory_order_relaxed);
    const auto now = tevix::plat::now_local();
    s->st.reset_sec.store(static_cast<uint32_t>(now.epoch_seconds), std::memory_order_relaxed);
    s->st.reset_usec.store(now.millisecond * 1000u, std::memory_order_relaxed);
    VX_TRC("[%s] stream reset\n");
}

extern "C" void vx_stream_set_cfg(vx_stream_t *stream, const uint32_t *cfg) noexcept {
    if (stream && cfg) stream->cfg.store(*cfg, std::memory_order_relaxed);
}

extern "C" uint32_t *vx_stream_get_cfg(vx_stream_t *stream, uint32_t *cfg) noexcept {
    if (!stream || !cfg) return nullptr;
    *cfg = stream->cfg.load(std::memory_order_relaxed);
    return cfg;
}

extern "C" bool vx_stream_feed_input(vx_stream_t *stream, const uint8_t *data,
                                     uint32_t len) noexcept {
    if (!stream) return false;
    vx_stream *s = stream;
    if (!data) len = 0;
    VX_TRC("[%s]---- raw bytes: %u -----\n", len);
    uint32_t pos = 0;
    while (pos < len) {
        if (s->hdr_fill == kHdr && !s->need_bound && !s->payload_done) {
            pos += _take_payload(s, data, pos, len);
            continue;
        }
        bool from_held = false;
        if (s->hdr_fill == kHdr) {
            s->fpp = s->hdr.len > s->hdr.desc.frlen
                         ? static_cast<uint16_t>(s->hdr.len / s->hdr.desc.frlen)
                         : uint16_t{1};
            s->prev_idx = s->hdr.idx;
            s->prev_fridx = s->hdr.desc.fridx;
            if (s->payload_done) {
                s->payload_done = 0;
                s->hdr_fill = 0;
            }
            from_held = true;
        } else if (s->hdr_fill) {
            const uint32_t k = std::min(kHdr - s->hdr_fill, len - pos);
            std::memcpy(s->hdr_buf + s->hdr_fill, data + pos, k);
            s->hdr_fill += k;
            pos += k;
            if (s->hdr_fill < kHdr) break;
            if (_hdr_valid(s->hdr_buf)) {
                _clear_payload(s);
                VX_LOG_AS(0, "_sync_stream_hdr",
                          "[%s]HDR found: idx/len=%d/%d(frlen:%d,fridx=%d,frfmt=%d)\n", s->hdr.idx,
                          static_cast<int>(s->hdr.len), static_cast<int>(s->hdr.desc.frlen),
                          s->hdr.desc.fridx, s->hdr.desc.frfmt);
                _check_new_hdr(s, pos, len);
                continue;
            }
            s->hdr_fill = 0;
        }
        if (!from_held) _forget_continuity(s);
        const sync_result r = _sync_stream_hdr(s, data, pos, len);
        pos += r.used;
        if (r.found) _check_new_hdr(s, pos - kHdr, len);
    }
    std::shared_lock lk(s->lock);
    return s->ready.head != nullptr;
}

extern "C" uint32_t vx_stream_fetch_frames(vx_stream_t *stream, uint8_t *dst, int32_t dst_size,
                                           uint32_t max_frames, vx_frame_desc_t *first_info,
                                           bool peek) noexcept {
    if (!stream) return 0;
    vx_stream *s = stream;
    const uint32_t n = std::min(_get(s->st.ready), max_frames);
    if (n == 0) return 0;
    if (peek && !dst) return n;
    uint32_t room = dst_size > 0 ? static_cast<uint32_t>(dst_size) : 0;
    auto copy_out = [&](fr_node *it, bool first) {
        if (first && first_info) *first_info = it->desc;
        if (dst && room) {
            const uint32_t k = std::min(room, it->filled);
            std::memcpy(dst, it->data(), k);
            dst += k;
            room -= k;
        }
    };
    if (peek) {
        std::shared_lock lk(s->lock);
        uint32_t i = 0;
        for (fr_node *it = s->ready.head; it && i < n; it = it->next, ++i) copy_out(it, i == 0);
        return n;
    }
    fr_node *taken;
    {
        std::unique_lock lk(s->lock);
        taken = s->ready.cut_front(n);
        uint32_t i = 0;
        for (fr_node *it = taken; it; it = it->next, ++i) copy_out(it, i == 0);
        _add(s->st.ready, 0u - i);
        taken = _stash_locked(s, taken);
    }
    _free_chain(taken);
    return n;
}

extern "C" vx_stream_state_t *vx_stream_get_state(vx_stream_t *stream,
                                                  vx_stream_state_t *state) noexcept {
    if (!stream || !state) return nullptr;
    const stream_stats &st = stream->st;
    std::shared_lock lk(stream->lock);
    *state = vx_stream_state_t{_get(st.completed),
                               _get(st.readied),
                               _get(st.discarded),
                               _get(st.overflow),
                               _get(st.ready),
                               _get(st.ready_max),
                               0,
                               _get(st.discarded_bytes),
                               0,
                               _get(st.reset_sec),
                               _get(st.reset_usec),
                               0};
    return state;
}
