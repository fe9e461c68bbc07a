#pragma once
// A whole scan: find the files, analyse them on worker threads (or take them from the cache), tag
// them, and print the results in path order as they become available.

#include <atomic>
#include <cstdio>

#include "ScanOptions.h"

namespace velquin::scan {

// Returns the exit code: 0 when every file succeeded, 1 when some failed, 130 when `interrupted`
// was set (the scan then stops within a second and prints what it finished). May end the process
// itself when a worker cannot be stopped in time.
int runScan(const ScanOptions& options, std::FILE* out, std::FILE* err, const std::atomic<bool>& interrupted);

}  // namespace velquin::scan
