// Internal logging helpers. Every library message starts with "[%s]" filled with the reporting
// function's name; these macros pass __func__ (or an explicit name) as that first argument.
#pragma once

#include <cstdint>

#include "tevix/vx_log.h"

namespace tevix::log {

// The tag call sites use for a level: TRC, DBG (1-3), INF, WRN, ERR.
constexpr const char *tag_of(uint32_t level) {
    switch (level) {
        case 0:
            return "TRC";
        case 1:
        case 2:
        case 3:
            return "DBG";
        case 4:
            return "INF";
        case 5:
            return "WRN";
        default:
            return "ERR";
    }
}

}  // namespace tevix::log

// VX_LOG(level, fmt, ...): message reported under the calling function's name.
#define VX_LOG(level, fmt, ...)                                  \
    ::vx_log(nullptr, (level), ::tevix::log::tag_of(level), fmt, \
             __func__ __VA_OPT__(, ) __VA_ARGS__)
// VX_LOG_AS(level, name, fmt, ...): message reported under another name.
#define VX_LOG_AS(level, name, fmt, ...) \
    ::vx_log(nullptr, (level), ::tevix::log::tag_of(level), fmt, name __VA_OPT__(, ) __VA_ARGS__)

#define VX_TRC(fmt, ...) VX_LOG(0, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VX_DBG(fmt, ...) VX_LOG(1, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VX_DBG2(fmt, ...) VX_LOG(2, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VX_DBG3(fmt, ...) VX_LOG(3, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VX_INF(fmt, ...) VX_LOG(4, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VX_WRN(fmt, ...) VX_LOG(5, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VX_ERR(fmt, ...) VX_LOG(6, fmt __VA_OPT__(, ) __VA_ARGS__)
