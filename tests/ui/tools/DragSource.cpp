// A window that starts a file drag when pressed, for driving real drag-and-drop under Xvfb with xdotool:
//   ui_drag_source FILE X Y
// shows a 160 × 60 window at (X, Y); a press inside it drags FILE's URL (copy). It prints the drag's
// result ("drag result: 1" for copy) and keeps running until killed.
#include <QApplication>
#include <QDrag>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QUrl>
#include <QWidget>
#include <cstdio>
#include <memory>

namespace {

class Source : public QWidget {
  public:
    explicit Source(QString file) : file_(std::move(file)) {
        setWindowTitle(QStringLiteral("drag source"));
        setFixedSize(160, 60);
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.fillRect(rect(), QColor(0x3a, 0x6e, 0xa5));
        painter.setPen(Qt::white);
        painter.drawText(rect(), Qt::AlignCenter, QStringLiteral("drag me"));
    }

    void mousePressEvent(QMouseEvent* event) override {
        if (event->button() != Qt::LeftButton) return;
        auto mime = std::make_unique<QMimeData>();
        mime->setUrls({QUrl::fromLocalFile(file_)});
        // The target fetches the data after exec() returns here, so the drag outlives this handler.
        drag_ = std::make_unique<QDrag>(this);
        drag_->setMimeData(mime.release());  // the drag owns it
        const Qt::DropAction result = drag_->exec(Qt::CopyAction);
        std::printf("drag result: %d\n", static_cast<int>(result));
        std::fflush(stdout);
    }

  private:
    QString file_;
    std::unique_ptr<QDrag> drag_;
};

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    if (argc < 4) {
        std::fputs("usage: ui_drag_source FILE X Y\n", stderr);
        return 2;
    }
    Source source(QString::fromLocal8Bit(argv[1]));
    source.move(QString::fromLatin1(argv[2]).toInt(), QString::fromLatin1(argv[3]).toInt());
    source.show();
    return QApplication::exec();
}
