#include "analysis/FileResult.h"

namespace velquin::fileAnalysis {

std::string_view textName(Analysis analysis) {
    return analysis == Analysis::precise ? "precise" : "specified";
}

std::optional<Analysis> analysisFromTextName(std::string_view text) {
    if (text == "precise") return Analysis::precise;
    if (text == "specified") return Analysis::specified;
    return std::nullopt;
}

}  // namespace velquin::fileAnalysis
