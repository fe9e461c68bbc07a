#include <gtest/gtest.h>

#include "ui/EdgeDrag.h"

namespace velquin {
namespace {

TEST(EdgeDrag, APressStaysAClickUntilThePointerGoesFarEnoughThenTheMarginFollowsItsWholeWay) {
    EdgeDrag drag;
    EXPECT_FALSE(drag.release());  // a release without a press is nothing

    // Jitter under the threshold, in both axes, is still a click and leaves the margin alone.
    drag.press(300);
    EXPECT_EQ(drag.move(-4, 3, 1000, 10), 300);
    EXPECT_EQ(drag.move(3, -2, 1000, 10), 300);
    EXPECT_FALSE(drag.moving());
    EXPECT_FALSE(drag.release());

    // Leftward steps add up from the press, each counted once (a compositor that reports surface
    // coordinates from where the surface was at the press once made 10 steps of 10 px into 550).
    drag.press(300);
    int margin = 300;
    for (int i = 0; i < 10; ++i) margin = drag.move(-10, 0, 1000, 10);
    EXPECT_EQ(margin, 400);
    EXPECT_TRUE(drag.moving());
    // Vertical motion alone moves nothing once dragging; fractions add up before rounding.
    EXPECT_EQ(drag.move(0.4, 25, 1000, 10), 400);
    EXPECT_EQ(drag.move(0.4, 0, 1000, 10), 399);
    EXPECT_TRUE(drag.release());
    EXPECT_FALSE(drag.pressed());
}

TEST(EdgeDrag, TheMarginStaysOnTheOutputAndComesBackOnlyWithThePointer) {
    EdgeDrag drag;
    drag.press(20);
    EXPECT_EQ(drag.move(50, 0, 900, 10), 0);   // 30 px past the right edge
    EXPECT_EQ(drag.move(-25, 0, 900, 10), 0);  // the pointer is still 5 px past it
    EXPECT_EQ(drag.move(-15, 0, 900, 10), 10);
    EXPECT_EQ(drag.move(-2000, 0, 900, 10), 900);  // the left edge: the output's width less the bar's
    EXPECT_EQ(drag.move(0, 0, -5, 10), 0);         // a bar wider than its output stays at the right
    drag.cancel();                                 // the surface went away mid-drag
    EXPECT_FALSE(drag.release());
}

}  // namespace
}  // namespace velquin
