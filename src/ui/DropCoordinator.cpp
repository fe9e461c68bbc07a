#include "ui/DropCoordinator.h"

#include <QFileInfo>
#include <QGuiApplication>
#include <QScreen>
#include <charconv>
#include <cmath>
#include <string>

#include "ui/ReadingText.h"
#include "ui/RectText.h"

namespace velquin {
namespace {

// Drag geometry around the bar, in logical pixels.
constexpr int guessedBarWidth = 60;  // a bar not found yet is guessed around the pointer
constexpr int guessedBarHeight = 24;
constexpr int zoneGrowX = 60;  // the zone that opens the shelf: the bar grown by these
constexpr int zoneGrowY = 40;
constexpr double topBandLeft = 0.3;  // without a known bar: the right 70 % of the screen's top
constexpr int topBandHeight = 50;
constexpr int keepHalfWidth = 170;  // the shelf stays while the pointer is over it or near it
constexpr int keepOverlap = 20;
constexpr int keepHeight = 220;
// Hide delays, in seconds.
constexpr double afterRelease = 0.5;
constexpr double afterLeaving = 0.6;
constexpr double afterResult = 4.0;

// The shortest text that reads back as the same double, with ".0" on whole numbers ("12.0", "-3.5").
std::string doubleText(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

}  // namespace

DropCoordinator::DropCoordinator(LogSink log) : log_(std::move(log)), shelf_(log_), dropTarget_(log_) {
    dropTarget_.onLocate = [this](const QRect& r) { locate(r); };
    dropTarget_.onDrop = [this](const QUrl& url) { analyzeDropped(url); };
    dropTarget_.onDragEntered = [this] { showShelf(std::nullopt); };
    // Without the drag watcher nothing else notices a drag that opened the shelf and went elsewhere;
    // a drag moving on to the shelf cancels this hide when it enters the zone.
    dropTarget_.onDragExited = [this] {
        if (!dragMonitor_ && shelf_.isVisible() && !isBusy()) shelf_.scheduleHide(afterLeaving);
    };
    shelf_.onDrop = [this](const QUrl& url) { analyzeDropped(url); };
}

void DropCoordinator::attach(QWidget& bar) {
    dropTarget_.attach(&bar);
}

bool DropCoordinator::watchDrags() {
    auto monitor = std::make_unique<DragMonitor>();
    if (!monitor->install()) {
        dragMonitor_.reset();
        return false;
    }
    monitor->onPointerReleased = [this] { pointerReleased(); };
    monitor->onPointerDragged = [this](const QPoint& m) { pointerDragged(m); };
    dragMonitor_ = std::move(monitor);
    return true;
}

void DropCoordinator::analyzeDropped(const QUrl& url) {
    const QString path = url.toLocalFile();
    const QString name = QFileInfo(path).fileName();
    if (log_) log_("dropped: " + name.toStdString());
    ++busy_;
    showShelf(std::nullopt);  // a drop on the bar may come without the shelf
    shelf_.showWorking(name);
    if (onWorking) onWorking(name);
    FileJobCallbacks callbacks;
    callbacks.progress = [this](double done, double total) {
        shelf_.showProgress(text::progress(done, total));
    };
    callbacks.done = [this, name](FileJobOutcome outcome) {
        --busy_;
        if (outcome.result && describe) {
            shelf_.showResult(describe(name, *outcome.result));
        } else if (!outcome.result) {
            shelf_.showResult({QStringLiteral("Could not read that file"), QString(), name});
        }
        shelf_.scheduleHide(afterResult);
        if (onAnalyzed) onAnalyzed(name, outcome.result);
    };
    const auto chosen = analysis ? analysis() : fileAnalysis::Analysis::specified;
    startFileJob(this, path, range ? range() : TempoRange::Auto, withAnalysis(analyzer, chosen),
                 std::move(callbacks));
}

std::optional<QRect> DropCoordinator::knownItemFrame() const {
    const QRect frame = barFrame ? barFrame() : QRect();
    if (frame.height() <= 0 || !reportedToRealOffset_) return std::nullopt;
    return frame.translated(static_cast<int>(std::lround(*reportedToRealOffset_)), 0);
}

void DropCoordinator::locate(const QRect& r) {
    const QRect frame = barFrame ? barFrame() : QRect();
    const double offset = r.x() - frame.x();
    if ((!reportedToRealOffset_ || *reportedToRealOffset_ != offset) && log_) {
        log_("item located at " + rectText(r) + "; window says " + rectText(frame) + "; offset " +
             doubleText(offset));
    }
    reportedToRealOffset_ = offset;
}

void DropCoordinator::showShelf(std::optional<QRect> under) {
    if (!under) under = knownItemFrame();
    if (!under) return;
    if (!shelf_.isVisible() && log_) log_("shelf: show under " + rectText(*under));
    shelf_.show(*under);
}

void DropCoordinator::pointerReleased() {
    // The release that ended a drop is often seen only after the drop started the analysis.
    if (shelf_.isVisible() && !isBusy()) shelf_.scheduleHide(afterRelease);
}

void DropCoordinator::pointerDragged(const QPoint& m) {
    QScreen* screen = QGuiApplication::screenAt(m);
    if (!screen) screen = QGuiApplication::primaryScreen();
    if (!screen) return;
    const QRect frame = screen->geometry();

    const std::optional<QRect> known = knownItemFrame();
    const QRect item =
        known.value_or(QRect(m.x() - guessedBarWidth / 2, frame.y(), guessedBarWidth, guessedBarHeight));
    const QRect zone =
        known ? item.adjusted(-zoneGrowX, -zoneGrowY, zoneGrowX, zoneGrowY)
              : QRect(frame.x() + static_cast<int>(std::lround(topBandLeft * frame.width())), frame.y(),
                      static_cast<int>(std::lround((1 - topBandLeft) * frame.width())), topBandHeight);
    if (zone.contains(m)) {
        showShelf(item);
    } else if (shelf_.isVisible()) {
        // From just above the bar's lower edge down past the shelf, which hangs under it.
        const QRect keep(item.center().x() - keepHalfWidth, item.y() + item.height() - keepOverlap,
                         2 * keepHalfWidth, keepHeight);
        if (keep.contains(m)) {
            showShelf(item);
        } else if (!isBusy()) {
            shelf_.scheduleHide(afterLeaving);
        }
    }
}

}  // namespace velquin
