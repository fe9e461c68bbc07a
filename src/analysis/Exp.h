#pragma once
// Numeric tuning overrides read from the environment (TESSARO_EXP_<NAME>).
// The environment is read at every call; analyzers call these only in their constructors.

#include <optional>
#include <string_view>
#include <vector>

namespace velquin {

struct Exp {
    // The variable's value when its whole text is one number as strtod reads it in the "C" locale
    // (hex, inf and nan included; no leading white space); otherwise `defaultValue`.
    static double doubleValue(std::string_view name, double defaultValue);
    // Comma-separated numbers, empty and unparsable pieces dropped; `defaultValue` when none parse.
    static std::vector<double> list(std::string_view name, std::vector<double> defaultValue);

    // The parse rule itself, shared with the terminal's duration argument.
    static std::optional<double> parseNumber(const char* text);
};

}  // namespace velquin
