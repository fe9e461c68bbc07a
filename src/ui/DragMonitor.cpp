#include "ui/DragMonitor.h"

#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <QCursor>
#include <QGuiApplication>
#include <QSocketNotifier>
#include <cstdlib>

namespace velquin {
namespace {

constexpr int pollIntervalMs = 30;

struct FreeReply {
    void operator()(void* reply) const { std::free(reply); }
};
template <typename T>
using Reply = std::unique_ptr<T, FreeReply>;

}  // namespace

struct DragMonitor::Connection {
    xcb_connection_t* c = nullptr;
    xcb_window_t root = XCB_NONE;
    uint8_t xfixesFirstEvent = 0;
    // On Qt's own display the pointer is read through Qt, which knows the screens' scale factors.
    bool usedByQt = false;

    ~Connection() {
        if (c) xcb_disconnect(c);
    }
};

DragMonitor::DragMonitor() {
    pollTimer_.setInterval(pollIntervalMs);
    connect(&pollTimer_, &QTimer::timeout, this, &DragMonitor::poll);
}

DragMonitor::~DragMonitor() = default;

bool DragMonitor::install() {
    if (QGuiApplication::platformName() != QLatin1String("xcb")) return false;
    return connectTo(nullptr, true);  // DISPLAY, as Qt's xcb platform uses it
}

bool DragMonitor::connectTo(const char* display, bool usedByQt) {
    notifier_.reset();
    pollTimer_.stop();
    following_ = false;

    auto x = std::make_unique<Connection>();
    int screenNumber = 0;
    x->c = xcb_connect(display, &screenNumber);
    x->usedByQt = usedByQt;
    if (xcb_connection_has_error(x->c)) return false;

    const xcb_query_extension_reply_t* xfixes = xcb_get_extension_data(x->c, &xcb_xfixes_id);
    if (!xfixes || !xfixes->present) return false;
    // XFixes requests are refused until the client has announced the version it speaks.
    Reply<xcb_xfixes_query_version_reply_t> version(xcb_xfixes_query_version_reply(
        x->c, xcb_xfixes_query_version(x->c, XCB_XFIXES_MAJOR_VERSION, XCB_XFIXES_MINOR_VERSION), nullptr));
    if (!version) return false;
    x->xfixesFirstEvent = xfixes->first_event;

    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(x->c));
    for (int i = 0; i < screenNumber && screens.rem; ++i) xcb_screen_next(&screens);
    if (!screens.rem) return false;
    x->root = screens.data->root;

    static constexpr char name[] = "XdndSelection";
    Reply<xcb_intern_atom_reply_t> atom(
        xcb_intern_atom_reply(x->c, xcb_intern_atom(x->c, 0, sizeof name - 1, name), nullptr));
    if (!atom) return false;

    xcb_xfixes_select_selection_input(x->c, x->root, atom->atom,
                                      XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER);
    xcb_flush(x->c);
    if (xcb_connection_has_error(x->c)) return false;

    x_ = std::move(x);
    notifier_ = std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(x_->c), QSocketNotifier::Read);
    connect(notifier_.get(), &QSocketNotifier::activated, this, &DragMonitor::readEvents);
    return true;
}

void DragMonitor::readEvents() {
    if (!x_) return;
    // Replies read elsewhere can pull events into xcb's queue without the socket signalling again, so
    // the queue is drained completely every time.
    while (xcb_generic_event_t* raw = xcb_poll_for_event(x_->c)) {
        Reply<xcb_generic_event_t> event(raw);
        if ((event->response_type & 0x7f) != x_->xfixesFirstEvent + XCB_XFIXES_SELECTION_NOTIFY) continue;
        const auto* notify = reinterpret_cast<const xcb_xfixes_selection_notify_event_t*>(raw);
        if (notify->owner == XCB_NONE || following_) continue;
        following_ = true;
        lastPosition_ = QPoint(-1, -1);
        pollTimer_.start();
        poll();
    }
    if (xcb_connection_has_error(x_->c)) {
        // The X server went away; nothing more will come.
        notifier_.reset();
        pollTimer_.stop();
        following_ = false;
    }
}

void DragMonitor::poll() {
    if (!x_ || !following_) return;
    Reply<xcb_query_pointer_reply_t> pointer(
        xcb_query_pointer_reply(x_->c, xcb_query_pointer(x_->c, x_->root), nullptr));
    const bool held = pointer && (pointer->mask & XCB_BUTTON_MASK_1);
    if (held) {
        const QPoint position = x_->usedByQt ? QCursor::pos() : QPoint(pointer->root_x, pointer->root_y);
        // A drag is reported on movement only; a pointer at rest must not look like a new drag.
        if (position != lastPosition_) {
            lastPosition_ = position;
            if (onPointerDragged) onPointerDragged(position);
        }
    } else {
        following_ = false;
        pollTimer_.stop();
        if (onPointerReleased) onPointerReleased();
    }
    readEvents();
}

}  // namespace velquin
