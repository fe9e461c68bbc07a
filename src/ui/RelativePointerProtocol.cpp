#include "ui/RelativePointerProtocol.h"

namespace {

// Argument types: get_relative_pointer's new relative pointer and its wl_pointer; the rest need none.
const wl_interface* types[] = {
    &zwp_relative_pointer_v1_interface, &wl_pointer_interface, nullptr, nullptr, nullptr, nullptr, nullptr,
};

const wl_message managerRequests[] = {
    {"destroy", "", types + 2},
    {"get_relative_pointer", "no", types},
};
const wl_message pointerRequests[] = {{"destroy", "", types + 2}};
const wl_message pointerEvents[] = {{"relative_motion", "uuffff", types + 2}};

template <typename T>
wl_proxy* proxy(T* object) {
    return reinterpret_cast<wl_proxy*>(object);
}

}  // namespace

extern "C" {
const wl_interface zwp_relative_pointer_manager_v1_interface = {
    "zwp_relative_pointer_manager_v1", 1, 2, managerRequests, 0, nullptr};
const wl_interface zwp_relative_pointer_v1_interface = {"zwp_relative_pointer_v1", 1, 1,
                                                        pointerRequests,           1, pointerEvents};
}

namespace velquin::relativePointer {

zwp_relative_pointer_v1* get(zwp_relative_pointer_manager_v1* manager, wl_pointer* pointer) {
    return reinterpret_cast<zwp_relative_pointer_v1*>(
        wl_proxy_marshal_flags(proxy(manager), 1, &zwp_relative_pointer_v1_interface,
                               wl_proxy_get_version(proxy(manager)), 0, nullptr, pointer));
}

void addListener(zwp_relative_pointer_v1* pointer, const Listener* listener, void* data) {
    wl_proxy_add_listener(proxy(pointer), reinterpret_cast<void (**)(void)>(const_cast<Listener*>(listener)),
                          data);
}

void destroy(zwp_relative_pointer_v1* pointer) {
    wl_proxy_marshal_flags(proxy(pointer), 0, nullptr, wl_proxy_get_version(proxy(pointer)),
                           WL_MARSHAL_FLAG_DESTROY);
}

void destroy(zwp_relative_pointer_manager_v1* manager) {
    wl_proxy_marshal_flags(proxy(manager), 0, nullptr, wl_proxy_get_version(proxy(manager)),
                           WL_MARSHAL_FLAG_DESTROY);
}

}  // namespace velquin::relativePointer
