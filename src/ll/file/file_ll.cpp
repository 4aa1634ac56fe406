// File replay backend. Until the recording reader lands, this table lists nothing and opens nothing.
#include "ll/dispatch.h"

namespace {

int _init() { return 1; }
uint32_t _dev_list(tevix_ll_dev_t *, uint32_t) { return 0; }
tevix_ll_dev_t *_dev_open(tevix_ll_dev_t *) { return nullptr; }

}  // namespace

const tevix_ll_ops file_ll_ops = {
    .init = _init,
    .uninit = nullptr,
    .set_debug = nullptr,
    .dev_open = _dev_open,
    .dev_open_by_fd = nullptr,
    .dev_close = nullptr,
    .dev_list = _dev_list,
    .exe_cmd = nullptr,
    .tx_data = nullptr,
    .cap_abort = nullptr,
    .cap_wait = nullptr,
    .cap_start = nullptr,
    .cap_stop = nullptr,
    .cap_seek = nullptr,
    .dev_reset = nullptr,
    .reg_write = nullptr,
    .reg_read = nullptr,
    .param_set = nullptr,
    .param_get = nullptr,
};
