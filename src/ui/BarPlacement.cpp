#include "BarPlacement.h"

#include <algorithm>
#include <cmath>

namespace velquin::barPlacement {
namespace {

int roomX(const QSize& bar, const QRect& area) {
    return std::max(0, area.width() - bar.width());
}

int roomY(const QSize& bar, const QRect& area) {
    return std::max(0, area.height() - bar.height());
}

QPoint inside(const QPoint& p, const QSize& bar, const QRect& area) {
    return QPoint(std::clamp(p.x(), area.left(), area.left() + roomX(bar, area)),
                  std::clamp(p.y(), area.top(), area.top() + roomY(bar, area)));
}

}  // namespace

QPoint first(const QRect& area, const QSize& bar) {
    return inside(QPoint(area.left() + area.width() - margin - bar.width(), area.top() + titleBarAllowance),
                  bar, area);
}

QPoint snapped(const QPoint& topLeft, const QSize& bar, const QRect& area) {
    QPoint p = topLeft;
    const int right = area.left() + roomX(bar, area);
    const int bottom = area.top() + roomY(bar, area);
    if (std::abs(p.x() - area.left()) <= snapDistance) p.setX(area.left());
    if (std::abs(p.x() - right) <= snapDistance) p.setX(right);
    if (std::abs(p.y() - area.top()) <= snapDistance) p.setY(area.top());
    if (std::abs(p.y() - bottom) <= snapDistance) p.setY(bottom);
    return inside(p, bar, area);
}

QPointF relative(const QPoint& topLeft, const QSize& bar, const QRect& area) {
    const QPoint p = inside(topLeft, bar, area);
    const auto fraction = [](int offset, int room) { return room > 0 ? double(offset) / room : 0.0; };
    return QPointF(fraction(p.x() - area.left(), roomX(bar, area)),
                   fraction(p.y() - area.top(), roomY(bar, area)));
}

QPoint fromRelative(const QPointF& fraction, const QSize& bar, const QRect& area) {
    const auto offset = [](double f, int room) {
        return static_cast<int>(std::lround(std::clamp(std::isfinite(f) ? f : 0.0, 0.0, 1.0) * room));
    };
    return QPoint(area.left() + offset(fraction.x(), roomX(bar, area)),
                  area.top() + offset(fraction.y(), roomY(bar, area)));
}

}  // namespace velquin::barPlacement
