#pragma once
// The drop shelf's content. Idle, it shows a dashed drop target with a title and a detail line; in
// result mode, up to three centred lines (working text or a file's result). It accepts drops of audio
// and movie files and reports the drag hovering it. Colours come from its palette: WindowText for
// labels, Highlight for the accent. Main thread only.

#include <QStringList>
#include <QUrl>
#include <QWidget>
#include <functional>
#include <optional>

namespace velquin {

class DropZoneView : public QWidget {
    Q_OBJECT

  public:
    static constexpr const char* idleTitle = "Drop an audio file here";
    static constexpr const char* idleDetail = "Key and BPM in a few seconds";

    explicit DropZoneView(QWidget* parent = nullptr);

    std::function<void(const QUrl& url)> onDrop;
    // true when a drag enters the zone, false when it leaves.
    std::function<void(bool hovering)> onHover;

    bool highlighted = false;  // a usable file is being dragged over the zone
    QString title = QString::fromLatin1(idleTitle);
    QString detail = QString::fromLatin1(idleDetail);
    bool showingResult = false;
    QStringList resultLines;  // only the first three are drawn

  protected:
    void paintEvent(QPaintEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

  private:
    void drawIdle(QPainter& painter) const;
    void drawResult(QPainter& painter) const;
    static std::optional<QUrl> audioURL(const QDropEvent* from);
};

}  // namespace velquin
