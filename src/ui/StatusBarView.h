#pragma once
// The bar's content: a confidence ring, then the key and BPM texts in a fixed-width font, on one line
// or, compact, on two stacked lines. The owner sets the public fields and calls update(); the view never
// changes them itself. Its width for the current slots comes from preferredWidth(), so the bar keeps one
// width while values change. Main thread only.

#include <QFont>
#include <QRect>
#include <QString>
#include <QWidget>
#include <functional>
#include <optional>

namespace velquin {

class StatusBarView : public QWidget {
    Q_OBJECT

  public:
    explicit StatusBarView(QWidget* parent = nullptr);

    QString keyText = QStringLiteral("-");
    QString bpmText = QStringLiteral("---");
    double confidence = 0;     // ring fill, 0…1
    bool compact = false;      // two-line layout
    int keySlot = 6;           // characters reserved for the key
    int bpmSlot = 3;           // characters reserved for the BPM
    bool showingFile = false;  // texts in the accent colour while a dropped file's result shows
    // Shown instead of the key and BPM when not empty ("listening…" before the first reading).
    QString hint;

    // A left click (press and release without moving) or a right press.
    std::function<void()> onClick;
    // Where the bar really is on screen (global, logical pixels); reported on every left press.
    std::function<void(const QRect& rect)> onLocate;
    // The bar is dragged: the window's wanted top-left corner (global), and the end of the drag.
    std::function<void(const QPoint& topLeft)> onMove;
    std::function<void()> onMoveEnd;

    const QFont lineFont;
    const QFont smallFont;
    static constexpr double ringDiameter = 12;
    static constexpr double leftPad = 2;
    static constexpr double gap = 3;
    static constexpr double rightPad = 1;

    // Width in logical pixels for the current compact, keySlot and bpmSlot; independent of the texts.
    double preferredWidth() const;
    // The one-line text: the key left-aligned in its slot, one space, the BPM right-aligned in its slot.
    QString lineText() const;

    // A pressed look (accent wash behind the content), e.g. while the bar's menu is open.
    void setHighlighted(bool highlighted);

  protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

  private:
    void drawOneLine(QPainter& painter, double x, const QColor& color) const;
    void drawTwoLines(QPainter& painter, double x, const QColor& color) const;

    bool highlighted_ = false;
    std::optional<QPointF> pressedAt_;  // global position of a left press, while the button is down
    QPointF grabOffset_;                // the press within the window
    bool moving_ = false;
};

}  // namespace velquin
