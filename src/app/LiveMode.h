#pragma once
// `--live SOURCE [SECONDS [RECORDING]]`: drives a live TempoService from the terminal, prints every
// reading, and optionally records what was captured (mono 32-bit float).

#include <string>
#include <vector>

#include "analysis/MusicalKey.h"
#include "analysis/TempoEstimate.h"

namespace velquin::liveMode {

// `arguments` are those after the switch. Needs no Qt application object; makes its own.
int run(int argc, char** argv, const std::vector<std::string>& arguments);

// One printed reading, without the line feed.
std::string readingLine(const TempoEstimate& tempo, const KeyEstimate& key);

}  // namespace velquin::liveMode
