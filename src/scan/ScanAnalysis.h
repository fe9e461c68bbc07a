#pragma once
// The one place where velquin-scan calls the whole-file analysis.

#include <stop_token>
#include <string>

#include "AnalysisCache.h"
#include "FileAnalysis.h"
#include "TempoRange.h"

namespace velquin::scan {

// Cache entries computed with another version are ignored.
int analysisVersion();

// The same analysis as `velquin --analyze`. Throws what it throws (what() is the text to show);
// a requested stop ends it early with FileAnalysis::AnalysisCancelled.
AnalysisCache::Entry analyzeFile(const std::string& path, TempoRange range, FileAnalysis::Analysis analysis,
                                 std::stop_token stop);
// The cache's range field: the range, and for the precise analysis a mark that keeps its results apart.
std::string cacheRange(TempoRange range, FileAnalysis::Analysis analysis);

}  // namespace velquin::scan
