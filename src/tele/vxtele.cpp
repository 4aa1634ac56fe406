// Registry of the telemetry parameter synchronisation (see vxtele.h).
#include "tele/vxtele.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "log/log.h"

namespace {

struct registration {
    std::string owner;
    std::vector<tevix::tele::item> items;
    uint32_t changes = 0;
};

std::mutex g_mtx;
std::map<int32_t, registration> g_regs;
int32_t g_next = 1;

}  // namespace

int32_t vxtele_register(const char *owner, const tevix::tele::item *items,
                        uint32_t count) noexcept {
    if (!owner || (!items && count)) return 0;
    try {
        std::lock_guard<std::mutex> lock(g_mtx);
        registration r{owner, std::vector<tevix::tele::item>(items, items + count), 0};
        const int32_t h = g_next++;
        g_regs.emplace(h, std::move(r));
        VX_DBG("[%s]%s: %u settings\n", owner, count);
        return h;
    } catch (...) {
        return 0;
    }
}

void vxtele_unregister(int32_t handle) noexcept {
    std::lock_guard<std::mutex> lock(g_mtx);
    g_regs.erase(handle);
}

int32_t vxtele_sync(int32_t handle, bool changed) noexcept {
    std::lock_guard<std::mutex> lock(g_mtx);
    auto it = g_regs.find(handle);
    if (it == g_regs.end()) return -1;
    if (changed) ++it->second.changes;
    return 0;
}

const tevix::tele::item *vxtele_find(int32_t handle, const char *name) noexcept {
    if (!name) return nullptr;
    std::lock_guard<std::mutex> lock(g_mtx);
    auto it = g_regs.find(handle);
    if (it == g_regs.end()) return nullptr;
    for (const auto &i : it->second.items)
        if (i.name && std::strcmp(i.name, name) == 0) return &i;
    return nullptr;
}

uint32_t vxtele_changes(int32_t handle) noexcept {
    std::lock_guard<std::mutex> lock(g_mtx);
    auto it = g_regs.find(handle);
    return it == g_regs.end() ? 0 : it->second.changes;
}
