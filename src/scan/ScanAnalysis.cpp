#include "ScanAnalysis.h"

#include "FileAnalysis.h"

namespace velquin::scan {

int analysisVersion() {
    return FileAnalysis::analysisVersion;
}

std::string cacheRange(TempoRange range, FileAnalysis::Analysis analysis) {
    return AnalysisCache::rangeField(textName(range), analysis == FileAnalysis::Analysis::precise);
}

AnalysisCache::Entry analyzeFile(const std::string& path, TempoRange range, FileAnalysis::Analysis analysis,
                                 std::stop_token stop) {
    FileAnalysis::FileAnalysisOptions options;
    options.analysis = analysis;
    options.stop = std::move(stop);
    // Each job is one thread: the scan already keeps every core busy with its own workers.
    options.execution = FileAnalysis::Execution::sequential;
    const auto result = FileAnalysis::analyzeFile(path, range, options);
    return {result.tempo, result.key, result.durationSeconds};
}

}  // namespace velquin::scan
