#include <gtest/gtest.h>

#include <QColor>
#include <QImage>
#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include "ui/ConfidenceRing.h"

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

}  // namespace
}  // namespace velquin
