#include "FileJob.h"

#include <QCoreApplication>
#include <QThreadPool>
#include <exception>

namespace velquin {

FileAnalysisResult analyzeAudioFile(const std::string& path, TempoRange range) {
    return FileAnalysis::analyzeFile(path, range);
}

void startFileJob(QObject* context, const QString& path, TempoRange range, FileAnalyzer analyzer,
                  std::function<void(FileJobOutcome)> done) {
    const QPointer<QObject> owner(context);
    QThreadPool::globalInstance()->start([owner, analyzer = std::move(analyzer), done = std::move(done),
                                          path = path.toStdString(), range]() mutable {
        FileJobOutcome outcome;
        try {
            outcome.result = analyzer(path, range);
        } catch (const std::exception& error) {
            outcome.error = QString::fromStdString(error.what());
        } catch (...) {
            outcome.error = QStringLiteral("The file could not be read.");
        }
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [owner, done = std::move(done), outcome = std::move(outcome)]() mutable {
                if (owner) done(std::move(outcome));
            },
            Qt::QueuedConnection);
    });
}

}  // namespace velquin
