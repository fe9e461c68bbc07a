#pragma once
// One result per file in the three output formats.

#include <optional>
#include <string>

#include "AnalysisCache.h"
#include "ScanOptions.h"

namespace velquin::scan {

struct ScanRow {
    std::string path;                            // as found from the command line
    std::optional<AnalysisCache::Entry> result;  // absent when the analysis failed
    std::string error;                           // the analysis error, or why the file was not tagged
    FileAnalysis::Analysis analysis = FileAnalysis::Analysis::specified;
};

// The header line for a format ("" when it has none), without the line feed.
std::string headerLine(OutputFormat format);
// The row's line without the line feed: table is the `velquin --analyze` line with the path in
// place of the file name ("Error: …" and the path for a failed file).
std::string rowLine(OutputFormat format, const ScanRow& row);

}  // namespace velquin::scan
