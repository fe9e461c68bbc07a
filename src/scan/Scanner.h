#pragma once
// A whole scan: find the files, analyse them on worker threads (or take them from the cache), tag
// them, and print the results in path order as they become available.

#include <atomic>
#include <cstdio>

#include "scan/ScanOptions.h"

namespace velquin::scan {

// Returns the exit code: 0 when every file succeeded, 1 when some failed, a folder could not be searched
// or the results could not be written ("Error: could not write the results: …" on `err`, and the scan
// stops), 128 + the signal number when `stopSignal` was set (the scan then stops within a second after
// the files in hand and prints what it finished). May end the process itself when a worker cannot be
// stopped in time. File names in messages on `err` are escaped as in the table.
int runScan(const ScanOptions& options, std::FILE* out, std::FILE* err, const std::atomic<int>& stopSignal);

// Writes `text` (the help, the version) to `out`; 0, or 1 with the error on `err` when it cannot.
int printText(const char* text, std::FILE* out, std::FILE* err);

}  // namespace velquin::scan
