// Library lifecycle and device sessions: init, paths, device list, open by record or URI, close.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "api/session.h"
#include "drivers/drv.h"
#include "log/log.h"
#include "platform/platform.h"
#include "tevix/tevix_version.h"
#include "tevix/vx_cmap.h"

namespace tevix::api {
namespace {

bool g_inited = false;
char g_path_prefix[256] = {};
tevix_dev_t g_default_dev{};
vx_cmap_t g_cmap{};

constexpr uint32_t k_open_low_speed_retries = 3;
constexpr uint32_t k_close_wait_looks = 200;
constexpr uint32_t k_close_wait_ms = 100;
constexpr uint32_t k_fb_slots = 10;

[[noreturn]] void _die_malloc(const char *caller) {
    VX_LOG_AS(VX_LOG_ERR, caller, "[%s]malloc failed\n");
    std::exit(-3);
}

// Backend record of the connection from the public record's type and address.
void _ll_from_dev(tevix_session *s, const tevix_dev_t *dev) {
    std::memset(&s->ll, 0, sizeof s->ll);
    switch (dev->type) {
        case TEVIX_DEV_USB:
            s->ll.if_type = TEVIX_LL_IF_UNKNOWN;
            s->ll.info.usb.bus = dev->addr.usb.bus;
            s->ll.info.usb.port = dev->addr.usb.port;
            s->ll.info.usb.addr = dev->addr.usb.addr;
            s->ll.info.usb.speed = dev->addr.usb.speed;
            s->ll.is_listed = dev->inited;
            break;
        case TEVIX_DEV_FILE:
            s->ll.if_type = TEVIX_LL_IF_FILE;
            s->ll.info.file = dev->addr.file.path;
            break;
        case TEVIX_DEV_DEFAULT:
            s->ll.if_type = TEVIX_LL_IF_ANY;
            break;
        default:
            // Ethernet cameras have no backend in this library: no backend accepts the record.
            s->ll.if_type = dev->type;
            break;
    }
}

// Copies what the backend learnt (address, speed) back into the public record.
void _dev_from_ll(tevix_dev_t *dev, const tevix_ll_dev_t &ll) {
    if (ll.if_type == TEVIX_LL_IF_FILE) {
        dev->type = TEVIX_DEV_FILE;
    } else if (dev->type == TEVIX_DEV_USB || dev->type == TEVIX_DEV_DEFAULT) {
        dev->type = TEVIX_DEV_USB;
        dev->addr.usb.bus = ll.info.usb.bus;
        dev->addr.usb.port = ll.info.usb.port;
        dev->addr.usb.addr = ll.info.usb.addr;
        dev->addr.usb.speed = ll.info.usb.speed;
    }
    dev->inited = 1;
}

void _copy_text(char *dst, size_t size, const tevix_param_item_t &it) {
    size_t n = std::min<size_t>({size_t{it.len}, sizeof it.value.text, size - 1});
    std::memcpy(dst, it.value.text, n);
    dst[n] = '\0';
}

uint16_t _u16_at(const tevix_param_item_t &it, int i) {
    uint16_t v;
    std::memcpy(&v, it.value.u8 + 2 * i, 2);
    return v;
}

// Reads the seven identity parameters and fills the record and the information block.
bool _read_identity(tevix_dev_t *dev, tevix_session *s) {
    static constexpr uint32_t ids[7] = {
        TEVIX_PARAM_VENDOR, TEVIX_PARAM_PRODUCT,  TEVIX_PARAM_UID,       TEVIX_PARAM_VERSION,
        TEVIX_PARAM_SENSOR, TEVIX_PARAM_GEOMETRY, TEVIX_PARAM_CALIB_INFO};
    tevix_param_item_t items[7] = {};
    for (int i = 0; i < 7; ++i) items[i].id = ids[i];
    if (!tevix_param_batch_get(dev, items, 7)) return false;

    _copy_text(dev->vendor, sizeof dev->vendor, items[0]);
    _copy_text(dev->product, sizeof dev->product, items[1]);
    std::memcpy(s->uid, items[2].value.u8, sizeof s->uid);
    std::snprintf(dev->serial, sizeof dev->serial, "%08X%08X%08X", s->uid[0], s->uid[1], s->uid[2]);
    for (int i = 0; i < 4; ++i) dev->version[i] = _u16_at(items[3], i);
    uint32_t part = _u16_at(items[4], 0), wafer = _u16_at(items[4], 1);
    uint32_t chip = _u16_at(items[4], 2);
    uint32_t low = ((part & 0xFF) << 24) | ((wafer & 0xFF) << 16) | (chip & 0xFFFF);
    dev->hw_id = (static_cast<uint64_t>(s->uid[0] ^ s->uid[1] ^ s->uid[2]) << 32) | low;
    VX_LOG_AS(VX_LOG_DBG, "_tevix_get_info", "[%s]SENSOR: p/w/cid=%d/%d/%d. HWID=0x%016llX\n", part,
              wafer, chip, static_cast<unsigned long long>(dev->hw_id));
    s->max_width = _u16_at(items[5], 0);
    s->max_height = _u16_at(items[5], 1);
    std::memcpy(&s->max_fps, items[5].value.u8 + 4, 4);
    std::memcpy(&s->max_intg_us, items[5].value.u8 + 8, 4);

    s->info.product = dev->product;
    s->info.vendor = dev->vendor;
    s->info.serial = dev->serial;
    s->info.uid = s->uid;
    s->info.hw_id = &dev->hw_id;
    s->info.roi_limits[0] = s->info.roi_limits[2] = s->max_width;
    s->info.roi_limits[1] = s->info.roi_limits[3] = s->max_height;
    s->info.path_prefix = g_path_prefix;
    return true;
}

// Undoes a failed open after the API mutex exists.
tevix_dev_t *_open_failed(tevix_dev_t *dev, tevix_session *s, bool backend_open) {
    if (backend_open) tevix_ll_dev_close(&s->ll);
    s->open = 0;
    delete api_mutex(dev);
    dev->api_mutex = nullptr;
    delete s;
    dev->session = nullptr;
    if (dev->type == TEVIX_DEV_FILE) {
        std::free(dev->addr.file.path);
        dev->addr.file.path = nullptr;
    }
    if (dev->lib_owned) std::free(dev);
    return nullptr;
}

void _format_uri(const tevix_dev_t *dev, char *buf, size_t size) {
    switch (dev->type) {
        case TEVIX_DEV_USB:
            std::snprintf(buf, size, "usb://%03u:%03u:%03u", dev->addr.usb.bus, dev->addr.usb.port,
                          dev->addr.usb.addr);
            break;
        case TEVIX_DEV_ETH:
            // A 16-character address fills its field with no terminator.
            std::snprintf(buf, size, "eth://%u:%u@%.*s", dev->addr.eth.dev_num,
                          dev->addr.eth.access_num, static_cast<int>(sizeof dev->addr.eth.addr),
                          dev->addr.eth.addr);
            break;
        case TEVIX_DEV_FILE:
            std::snprintf(buf, size, "file://%s", dev->addr.file.path ? dev->addr.file.path : "");
            break;
        default:
            buf[0] = '\0';
            break;
    }
}

// Stops and releases everything of an open session; the record itself stays.
void _close_session(tevix_dev_t *dev) {
    tevix_session *s = dev->session;
    if (s->capturing && !capture_stop_for_close(dev))
        VX_LOG_AS(VX_LOG_ERR, "tevix_dev_close", "[%s]stop capture failed!\n");
    s->open = 0;
    // Calls in progress hold the busy count; wait for them, 20 s at most.
    uint32_t looks = 0;
    for (; looks < k_close_wait_looks; ++looks) {
        {
            std::lock_guard<std::mutex> lock(*api_mutex(dev));
            if (dev->busy == 0) break;
        }
        tevix::plat::sleep_ms(k_close_wait_ms);
    }
    if (looks == k_close_wait_looks)
        VX_LOG_AS(VX_LOG_WRN, "tevix_dev_close", "[%s] api wait timeout\n");

    tevix_ll_dev_close(&s->ll);
    if (s->drv && s->drv->ops->uninit) s->drv->ops->uninit(s->drv);
    if (s->stream) vx_stream_destroy(s->stream);
    record_stop(s);
    vx_calib_len_uninit_map(&s->undist);
    delete s;
    dev->session = nullptr;
    delete api_mutex(dev);
    dev->api_mutex = nullptr;
}

}  // namespace

vx_cmap_t *default_cmap() {
    return &g_cmap;
}

}  // namespace tevix::api

