#include "ui/FileJob.h"

#include <QCoreApplication>
#include <QThreadPool>
#include <chrono>
#include <exception>

namespace velquin {
namespace {

// Progress reaches the screen at most this often; decoding reports far more often than that.
constexpr std::chrono::milliseconds progressInterval{100};

template <typename F>
void onMainThread(const QPointer<QObject>& owner, F f) {
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [owner, f = std::move(f)]() mutable {
            if (owner) f();
        },
        Qt::QueuedConnection);
}

}  // namespace

fileAnalysis::Analyzer withAnalysis(fileAnalysis::Analyzer analyzer, fileAnalysis::Analysis analysis) {
    return [analyzer = std::move(analyzer), analysis](const std::string& path, TempoRange range,
                                                      const fileAnalysis::FileAnalysisOptions& control) {
        fileAnalysis::FileAnalysisOptions chosen = control;
        chosen.analysis = analysis;
        return analyzer(path, range, chosen);
    };
}

std::shared_ptr<std::stop_source> startFileJob(QObject* context, const QString& path, TempoRange range,
                                               fileAnalysis::Analyzer analyzer, FileJobCallbacks callbacks) {
    auto stop = std::make_shared<std::stop_source>();
    const QPointer<QObject> owner(context);
    auto shared = std::make_shared<FileJobCallbacks>(std::move(callbacks));
    QThreadPool::globalInstance()->start(
        [owner, stop, shared, analyzer = std::move(analyzer), path = path.toStdString(), range] {
            auto lastReport = std::chrono::steady_clock::time_point{};
            fileAnalysis::FileAnalysisOptions control;
            control.stop = stop->get_token();
            control.onProgress = [&](double done, double total) {
                const auto now = std::chrono::steady_clock::now();
                if (!shared->progress || now - lastReport < progressInterval) return;
                lastReport = now;
                onMainThread(owner, [shared, stop, done, total] {
                    if (!stop->stop_requested()) shared->progress(done, total);
                });
            };
            FileJobOutcome outcome;
            try {
                outcome.result = analyzer(path, range, control);
            } catch (const std::exception& error) {
                outcome.error = QString::fromStdString(error.what());
            } catch (...) {
                outcome.error = QStringLiteral("The file could not be read.");
            }
            onMainThread(owner, [shared, stop, outcome = std::move(outcome)]() mutable {
                if (!stop->stop_requested() && shared->done) shared->done(std::move(outcome));
            });
        });
    return stop;
}

}  // namespace velquin
