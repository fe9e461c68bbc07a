#pragma once
// The client side of the relative-pointer protocol (zwp_relative_pointer_manager_v1, version 1): how far
// the pointer moved, whatever the compositor makes of surface coordinates while the surface itself moves
// under a held button. Written out rather than generated, since it is this small.

#include <wayland-client.h>

#include <cstdint>

extern "C" {
extern const wl_interface zwp_relative_pointer_manager_v1_interface;
extern const wl_interface zwp_relative_pointer_v1_interface;
}

namespace velquin::relativePointer {

struct zwp_relative_pointer_manager_v1;
struct zwp_relative_pointer_v1;

struct Listener {
    // dx, dy: the motion as the cursor made it (accelerated); the raw one follows.
    void (*motion)(void* data, zwp_relative_pointer_v1* pointer, uint32_t timeHigh, uint32_t timeLow,
                   wl_fixed_t dx, wl_fixed_t dy, wl_fixed_t rawDx, wl_fixed_t rawDy);
};

zwp_relative_pointer_v1* get(zwp_relative_pointer_manager_v1* manager, wl_pointer* pointer);
void addListener(zwp_relative_pointer_v1* pointer, const Listener* listener, void* data);
void destroy(zwp_relative_pointer_v1* pointer);
void destroy(zwp_relative_pointer_manager_v1* manager);

}  // namespace velquin::relativePointer