using namespace tevix::api;

extern "C" {

void tevix_init(const char *log_path) noexcept {
    if (g_inited) return;
    g_path_prefix[0] = '\0';
    char name[64];
    const char *path = log_path;
    if (!log_path) {
        tevix::plat::local_time t = tevix::plat::now_local();
        std::snprintf(name, sizeof name, "tevix_%04u%02u%02u.log", t.year, t.month, t.day);
        path = name;
    } else if (log_path[0] == '\0') {
        path = nullptr;
    }
    vx_log_init(nullptr, path, "VX");
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, VX_LOG_WRN, 0);
    vx_log_cfg(nullptr, VX_LOG_TARGET_FILE, VX_LOG_DBG, 1);
    vx_log_raw(nullptr, VX_LOG_DBG, "\n---- %s %s(compile at %s %s) log start -----\n", "TEVIX",
               TEVIX_VERSION_TEXT, __DATE__, __TIME__);
    tevix_ll_init();
    vx_cmap_init(&g_cmap, 1024);
    vx_cmap_set_range(&g_cmap, 0.0f, 30000.0f);
    g_inited = true;
}

void tevix_uninit(void) noexcept {
    if (!g_inited) return;
    tevix::api::hotplug_shutdown();
    vx_cmap_uninit(&g_cmap);
    tevix_ll_uninit();
    vx_log_raw(nullptr, VX_LOG_DBG, "---- TEVIX log END ----\n\n");
    vx_log_uninit(nullptr);
    g_inited = false;
}

