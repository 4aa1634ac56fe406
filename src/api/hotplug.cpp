// Hot-plug registrations of hosts over the USB backend's watch. The watch thread asks each camera
// that arrives for its identity (briefly opening it on the backend) and calls the registered
// callbacks in order; removals repeat what the arrival told.
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "api/session.h"
#include "ll/usb/usb_ll.h"
#include "log/log.h"
#include "tevix/tevix.h"
#include "tevix/tevix_ll.h"

namespace {

struct registration {
    tevix_hotplug_cb cb;
    void *user;
    bool enumerate;  // wants the cameras present at its registration
};

struct identity {
    std::string serial, product;
};

struct hotplug_state {
    std::mutex m;         // registrations and the cameras known
    std::mutex delivery;  // held while callbacks run: deregistration waits on it
    std::map<int, registration> regs;
    std::map<std::string, identity> known;  // URI -> identity of the cameras present
    int next = 1;
    tevix::usb::hotplug_watch watch;
    bool running = false;
};

hotplug_state &_state() {
    static hotplug_state *s = new hotplug_state();  // lives to the process end: no exit order
    return *s;
}

std::string _uri(const tevix::usb::plug_event &e) {
    char uri[64];
    std::snprintf(uri, sizeof uri, "usb://%03u:%03u:%03u", e.bus, e.port, e.addr);
    return uri;
}

// Asks the camera for its product text and unique id on the backend, without a session.
identity _ask(const tevix::usb::plug_event &e) {
    identity id;
    tevix_ll_dev_t d{};
    d.info.usb.bus = e.bus;
    d.info.usb.port = e.port;
    d.info.usb.addr = e.addr;
    if (!tevix_ll_dev_open(&d)) return id;
    tevix_param_wire_t items[2] = {};
    items[0].id = TEVIX_PARAM_PRODUCT;
    items[1].id = TEVIX_PARAM_UID;
    if (tevix_ll_param_get(&d, items, 2)) {
        char product[19] = {};
        std::memcpy(product, items[0].value, std::min<size_t>(items[0].len, 18));
        id.product = product;
        uint32_t uid[3];
        std::memcpy(uid, items[1].value, sizeof uid);
        char serial[32];
        std::snprintf(serial, sizeof serial, "%08X%08X%08X", uid[0], uid[1], uid[2]);
        id.serial = serial;
    }
    tevix_ll_dev_close(&d);
    return id;
}

void _fill(tevix_hotplug_event_t &ev, int event, const std::string &uri, const identity &id) {
    ev = tevix_hotplug_event_t{};
    ev.event = event;
    std::snprintf(ev.uri, sizeof ev.uri, "%s", uri.c_str());
    std::snprintf(ev.serial, sizeof ev.serial, "%s", id.serial.c_str());
    std::snprintf(ev.product, sizeof ev.product, "%s", id.product.c_str());
}

// Calls every registration; the cameras present when the watch started go only to those that
// asked for them.
void _deliver(hotplug_state &s, const tevix_hotplug_event_t &ev, bool initial) {
    std::map<int, registration> regs;
    {
        std::lock_guard lk(s.m);
        regs = s.regs;
    }
    for (const auto &[handle, r] : regs) {
        if (initial && !r.enumerate) continue;
        {
            std::lock_guard lk(s.m);
            if (!s.regs.count(handle)) continue;  // deregistered by an earlier callback
        }
        r.cb(&ev, r.user);
    }
}

void _on_plug(const tevix::usb::plug_event &e) {
    hotplug_state &s = _state();
    std::lock_guard deliver(s.delivery);
    const std::string uri = _uri(e);
    tevix_hotplug_event_t ev;
    if (e.arrived) {
        const identity id = _ask(e);
        VX_LOG_AS(VX_LOG_INF, "tevix_hotplug", "[%s]camera arrived: %s (%s, serial %s)\n",
                  uri.c_str(), id.product.c_str(), id.serial.c_str());
        {
            std::lock_guard lk(s.m);
            s.known[uri] = id;
        }
        _fill(ev, TEVIX_HOTPLUG_ARRIVED, uri, id);
    } else {
        identity id;
        {
            std::lock_guard lk(s.m);
            auto it = s.known.find(uri);
            if (it != s.known.end()) {
                id = it->second;
                s.known.erase(it);
            }
        }
        VX_LOG_AS(VX_LOG_INF, "tevix_hotplug", "[%s]camera left: %s (serial %s)\n", uri.c_str(),
                  id.serial.c_str());
        _fill(ev, TEVIX_HOTPLUG_LEFT, uri, id);
    }
    _deliver(s, ev, e.initial);
}

// A registration made while the watch runs asks for the cameras known so far: reported from the
// watch thread, before any later event.
void _enumerate_for(int handle) {
    hotplug_state &s = _state();
    std::lock_guard deliver(s.delivery);
    registration r;
    std::map<std::string, identity> present;
    {
        std::lock_guard lk(s.m);
        auto it = s.regs.find(handle);
        if (it == s.regs.end()) return;
        r = it->second;
        present = s.known;
    }
    for (const auto &[uri, id] : present) {
        tevix_hotplug_event_t ev;
        _fill(ev, TEVIX_HOTPLUG_ARRIVED, uri, id);
        r.cb(&ev, r.user);
    }
}

}  // namespace

int tevix_hotplug_register(tevix_hotplug_cb cb, void *user, int enumerate) noexcept {
    if (!cb) {
        VX_ERR("[%s]Wrong params\n");
        return 0;
    }
    hotplug_state &s = _state();
    std::lock_guard lk(s.m);
    const int handle = s.next++;
    // While the watch runs, the cameras present come from a task queued behind the events at
    // hand, so that none arrives twice.
    s.regs[handle] = {cb, user, enumerate != 0 && !s.running};
    if (!s.running) {
        // The first registration starts the watch, whose first events are the cameras present.
        if (!s.watch.start(_on_plug)) {
            s.regs.erase(handle);
            return 0;
        }
        s.running = true;
    } else if (enumerate) {
        s.watch.post([handle] { _enumerate_for(handle); });
    }
    return handle;
}

int tevix_hotplug_deregister(int handle) noexcept {
    hotplug_state &s = _state();
    const bool inside = s.watch.on_watch_thread();
    std::unique_lock deliver(s.delivery, std::defer_lock);
    if (!inside) deliver.lock();  // a callback in progress finishes first
    bool last;
    {
        std::lock_guard lk(s.m);
        if (!s.regs.erase(handle)) return 0;
        last = s.regs.empty();
    }
    if (last && !inside && s.running) {
        deliver.unlock();
        s.watch.stop();
        std::lock_guard lk(s.m);
        s.running = false;
        s.known.clear();
    }
    return 1;
}

namespace tevix::api {

void hotplug_shutdown() {
    hotplug_state &s = _state();
    if (s.watch.on_watch_thread()) return;
    {
        std::lock_guard deliver(s.delivery);
        std::lock_guard lk(s.m);
        s.regs.clear();
    }
    s.watch.stop();
    std::lock_guard lk(s.m);
    s.running = false;
    s.known.clear();
}

}  // namespace tevix::api
