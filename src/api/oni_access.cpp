// Random access to recordings for hosts: the ONI reader behind a C handle, and the driver name of
// an open device.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "api/session.h"
#include "drivers/drv.h"
#include "ll/oni/oni.h"
#include "log/log.h"
#include "tevix/tevix.h"

struct tevix_oni {
    std::unique_ptr<tevix::oni::reader> rd;
    std::string path;
    std::vector<uint16_t> px;
};

namespace {

namespace oni = tevix::oni;

struct walk {
    tevix_oni_prop_cb cb;
    void *user;
    int count = 0;
};

void _prop(oni::reader *r, uint32_t kind, const char *name, const void *v, uint32_t size,
           void *user) {
    auto *w = static_cast<walk *>(user);
    ++w->count;
    if (w->cb) w->cb(r->last().node_id, kind, name, v, size, w->user);
}

// Positions the reader so that its next frame of `node` is frame `index`.
bool _at(tevix_oni *rec, uint32_t node, uint32_t index) {
    const oni::node *n = rec->rd->node_at(node);
    if (!n || index >= n->desc.frames) return false;
    return rec->rd->seek(node, static_cast<int32_t>(index), 0) == static_cast<int32_t>(index) &&
           rec->rd->read_frame(node) == 1;
}

}  // namespace

tevix_oni_t *tevix_oni_open(const char *path) noexcept {
    if (!path) {
        VX_ERR("[%s]Wrong params\n");
        return nullptr;
    }
    auto *rec = new (std::nothrow) tevix_oni;
    if (!rec) return nullptr;
    rec->rd = oni::reader::open(path, nullptr, nullptr);
    if (!rec->rd) {
        delete rec;
        return nullptr;
    }
    rec->path = path;
    return rec;
}

void tevix_oni_close(tevix_oni_t *rec) noexcept {
    delete rec;
}

int tevix_oni_node_count(tevix_oni_t *rec) noexcept {
    return rec ? static_cast<int>(rec->rd->max_node_id()) : -1;
}

int tevix_oni_node_info(tevix_oni_t *rec, uint32_t id, tevix_oni_node_t *node) noexcept {
    const oni::node *n = rec ? rec->rd->node_at(id) : nullptr;
    if (!n || !node) return 0;
    *node = tevix_oni_node_t{};
    node->id = id;
    std::snprintf(node->name, sizeof node->name, "%s", n->name.c_str());
    node->type = n->desc.type;
    node->codec = n->desc.codec;
    node->frames = n->desc.frames;
    node->width = n->xres;
    node->height = n->yres;
    node->fps = n->fps;
    node->min_ts = n->desc.min_ts;
    node->max_ts = n->desc.max_ts;
    return 1;
}

int tevix_oni_properties(tevix_oni_t *rec, tevix_oni_prop_cb cb, void *user) noexcept {
    if (!rec) return -1;
    // A second reader walks the file from its start, so the frame position of this one stays.
    walk w{cb, user};
    auto rd = oni::reader::open(rec->path.c_str(), _prop, &w);
    if (!rd) return -1;
    int t;
    while ((t = rd->read_next()) > 0 && t != static_cast<int>(oni::rec::end)) {
    }
    return t < 0 ? -1 : w.count;
}

int64_t tevix_oni_read_frame(tevix_oni_t *rec, uint32_t node, uint32_t index, void *dst,
                             uint64_t dst_size, uint64_t *timestamp) noexcept {
    if (!rec || !_at(rec, node, index)) return -1;
    const auto payload = rec->rd->last().payload;
    if (timestamp) *timestamp = rec->rd->last().timestamp;
    if (dst && dst_size >= payload.size()) std::memcpy(dst, payload.data(), payload.size());
    return static_cast<int64_t>(payload.size());
}

int64_t tevix_oni_decode_frame(tevix_oni_t *rec, uint32_t node, uint32_t index, uint16_t *dst,
                               uint64_t count) noexcept {
    if (!rec || !dst || !_at(rec, node, index)) return -1;
    const int64_t got = rec->rd->decode_frame(node, rec->rd->last().payload, rec->px);
    if (got < 0 || static_cast<uint64_t>(got) > count) return -1;
    std::memcpy(dst, rec->px.data(), static_cast<size_t>(got) * 2);
    return got;
}

int tevix_dev_get_calib_freqs(tevix_dev_t *dev, uint32_t *list, uint32_t capacity) noexcept {
    if (!tevix::api::dev_check(dev, __func__)) return -1;
    const tevix_session *s = dev->session;
    const uint32_t n = std::min(s->calib_freq_n, capacity);
    if (list && n) std::memcpy(list, s->calib_freqs, n * sizeof *list);
    return static_cast<int>(s->calib_freq_n);
}

const char *tevix_dev_get_driver(tevix_dev_t *dev, const char **chip) noexcept {
    if (!tevix::api::dev_check(dev, __func__) || !dev->session->drv) return nullptr;
    if (chip) *chip = dev->session->drv->chip;
    return dev->session->drv->desc;
}