void tevix_log_cfg(uint32_t console_level, uint32_t file_level, uint32_t usb_level) noexcept {
    vx_log_cfg(nullptr, VX_LOG_TARGET_CONSOLE, console_level, 0);
    vx_log_cfg(nullptr, VX_LOG_TARGET_FILE, file_level, 1);
    tevix_ll_set_debug(usb_level);
}

void tevix_path_set(const char *prefix) noexcept {
    if (!prefix) prefix = "";
    std::snprintf(g_path_prefix, sizeof g_path_prefix, "%s", prefix);
    VX_INF("[%s]PATH_PREIFX: %s\n", g_path_prefix);
    // The prefix ends in a separator: the working copy drops its last character, then a trailing
    // separator that is left, and every missing leading part is created.
    std::string dir(g_path_prefix, std::strlen(g_path_prefix) ? std::strlen(g_path_prefix) - 1 : 0);
    if (!dir.empty() && (dir.back() == '/' || dir.back() == '\\')) dir.pop_back();
    if (dir.empty()) return;
    for (size_t i = 1; i < dir.size(); ++i) {
        if (dir[i] != '/' && dir[i] != '\\') continue;
        std::string part = dir.substr(0, i);
        if (!tevix::plat::file_exists(part.c_str())) tevix::plat::make_dir(part.c_str());
    }
    if (!tevix::plat::file_exists(dir.c_str())) tevix::plat::make_dir(dir.c_str());
}

const char *tevix_path_get(void) noexcept {
    return g_path_prefix;
}

const char *tevix_error_name(int code) noexcept {
    switch (code) {
        case TEVIX_ERR_CAP_OK:
            return "OK";
        case TEVIX_ERR_CAP_WRONG_STATE:
            return "TEVIX_ERR_CAP_WRONG_STATE";
        case TEVIX_ERR_CAP_CANCEL:
            return "TEVIX_ERR_CAP_CANCEL";
        case TEVIX_ERR_CAP_TIMEOUT:
            return "TEVIX_ERR_CAP_TIMEOUT";
        case TEVIX_ERR_CAP_STALL:
            return "TEVIX_ERR_CAP_STALL";
        case TEVIX_ERR_CAP_ERROR:
            return "TEVIX_ERR_CAP_ERROR";
        case TEVIX_ERR_CAP_EOF:
            return "TEVIX_ERR_CAP_EOF";
        case TEVIX_ERR_CAP_UNKNOWN:
            return "TEVIX_ERR_CAP_UNKNOWN";
        case TEVIX_ERR_CAP_FRAME_DISCARD:
            return "TEVIX_ERR_CAP_FRAME_DISCARD";
        default:
            return "**UNKNOWN**";
    }
}

int tevix_dev_list(tevix_dev_t *list, int count) noexcept {
    if (!list || count < 1) {
        VX_ERR("[%s]  wrong params: dev_list=%p, dev_list_num=%d \n", static_cast<void *>(list),
               count);
        return 0;
    }
    std::memset(static_cast<void *>(list), 0, sizeof(tevix_dev_t) * static_cast<size_t>(count));
    auto *ll = new (std::nothrow) tevix_ll_dev_t[static_cast<size_t>(count)]();
    if (!ll) return 0;
    int n = tevix_ll_dev_list(ll, count);
    for (int i = 0; i < n; ++i) {
        list[i].type = ll[i].if_type == TEVIX_LL_IF_FILE ? TEVIX_DEV_FILE : TEVIX_DEV_USB;
        list[i].addr.usb.bus = ll[i].info.usb.bus;
        list[i].addr.usb.port = ll[i].info.usb.port;
        list[i].addr.usb.addr = ll[i].info.usb.addr;
        list[i].addr.usb.speed = ll[i].info.usb.speed;
        std::snprintf(list[i].product, sizeof list[i].product, "%.16s", ll[i].info.usb.product);
        std::snprintf(list[i].vendor, sizeof list[i].vendor, "%.16s", ll[i].info.usb.vendor);
        list[i].inited = ll[i].is_listed;
    }
    delete[] ll;
    return n;
}

