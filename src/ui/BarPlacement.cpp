#include "ui/BarPlacement.h"

#include "ui/DisplaySettings.h"

#include <QGuiApplication>
#include <QScreen>
#include <QTimer>
#include <QWidget>
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

namespace velquin {

BarPosition::BarPosition(QWidget& bar, QSettings& settings) : bar_(bar), settings_(settings) {}

QScreen* BarPosition::screen() const {
    QScreen* screen = QGuiApplication::screenAt(bar_.geometry().center());
    return screen ? screen : QGuiApplication::primaryScreen();
}

void BarPosition::place() {
    QScreen* s = screen();
    if (!s) return;
    const QRect area = s->availableGeometry();
    const std::optional<QPointF> stored = storedBarPosition(settings_, s->name());
    bar_.move(stored ? barPlacement::fromRelative(*stored, bar_.size(), area)
                     : barPlacement::first(area, bar_.size()));
}

void BarPosition::remember() {
    QScreen* s = screen();
    if (!s) return;
    const QRect area = s->availableGeometry();
    bar_.move(barPlacement::snapped(bar_.pos(), bar_.size(), area));
    storeBarPosition(settings_, s->name(), barPlacement::relative(bar_.pos(), bar_.size(), area));
}

void BarPosition::watchScreens() {
    const auto watch = [this](QScreen* s) {
        connect(s, &QScreen::availableGeometryChanged, this, &BarPosition::place);
    };
    for (QScreen* s : QGuiApplication::screens()) watch(s);
    connect(qGuiApp, &QGuiApplication::screenAdded, this, [this, watch](QScreen* s) {
        watch(s);
        place();
    });
    // Qt still lists the screen while it announces its removal.
    connect(qGuiApp, &QGuiApplication::screenRemoved, this,
            [this] { QTimer::singleShot(0, this, &BarPosition::place); });
}

}  // namespace velquin
