#pragma once
// A small window that shows how far the analysis of a file picked from the menu has come, with a
// Cancel button. It does not block the rest of the program. Main thread only.

#include <QWidget>
#include <functional>
#include <memory>
#include <stop_token>

#include "ui/FileJob.h"

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

// One analysis of a file picked from the menu at a time, shown in a ProgressWindow; closing the
// window cancels it. A new one replaces (and cancels) the one under way.
class MenuAnalysis : public QObject {
    Q_OBJECT

  public:
    // `done` runs on the main thread unless the analysis was cancelled.
    void start(const QString& path, TempoRange range, fileAnalysis::Analyzer analyzer,
               std::function<void(FileJobOutcome)> done);
    ProgressWindow* window() { return window_.get(); }

  private:
    std::unique_ptr<ProgressWindow> window_;
    std::shared_ptr<std::stop_source> job_;
};

}  // namespace velquin
