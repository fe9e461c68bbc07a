#pragma once
// The environment switches, read once at start:
//   VELQUIN_DEBUG          analysis diagnostics (periodicity tables, key and chord lines) on standard error
//   VELQUIN_PROFILE        "krumhansl", "temperley" or "shaath" key profiles; otherwise the blend
//   VELQUIN_EXP_<NAME>     numeric overrides of the analyzers' parameters (names in Environment.cpp)
//   VELQUIN_ANALYSIS       "precise": `--analyze` uses the precise whole-file analysis (no older spelling)
//   VELQUIN_NATIVE_WAYLAND the bar stays on native Wayland even where XWayland is reachable ("0" = unset)
// Each is also accepted under its older TESSARO_ spelling; the VELQUIN_ one wins when both are set.

#include <optional>
#include <string_view>

#include "analysis/LiveAnalysis.h"

namespace velquin::environment {

struct Switches {
    bool debug = false;
    bool preciseAnalysis = false;
    bool nativeWayland = false;
    AnalyzerParameters parameters;  // overrides applied, diagnostics routed to standard error
};

// Reads the process environment (call it once, at start).
Switches read();

// A number as strtod reads it in the "C" locale (hex, inf and nan included), the whole text and nothing
// else: no leading white space, nothing after it.
std::optional<double> parseNumber(const char* text);

}  // namespace velquin::environment
