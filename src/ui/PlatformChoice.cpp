#include "PlatformChoice.h"

#include <xcb/xcb.h>

#include <QByteArray>
#include <QString>

namespace velquin {

bool preferX11Platform() {
    if (!qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) return false;
    const bool wayland = !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
                         qEnvironmentVariable("XDG_SESSION_TYPE") == QLatin1String("wayland");
    if (!wayland || qEnvironmentVariableIsEmpty("DISPLAY")) return false;

    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    const bool reachable = xcb_connection_has_error(c) == 0;
    xcb_disconnect(c);
    if (!reachable) return false;
    qputenv("QT_QPA_PLATFORM", "xcb");
    return true;
}

}  // namespace velquin
