#pragma once
// The drop shelf: a small floating window (300 × 150, rounded, dark and translucent) that hangs under the
// bar while a file is dragged toward it, takes drops of audio and movie files, and then shows what
// became of the file. It never takes the focus. The owner decides when to show it and when to hide it;
// the shelf itself only keeps itself up while a drag hovers it and hides 0.8 s after the drag leaves.
// Main thread only.

#include <QRect>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

#include "ui/DropZoneView.h"
#include "ui/LogSink.h"

class QWidget;

namespace velquin {

class DropShelf {
  public:
    static constexpr int windowWidth = 300;
    static constexpr int windowHeight = 150;

    explicit DropShelf(LogSink log = {});
    ~DropShelf();
    DropShelf(const DropShelf&) = delete;
    DropShelf& operator=(const DropShelf&) = delete;

    std::function<void(const QUrl& url)> onDrop;

    // Shows the shelf 6 px under `rect` (global, logical pixels), centred on it and kept 8 px inside the
    // available area of the screen it is on; above `rect` when there is no room below. A pending hide is
    // cancelled. An already visible shelf stays where it is and keeps its content.
    void show(const QRect& under);
    // Hides after `seconds`, replacing any pending hide.
    void scheduleHide(double after);
    // The working lines for a dropped file; cancels a pending hide but does not show the shelf.
    void showWorking(const QString& name);
    // The working lines' middle line: how far the analysis has come.
    void showProgress(const QString& text);
    // Up to three result lines; shows the shelf where it last was when it is hidden.
    void showResult(const QStringList& lines);

    bool isVisible() const { return isVisible_; }
    // The delay of the pending hide, in seconds; absent when none is pending.
    std::optional<double> pendingHideSeconds() const;
    QWidget& window();
    DropZoneView& zone() { return *zone_; }

    // Top-left corner of the window for `rect`, given the available area of its screen when known.
    static QPoint placement(const QRect& rect, const std::optional<QRect>& available);

  private:
    class Window;

    void hide();

    LogSink log_;
    std::unique_ptr<Window> window_;
    std::unique_ptr<DropZoneView> zone_;  // a child of window_, so it must go first
    QTimer hideTimer_;
    bool isVisible_ = false;
};

}  // namespace velquin
