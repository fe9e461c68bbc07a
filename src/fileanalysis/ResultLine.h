#pragma once
// The one line a file's result is printed as, by `--analyze` and by velquin-scan's text output.

#include <string>

#include "analysis/MusicalKey.h"
#include "analysis/TempoEstimate.h"

namespace velquin {

// The result without the file name: "120.00 BPM ( 90%)  Am   8A   ( 80%)  tuning  +0.0 cents".
std::string resultLine(const TempoEstimate& tempo, const KeyEstimate& key);

}  // namespace velquin
