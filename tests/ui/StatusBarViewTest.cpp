#include <gtest/gtest.h>

#include <QApplication>
#include <QPalette>
#include <QTest>
#include <cmath>
#include <string>
#include <vector>

#include "BarWindow.h"
#include "ConfidenceRing.h"
#include "UiTestSupport.h"

namespace velquin {
namespace {

enum class Shade { none, track, orange, yellow, green };

// What the ring shows at `degrees` clockwise from twelve o'clock, on its centre line. A large ring is
// used so that a sampled pixel lies wholly inside the stroke; hue bands are far apart, so antialiasing
// cannot move a colour into its neighbour's band.
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
    struct Case {
        double confidence;
        Shade arc;          // colour of the drawn arc
        double insideArc;   // an angle the arc covers
        double outsideArc;  // an angle it does not (track only)
    };
    const std::vector<Case> cases = {
        {0.02, Shade::orange, 3.6, 20},  // 7.2° long: a short arc right of the top
        {0.34, Shade::orange, 100, 140}, {0.35, Shade::yellow, 110, 140}, {0.69, Shade::yellow, 240, 265},
        {0.7, Shade::green, 240, 265},   {1.4, Shade::green, 359, -1},  // clamped to a full circle
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("confidence " + std::to_string(c.confidence));
        const QImage ring = ConfidenceRing::image(c.confidence, d);
        ASSERT_EQ(ring.size(), QSize(48, 48));
        EXPECT_EQ(shadeAt(ring, d, c.insideArc), c.arc);
        if (c.outsideArc >= 0) {
            EXPECT_EQ(shadeAt(ring, d, c.outsideArc), Shade::track);
        }
        // Anticlockwise of the top is never reached except by the full circle.
        EXPECT_EQ(shadeAt(ring, d, 340), c.confidence >= 1 ? c.arc : Shade::track);
    }
    for (const double empty : {0.0, 0.01, -0.5}) {
        const QImage ring = ConfidenceRing::image(empty, d);
        for (double angle = 0; angle < 360; angle += 15) EXPECT_EQ(shadeAt(ring, d, angle), Shade::track);
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
    view.keyText = "8A";
    view.keySlot = 7;
    view.bpmText = "128";
    view.bpmSlot = 3;
    EXPECT_EQ(view.lineText(), "8A" + QString(5, ' ') + " " + "128");

    view.bpmText = "12345";  // longer than its slot: drawn whole after the one separating space
    EXPECT_EQ(view.lineText(), "8A" + QString(5, ' ') + " 12345");
    view.keyText = "10A-long";  // longer than its slot: cut
    view.keySlot = 6;
    EXPECT_EQ(view.lineText(), "10A-lo 12345");

    // Drawn: the last BPM digit and the first key letter stay put whatever the other characters are.
    view.keySlot = 6;
    view.bpmSlot = 3;
    std::vector<QRect> bpmInk, keyInk;
    for (const char* bpm : {"128", "98", "8"}) {
        view.keyText = "-";
        view.bpmText = bpm;
        const QImage image = draw();
        const int keyRight = textX + static_cast<int>(view.preferredWidth() / 2);
        bpmInk.push_back(test::inkBounds(image, QRect(keyRight, 0, image.width(), 22), background));
    }
    for (const char* key : {"A", "Am", "A#m"}) {
        view.keyText = key;
        view.bpmText = "---";
        const QImage image = draw();
        keyInk.push_back(test::inkBounds(image, textArea(image), background));
    }
    for (size_t i = 1; i < 3; ++i) {
        EXPECT_EQ(bpmInk[i].right(), bpmInk[0].right());
        EXPECT_EQ(keyInk[i].left(), keyInk[0].left());
    }
    EXPECT_NEAR(keyInk[0].left(), textX, 2);
}

TEST_F(StatusBarViewTest, PreferredWidthHoldsFullSlotsInEveryLayout) {
    for (const bool compact : {false, true}) {
        for (const int keySlot : {6, 7}) {
            for (const int bpmSlot : {3, 5}) {
                SCOPED_TRACE(testing::Message()
                             << "compact " << compact << " slots " << keySlot << "/" << bpmSlot);
                view.compact = compact;
                view.keySlot = keySlot;
                view.bpmSlot = bpmSlot;
                view.keyText = QString(keySlot, 'W');
                view.bpmText = QString(bpmSlot, '8');
                const double width = view.preferredWidth();
                EXPECT_EQ(width, std::ceil(width));
                const QImage image = draw();
                const QRect ink = test::inkBounds(image, textArea(image), background);
                ASSERT_FALSE(ink.isEmpty());
                EXPECT_LT(ink.right(), width - StatusBarView::rightPad);
                EXPECT_GE(ink.top(), 0);
                EXPECT_LE(ink.bottom(), 21);

                // The width follows the settings alone, so the bar does not jump as readings change.
                view.keyText = "-";
                view.bpmText = "---";
                EXPECT_EQ(view.preferredWidth(), width);
            }
        }
    }
}

TEST_F(StatusBarViewTest, CompactStacksUnpaddedKeyAboveBpmAtTheSameX) {
    view.compact = true;
    view.keySlot = 7;
    view.bpmSlot = 5;
    view.keyText = "8A";
    view.bpmText = "";
    const QImage keyOnly = draw();
    view.keyText = "";
    view.bpmText = "88.0";
    const QImage bpmOnly = draw();

    const QRect key = test::inkBounds(keyOnly, textArea(keyOnly), background);
    const QRect bpm = test::inkBounds(bpmOnly, textArea(bpmOnly), background);
    ASSERT_FALSE(key.isEmpty());
    ASSERT_FALSE(bpm.isEmpty());
    EXPECT_LT(key.bottom(), bpm.top());
    EXPECT_GE(key.top(), 0);
    EXPECT_LE(bpm.bottom(), 21);
    EXPECT_EQ(key.left(), bpm.left());
    // Unpadded: the key text starts right after the ring, not in a right-aligned slot.
    EXPECT_LE(key.left(), textX + 2);
}

TEST_F(StatusBarViewTest, TextInTheLabelColourOrTheAccentForAFile) {
    view.keyText = "8A";
    view.bpmText = "128";
    QImage image = draw();
    EXPECT_TRUE(test::containsColor(image, textArea(image), label));
    EXPECT_FALSE(test::containsColor(image, textArea(image), accent));
    view.showingFile = true;
    image = draw();
    EXPECT_TRUE(test::containsColor(image, textArea(image), accent));
    EXPECT_FALSE(test::containsColor(image, textArea(image), label));

    // The pressed look washes the whole bar (inset 1 × 2) in the accent colour.
    view.showingFile = false;
    view.setHighlighted(true);
    image = draw();
    const QColor wash = image.pixelColor(view.width() - 3, 11);
    EXPECT_GT(test::colorDistance(wash, background), 20);
    EXPECT_EQ(image.pixelColor(0, 11), background);
    EXPECT_EQ(image.pixelColor(view.width() - 3, 0), background);
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
