#pragma once
// Whole-file analyses for the interface: one job per file on the global thread pool, its progress and
// its result (or the reason it failed) delivered back on the main thread, and only while `context`
// still exists. A job can be cancelled; its result is then dropped.

#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "analysis/TempoRange.h"
#include "fileanalysis/FileAnalysis.h"

namespace velquin {

// `analyzer` run with the given analysis, whatever its caller asked for.
fileAnalysis::Analyzer withAnalysis(fileAnalysis::Analyzer analyzer, fileAnalysis::Analysis analysis);

struct FileJobOutcome {
    std::optional<FileResult> result;
    QString error;  // why there is no result
};

struct FileJobCallbacks {
    std::function<void(double doneSeconds, double totalSeconds)> progress;  // a few times a second
    std::function<void(FileJobOutcome)> done;                               // not after a cancel
};

// Returns the job's stop source: request_stop() cancels it.
std::shared_ptr<std::stop_source> startFileJob(QObject* context, const QString& path, TempoRange range,
                                               fileAnalysis::Analyzer analyzer, FileJobCallbacks callbacks);

}  // namespace velquin
