// USB backend internals that tests look at.
#pragma once

#include <cstdint>

#include "tevix/tevix_ll.h"

namespace tevix::usb {

// Bulk-in transfers of an open device currently submitted (0 when not open).
uint32_t in_flight(const tevix_ll_dev_t *dev);

// Whether the device's event thread is running.
bool evt_running(const tevix_ll_dev_t *dev);

}  // namespace tevix::usb

#include <functional>
#include <memory>

namespace tevix::usb {

// A camera that came or went: its place on the bus. initial: present when the watch started.
struct plug_event {
    bool arrived;
    uint8_t bus, port, addr;
    bool initial;
};

// Watches our cameras come and go, on a thread of its own: libusb's hot-plug events where the
// platform has them, else the device list compared every poll interval. The handler runs on that
// thread, one event at a time, outside libusb's event handling (it may open devices).
class hotplug_watch {
  public:
    using handler = std::function<void(const plug_event &)>;
    hotplug_watch();
    ~hotplug_watch();  // stops
    hotplug_watch(const hotplug_watch &) = delete;
    hotplug_watch &operator=(const hotplug_watch &) = delete;

    // The cameras present at the start arrive first, marked initial. poll: use the polling
    // fallback even where libusb has hot-plug events. False when libusb cannot start.
    bool start(handler h, bool poll = false);
    // Runs task on the watch thread, after the events at hand.
    void post(std::function<void()> task);
    // Joins the thread; never from the handler.
    void stop();
    bool polling() const;
    // Whether the calling thread is the watch's own (the handler's).
    bool on_watch_thread() const;

    struct state;

  private:
    std::unique_ptr<state> s_;
};

}  // namespace tevix::usb
