#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QCursor>
#include <QDropEvent>
#include <QMimeData>
#include <QWidget>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "UiTestSupport.h"
#include "ui/BarDropTarget.h"
#include "ui/BarWindow.h"
#include "ui/DropZoneView.h"

namespace velquin {
namespace {

std::unique_ptr<QMimeData> filesDrag(const QStringList& entries) {
    auto data = std::make_unique<QMimeData>();
    QList<QUrl> urls;
    for (const QString& entry : entries) {
        urls.push_back(entry.startsWith('/') ? QUrl::fromLocalFile(entry) : QUrl(entry));
    }
    data->setUrls(urls);
    return data;
}

std::unique_ptr<QMimeData> textDrag(const QString& text) {
    auto data = std::make_unique<QMimeData>();
    data->setText(text);
    return data;
}

std::optional<QString> accepted(const QMimeData& data) {
    const auto url = BarDropTarget::audioURL(&data);
    if (!url) return std::nullopt;
    return url->toLocalFile();
}

TEST(AudioURL, FirstLocalAudioOrMovieFileByExtension) {
    using Files = QStringList;
    struct Case {
        Files files;
        std::optional<QString> expected;
    };
    // None of these files exist: only the name is judged.
    const std::vector<Case> cases = {
        {{"/music/SONG.MP3"}, "/music/SONG.MP3"},
        {{"/video/clip.mp4"}, "/video/clip.mp4"},  // a movie's sound
        {{"/music/no-extension"}, std::nullopt},
        {{"/notes/readme.txt", "/music/second.wav", "/music/third.ogg"}, "/music/second.wav"},
        {{"https://example.com/remote.mp3", "/music/local.ogg"}, "/music/local.ogg"},
        {{"https://example.com/remote.mp3"}, std::nullopt},
        // Playlists and cue sheets name other files; they are not audio.
        {{"/music/mix.m3u", "/music/mix.M3U8", "/music/radio.pls", "/music/album.cue"}, std::nullopt},
        {{"/music/album.cue", "/music/album.flac"}, "/music/album.flac"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.files.join(", ").toStdString());
        EXPECT_EQ(accepted(*filesDrag(c.files)), c.expected);
    }
    EXPECT_EQ(accepted(*textDrag("/music/looks-like-a-path.mp3")), std::nullopt);
    EXPECT_EQ(BarDropTarget::audioURL(nullptr), std::nullopt);
}

struct DragResult {
    bool enterAccepted, moveAccepted, dropAccepted;
    Qt::DropAction action;
};

// Enter, move and drop at `at` (widget coordinates), as a real drag delivers them.
DragResult dragAndDrop(QObject* target, const QMimeData& data, QPoint at = QPoint(20, 10),
                       QObject* filter = nullptr) {
    DragResult result{};
    QDragEnterEvent enter(at, Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, Qt::NoModifier);
    test::deliver(target, &enter, filter);
    result.enterAccepted = enter.isAccepted();
    QDragMoveEvent move(at + QPoint(1, 1), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton,
                        Qt::NoModifier);
    test::deliver(target, &move, filter);
    result.moveAccepted = move.isAccepted();
    QDropEvent drop(QPointF(at + QPoint(1, 1)), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton,
                    Qt::NoModifier);
    test::deliver(target, &drop, filter);
    result.dropAccepted = drop.isAccepted();
    result.action = drop.dropAction();
    return result;
}

TEST(DropZoneView, HighlightsAndDropsUsableFilesOnly) {
    DropZoneView zone;
    std::vector<QString> dropped;
    std::vector<bool> hovers;
    zone.onDrop = [&](const QUrl& url) { dropped.push_back(url.toLocalFile()); };
    zone.onHover = [&](bool hovering) { hovers.push_back(hovering); };

    // Enter, move and drop are all answered with a copy; the drop ends the highlight.
    const DragResult ok = dragAndDrop(&zone, *filesDrag({"/notes/readme.txt", "/music/second.m4a"}));
    EXPECT_TRUE(ok.enterAccepted && ok.moveAccepted && ok.dropAccepted);
    EXPECT_EQ(ok.action, Qt::CopyAction);
    EXPECT_FALSE(zone.highlighted);
    EXPECT_EQ(dropped, std::vector<QString>{"/music/second.m4a"});

    // Refused: no highlight, no copy, no onDrop; hovering is still reported both ways.
    hovers.clear();
    const DragResult r = dragAndDrop(&zone, *filesDrag({"/notes/readme.txt"}));
    EXPECT_FALSE(r.enterAccepted || r.moveAccepted || r.dropAccepted || zone.highlighted);
    EXPECT_EQ(dropped.size(), 1u);
    QDragLeaveEvent leave;
    test::deliver(&zone, &leave);
    EXPECT_EQ(hovers, (std::vector<bool>{true, false}));

    // A usable drag that leaves without dropping clears the highlight.
    const auto audio = filesDrag({"/music/a.wav"});
    QDragEnterEvent again(QPoint(5, 5), Qt::CopyAction, audio.get(), Qt::LeftButton, Qt::NoModifier);
    test::deliver(&zone, &again);
    EXPECT_TRUE(zone.highlighted);
    test::deliver(&zone, &leave);
    EXPECT_FALSE(zone.highlighted);
}

TEST(BarDropTarget, LocatesTheBarThenOpensTheShelfThenTakesTheDrop) {
    std::vector<std::string> log, calls;
    BarDropTarget target([&](std::string_view line) { log.emplace_back(line); });
    BarWindow item;
    item.setLength(90);
    target.attach(&item);
    EXPECT_TRUE(item.acceptDrops());

    QRect located;
    std::vector<QString> dropped;
    target.onLocate = [&](const QRect& rect) {
        calls.push_back("locate");
        located = rect;
    };
    target.onDragEntered = [&] { calls.push_back("entered"); };
    target.onDragExited = [&] { calls.push_back("exited"); };
    target.onDrop = [&](const QUrl& url) { dropped.push_back(url.toLocalFile()); };

    // Wherever the window thinks it is, the pointer at (20, 10) in it at global (520, 14) puts it at (500,
    // 4).
    item.move(10, 300);
    QCursor::setPos(520, 14);
    const auto drag = filesDrag({"https://example.com/a.mp3", "/music/a b.flac"});
    const DragResult r = dragAndDrop(&item, *drag, QPoint(20, 10), &target);
    EXPECT_TRUE(r.enterAccepted && r.moveAccepted && r.dropAccepted);
    EXPECT_EQ(calls, (std::vector<std::string>{"locate", "entered"}));
    EXPECT_EQ(located, QRect(500, 4, 90, 22));
    EXPECT_EQ(dropped, std::vector<QString>{"/music/a b.flac"});
    EXPECT_EQ(log, (std::vector<std::string>{"item: drag entered", "item: dropped a b.flac"}));

    // Any drag opens the shelf, usable or not; a refused one is neither accepted nor dropped.
    calls.clear();
    log.clear();
    dropped.clear();
    const auto text = textDrag("hello");
    const DragResult refused = dragAndDrop(&item, *text, QPoint(20, 10), &target);
    EXPECT_FALSE(refused.enterAccepted || refused.moveAccepted || refused.dropAccepted);
    EXPECT_EQ(calls, (std::vector<std::string>{"locate", "entered"}));
    EXPECT_TRUE(dropped.empty());
    EXPECT_EQ(log, std::vector<std::string>{"item: drag entered"});

    QDragLeaveEvent leave;
    test::deliver(&item, &leave, &target);
    EXPECT_EQ(calls.back(), "exited");
}

TEST(BarDropTarget, ReportsAtLeastTheBarHeight) {
    BarDropTarget target;
    QWidget thin;
    thin.resize(60, 10);
    target.attach(&thin);
    QRect located;
    target.onLocate = [&](const QRect& rect) { located = rect; };
    QCursor::setPos(100, 100);
    dragAndDrop(&thin, *filesDrag({"/music/a.mp3"}), QPoint(0, 0), &target);
    EXPECT_EQ(located, QRect(100, 100, 60, 22));
}

}  // namespace
}  // namespace velquin
