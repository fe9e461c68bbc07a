#include "ui/ProgressWindow.h"

#include <QCloseEvent>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <utility>

#include "ui/ReadingText.h"

namespace velquin {

ProgressWindow::ProgressWindow(const QString& name)
    : QWidget(nullptr, Qt::Dialog | Qt::WindowStaysOnTopHint),
      detail_(new QLabel(QStringLiteral("Starting\u2026"), this)),
      bar_(new QProgressBar(this)) {
    setAttribute(Qt::WA_DeleteOnClose, false);
    setWindowTitle(QStringLiteral("Velquin"));
    auto* layout = new QVBoxLayout(this);
    auto* title =
        new QLabel(QStringLiteral("Analysing ") + text::shortened(name, 50) + QStringLiteral("\u2026"), this);
    layout->addWidget(title);
    bar_->setRange(0, 0);  // busy until the length is known
    bar_->setTextVisible(false);
    layout->addWidget(bar_);
    layout->addWidget(detail_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QWidget::close);
    layout->addWidget(buttons);
    setMinimumWidth(320);
}

void ProgressWindow::setProgress(double doneSeconds, double totalSeconds) {
    if (totalSeconds > 0) {
        bar_->setRange(0, 1000);
        bar_->setValue(
            static_cast<int>(std::lround(std::clamp(doneSeconds / totalSeconds, 0.0, 1.0) * 1000)));
    }
    detail_->setText(text::progress(doneSeconds, totalSeconds));
}

QString ProgressWindow::progressText() const {
    return detail_->text();
}

void ProgressWindow::closeEvent(QCloseEvent* event) {
    // Closing the window is cancelling; the owner drops the window afterwards.
    event->accept();
    if (auto cancel = std::exchange(onCancel, nullptr)) cancel();
}

void MenuAnalysis::start(const QString& path, TempoRange range, fileAnalysis::Analyzer analyzer,
                         std::function<void(FileJobOutcome)> done) {
    if (job_) job_->request_stop();
    window_ = std::make_unique<ProgressWindow>(QFileInfo(path).fileName());
    FileJobCallbacks callbacks;
    callbacks.progress = [this](double doneSeconds, double totalSeconds) {
        if (window_) window_->setProgress(doneSeconds, totalSeconds);
    };
    callbacks.done = [this, done = std::move(done)](FileJobOutcome outcome) {
        job_.reset();
        if (window_) window_->onCancel = nullptr;
        window_.reset();
        done(std::move(outcome));
    };
    job_ = startFileJob(this, path, range, std::move(analyzer), std::move(callbacks));
    window_->onCancel = [this, job = job_] {
        job->request_stop();
        if (job_ == job) job_.reset();
        // Not from inside the window's own close event.
        QTimer::singleShot(0, this, [this, window = window_.get()] {
            if (window_.get() == window) window_.reset();
        });
    };
    window_->show();
}

}  // namespace velquin
