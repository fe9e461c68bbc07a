#include "BarWindow.h"

#include <cmath>

namespace velquin {

BarWindow::BarWindow()
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                           Qt::WindowDoesNotAcceptFocus) {
    setAttribute(Qt::WA_ShowWithoutActivating);
    setWindowTitle(QStringLiteral("Velquin"));
    // Unlike a panel's tray, a window of our own has no background behind it to draw on.
    setAutoFillBackground(true);
    setLength(120);
}

void BarWindow::setLength(double length) {
    setFixedSize(static_cast<int>(std::ceil(length)), barHeight);
}

void BarWindow::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    view_.setGeometry(rect());
}

}  // namespace velquin
