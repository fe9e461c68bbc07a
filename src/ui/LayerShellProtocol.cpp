#include "ui/LayerShellProtocol.h"

namespace {

// Argument types, in the order the messages below point into: get_layer_surface's new layer surface,
// its wl_surface and its optional wl_output; the layer and namespace need none; get_popup's xdg_popup
// is left unchecked, since the bar never opens one.
const wl_interface* types[] = {
    &zwlr_layer_surface_v1_interface, &wl_surface_interface, &wl_output_interface, nullptr, nullptr,
};

const wl_message shellRequests[] = {
    {"get_layer_surface", "no?ous", types},
    {"destroy", "3", types + 3},
};

const wl_message surfaceRequests[] = {
    {"set_size", "uu", types + 3},
    {"set_anchor", "u", types + 3},
    {"set_exclusive_zone", "i", types + 3},
    {"set_margin", "iiii", types + 3},
    {"set_keyboard_interactivity", "u", types + 3},
    {"get_popup", "o", types + 3},
    {"ack_configure", "u", types + 3},
    {"destroy", "", types + 3},
};

const wl_message surfaceEvents[] = {
    {"configure", "uuu", types + 3},
    {"closed", "", types + 3},
};

enum SurfaceRequest : uint32_t {
    setSizeRequest = 0,
    setAnchorRequest = 1,
    setMarginRequest = 3,
    setKeyboardRequest = 4,
    ackConfigureRequest = 6,
    destroyRequest = 7,
};

wl_proxy* proxy(velquin::layerShell::zwlr_layer_surface_v1* surface) {
    return reinterpret_cast<wl_proxy*>(surface);
}

}  // namespace

extern "C" {
const wl_interface zwlr_layer_shell_v1_interface = {"zwlr_layer_shell_v1", 3, 2, shellRequests, 0, nullptr};
const wl_interface zwlr_layer_surface_v1_interface = {"zwlr_layer_surface_v1", 3, 8,
                                                      surfaceRequests,         2, surfaceEvents};
}

namespace velquin::layerShell {

zwlr_layer_surface_v1* getLayerSurface(zwlr_layer_shell_v1* shell, wl_surface* surface, wl_output* output,
                                       Layer layer, const char* nameSpace) {
    auto* p = reinterpret_cast<wl_proxy*>(shell);
    return reinterpret_cast<zwlr_layer_surface_v1*>(
        wl_proxy_marshal_flags(p, 0, &zwlr_layer_surface_v1_interface, wl_proxy_get_version(p), 0, nullptr,
                               surface, output, static_cast<uint32_t>(layer), nameSpace));
}

void addListener(zwlr_layer_surface_v1* surface, const SurfaceListener* listener, void* data) {
    wl_proxy_add_listener(proxy(surface),
                          reinterpret_cast<void (**)(void)>(const_cast<SurfaceListener*>(listener)), data);
}

void setSize(zwlr_layer_surface_v1* surface, uint32_t width, uint32_t height) {
    wl_proxy_marshal_flags(proxy(surface), setSizeRequest, nullptr, wl_proxy_get_version(proxy(surface)), 0,
                           width, height);
}

void setAnchor(zwlr_layer_surface_v1* surface, uint32_t anchor) {
    wl_proxy_marshal_flags(proxy(surface), setAnchorRequest, nullptr, wl_proxy_get_version(proxy(surface)), 0,
                           anchor);
}

void setMargin(zwlr_layer_surface_v1* surface, int32_t top, int32_t right, int32_t bottom, int32_t left) {
    wl_proxy_marshal_flags(proxy(surface), setMarginRequest, nullptr, wl_proxy_get_version(proxy(surface)), 0,
                           top, right, bottom, left);
}

void setKeyboardInteractivity(zwlr_layer_surface_v1* surface, uint32_t interactivity) {
    wl_proxy_marshal_flags(proxy(surface), setKeyboardRequest, nullptr, wl_proxy_get_version(proxy(surface)),
                           0, interactivity);
}

void ackConfigure(zwlr_layer_surface_v1* surface, uint32_t serial) {
    wl_proxy_marshal_flags(proxy(surface), ackConfigureRequest, nullptr, wl_proxy_get_version(proxy(surface)),
                           0, serial);
}

void destroy(zwlr_layer_surface_v1* surface) {
    wl_proxy_marshal_flags(proxy(surface), destroyRequest, nullptr, wl_proxy_get_version(proxy(surface)),
                           WL_MARSHAL_FLAG_DESTROY);
}

}  // namespace velquin::layerShell
