#pragma once
// Everything about files dropped on the bar or the shelf: where the bar really is on screen, when the
// shelf shows and hides while another program drags a file, and the analysis of a dropped file from
// the working lines to the result lines. The owner supplies the bar window's frame, the tempo range,
// the shelf's wording and what to do with a result, all as callbacks. Main thread only.

#include <QObject>
#include <QPoint>
#include <QRect>
#include <QStringList>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

#include "ui/BarDropTarget.h"
#include "ui/DragMonitor.h"
#include "ui/DropShelf.h"
#include "ui/FileJob.h"
#include "ui/LogSink.h"

namespace velquin {

class DropCoordinator : public QObject {
    Q_OBJECT

  public:
    explicit DropCoordinator(LogSink log = {});

    // The bar window's frame as the window system reports it (global, logical pixels).
    std::function<QRect()> barFrame;
    std::function<TempoRange()> range;
    fileAnalysis::Analyzer analyzer = fileAnalysis::analyzeFile;
    // Which analysis a dropped file gets (the live engine's when unset).
    std::function<fileAnalysis::Analysis()> analysis;
    // A dropped file's analysis started; the shelf then stays up until its result has shown.
    std::function<void(const QString& name)> onWorking;
    // The shelf's result lines for a file's result.
    std::function<QStringList(const QString& name, const FileResult& result)> describe;
    // The analysis ended: a result, or none when the file could not be read.
    std::function<void(const QString& name, const std::optional<FileResult>& result)> onAnalyzed;

    // Routes the bar window's drops here.
    void attach(QWidget& bar);
    // Watches other programs' drags; false where that is impossible.
    bool watchDrags();

    void analyzeDropped(const QUrl& url);
    void showShelf(std::optional<QRect> under);
    std::optional<QRect> knownItemFrame() const;
    // Where the bar was really found on screen (global, logical pixels).
    void locate(const QRect& r);
    void pointerReleased();
    void pointerDragged(const QPoint& m);

    // A dropped file is being analysed.
    bool isBusy() const { return busy_ > 0; }

    DropShelf& shelf() { return shelf_; }
    BarDropTarget& dropTarget() { return dropTarget_; }

  private:
    LogSink log_;
    DropShelf shelf_;
    BarDropTarget dropTarget_;
    std::unique_ptr<DragMonitor> dragMonitor_;
    // How far the bar really is from where its window says it is.
    std::optional<double> reportedToRealOffset_;
    int busy_ = 0;  // analyses of dropped files under way
};

}  // namespace velquin
