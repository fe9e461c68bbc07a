#include "ui/PlatformChoice.h"

#include <xcb/xcb.h>

#include <QByteArray>
#include <QString>

namespace velquin {

PlatformDecision decidePlatform(const PlatformInputs& in) {
    if (!in.waylandSession || !in.xDisplaySet) return {};
    if (in.insistOnWayland) {
        if (!in.qpaPlatform.empty()) return {};
        return {false, true,
                "platform: native Wayland, as the user asked (VELQUIN_NATIVE_WAYLAND or nativeWayland)"};
    }
    if (in.qpaPlatform.empty()) {
        return {true, false,
                "platform: xcb through XWayland (a Wayland session; the bar needs X11 to be placed)"};
    }
    // "wayland", "wayland-egl", or a fallback list such as "wayland;xcb".
    if (in.qpaPlatform.rfind("wayland", 0) != 0) return {};
    return {true, false,
            "platform: xcb through XWayland although QT_QPA_PLATFORM=" + in.qpaPlatform +
                ": on native Wayland the bar can be neither placed nor kept above (VELQUIN_NATIVE_WAYLAND=1 "
                "or nativeWayland=true in the settings keeps Wayland)"};
}

std::string preferX11Platform(bool insistOnWayland) {
    PlatformInputs in;
    in.qpaPlatform = qEnvironmentVariable("QT_QPA_PLATFORM").trimmed().toStdString();
    in.waylandSession = !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
                        qEnvironmentVariable("XDG_SESSION_TYPE") == QLatin1String("wayland");
    in.xDisplaySet = !qEnvironmentVariableIsEmpty("DISPLAY");
    in.insistOnWayland = insistOnWayland;
    PlatformDecision decision = decidePlatform(in);
    if (decision.forceWayland) {
        qputenv("QT_QPA_PLATFORM", "wayland");
        return decision.why;
    }
    if (!decision.tryXWayland) return {};

    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    const bool reachable = xcb_connection_has_error(c) == 0;
    xcb_disconnect(c);
    if (!reachable) return {};
    qputenv("QT_QPA_PLATFORM", "xcb");
    return decision.why;
}

}  // namespace velquin
