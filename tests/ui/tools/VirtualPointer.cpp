// A pointer for Wayland compositors that have no input device (sway on its headless back end), for the
// desktop tests: it adds a virtual pointer (the wlr virtual-pointer protocol) and plays the steps given:
//   ui_virtual_pointer WIDTH HEIGHT STEP…
// where a step is "move X Y" (absolute, on a WIDTH × HEIGHT screen), "by DX DY" (relative), "press",
// "release" (left button)
// or "wait MS". The compositor has the pointer for as long as the program runs. Exit 77 when the
// compositor lacks the protocol.
#include <linux/input-event-codes.h>
#include <unistd.h>
#include <wayland-client.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

// The two interfaces, written out: only requests, and only the ones used here.
const wl_interface* types[] = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
extern const wl_interface pointerInterface;
const wl_interface* createTypes[] = {&wl_seat_interface, &pointerInterface};
const wl_message pointerRequests[] = {
    {"motion", "uff", types},   {"motion_absolute", "uuuuu", types},
    {"button", "uuu", types},   {"axis", "uuf", types},
    {"frame", "", types},       {"axis_source", "u", types},
    {"axis_stop", "uu", types}, {"axis_discrete", "uufi", types},
    {"destroy", "", types},
};
const wl_interface pointerInterface = {"zwlr_virtual_pointer_v1", 1, 9, pointerRequests, 0, nullptr};
const wl_message managerRequests[] = {{"create_virtual_pointer", "?on", createTypes}};
const wl_interface managerInterface = {"zwlr_virtual_pointer_manager_v1", 1, 1, managerRequests, 0, nullptr};

wl_proxy* manager = nullptr;
wl_seat* seat = nullptr;

void global(void*, wl_registry* registry, uint32_t id, const char* interface, uint32_t) {
    if (std::strcmp(interface, managerInterface.name) == 0)
        manager = static_cast<wl_proxy*>(wl_registry_bind(registry, id, &managerInterface, 1));
    if (std::strcmp(interface, wl_seat_interface.name) == 0 && !seat)
        seat = static_cast<wl_seat*>(wl_registry_bind(registry, id, &wl_seat_interface, 1));
}
void globalRemove(void*, wl_registry*, uint32_t) {}
const wl_registry_listener registryListener = {global, globalRemove};

uint32_t now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint32_t>(t.tv_sec * 1000 + t.tv_nsec / 1000000);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs("usage: ui_virtual_pointer WIDTH HEIGHT STEP...\n", stderr);
        return 2;
    }
    wl_display* display = wl_display_connect(nullptr);
    if (!display) return 77;
    wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &registryListener, nullptr);
    wl_display_roundtrip(display);
    if (!manager) return 77;
    auto* pointer = wl_proxy_marshal_flags(manager, 0, &pointerInterface, 1, 0, seat, nullptr);
    wl_display_roundtrip(display);
    usleep(300 * 1000);  // clients see the new pointer and bind it
    const uint32_t width = std::strtoul(argv[1], nullptr, 10), height = std::strtoul(argv[2], nullptr, 10);
    for (int i = 3; i < argc; ++i) {
        const std::string step = argv[i];
        if (step == "move" && i + 2 < argc) {
            const uint32_t x = std::strtoul(argv[i + 1], nullptr, 10),
                           y = std::strtoul(argv[i + 2], nullptr, 10);
            i += 2;
            wl_proxy_marshal_flags(pointer, 1, nullptr, 1, 0, now(), x, y, width, height);
        } else if (step == "by" && i + 2 < argc) {
            const double dx = std::atof(argv[i + 1]), dy = std::atof(argv[i + 2]);
            i += 2;
            wl_proxy_marshal_flags(pointer, 0, nullptr, 1, 0, now(), wl_fixed_from_double(dx),
                                   wl_fixed_from_double(dy));
        } else if (step == "press" || step == "release") {
            wl_proxy_marshal_flags(
                pointer, 2, nullptr, 1, 0, now(), BTN_LEFT,
                step == "press" ? WL_POINTER_BUTTON_STATE_PRESSED : WL_POINTER_BUTTON_STATE_RELEASED);
        } else if (step == "wait" && i + 1 < argc) {
            usleep(static_cast<useconds_t>(std::strtoul(argv[++i], nullptr, 10)) * 1000);
            continue;
        } else {
            std::fprintf(stderr, "ui_virtual_pointer: unknown step %s\n", step.c_str());
            return 2;
        }
        wl_proxy_marshal_flags(pointer, 4, nullptr, 1, 0);  // frame
        wl_display_roundtrip(display);
    }
    usleep(200 * 1000);
    wl_proxy_marshal_flags(pointer, 8, nullptr, 1, WL_MARSHAL_FLAG_DESTROY);
    wl_display_roundtrip(display);
    wl_proxy_destroy(manager);
    if (seat) wl_seat_destroy(seat);
    wl_registry_destroy(registry);
    wl_display_disconnect(display);
    return 0;
}
