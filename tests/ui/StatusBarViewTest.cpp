#include <gtest/gtest.h>

#include <QApplication>
#include <QPalette>
#include <QTest>
#include <cmath>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "BarWindow.h"
#include "ConfidenceRing.h"
#include "UiTestSupport.h"

namespace velquin {
namespace {

enum class Shade { none, track, orange, yellow, green };

// What the ring shows at `degrees` clockwise from twelve o'clock, on its centre
// line. A large ring is used so that a sampled pixel lies wholly inside the
// stroke; hue bands are far apart, so antialiasing cannot move a colour into
// its neighbour's band.
Shade shadeAt(const QImage& ring, double diameter, double degrees) {
    const double radius = diameter / 2 - 1.5;
    const double a = degrees * M_PI / 180;
    const QColor c = ring.pixelColor(static_cast<int>(diameter / 2 + radius * std::sin(a)),
                                     static_cast<int>(diameter / 2 - radius * std::cos(a)));
    if (c.alpha() == 0) return Shade::none;
    if (c.alpha() < 120) return Shade::track;
    const int hue = c.hsvHue();
    if (hue >= 15 && hue < 40) return Shade::orange;
    if (hue >= 40 && hue < 70) return Shade::yellow;
    if (hue >= 90 && hue < 160) return Shade::green;
    return Shade::none;
}

TEST(ConfidenceRing, ArcGrowsClockwiseFromTheTopInTheColourOfItsConfidence) {
    constexpr double d = 48;
    // Confidence, the arc's colour, an angle the arc covers and one it does not.
    const std::vector<std::tuple<double, Shade, double, double>> cases = {
        {0.02, Shade::orange, 3.6, 20},  // 7.2° long: a short arc right of the top
        {0.34, Shade::orange, 100, 140}, {0.35, Shade::yellow, 110, 140}, {0.69, Shade::yellow, 240, 265},
        {0.7, Shade::green, 240, 265},   {1.4, Shade::green, 359, 265},  // clamped to a full circle
        {0.0, Shade::track, 2, 180},     {0.01, Shade::track, 2, 180},    {-0.5, Shade::track, 2, 180},
    };
    for (const auto& [confidence, arc, inside, outside] : cases) {
        SCOPED_TRACE("confidence " + std::to_string(confidence));
        const QImage ring = confidenceRing::image(confidence, d);
        ASSERT_EQ(ring.size(), QSize(48, 48));
        EXPECT_EQ(shadeAt(ring, d, inside), arc);
        // Anticlockwise of the top is never reached except by the full circle.
        for (const double angle : {outside, 340.0}) {
            EXPECT_EQ(shadeAt(ring, d, angle), confidence >= 1 ? arc : Shade::track);
        }
    }
}

class StatusBarViewTest : public ::testing::Test {
  protected:
    BarWindow item;
    StatusBarView& view = item.view();
    const QColor background = item.palette().color(QPalette::Window);
    const QColor label = item.palette().color(QPalette::WindowText);
    const QColor accent = item.palette().color(QPalette::Highlight);

