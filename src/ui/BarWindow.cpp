#include "ui/BarWindow.h"

#include <xcb/xcb.h>

#include <QGuiApplication>
#include <array>
#include <cmath>
#include <cstring>

namespace velquin {
namespace {

xcb_atom_t atom(xcb_connection_t* c, const char* name) {
    const xcb_intern_atom_cookie_t cookie =
        xcb_intern_atom(c, 0, static_cast<uint16_t>(std::strlen(name)), name);
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(c, cookie, nullptr);
    const xcb_atom_t result = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    std::free(reply);
    return result;
}

// Tells the window manager, before it manages the window, to keep the bar on every workspace, above
// other windows and out of taskbars and pagers. A state asked for by client message while the window
// is still unmanaged is lost (openbox drops it); properties on a withdrawn window are what a window
// manager reads when it takes the window on. Qt keeps atoms it does not know when it adds its own.
void keepEverywhere(QWidget& window) {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (!x11 || !x11->connection()) return;
    xcb_connection_t* c = x11->connection();
    const auto id = static_cast<xcb_window_t>(window.winId());
    const uint32_t allWorkspaces = 0xFFFFFFFF;
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, atom(c, "_NET_WM_DESKTOP"), XCB_ATOM_CARDINAL, 32, 1,
                        &allWorkspaces);
    const std::array<xcb_atom_t, 4> states = {atom(c, "_NET_WM_STATE_STICKY"), atom(c, "_NET_WM_STATE_ABOVE"),
                                              atom(c, "_NET_WM_STATE_SKIP_TASKBAR"),
                                              atom(c, "_NET_WM_STATE_SKIP_PAGER")};
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, atom(c, "_NET_WM_STATE"), XCB_ATOM_ATOM, 32,
                        static_cast<uint32_t>(states.size()), states.data());
    xcb_flush(c);
}

}  // namespace

BarWindow::BarWindow()
    : QWidget(nullptr,
              Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus) {
    setAttribute(Qt::WA_ShowWithoutActivating);
    setWindowTitle(QStringLiteral("Velquin"));
    // Unlike a panel's tray, a window of our own has no background behind it to draw on.
    setAutoFillBackground(true);
    setLength(120);
}

void BarWindow::setLength(double length) {
    setFixedSize(static_cast<int>(std::ceil(length)), barHeight);
}

void BarWindow::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    view_.setGeometry(rect());
}

void BarWindow::setVisible(bool visible) {
    // A window manager removes the state when the window is withdrawn, so it is given again before
    // every map.
    if (visible && !isVisible()) keepEverywhere(*this);
    QWidget::setVisible(visible);
}

}  // namespace velquin
