#pragma once
// The client side of the wlr layer-shell protocol (zwlr_layer_shell_v1, version 1 requests only): the
// interface tables libwayland needs and the few requests the bar sends. Written out here rather than
// generated, since they are this small.

#include <wayland-client.h>

#include <cstdint>

extern "C" {
extern const wl_interface zwlr_layer_shell_v1_interface;
extern const wl_interface zwlr_layer_surface_v1_interface;
}

namespace velquin::layerShell {

struct zwlr_layer_shell_v1;
struct zwlr_layer_surface_v1;

enum Layer : uint32_t { background = 0, bottom = 1, top = 2, overlay = 3 };
enum Anchor : uint32_t { anchorTop = 1, anchorBottom = 2, anchorLeft = 4, anchorRight = 8 };

struct SurfaceListener {
    void (*configure)(void* data, zwlr_layer_surface_v1* surface, uint32_t serial, uint32_t width,
                      uint32_t height);
    void (*closed)(void* data, zwlr_layer_surface_v1* surface);
};

zwlr_layer_surface_v1* getLayerSurface(zwlr_layer_shell_v1* shell, wl_surface* surface, wl_output* output,
                                       Layer layer, const char* nameSpace);
void addListener(zwlr_layer_surface_v1* surface, const SurfaceListener* listener, void* data);
void setSize(zwlr_layer_surface_v1* surface, uint32_t width, uint32_t height);
void setAnchor(zwlr_layer_surface_v1* surface, uint32_t anchor);
void setMargin(zwlr_layer_surface_v1* surface, int32_t top, int32_t right, int32_t bottom, int32_t left);
// 0: the surface never gets the keyboard focus.
void setKeyboardInteractivity(zwlr_layer_surface_v1* surface, uint32_t interactivity);
void ackConfigure(zwlr_layer_surface_v1* surface, uint32_t serial);
void destroy(zwlr_layer_surface_v1* surface);

}  // namespace velquin::layerShell
