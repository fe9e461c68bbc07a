#include "ui/ConfidenceRing.h"

#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <algorithm>
#include <cmath>

#include "analysis/Confidence.h"

namespace velquin::confidenceRing {
namespace {

// Fixed rather than from the palette: the ring has to read the same on light and dark panels, and
// themes rarely define a usable orange, yellow and green.
QColor color(double for_) {
    if (for_ < weakConfidence) return QColor(0xF2, 0x8C, 0x28);
    if (for_ < 0.7) return QColor(0xE6, 0xBE, 0x1E);
    return QColor(0x30, 0xB8, 0x4E);
}

}  // namespace

QImage image(double confidence, double diameter, double devicePixelRatio) {
    const int side = std::max(1, static_cast<int>(std::ceil(diameter * devicePixelRatio)));
    QImage ring(side, side, QImage::Format_ARGB32_Premultiplied);
    ring.setDevicePixelRatio(devicePixelRatio);
    ring.fill(Qt::transparent);

    QPainter painter(&ring);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF r = QRectF(0, 0, diameter, diameter).adjusted(1.5, 1.5, -1.5, -1.5);

    QColor track = QGuiApplication::palette().color(QPalette::WindowText);
    track.setAlphaF(0.22f);
    painter.setPen(QPen(track, 1.5));
    painter.drawEllipse(r);

    const double q = std::clamp(confidence, 0.0, 1.0);
    if (q > 0.01) {
        QPainterPath arc;
        arc.arcMoveTo(r, 90);
        arc.arcTo(r, 90, -360.0 * q);
        painter.setPen(QPen(color(q), 1.9, Qt::SolidLine, Qt::RoundCap));
        painter.drawPath(arc);
    }
    return ring;
}

}  // namespace velquin::confidenceRing
