#include "ui/DropZoneView.h"

#include <QDropEvent>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QPainter>
#include <QPainterPath>

#include "ui/BarDropTarget.h"

namespace velquin {
namespace {

QFont uiFont(int pixelSize, QFont::Weight weight) {
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    return font;
}

QColor withAlpha(QColor color, double alpha) {
    color.setAlphaF(static_cast<float>(color.alphaF() * alpha));
    return color;
}

// The layout below is worked out with y growing upward from the bottom edge; this turns such a
// rectangle into widget coordinates.
QRectF fromBottom(const QRectF& r, double height) {
    return QRectF(r.x(), height - r.y() - r.height(), r.width(), r.height());
}

void drawCentred(QPainter& painter, const QRectF& box, const QString& text, const QFont& font,
                 const QColor& color) {
    painter.setFont(font);
    painter.setPen(color);
    const QString shown = QFontMetricsF(font).elidedText(text, Qt::ElideMiddle, box.width());
    painter.drawText(box, Qt::AlignHCenter | Qt::AlignTop | Qt::TextSingleLine, shown);
}

void acceptCopy(QDropEvent* event) {
    event->setDropAction((event->possibleActions() & Qt::CopyAction) ? Qt::CopyAction
                                                                     : event->proposedAction());
    event->accept();
}

}  // namespace

DropZoneView::DropZoneView(QWidget* parent) : QWidget(parent) {
    resize(300, 150);
    setAcceptDrops(true);
}

std::optional<QUrl> DropZoneView::audioURL(const QDropEvent* from) {
    return BarDropTarget::audioURL(from->mimeData());
}

void DropZoneView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::TextAntialiasing);
    if (showingResult) {
        drawResult(painter);
    } else {
        drawIdle(painter);
    }
}

void DropZoneView::drawIdle(QPainter& painter) const {
    const QColor label = palette().color(QPalette::WindowText);
    const QColor accent = palette().color(QPalette::Highlight);
    const QColor secondary = withAlpha(label, 0.55);
    const QRectF r = QRectF(rect()).adjusted(14, 14, -14, -14);

    QPainterPath border;
    border.addRoundedRect(r, 10, 10);
    if (highlighted) painter.fillPath(border, withAlpha(accent, 0.12));
    QPen pen(highlighted ? accent : withAlpha(label, 0.45), 1.5, Qt::CustomDashLine, Qt::FlatCap);
    pen.setDashPattern({6 / 1.5, 4 / 1.5});  // Qt counts dashes in pen widths
    painter.strokePath(border, pen);

    const QFont titleFont = uiFont(14, QFont::DemiBold);
    const QFont detailFont = uiFont(11, QFont::Normal);
    const QFont arrowFont = uiFont(22, QFont::Normal);
    const double h = height();
    const double t = QFontMetricsF(titleFont).height();
    const double block = t + 26 + 4 + 11 + 6;
    const double top = h / 2 + block / 2;
    const double left = 14, width = r.width();

    const QRectF arrowBox(left, top - 26, width, 26);
    const QRectF titleBox(left + 8, top - 26 - (t + 2), width - 16, t);
    const QRectF detailBox(left + 8, titleBox.y() - (11 + 8), width - 16, 11 + 6);
    drawCentred(painter, fromBottom(arrowBox, h), QStringLiteral("\u2193"), arrowFont, secondary);
    drawCentred(painter, fromBottom(titleBox, h), title, titleFont, label);
    drawCentred(painter, fromBottom(detailBox, h), detail, detailFont, secondary);
}

void DropZoneView::drawResult(QPainter& painter) const {
    const QColor label = palette().color(QPalette::WindowText);
    struct LineStyle {
        QFont font;
        QColor color;
        double height;
    };
    const LineStyle styles[] = {
        {uiFont(19, QFont::DemiBold), label, 26},
        {uiFont(14, QFont::Medium), label, 20},
        {uiFont(11, QFont::Normal), withAlpha(label, 0.55), 16},
    };
    const double h = height();
    const QRectF r = QRectF(rect()).adjusted(14, 14, -14, -14);
    double y = h / 2 + 31;
    for (qsizetype i = 0; i < std::min<qsizetype>(resultLines.size(), 3); ++i) {
        const LineStyle& style = styles[i];
        y -= style.height;
        const QRectF box(r.x() + 4, y, r.width() - 8, style.height);
        drawCentred(painter, fromBottom(box, h), resultLines[i], style.font, style.color);
    }
}

void DropZoneView::dragEnterEvent(QDragEnterEvent* event) {
    if (onHover) onHover(true);
    if (audioURL(event)) {
        highlighted = true;
        update();
        acceptCopy(event);
    } else {
        // Qt still sends the leave event for an ignored drag, so onHover(false) follows as usual.
        event->ignore();
    }
}

void DropZoneView::dragMoveEvent(QDragMoveEvent* event) {
    if (audioURL(event)) {
        acceptCopy(event);
    } else {
        event->ignore();
    }
}

void DropZoneView::dragLeaveEvent(QDragLeaveEvent*) {
    highlighted = false;
    update();
    if (onHover) onHover(false);
}

void DropZoneView::dropEvent(QDropEvent* event) {
    highlighted = false;
    update();
    if (const auto url = audioURL(event)) {
        if (onDrop) onDrop(*url);
        acceptCopy(event);
    } else {
        event->ignore();
    }
}

}  // namespace velquin
