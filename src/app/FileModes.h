#pragma once
// The one-shot terminal modes that analyse a file. Each prints its result on `out`, or one
// "Error: …" line on `err` (and nothing on `out`), and returns the process exit code.

#include <cstdio>
#include <string>
#include <vector>

#include "analysis/MusicalKey.h"
#include "analysis/TempoEstimate.h"

namespace velquin::fileModes {

// `precise`: the precise whole-file analysis instead of the live engine's.
int analyze(const std::vector<std::string>& arguments, std::FILE* out, std::FILE* err, bool precise = false);
int timeline(const std::vector<std::string>& arguments, std::FILE* out, std::FILE* err);
int chroma(const std::vector<std::string>& arguments, std::FILE* out, std::FILE* err);

}  // namespace velquin::fileModes
