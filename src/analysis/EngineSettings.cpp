#include "analysis/EngineSettings.h"

#include <utility>

namespace velquin::engineSettings {

namespace {
AnalyzerParameters& installed() {
    static AnalyzerParameters value;
    return value;
}
}  // namespace

const AnalyzerParameters& parameters() {
    return installed();
}

void install(AnalyzerParameters parameters) {
    installed() = std::move(parameters);
}

}  // namespace velquin::engineSettings
