#include "ui/BarDropTarget.h"

#include <QCursor>
#include <QDropEvent>
#include <QMimeData>
#include <QMimeDatabase>
#include <QWidget>
#include <algorithm>

namespace velquin {
namespace {

// Copy when the source allows it; some file managers offer only move or link.
void acceptCopy(QDropEvent* event) {
    event->setDropAction((event->possibleActions() & Qt::CopyAction) ? Qt::CopyAction
                                                                     : event->proposedAction());
    event->accept();
}

// Playlists and cue sheets carry audio MIME types but hold only names of other files.
bool isPlaylist(const QString& path) {
    static const QStringList extensions = {QStringLiteral("m3u"), QStringLiteral("m3u8"),
                                           QStringLiteral("pls"), QStringLiteral("cue")};
    const QString suffix = path.section(QLatin1Char('.'), -1).toLower();
    return path.contains(QLatin1Char('.')) && extensions.contains(suffix);
}

bool isAudioOrMovie(const QMimeType& type) {
    const auto playable = [](const QString& name) {
        return name.startsWith(QLatin1String("audio/")) || name.startsWith(QLatin1String("video/"));
    };
    if (playable(type.name())) return true;
    const QStringList aliases = type.aliases();
    const QStringList ancestors = type.allAncestors();
    return std::any_of(aliases.begin(), aliases.end(), playable) ||
           std::any_of(ancestors.begin(), ancestors.end(), playable);
}

}  // namespace

BarDropTarget::BarDropTarget(LogSink log) : log_(std::move(log)) {}

void BarDropTarget::attach(QWidget* window) {
    window->setAcceptDrops(true);
    window->installEventFilter(this);
}

std::optional<QUrl> BarDropTarget::audioURL(const QMimeData* from) {
    if (!from || !from->hasUrls()) return std::nullopt;
    const QMimeDatabase types;
    for (const QUrl& url : from->urls()) {
        if (!url.isLocalFile() || isPlaylist(url.fileName())) continue;
        if (isAudioOrMovie(types.mimeTypeForFile(url.toLocalFile(), QMimeDatabase::MatchExtension)))
            return url;
    }
    return std::nullopt;
}

bool BarDropTarget::eventFilter(QObject* watched, QEvent* event) {
    switch (event->type()) {
        case QEvent::DragEnter: {
            auto* enter = static_cast<QDragEnterEvent*>(event);
            if (log_) log_("item: drag entered");
            if (auto* window = qobject_cast<QWidget*>(watched); window && onLocate) {
                // The pointer minus the drag's position in the window: the window's real place, which
                // can differ from the geometry the window manager reports.
                const QPoint origin = QCursor::pos() - enter->position().toPoint();
                onLocate(QRect(origin, QSize(window->width(), std::max(window->height(), 22))));
            }
            if (onDragEntered) onDragEntered();
            [[fallthrough]];
        }
        case QEvent::DragMove: {
            auto* move = static_cast<QDragMoveEvent*>(event);
            if (audioURL(move->mimeData())) {
                acceptCopy(move);
            } else {
                move->ignore();
            }
            return true;
        }
        case QEvent::DragLeave:
            if (onDragExited) onDragExited();
            return true;
        case QEvent::Drop: {
            auto* drop = static_cast<QDropEvent*>(event);
            if (const auto url = audioURL(drop->mimeData())) {
                if (log_) log_("item: dropped " + url->fileName().toStdString());
                if (onDrop) onDrop(*url);
                acceptCopy(drop);
            } else {
                drop->ignore();
            }
            return true;
        }
        default:
            return QObject::eventFilter(watched, event);
    }
}

}  // namespace velquin
