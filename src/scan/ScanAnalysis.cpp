#include "ScanAnalysis.h"

#include "FileAnalysis.h"

namespace velquin::scan {

int analysisVersion() {
    return FileAnalysis::kAnalysisVersion;
}

AnalysisCache::Entry analyzeFile(const std::string& path, TempoRange range, std::stop_token stop) {
    FileAnalysis::FileAnalysisOptions options;
    options.stop = std::move(stop);
    const auto result = FileAnalysis::analyzeFile(path, range, options);
    return {result.tempo, result.key, result.durationSeconds};
}

}  // namespace velquin::scan