    QImage draw() {
        item.setLength(view.preferredWidth() + 30);  // room to see anything drawn past the bar's width
        return item.grab().toImage();
    }
    static constexpr int textX =
        static_cast<int>(StatusBarView::leftPad + StatusBarView::ringDiameter + StatusBarView::gap);
    QRect textArea(const QImage& image) const { return QRect(textX - 1, 0, image.width(), image.height()); }
};

TEST_F(StatusBarViewTest, OneLineKeepsKeyLeftAndBpmRightInFixedColumns) {
    struct Case {
        const char *key, *bpm;
        int keySlot;
        QString line;
    };
    // A BPM longer than its slot is drawn whole after the one separating space; a
    // longer key is cut.
    for (const Case& c : {Case{"8A", "128", 7, "8A      128"}, Case{"8A", "12345", 7, "8A      12345"},
                          Case{"10A-long", "12345", 6, "10A-lo 12345"}}) {
        view.keyText = c.key;
        view.bpmText = c.bpm;
        view.keySlot = c.keySlot;
        view.bpmSlot = 3;
        EXPECT_EQ(view.lineText(), c.line);
    }
    // Drawn: the first key letter and the last BPM digit stay put whatever the
    // other characters are.
    std::optional<QRect> first;
    for (const auto& [key, bpm] : {std::pair{"A", "128"}, {"A#m", "8"}, {"Am", "98"}}) {
        view.keyText = key;
        view.bpmText = bpm;
        const QImage image = draw();
        const QRect ink = test::inkBounds(image, textArea(image), background);
        EXPECT_NEAR(ink.left(), textX, 2);
        EXPECT_EQ(ink.right(), first.value_or(ink).right()) << bpm;
        first = ink;
    }
}

TEST_F(StatusBarViewTest, PreferredWidthHoldsFullSlotsInEveryLayoutAndCompactStacksTheLines) {
    for (const bool compact : {false, true}) {
        for (const auto& [keySlot, bpmSlot] : {std::pair{6, 3}, {7, 5}, {6, 5}, {7, 3}}) {
            SCOPED_TRACE(testing::Message()
                         << "compact " << compact << " slots " << keySlot << "/" << bpmSlot);
            view.compact = compact;
            view.keySlot = keySlot;
            view.bpmSlot = bpmSlot;
            view.keyText = QString(keySlot, 'W');
            view.bpmText = QString(bpmSlot, '8');
            const double width = view.preferredWidth();
            const QImage image = draw();
            const QRect ink = test::inkBounds(image, textArea(image), background);
            ASSERT_FALSE(ink.isEmpty());
            EXPECT_LT(ink.right(), width - StatusBarView::rightPad);
            EXPECT_TRUE(ink.top() >= 0 && ink.bottom() <= 21);
            // The width follows the settings alone, so the bar does not jump as
            // readings change.
            view.keyText = "-";
            view.bpmText = "---";
            EXPECT_EQ(view.preferredWidth(), width);
        }
    }
    // Compact: the key, unpadded right after the ring, above the BPM at the same
    // x.
    view.keyText = "8A";
    view.bpmText = "";
    const QImage keyOnly = draw();
    view.keyText = "";
    view.bpmText = "88.0";
    const QImage bpmOnly = draw();
    const QRect key = test::inkBounds(keyOnly, textArea(keyOnly), background);
    const QRect bpm = test::inkBounds(bpmOnly, textArea(bpmOnly), background);
    EXPECT_LT(key.bottom(), bpm.top());
    EXPECT_EQ(key.left(), bpm.left());
    EXPECT_LE(key.left(), textX + 2);
}

TEST_F(StatusBarViewTest, TextInTheLabelColourOrTheAccentForAFileAndAWashWhenPressed) {
    view.keyText = "8A";
    view.bpmText = "128";
    for (const bool file : {false, true}) {
        view.showingFile = file;
        const QImage image = draw();
        EXPECT_EQ(test::containsColor(image, textArea(image), accent), file);
        EXPECT_EQ(test::containsColor(image, textArea(image), label), !file);
    }
    view.showingFile = false;
    view.setHighlighted(true);
    const QImage image = draw();
    EXPECT_GT(test::colorDistance(image.pixelColor(view.width() - 3, 11), background), 20);
    EXPECT_EQ(image.pixelColor(0, 11), background);  // inset from the edges
}

TEST_F(StatusBarViewTest, LeftClickReportsTheRealWindowRectThenClicks) {
    std::vector<std::string> calls;
    QRect located;
    view.onClick = [&] { calls.push_back("click"); };
    view.onLocate = [&](const QRect& rect) {
        calls.push_back("locate");
        located = rect;
    };
    item.setLength(100);
    item.move(300, 40);
    item.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&item));

    QTest::mouseClick(&view, Qt::LeftButton, {}, QPoint(50, 11));
    EXPECT_EQ(calls, (std::vector<std::string>{"locate", "click"}));
    EXPECT_EQ(located, QRect(300, 40, 100, 22));

    calls.clear();
    QTest::mouseClick(&view, Qt::RightButton, {}, QPoint(50, 11));
    EXPECT_EQ(calls, std::vector<std::string>{"click"});
}

}  // namespace
}  // namespace velquin
