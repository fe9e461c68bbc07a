#include "app/Environment.h"

#include <locale.h>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace velquin::environment {

namespace {

// The one alias table: the project's own prefix first, then the name the switches had before.
constexpr std::array<std::string_view, 2> prefixes = {"VELQUIN_", "TESSARO_"};

const char* lookup(std::string_view name) {
    for (std::string_view prefix : prefixes) {
        const std::string variable = std::string(prefix) + std::string(name);
        if (const char* value = std::getenv(variable.c_str())) return value;
    }
    return nullptr;
}

locale_t cLocale() {
    // Created once; never freed, it lives as long as the process.
    static const locale_t loc = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
    return loc;
}

void override(std::string_view name, double& value) {
    const std::string experiment = "EXP_" + std::string(name);
    if (auto parsed = parseNumber(lookup(experiment))) value = *parsed;
}

// A mode switch is kept only when it converts to an integer.
void override(std::string_view name, int64_t& value) {
    double number = static_cast<double>(value);
    override(name, number);
    if (std::isfinite(number) && std::fabs(number) < 9.2e18) value = static_cast<int64_t>(number);
}

// Comma-separated numbers; empty and unparsable pieces are dropped, and none parsing keeps the default.
void override(std::string_view name, std::vector<double>& value) {
    const char* text = lookup("EXP_" + std::string(name));
    if (text == nullptr) return;
    std::vector<double> values;
    std::string_view rest(text);
    while (!rest.empty()) {
        const size_t comma = rest.find(',');
        const std::string piece(rest.substr(0, comma));
        if (auto v = parseNumber(piece.c_str())) values.push_back(*v);
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    if (!values.empty()) value = values;
}

void overrideTempo(TempoParameters& p) {
    override("TEMPOHIST", p.historySeconds);
    override("TEMPOHOLD", p.ratioHoldSeconds);
    override("TEMPOSWITCH", p.switchSeconds);
}

void overrideKey(KeyParameters& p) {
    override("FMIN", p.minFrequency);
    override("FMAX", p.maxFrequency);
    override("HARM", p.harmonicWeights);
    override("HIST", p.historySeconds);
    override("DIST", p.semitoneTolerance);
    override("THR", p.peakThreshold);
    override("BASS", p.bassBoost);
    override("BASSHZ", p.bassMaxHz);
    override("FRAMEW", p.frameWeighting);
    override("COMP", p.peakCompression);
    override("CHORDW", p.chordWeight);
    override("CHORDWIN", p.chordWindowSeconds);
    override("CHORDCONF", p.chordMinConfidence);
    override("RELGAP", p.relativeGap);
    override("BASSW", p.bassTonicWeight);
    override("SILENCE", p.silenceResetSeconds);
    override("SHIFTSHORT", p.shiftShortSeconds);
    override("SHIFTTHR", p.shiftThreshold);
    override("SHIFTHOLD", p.shiftHoldSeconds);
}

KeyProfile::Name profile() {
    const char* name = lookup("PROFILE");
    if (name == nullptr) return KeyProfile::Name::blend;
    if (std::strcmp(name, "krumhansl") == 0) return KeyProfile::Name::krumhansl;
    if (std::strcmp(name, "temperley") == 0) return KeyProfile::Name::temperley;
    if (std::strcmp(name, "shaath") == 0) return KeyProfile::Name::shaath;
    return KeyProfile::Name::blend;
}

void toStandardError(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace

std::optional<double> parseNumber(const char* text) {
    if (text == nullptr || *text == '\0') return std::nullopt;
    // strtod would skip these itself; here they make the text invalid.
    switch (*text) {
        case ' ':
        case '\t':
        case '\n':
        case '\v':
        case '\f':
        case '\r':
            return std::nullopt;
        default:
            break;
    }
    char* end = nullptr;
    const double value = strtod_l(text, &end, cLocale());
    if (end == text || *end != '\0') return std::nullopt;
    return value;
}

Switches read() {
    Switches switches;
    switches.debug = lookup("DEBUG") != nullptr;
    const char* analysis = std::getenv("VELQUIN_ANALYSIS");
    switches.preciseAnalysis = analysis != nullptr && std::strcmp(analysis, "precise") == 0;
    const char* wayland = lookup("NATIVE_WAYLAND");
    switches.nativeWayland = wayland != nullptr && *wayland != '\0' && std::strcmp(wayland, "0") != 0;
    overrideTempo(switches.parameters.tempo);
    overrideKey(switches.parameters.key);
    switches.parameters.key.profile = profile();
    if (switches.debug) {
        switches.parameters.tempo.onDebug = toStandardError;
        switches.parameters.key.onDebug = toStandardError;
    }
    return switches;
}

}  // namespace velquin::environment
