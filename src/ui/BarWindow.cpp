#include "BarWindow.h"

#include <xcb/xcb.h>

#include <QGuiApplication>
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

// Asks the window manager, the way the window-manager hints convention says, to keep the bar on every
// workspace, above other windows and out of taskbars and pagers. Qt rewrites the window's state
// property on every show, so this runs after each one; without a window manager nothing listens.
void keepEverywhere(QWidget& window) {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (!x11 || !x11->connection()) return;
    xcb_connection_t* c = x11->connection();
    const auto id = static_cast<xcb_window_t>(window.winId());
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    const auto send = [&](const char* type, uint32_t a, uint32_t b, uint32_t d, uint32_t e) {
        xcb_client_message_event_t message{};
        message.response_type = XCB_CLIENT_MESSAGE;
        message.format = 32;
        message.window = id;
        message.type = atom(c, type);
        message.data.data32[0] = a;
        message.data.data32[1] = b;
        message.data.data32[2] = d;
        message.data.data32[3] = e;
        xcb_send_event(c, 0, root, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                       reinterpret_cast<const char*>(&message));
    };
    constexpr uint32_t add = 1, fromApplication = 1, allDesktops = 0xFFFFFFFF;
    const uint32_t allWorkspaces = allDesktops;
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, atom(c, "_NET_WM_DESKTOP"), XCB_ATOM_CARDINAL, 32, 1,
                        &allWorkspaces);
    send("_NET_WM_DESKTOP", allDesktops, fromApplication, 0, 0);
    send("_NET_WM_STATE", add, atom(c, "_NET_WM_STATE_STICKY"), atom(c, "_NET_WM_STATE_ABOVE"),
         fromApplication);
    send("_NET_WM_STATE", add, atom(c, "_NET_WM_STATE_SKIP_TASKBAR"), atom(c, "_NET_WM_STATE_SKIP_PAGER"),
         fromApplication);
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

void BarWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    keepEverywhere(*this);
}

}  // namespace velquin
