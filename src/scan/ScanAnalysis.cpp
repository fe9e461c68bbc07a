#include "ScanAnalysis.h"

#include "TempoService.h"

namespace velquin::scan {

int analysisVersion() {
    return 1;
}

AnalysisCache::Entry analyzeFile(const std::string& path, TempoRange range, std::stop_token /*stop*/) {
    const auto result = TempoService::analyzeFile(path, range);
    return {result.tempo, result.key, 0};
}

}  // namespace velquin::scan
