// Camera arrivals and removals. libusb reports hot-plug events from inside its event handling,
// where opening a device is not allowed, so its callback only notes them; the watch thread hands
// them to the handler after each round of event handling. Without hot-plug support the thread
// lists the cameras every poll interval instead and reports the difference.
#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "ll/dispatch.h"
#include "ll/usb/usb_ll.h"
#include "ll/usb/usb_proto.h"
#include "log/log.h"
#include "platform/platform.h"

namespace tevix::usb {

namespace {

constexpr uint32_t k_poll_ms = 500;
constexpr int k_event_slice_us = 200000;
constexpr uint32_t k_list_max = 64;

using place = std::tuple<uint8_t, uint8_t, uint8_t>;

}  // namespace

struct hotplug_watch::state {
    handler h;
    libusb_context *ctx = nullptr;
    libusb_hotplug_callback_handle cb = 0;
    bool have_cb = false;
    bool poll = false;
    int exit_flag = 0;
    std::atomic<bool> stop{false};
    std::thread thread;
    std::atomic<std::thread::id> thread_id{};
    std::mutex m;  // pending events from libusb's callback, and posted tasks
    std::vector<plug_event> pending;
    std::vector<std::function<void()>> tasks;
    std::set<place> present;  // polling: the cameras of the last list

    static int on_libusb(libusb_context *, libusb_device *d, libusb_hotplug_event ev, void *user) {
        auto *s = static_cast<state *>(user);
        std::lock_guard lk(s->m);
        s->pending.push_back({ev == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, libusb_get_bus_number(d),
                              libusb_get_port_number(d), libusb_get_device_address(d), false});
        return 0;  // stay registered
    }

    std::set<place> list() {
        std::vector<tevix_ll_dev_t> devs(k_list_max);
        const int n = tevix_ll_dev_list(devs.data(), static_cast<int>(k_list_max));
        std::set<place> out;
        for (int i = 0; i < n; ++i)
            if (devs[size_t(i)].ops == &usb_ll_ops)
                out.emplace(devs[size_t(i)].info.usb.bus, devs[size_t(i)].info.usb.port,
                            devs[size_t(i)].info.usb.addr);
        return out;
    }

    void poll_once(bool initial) {
        const std::set<place> now = list();
        for (const place &p : present)
            if (!now.count(p)) h({false, std::get<0>(p), std::get<1>(p), std::get<2>(p), initial});
        for (const place &p : now)
            if (!present.count(p))
                h({true, std::get<0>(p), std::get<1>(p), std::get<2>(p), initial});
        present = now;
    }

    void run_tasks() {
        std::vector<std::function<void()>> todo;
        {
            std::lock_guard lk(m);
            todo.swap(tasks);
        }
        for (auto &t : todo) t();
    }

    void run() {
        tevix::plat::name_thread("tevix-hotplug");
        thread_id = std::this_thread::get_id();
        bool first = true;
        while (!stop) {
            if (poll) {
                poll_once(first);
                first = false;
                run_tasks();
                for (uint32_t t = 0; t < k_poll_ms && !stop && !has_tasks(); t += 20)
                    tevix::plat::sleep_ms(20);
                continue;
            }
            if (!first) {
                timeval tv{0, k_event_slice_us};
                libusb_handle_events_timeout_completed(ctx, &tv, &exit_flag);
            }
            std::vector<plug_event> ev;
            {
                std::lock_guard lk(m);
                ev.swap(pending);
            }
            // The arrivals libusb reports while the callback is registered are those present.
            for (plug_event &e : ev) {
                e.initial = first;
                h(e);
            }
            first = false;
            run_tasks();
        }
    }

    bool has_tasks() {
        std::lock_guard lk(m);
        return !tasks.empty();
    }
};

hotplug_watch::hotplug_watch() : s_(std::make_unique<state>()) {}

hotplug_watch::~hotplug_watch() {
    stop();
}

bool hotplug_watch::start(handler h, bool poll) {
    stop();
    s_ = std::make_unique<state>();
    state &s = *s_;
    s.h = std::move(h);
    s.poll = poll;
    if (!s.poll) {
        if (libusb_init(&s.ctx) < 0) {
            VX_ERR("[%s]libusb_init failed\n");
            s.ctx = nullptr;
            return false;
        }
        if (!libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG)) {
            VX_INF("[%s]no hot-plug events here: the camera list is polled\n");
            s.poll = true;
        } else {
            // Arrivals of the cameras present come from inside the registration, on this thread:
            // they wait in the pending list for the watch thread like any other.
            const int flags = LIBUSB_HOTPLUG_ENUMERATE;
            const int r = libusb_hotplug_register_callback(
                s.ctx,
                static_cast<libusb_hotplug_event>(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED |
                                                  LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT),
                static_cast<libusb_hotplug_flag>(flags), k_vid, k_pid, LIBUSB_HOTPLUG_MATCH_ANY,
                &state::on_libusb, &s, &s.cb);
            if (r == LIBUSB_SUCCESS) {
                s.have_cb = true;
            } else {
                VX_WRN("[%s]hot-plug registration failed (%s): the camera list is polled\n",
                       libusb_error_name(r));
                s.poll = true;
            }
        }
        if (s.poll) {
            libusb_exit(s.ctx);
            s.ctx = nullptr;
        }
    }
    s.thread = std::thread([&s] { s.run(); });
    return true;
}

void hotplug_watch::stop() {
    state &s = *s_;
    if (s.thread.joinable()) {
        s.stop = true;
        __atomic_store_n(&s.exit_flag, 1, __ATOMIC_SEQ_CST);
        if (s.ctx) libusb_interrupt_event_handler(s.ctx);
        s.thread.join();
    }
    if (s.have_cb) libusb_hotplug_deregister_callback(s.ctx, s.cb);
    s.have_cb = false;
    if (s.ctx) libusb_exit(s.ctx);
    s.ctx = nullptr;
}

void hotplug_watch::post(std::function<void()> task) {
    state &s = *s_;
    {
        std::lock_guard lk(s.m);
        s.tasks.push_back(std::move(task));
    }
    if (s.ctx) libusb_interrupt_event_handler(s.ctx);
}

bool hotplug_watch::polling() const {
    return s_->poll;
}

bool hotplug_watch::on_watch_thread() const {
    return std::this_thread::get_id() == s_->thread_id.load();
}

}  // namespace tevix::usb
