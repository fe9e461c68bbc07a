#pragma once
// The analyzer parameters this process runs with: the shipped defaults, unless the application installs
// others (its environment overrides) once at start, before any analysis thread exists.

#include "analysis/LiveAnalysis.h"

namespace velquin::engineSettings {

const AnalyzerParameters& parameters();
void install(AnalyzerParameters parameters);

}  // namespace velquin::engineSettings
