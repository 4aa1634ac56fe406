#include "api/session.h"

#include <new>

#include "log/log.h"

namespace tevix::api {

bool dev_check(const tevix_dev_t *dev, const char *caller) {
    if (dev && dev->session && dev->session->open && dev->api_mutex) return true;
    VX_LOG_AS(VX_LOG_ERR, caller, "[%s] Device handler Is NULL!\r\n");
    return false;
}

namespace {
// Parameter changes go with the frames when a frame stream is open, else with the device.
int _prop_node(const tevix_session *s) {
    return s->rec_replay > 0 ? s->rec_replay : s->rec_dev_node;
}
}  // namespace

void session_record_int(tevix_session *s, const char *name, uint64_t value) {
    std::lock_guard<std::mutex> lock(s->rec_mtx);
    if (s->rec && _prop_node(s) > 0) s->rec->write_int(_prop_node(s), name, value);
}

void session_record_raw(tevix_session *s, const char *name, const void *data, uint32_t len) {
    std::lock_guard<std::mutex> lock(s->rec_mtx);
    if (s->rec && _prop_node(s) > 0) s->rec->write_general(_prop_node(s), name, data, len);
}

bool session_attach(tevix_dev_t *dev, const tevix_ll_dev_t &ll) {
    if (!dev || dev->session) return false;
    auto *s = new (std::nothrow) tevix_session;
    auto *mtx = new (std::nothrow) std::mutex;
    if (!s || !mtx) {
        delete s;
        delete mtx;
        return false;
    }
    s->ll = ll;
    s->dev = dev;
    s->type = dev->type;
    s->open = 1;
    dev->session = s;
    dev->api_mutex = mtx;
    dev->busy = 0;
    return true;
}

void session_detach(tevix_dev_t *dev) {
    if (!dev || !dev->session) return;
    delete dev->session;
    delete api_mutex(dev);
    dev->session = nullptr;
    dev->api_mutex = nullptr;
}

}  // namespace tevix::api