tevix_dev_t *tevix_dev_open(tevix_dev_t *dev) noexcept {
    tevix_session *s = nullptr;
    if (dev && dev->session) {
        s = dev->session;
        s->dev = dev;
        s->lens_cfg.en_2d = s->lens_cfg.en_3d = 1;
        if (s->open) {
            VX_WRN("[%s]device not close correctly. close it..\n");
            _close_session(dev);
            s = nullptr;
        }
    } else if (!dev) {
        if (g_default_dev.session) {
            VX_ERR("[%s]default device may not close properly!\n");
            return nullptr;
        }
        std::memset(static_cast<void *>(&g_default_dev), 0, sizeof g_default_dev);
        g_default_dev.type = TEVIX_DEV_DEFAULT;
        dev = &g_default_dev;
    }
    if (!s) {
        s = new (std::nothrow) tevix_session;
        if (!s) _die_malloc(__func__);
        dev->session = s;
        s->dev = dev;
        s->type = dev->type;
        s->lens_cfg.en_2d = s->lens_cfg.en_3d = 1;
    }
    auto *mtx = new (std::nothrow) std::mutex;
    if (!mtx) _die_malloc(__func__);
    dev->api_mutex = mtx;
    dev->busy = 0;

    for (uint32_t round = 0;; ++round) {
        VX_DBG2("[%s]-- open tevix device @ %p\n", static_cast<void *>(dev));
        _ll_from_dev(s, dev);
        if (!tevix_ll_dev_open(&s->ll)) {
            VX_ERR("[%s]open device failed!\n");
            return _open_failed(dev, s, false);
        }
        bool usb = s->ll.if_type != TEVIX_LL_IF_FILE;
        if (!usb || s->ll.info.usb.speed > 2 || round >= k_open_low_speed_retries) break;
        // A low- or full-speed link: reset the USB interface and open again. The reset of the
        // interface reports false even when the camera comes back, so its result is not used.
        s->open = 1;
        VX_WRN("[%s]USB in low speed mode, reset usb\n");
        tevix_ll_dev_reset(&s->ll, 3);
        tevix_ll_dev_close(&s->ll);
        s->open = 0;
    }

    _dev_from_ll(dev, s->ll);
    dev->path_prefix = g_path_prefix;
    s->open = 1;

    if (!_read_identity(dev, s)) {
        VX_WRN("[%s] cannot get info of device\n");
        return _open_failed(dev, s, true);
    }
    s->drv = tevix_drv_find(dev);
    if (!s->drv) {
        VX_ERR("[%s]cannot find driver for device: product=%s\n", dev->product);
        return _open_failed(dev, s, true);
    }
    s->fb_slots = k_fb_slots;
    s->stream = vx_stream_create(&s->fb_slots);
    if (!s->stream) {
        VX_ERR("[%s]vx_stream_create failed\n");
        std::exit(-1);
    }
    tevix_drv_t *drv = s->drv;
    if (!drv->ops->init || !drv->ops->init(drv, dev)) {
        VX_ERR("[%s]Driver init failed\n");
        vx_stream_destroy(s->stream);
        s->stream = nullptr;
        return _open_failed(dev, s, true);
    }
    if (drv->ops->calib_load && drv->ops->calib_load(drv, 0, 0, 2) < 0)
        VX_ERR("[%s]Load calibration data failed\n");
    if (drv->ops->calib_freq_list_get) {
        uint32_t n = 0;
        drv->ops->calib_freq_list_get(drv, s->calib_freqs, &n);
        s->calib_freq_n = std::min<uint32_t>(n, 100);
    }

    _format_uri(dev, s->uri, sizeof s->uri);
    if (drv->ops->lens_param_get && s->max_width && s->max_height)
        s->lens_valid = drv->ops->lens_param_get(drv, &s->lens, s->max_width, s->max_height);
    std::snprintf(s->drv_name, sizeof s->drv_name, "%s", drv->desc);
    VX_DBG2("[%s]-- open tevix device OK\n");
    return dev;
}

