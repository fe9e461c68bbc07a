#pragma once
// What the analysis of a whole file gives, and which analysis gave it. Every part of the system that
// reads, shows, caches or tags a file's result speaks of this one type.

#include <optional>
#include <string_view>

#include "analysis/MusicalKey.h"
#include "analysis/TempoEstimate.h"

namespace velquin {

struct FileResult {
    TempoEstimate tempo;
    KeyEstimate key;
    double durationSeconds = 0;  // of the audio decoded
};

namespace fileAnalysis {

// Which analysis a whole file gets: `specified`, the live engine's analyzers run over the file (the
// default everywhere); or `precise`, the slower whole-file analyzers of PreciseTempo.h and PreciseKey.h. The
// two give different results, so whatever stores a result keeps the analysis beside it.
enum class Analysis { specified, precise };
std::string_view textName(Analysis analysis);
std::optional<Analysis> analysisFromTextName(std::string_view text);

// An analysis's version: bump it when its results may change; cache keys include it, so a change to one
// analysis leaves the other's cached results standing. The precise analysis's 2 is the one that checks
// its tempo against the bar.
constexpr int analysisVersion(Analysis analysis) {
    return analysis == Analysis::precise ? 2 : 1;
}

}  // namespace fileAnalysis
}  // namespace velquin
