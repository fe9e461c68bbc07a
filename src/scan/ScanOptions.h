#pragma once
// The command line of velquin-scan.

#include <optional>
#include <string>
#include <vector>

#include "analysis/FileResult.h"
#include "analysis/TempoRange.h"

namespace velquin::scan {

enum class OutputFormat { table, csv, json };

struct ScanOptions {
    std::vector<std::string> paths;
    int jobs = 1;
    TempoRange range = TempoRange::Auto;
    fileAnalysis::Analysis analysis = fileAnalysis::Analysis::specified;
    OutputFormat format = OutputFormat::table;
    bool writeTags = false;
    bool camelotTags = false;  // --key-notation camelot: the key tag holds "8A"
    bool touch = false;        // tagged files get a new modification time
    bool force = false;        // analyse even what the cache knows
    bool help = false;
    bool version = false;
};

struct ParsedOptions {
    std::optional<ScanOptions> options;
    std::string error;  // the usage error when options is empty
};

// `arguments` without the program name. `defaultJobs` and `stdoutIsTerminal` supply the defaults.
ParsedOptions parseOptions(const std::vector<std::string>& arguments, int defaultJobs, bool stdoutIsTerminal);

extern const char* const helpText;

}  // namespace velquin::scan