tevix_dev_t *tevix_dev_open_by_uri(const char *uri) noexcept {
    if (!uri) {
        VX_DBG("[%s]wrong URI: %s\n", "(null)");
        return nullptr;
    }
    char scheme[9] = {};
    if (!std::strstr(uri, "://") || std::sscanf(uri, "%8[^:]://", scheme) != 1) {
        VX_DBG("[%s]wrong URI: %s\n", uri);
        return nullptr;
    }
    auto *dev = static_cast<tevix_dev_t *>(std::calloc(1, sizeof(tevix_dev_t)));
    if (!dev) _die_malloc(__func__);
    bool ok = false;
    if (strcasecmp(scheme, "usb") == 0) {
        dev->type = TEVIX_DEV_USB;
        dev->addr.usb.addr = 255;
        unsigned char bus = 0, port = 0, addr = 0;
        if (std::sscanf(uri, "%*[^:]://%hhu:%hhu:%hhu", &bus, &port, &addr) == 3) {
            dev->addr.usb.addr = addr;
            ok = true;
        } else {
            ok = std::sscanf(uri, "%*[^:]://%hhu:%hhu", &bus, &port) == 2;
        }
        dev->addr.usb.bus = bus;
        dev->addr.usb.port = port;
    } else if (strcasecmp(scheme, "eth") == 0) {
        dev->type = TEVIX_DEV_ETH;
        unsigned num = 0, access = 0;
        char addr[17] = {};
        if (std::sscanf(uri, "%*[^:]://%u@%16s", &num, addr) == 2) {
            access = num ^ 0x5A3C71u;
            ok = true;
        } else {
            ok = std::sscanf(uri, "%*[^:]://%u:%u@%16s", &num, &access, addr) == 3;
        }
        dev->addr.eth.dev_num = num;
        dev->addr.eth.access_num = access;
        std::memcpy(dev->addr.eth.addr, addr, sizeof dev->addr.eth.addr);
    } else {
        dev->type = TEVIX_DEV_FILE;
        dev->addr.file.path = static_cast<char *>(std::calloc(1, 257));
        if (!dev->addr.file.path) _die_malloc(__func__);
        if (strcasecmp(scheme, "file") == 0)
            ok = std::sscanf(uri, "%*[^:]://%128s", dev->addr.file.path) == 1;
        else
            ok = std::snprintf(dev->addr.file.path, 257, "%.256s", uri) > 0;
    }
    if (!ok) {
        VX_DBG("[%s]wrong URI: %s\n", uri);
        if (dev->type == TEVIX_DEV_FILE) std::free(dev->addr.file.path);
        std::free(dev);
        return nullptr;
    }
    VX_DBG("[%s]open URI = %s\n", uri);
    dev->inited = 1;
    dev->lib_owned = 1;
    return tevix_dev_open(dev);
}

tevix_dev_t *tevix_dev_open_by_fd(int) noexcept {
    VX_ERR("[%s]tevix_dev_open_by_fd currently only support in android!\n");
    return nullptr;
}

void tevix_dev_close(tevix_dev_t *dev) noexcept {
    VX_DBG2("[%s]close tevix device @ %p\n", static_cast<void *>(dev));
    if (!dev || !dev->session) return;
    _close_session(dev);
    if (dev->type == TEVIX_DEV_FILE) {
        std::free(dev->addr.file.path);
        dev->addr.file.path = nullptr;
    }
    if (dev->lib_owned) std::free(dev);
}

char *tevix_dev_get_uri(tevix_dev_t *dev, char *buf, uint32_t size) noexcept {
    if (!dev || !buf || size == 0) return nullptr;
    if (!dev->inited) {
        VX_ERR("[%s]get uri failed : device not inited\n");
        return nullptr;
    }
    if (dev->type != TEVIX_DEV_USB && dev->type != TEVIX_DEV_ETH && dev->type != TEVIX_DEV_FILE) {
        VX_ERR("[%s]unknown device type: %u\n", dev->type);
        return nullptr;
    }
    _format_uri(dev, buf, size);
    return buf;
}

int tevix_dev_get_info(tevix_dev_t *dev, tevix_dev_info_t *info) noexcept {
    if (!dev || !info || !dev->session) return 0;
    *info = dev->session->info;
    return 1;
}

int tevix_dev_reset(tevix_dev_t *dev, uint8_t target) noexcept {
    VX_DBG("[%s]rest device (target=%d)\n", target);
    if (!dev_check(dev, __func__)) return 0;
    if (target > 8) {
        VX_ERR("[%s]wrong reset target: %d\n", target);
        return 0;
    }
    busy_guard busy(dev);
    return tevix_ll_dev_reset(&dev->session->ll, target);
}

}  // extern "C"
