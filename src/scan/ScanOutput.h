#pragma once
// One result per file in the three output formats.

#include <optional>
#include <string>
#include <string_view>

#include "analysis/FileResult.h"
#include "scan/ScanOptions.h"

namespace velquin::scan {

struct ScanRow {
    std::string path;                  // as found from the command line
    std::optional<FileResult> result;  // absent when the analysis failed
    std::string error;                 // the analysis error, or why the file was not tagged
    fileAnalysis::Analysis analysis = fileAnalysis::Analysis::specified;
};

// `text` fit for a terminal: control characters, bytes that are not UTF-8 and the backslash become
// C-style escapes ("\n", "\x1b", "\\"), so a file name can neither move the cursor nor hide its bytes.
std::string shownText(std::string_view text);

// The header line for a format ("" when it has none), without the line feed.
std::string headerLine(OutputFormat format);
// The row's line without the line feed: table is the `velquin --analyze` line with the path in
// place of the file name ("Error: …" and the path for a failed file), shown with shownText(); CSV and
// JSON keep every byte of the path and the error.
std::string rowLine(OutputFormat format, const ScanRow& row);

}  // namespace velquin::scan
