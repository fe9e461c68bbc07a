#include <gtest/gtest.h>

#include <QDropEvent>
#include <QGuiApplication>
#include <QMimeData>
#include <QScreen>
#include <string>
#include <vector>

#include "UiTestSupport.h"
#include "ui/DropShelf.h"

namespace velquin {
namespace {

TEST(DropShelfPlacement, HangsUnderTheBarAndStaysInsideTheScreen) {
    const QRect screen(0, 0, 1280, 800);
    // Centred, 6 px under the bar.
    EXPECT_EQ(DropShelf::placement(QRect(400, 0, 120, 22), screen), QPoint(310, 28));
    // Near the right edge: the panel's right edge 8 px inside.
    EXPECT_EQ(DropShelf::placement(QRect(1200, 0, 80, 22), screen), QPoint(1280 - 8 - 300, 28));
    // Near the left edge: its left edge 8 px inside.
    EXPECT_EQ(DropShelf::placement(QRect(0, 0, 40, 22), screen), QPoint(8, 28));
    // A bar at the bottom of the screen: the shelf goes above it.
    EXPECT_EQ(DropShelf::placement(QRect(600, 778, 120, 22), screen), QPoint(510, 778 - 6 - 150));
    // The available area, not the whole screen, bounds it: a top panel of 30 px pushes it down.
    EXPECT_EQ(DropShelf::placement(QRect(600, 0, 120, 22), QRect(0, 30, 1280, 770)), QPoint(510, 38));
    // A second screen to the right.
    EXPECT_EQ(DropShelf::placement(QRect(2500, 0, 60, 22), QRect(1280, 0, 1280, 1024)),
              QPoint(2560 - 8 - 300, 28));
    // No screen known: no clamping.
    EXPECT_EQ(DropShelf::placement(QRect(-100, 0, 40, 22), std::nullopt), QPoint(-230, 28));
}

class DropShelfTest : public ::testing::Test {
  protected:
    std::vector<std::string> log;
    DropShelf shelf{[this](std::string_view line) { log.emplace_back(line); }};
    const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
    const QRect rightBar{available.right() - 60, available.top(), 60, 22};
    const QRect leftBar{available.left(), available.top(), 60, 22};
};

TEST_F(DropShelfTest, ShowsIdleUnderTheRectAndKeepsAVisibleShelfAsItIs) {
    shelf.show(rightBar);
    ASSERT_TRUE(shelf.isVisible() && shelf.window().isVisible());
    const QRect frame = shelf.window().frameGeometry();
    EXPECT_EQ(frame.topLeft(), DropShelf::placement(rightBar, available));
    EXPECT_EQ(log.size(), 1u);
    EXPECT_FALSE(shelf.zone().showingResult);

    // Visible: a result stays readable and the panel stays put.
    shelf.showResult({"C minor", "5A  \u00b7  128 BPM", "song.flac"});
    shelf.show(leftBar);
    EXPECT_TRUE(shelf.zone().showingResult);
    EXPECT_EQ(shelf.window().frameGeometry(), frame);
    EXPECT_EQ(log.size(), 1u);
}

TEST_F(DropShelfTest, WorkingLinesAndResultsDoNotMoveAHiddenShelfUntilTheResult) {
    shelf.showWorking("take 3.wav");
    EXPECT_FALSE(shelf.isVisible());
    EXPECT_TRUE(shelf.zone().showingResult);
    EXPECT_EQ(shelf.zone().resultLines, (QStringList{"Listening to file\u2026", "", "take 3.wav"}));
    EXPECT_TRUE(log.empty());

    shelf.showResult({"Could not read that file", "", "take 3.wav"});
    EXPECT_TRUE(shelf.isVisible() && shelf.window().isVisible());
}

TEST_F(DropShelfTest, ForwardsDropsOnTheZone) {
    QList<QUrl> dropped;
    shelf.onDrop = [&](const QUrl& url) { dropped.push_back(url); };
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile("/video/b.mp4")});
    QDropEvent drop(QPointF(150, 75), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    test::deliver(&shelf.zone(), &drop);
    EXPECT_EQ(dropped, data.urls());
}

TEST_F(DropShelfTest, HidesOnScheduleUnlessAHoverOrANewShowCancelsIt) {
    shelf.show(rightBar);
    shelf.scheduleHide(0.5);
    EXPECT_EQ(shelf.pendingHideSeconds(), 0.5);

    // A drag hovering the zone keeps the shelf up for as long as it stays; leaving it hides it 0.8 s later.
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile("/music/a.wav")});
    QDragEnterEvent enter(QPoint(150, 75), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    test::deliver(&shelf.zone(), &enter);
    EXPECT_EQ(shelf.pendingHideSeconds(), std::nullopt);
    QDragLeaveEvent leave;
    test::deliver(&shelf.zone(), &leave);
    EXPECT_EQ(shelf.pendingHideSeconds(), 0.8);

    // Showing again, and the working lines, each cancel a pending hide.
    shelf.show(rightBar);
    EXPECT_EQ(shelf.pendingHideSeconds(), std::nullopt);
    shelf.scheduleHide(0.6);
    shelf.showWorking("a.wav");
    EXPECT_EQ(shelf.pendingHideSeconds(), std::nullopt);

    // When the hide comes due the shelf goes; shown again, it is idle and at the new place.
    shelf.scheduleHide(0);
    ASSERT_TRUE(test::waitUntil([&] { return !shelf.isVisible(); }, 5000));
    EXPECT_FALSE(shelf.window().isVisible());
    EXPECT_EQ(shelf.pendingHideSeconds(), std::nullopt);
    EXPECT_EQ(log.back(), "shelf: hide");
    shelf.show(leftBar);
    EXPECT_FALSE(shelf.zone().showingResult);
    EXPECT_EQ(shelf.window().frameGeometry().topLeft(), DropShelf::placement(leftBar, available));
}

TEST(DropZoneDrawing, AccentBorderWhileAUsableFileHoversAndFixedHeightsForResultLines) {
    DropZoneView zone;
    QPalette hud = zone.palette();  // light labels, as on the shelf's dark background
    hud.setColor(QPalette::WindowText, Qt::white);
    zone.setPalette(hud);
    const QColor accent = zone.palette().color(QPalette::Highlight);
    const QRect leftEdge(13, 60, 3, 30);  // the dashed border's left side, inset 14
    const QImage idle = test::render(zone);
    EXPECT_FALSE(test::inkBounds(idle, leftEdge, Qt::transparent).isEmpty());
    EXPECT_FALSE(test::containsColor(idle, zone.rect(), accent));
    zone.highlighted = true;
    EXPECT_TRUE(test::containsColor(test::render(zone), leftEdge, accent, 128));

    // Result lines replace the border; a fourth is ignored; an empty second line keeps its height.
    zone.showingResult = true;
    zone.resultLines = {"C minor", "5A  \u00b7  128 BPM", "song.flac", "a fourth line"};
    const QImage three = test::render(zone);
    EXPECT_TRUE(test::inkBounds(three, leftEdge, Qt::transparent).isEmpty());
    zone.resultLines = {"C minor", "", "song.flac"};
    const QImage gap = test::render(zone);
    const QRect third(0, 90, 300, 18);
    EXPECT_FALSE(test::inkBounds(three, third, Qt::transparent).isEmpty());
    EXPECT_EQ(test::inkBounds(gap, third, Qt::transparent), test::inkBounds(three, third, Qt::transparent));
    EXPECT_TRUE(test::inkBounds(three, QRect(0, 108, 300, 42), Qt::transparent).isEmpty());
}

}  // namespace
}  // namespace velquin
