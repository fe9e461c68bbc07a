#pragma once
// Whole-file analysis: a file decoded chunk by chunk, mixed to mono and fed to an offline tempo and key
// analyzer pair (and, for timelines, a live pair read at fixed intervals of file time). Shares nothing
// with a running TempoService; every call owns its analyzers.
//
// Each call decodes on the calling thread and feeds the analyzers on threads of its own, joined before
// their decisions are taken on the calling thread; progress is reported on the calling thread. They throw
// AudioFileError (std::runtime_error; what() is the text to show), std::system_error when the CSV cannot be
// written, or AnalysisCancelled.

#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/FileResult.h"
#include "analysis/MusicalKey.h"
#include "analysis/TempoEstimate.h"
#include "analysis/TempoRange.h"

namespace velquin {

class AudioFileReader;

namespace fileAnalysis {

// How the analyzers share the work: each on its own thread behind a decoder (with one core, all on the
// calling thread), or always all on the calling thread. Both give the same results, bit for bit.
enum class Execution { automatic, sequential };

struct FileAnalysisOptions {
    // After every chunk, on the thread that called the operation; total 0 = unknown.
    std::function<void(double doneSeconds, double totalSeconds)> onProgress;
    std::stop_token stop;  // requested -> AnalysisCancelled
    Execution execution = Execution::automatic;
    Analysis analysis = Analysis::specified;  // analyzeFile and analyzeReader only
};

struct AnalysisCancelled : std::exception {
    const char* what() const noexcept override { return "analysis cancelled"; }
};

struct TimelineTick {
    double seconds = 0;
    KeyEstimate key;
    TempoEstimate tempo;
};
struct Timeline {
    std::vector<TimelineTick> ticks;
    KeyEstimate final = KeyEstimate::unknown;
    TempoEstimate finalTempo;
    int64_t restarts = 0;
};

FileResult analyzeFile(const std::string& path, TempoRange range, const FileAnalysisOptions& options = {});
// analyzeFile, or a stand-in for it (tests); what the interface's jobs and the player's worker run.
using Analyzer =
    std::function<FileResult(const std::string& path, TempoRange range, const FileAnalysisOptions&)>;
// The same on a reader already open, reading at most `maximumSeconds` of it (the fuzz target's bound).
FileResult analyzeReader(AudioFileReader& reader, TempoRange range, const FileAnalysisOptions& options = {},
                         double maximumSeconds = std::numeric_limits<double>::infinity());
// The live pair's readings at the first chunk boundary at or after every `everySeconds` of file time.
Timeline keyTimeline(const std::string& path, double everySeconds, const FileAnalysisOptions& options = {});
// The offline key analyzer's frames as CSV, written atomically to `outputPath`.
void dumpChroma(const std::string& inputPath, const std::string& outputPath,
                const FileAnalysisOptions& options = {});

}  // namespace fileAnalysis
}  // namespace velquin
