// An ordinary window that covers the screen, for the desktop tests on Wayland compositors:
//   ui_plain_window
// shows itself maximized in one flat colour (#2e7d32) and prints "pressed" on every mouse press, so a
// test can click it and know where the click went. Runs until killed.
#include <QApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QWidget>
#include <cstdio>

namespace {

class Plain : public QWidget {
  protected:
    void paintEvent(QPaintEvent*) override { QPainter(this).fillRect(rect(), QColor(0x2e, 0x7d, 0x32)); }
    void mousePressEvent(QMouseEvent*) override {
        std::puts("pressed");
        std::fflush(stdout);
    }
};

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    Plain window;
    window.setWindowTitle(QStringLiteral("plain window"));
    window.showMaximized();
    std::printf("platform %s\n", qPrintable(QGuiApplication::platformName()));
    std::fflush(stdout);
    return QApplication::exec();
}
