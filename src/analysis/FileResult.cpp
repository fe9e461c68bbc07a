#include "analysis/FileResult.h"

namespace velquin::FileAnalysis {

std::string_view rawValue(Analysis analysis) {
    return analysis == Analysis::precise ? "precise" : "specified";
}

std::optional<Analysis> analysisFromRaw(std::string_view text) {
    if (text == "precise") return Analysis::precise;
    if (text == "specified") return Analysis::specified;
    return std::nullopt;
}

}  // namespace velquin::FileAnalysis
