#pragma once
// A small window that shows how far the analysis of a file picked from the menu has come, with a
// Cancel button. It does not block the rest of the program. Main thread only.

#include <QWidget>
#include <functional>

class QLabel;
class QProgressBar;

namespace velquin {

class ProgressWindow : public QWidget {
    Q_OBJECT

  public:
    explicit ProgressWindow(const QString& name);

    std::function<void()> onCancel;

    // Seconds of audio done of the total (0 when the total is not known).
    void setProgress(double doneSeconds, double totalSeconds);
    QString progressText() const;

  protected:
    void closeEvent(QCloseEvent* event) override;

  private:
    QLabel* detail_;
    QProgressBar* bar_;
};

}  // namespace velquin
