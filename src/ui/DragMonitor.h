#pragma once
// Notices drags that other applications start and follows them until the mouse button is released,
// so the drop shelf can open while a file is dragged toward the bar.
//
// X11 only: a drag start shows up as a new owner of the "XdndSelection" selection (XFixes reports every
// change, including a second drag from the same owner; the owner alone stays set long after a drop).
// From then on the pointer is queried about every 30 ms until the left button is up. This runs on a
// private xcb connection so Qt's own event handling is untouched. Elsewhere (native Wayland, no X
// display, no XFixes) install() fails and the owner relies on drags entering the bar instead.
// Main thread only.

#include <QObject>
#include <QPoint>
#include <QTimer>
#include <QtGlobal>
#include <functional>
#include <memory>

class QSocketNotifier;

namespace velquin {

class DragMonitor : public QObject {
    Q_OBJECT

  public:
    DragMonitor();
    ~DragMonitor() override;

    // While the left button is held during another application's drag, whenever the pointer moves;
    // global position in logical pixels.
    std::function<void(const QPoint& globalPosition)> onPointerDragged;
    // When the left button is released after a drag was noticed.
    std::function<void()> onPointerReleased;

    // Watches the display Qt itself uses; false unless Qt runs on X11 (xcb) and XFixes is there.
    bool install();

  private:
    struct Connection;

    bool connectTo(const char* display, bool usedByQt);
    void readEvents();
    void poll();

    std::unique_ptr<Connection> x_;
    std::unique_ptr<QSocketNotifier> notifier_;
    QTimer pollTimer_;
    bool following_ = false;
    QPoint lastPosition_;
};

}  // namespace velquin
