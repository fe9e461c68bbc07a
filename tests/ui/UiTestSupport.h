#pragma once
// Small helpers for the widget tests: readings, waiting on the event loop and finding drawn pixels.

#include <QColor>
#include <QImage>
#include <QTest>
#include <QWidget>
#include <functional>
#include <optional>

#include "analysis/MusicalKey.h"

namespace velquin::test {

// A key reading whose chroma peaks at the tonic.
inline KeyEstimate keyOf(int tonic, bool minor, double confidence, double tuningCents = 0,
                         std::optional<MusicalKey> alternative = std::nullopt) {
    KeyEstimate key;
    key.key = MusicalKey{tonic, minor};
    key.alternative = alternative;
    key.confidence = confidence;
    key.tuningCents = tuningCents;
    key.chroma.fill(0.2);
    key.chroma[static_cast<size_t>(tonic)] = 1.0;
    return key;
}

// Runs the event loop until `condition` holds or `timeoutMs` passes; returns the last answer.
inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > timeoutMs) return false;
        QTest::qWait(10);
    }
    return true;
}

// The widget as drawn, without a window background: untouched pixels stay fully transparent.
inline QImage render(QWidget& widget) {
    QImage image(widget.size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    widget.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}

// Bounding box of the pixels that differ from `background` by more than a faint antialiasing
// fringe, within `area`; empty when nothing was drawn there.
inline int colorDistance(const QColor& a, const QColor& b) {
    return std::abs(a.red() - b.red()) + std::abs(a.green() - b.green()) + std::abs(a.blue() - b.blue());
}

inline QRect inkBounds(const QImage& image, const QRect& area, const QColor& background) {
    QRect box;
    const QRect clipped = area.intersected(image.rect());
    for (int y = clipped.top(); y <= clipped.bottom(); ++y) {
        for (int x = clipped.left(); x <= clipped.right(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (colorDistance(c, background) + std::abs(c.alpha() - background.alpha()) > 90)
                box = box.united(QRect(x, y, 1, 1));
        }
    }
    return box;
}

// Whether some pixel in `area` has `color` (within a small tolerance) at `minAlpha` or more; thin
// antialiased strokes never reach full opacity.
inline bool containsColor(const QImage& image, const QRect& area, const QColor& color, int minAlpha = 255) {
    const QRect clipped = area.intersected(image.rect());
    for (int y = clipped.top(); y <= clipped.bottom(); ++y) {
        for (int x = clipped.left(); x <= clipped.right(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.alpha() >= minAlpha && colorDistance(c, color) < 24) return true;
        }
    }
    return false;
}

// Hands a drag event to `receiver` as a real drag delivers it: through `filter` first when given, then
// to the receiver's own handlers. QApplication would route move, drop and leave events to the drag
// manager's current target, which a synthetic drag never sets up.
inline bool deliver(QObject* receiver, QEvent* event, QObject* filter = nullptr) {
    if (filter && filter->eventFilter(receiver, event)) return true;
    return receiver->event(event);
}

}  // namespace velquin::test
