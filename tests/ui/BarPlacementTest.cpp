#include <gtest/gtest.h>

#include <vector>

#include "UiTestSupport.h"
#include "ui/BarPlacement.h"

namespace velquin {
namespace {

TEST(BarPlacement, FirstPlaceSnappingAndRememberedFractions) {
    const QSize bar(100, 22);
    const QRect area(0, 30, 1280, 770);  // below a 30 px panel
    EXPECT_EQ(barPlacement::first(area, bar), QPoint(1280 - 8 - 100, 30 + 48));

    struct Case {
        QPoint dropped, expected;
    };
    const std::vector<Case> snaps = {
        {{500, 400}, {500, 400}},         // far from every edge: stays
        {{10, 40}, {0, 30}},              // near the top left corner
        {{1170, 795}, {1180, 30 + 748}},  // near the bottom right, partly off screen: kept inside
        {{-300, -50}, {0, 30}},           // off screen: back inside
    };
    for (const Case& c : snaps) EXPECT_EQ(barPlacement::snapped(c.dropped, bar, area), c.expected);

    // The same relative place on a resized screen, and the fraction survives a round trip.
    const QPoint p(1180, 30);
    const QPointF f = barPlacement::relative(p, bar, area);
    EXPECT_EQ(f, QPointF(1.0, 0.0));
    EXPECT_EQ(barPlacement::fromRelative(f, bar, QRect(0, 0, 800, 600)), QPoint(700, 0));
    EXPECT_EQ(barPlacement::fromRelative(barPlacement::relative({590, 404}, bar, area), bar, area),
              QPoint(590, 404));
    EXPECT_EQ(barPlacement::fromRelative(QPointF(7, -2), bar, area), QPoint(1180, 30));
}

}  // namespace
}  // namespace velquin
