#pragma once
// Drops of audio and movie files on the bar. attach() makes the bar window accept drops and routes its
// drag events here. Main thread only.

#include <QObject>
#include <QRect>
#include <QUrl>
#include <functional>
#include <optional>

#include "ui/LogSink.h"

class QMimeData;
class QWidget;

namespace velquin {

class BarDropTarget : public QObject {
    Q_OBJECT

  public:
    explicit BarDropTarget(LogSink log = {});

    std::function<void(const QUrl& url)> onDrop;
    std::function<void()> onDragEntered;
    // Where the bar really is (global, logical pixels), reported when a drag enters it.
    std::function<void(const QRect& rect)> onLocate;
    // The drag left the bar without a drop. Only useful where no drag monitor runs: nothing else would
    // tell the owner that a drag which opened the shelf has gone elsewhere.
    std::function<void()> onDragExited;

    void attach(QWidget* window);

    // The first local file among the drag's URLs whose extension names an audio or movie type,
    // playlists excepted. Only
    // the name is judged; the file is not opened.
    static std::optional<QUrl> audioURL(const QMimeData* from);

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    LogSink log_;
};

}  // namespace velquin
