// Telemetry parameter synchronisation: drivers register tables of named settings (name, type,
// location in their state) for an external tuning channel. This library has no channel: the
// registrations are kept, so that the settings can be looked up by name, and a synchronisation
// reaches nobody; it only counts the changes it was told of.
#pragma once

#include <cstdint>

namespace tevix::tele {

// Type codes of a setting.
enum : uint8_t {
    k_type_u8 = 5,   // 8-bit switch
    k_type_u16 = 6,  // 16-bit value
    k_type_u32 = 7,  // 32-bit value
    k_type_f32 = 9,  // float
};

struct item {
    const char *name;
    uint8_t type;
    void *loc;
};

}  // namespace tevix::tele

// Registers count settings under owner; a handle above 0, or 0 for bad arguments. The table is
// copied; the locations must outlive the registration.
int32_t vxtele_register(const char *owner, const tevix::tele::item *items, uint32_t count) noexcept;
// Drops a registration; unknown handles are ignored.
void vxtele_unregister(int32_t handle) noexcept;
// Synchronises a registration with the channel: changed tells whether the driver changed any
// setting itself. Returns the number of settings the channel changed (always 0: there is none),
// or -1 for an unknown handle.
int32_t vxtele_sync(int32_t handle, bool changed) noexcept;

// The registry as the tests see it: a registered setting by name (null when absent), and how many
// synchronisations of a handle reported a change.
const tevix::tele::item *vxtele_find(int32_t handle, const char *name) noexcept;
uint32_t vxtele_changes(int32_t handle) noexcept;
