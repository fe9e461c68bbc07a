#pragma once
// Whole-file analyses for the interface: one job per file on the global thread pool, its result (or
// the reason it failed) delivered back on the main thread, and only while `context` still exists.

#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <optional>
#include <string>

#include "TempoRange.h"
#include "FileAnalysis.h"

namespace velquin {

using FileAnalysisResult = FileAnalysis::FileResult;
// Runs on a pool thread; throws with the text to show.
using FileAnalyzer = std::function<FileAnalysisResult(const std::string& path, TempoRange range)>;

// The one call into the file analysis.
FileAnalysisResult analyzeAudioFile(const std::string& path, TempoRange range);

struct FileJobOutcome {
    std::optional<FileAnalysisResult> result;
    QString error;  // why there is no result
};

void startFileJob(QObject* context, const QString& path, TempoRange range, FileAnalyzer analyzer,
                  std::function<void(FileJobOutcome)> done);

}  // namespace velquin
