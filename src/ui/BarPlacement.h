#pragma once
// Where the bar goes on a screen: its first place, snapping to the edges after a drag, and the
// position remembered per screen as a fraction of the room the screen leaves it, so that it lands in
// the same relative place when the screen changes size. Pure functions; rectangles are global,
// logical pixels.

#include <QObject>
#include <QPoint>
#include <QPointF>
#include <QRect>
#include <QSize>

namespace velquin::barPlacement {

// Space kept between the bar and the right edge of the screen's available area.
inline constexpr int margin = 8;
// The bar starts this far below the top of the available area, below the title bar (and its close
// button) of a maximized window; client-side title bars are up to about 46 px high.
inline constexpr int titleBarAllowance = 48;
// A drag that ends this close to an edge of the available area lands on it.
inline constexpr int snapDistance = 16;

// The top right of `area`, `margin` in from the right and below a title bar.
QPoint first(const QRect& area, const QSize& bar);
// `topLeft` moved onto every edge of `area` it is within `snapDistance` of, then kept inside.
QPoint snapped(const QPoint& topLeft, const QSize& bar, const QRect& area);
// The position as fractions (0…1) of the room `area` leaves the bar, and back, kept inside.
QPointF relative(const QPoint& topLeft, const QSize& bar, const QRect& area);
QPoint fromRelative(const QPointF& fraction, const QSize& bar, const QRect& area);

}  // namespace velquin::barPlacement

class QScreen;
class QSettings;
class QWidget;

namespace velquin {

// Keeps the bar window in its remembered place on the screen it is on, also when screens come, go or
// change size. Main thread only.
class BarPosition : public QObject {
    Q_OBJECT

  public:
    BarPosition(QWidget& bar, QSettings& settings);

    // To the remembered place, or the first one.
    void place();
    // After a drag: snaps to the edges near the bar and remembers the place.
    void remember();
    void watchScreens();

  private:
    QScreen* screen() const;

    QWidget& bar_;
    QSettings& settings_;
};

}  // namespace velquin
