#pragma once
// The small ring beside the bar's texts: a faint full track and an arc from twelve o'clock, clockwise,
// whose length and colour follow a confidence in 0…1. Main thread only (uses the application palette).

#include <QImage>

namespace velquin::confidenceRing {

// A `diameter` × `diameter` image (logical pixels) rendered at `devicePixelRatio`. Confidence outside
// 0…1 is clamped; at 0.01 and below only the track is drawn.
QImage image(double confidence, double diameter, double devicePixelRatio = 1.0);

}  // namespace velquin::confidenceRing
