#include "ui/StatusBarView.h"

#include <QApplication>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

#include "ui/ConfidenceRing.h"

namespace velquin {
namespace {

// Sizes are in pixels, not points: the bar is 22 pixels high whatever the screen's DPI setting.
QFont fixedFont(int pixelSize, QFont::Weight weight) {
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    return font;
}

}  // namespace

StatusBarView::StatusBarView(QWidget* parent)
    : QWidget(parent), lineFont(fixedFont(12, QFont::Medium)), smallFont(fixedFont(9, QFont::DemiBold)) {
    resize(120, 22);
}

double StatusBarView::preferredWidth() const {
    const bool twoLines = compact;
    const int n = twoLines ? std::max(keySlot, bpmSlot) : keySlot + bpmSlot + 1;
    const QFontMetricsF metrics(twoLines ? smallFont : lineFont);
    const double w = metrics.horizontalAdvance(QString(std::max(n, 0), QLatin1Char('0')));
    return std::ceil(std::ceil(w) + leftPad + ringDiameter + gap + rightPad);
}

QString StatusBarView::lineText() const {
    const int slot = std::max(keySlot, 0);
    const QString key = keyText.left(slot).leftJustified(slot, QLatin1Char(' '));
    const QString pad(std::max<qsizetype>(0, bpmSlot - bpmText.size()), QLatin1Char(' '));
    return key + QLatin1Char(' ') + pad + bpmText;
}

void StatusBarView::setHighlighted(bool highlighted) {
    highlighted_ = highlighted;
    update();
}

void StatusBarView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const QPalette& pal = palette();

    if (highlighted_) {
        QColor fill = pal.color(QPalette::Highlight);
        fill.setAlphaF(0.35f);
        QPainterPath path;
        path.addRoundedRect(QRectF(rect()).adjusted(1, 2, -1, -2), 5, 5);
        painter.fillPath(path, fill);
    }

    const QRectF ringRect(leftPad, (height() - ringDiameter) * 0.5, ringDiameter, ringDiameter);
    painter.drawImage(ringRect, confidenceRing::image(confidence, ringDiameter, devicePixelRatioF()));

    const QColor color = pal.color(showingFile ? QPalette::Highlight : QPalette::WindowText);
    const double x = leftPad + ringDiameter + gap;
    if (!hint.isEmpty()) {
        const QFontMetricsF metrics(smallFont);
        painter.setFont(smallFont);
        painter.setPen(color);
        const double room = width() - x - rightPad;
        painter.drawText(QPointF(x, (height() - metrics.height()) * 0.5 + metrics.ascent()),
                         metrics.elidedText(hint, Qt::ElideRight, room));
    } else if (compact) {
        drawTwoLines(painter, x, color);
    } else {
        drawOneLine(painter, x, color);
    }
}

void StatusBarView::drawOneLine(QPainter& painter, double x, const QColor& color) const {
    const QFontMetricsF metrics(lineFont);
    const double top = (height() - metrics.height()) * 0.5;
    painter.setFont(lineFont);
    painter.setPen(color);
    painter.drawText(QPointF(x, top + metrics.ascent()), lineText());
}

void StatusBarView::drawTwoLines(QPainter& painter, double x, const QColor& color) const {
    const QFontMetricsF metrics(smallFont);
    const double h = std::ceil(metrics.ascent() + metrics.descent());
    // The two line boxes overlap by one pixel so that both fit in the bar's height.
    const double keyTop = (height() - (2 * h - 1)) * 0.5;
    const double bpmTop = keyTop + h - 1;
    painter.setFont(smallFont);
    painter.setPen(color);
    painter.drawText(QPointF(x, keyTop + metrics.ascent()), keyText);
    painter.drawText(QPointF(x, bpmTop + metrics.ascent()), bpmText);
}

void StatusBarView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton) {
        // The pointer's global position minus its position in the window is where the window really is;
        // the window manager may have put it somewhere other than where it was asked to go.
        const QPointF origin = event->globalPosition() - event->scenePosition();
        if (onLocate) onLocate(QRect(origin.toPoint(), window()->size()));
        pressedAt_ = event->globalPosition();
        grabOffset_ = event->scenePosition();
        moving_ = false;
        event->accept();
    } else if (event->button() == Qt::RightButton) {
        if (onClick) onClick();
        event->accept();
    } else {
        QWidget::mousePressEvent(event);
    }
}

void StatusBarView::mouseMoveEvent(QMouseEvent* event) {
    if (!pressedAt_ || !(event->buttons() & Qt::LeftButton)) return;
    const QPointF travelled = event->globalPosition() - *pressedAt_;
    if (!moving_ && travelled.manhattanLength() < QApplication::startDragDistance()) return;
    moving_ = true;
    if (onMove) onMove((event->globalPosition() - grabOffset_).toPoint());
    event->accept();
}

void StatusBarView::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || !pressedAt_) return QWidget::mouseReleaseEvent(event);
    pressedAt_.reset();
    if (moving_) {
        moving_ = false;
        if (onMoveEnd) onMoveEnd();
    } else if (onClick) {
        onClick();
    }
    event->accept();
}

}  // namespace velquin
