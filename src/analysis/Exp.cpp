#include "Exp.h"

#include <cstdlib>
#include <locale.h>
#include <string>

namespace velquin {

namespace {

locale_t cLocale() {
    // Created once; never freed, it lives as long as the process.
    static const locale_t loc = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
    return loc;
}

const char* lookup(std::string_view name) {
    std::string var = "TESSARO_EXP_";
    var += name;
    return std::getenv(var.c_str());
}

}  // namespace

std::optional<double> Exp::parseNumber(const char* text) {
    if (text == nullptr || *text == '\0') return std::nullopt;
    // strtod would skip these itself; the rule says they make the text invalid.
    switch (*text) {
        case ' ': case '\t': case '\n': case '\v': case '\f': case '\r':
            return std::nullopt;
        default:
            break;
    }
    char* end = nullptr;
    const double value = strtod_l(text, &end, cLocale());
    if (end == text || *end != '\0') return std::nullopt;
    return value;
}

double Exp::doubleValue(std::string_view name, double defaultValue) {
    return parseNumber(lookup(name)).value_or(defaultValue);
}

std::vector<double> Exp::list(std::string_view name, std::vector<double> defaultValue) {
    const char* text = lookup(name);
    if (text == nullptr) return defaultValue;
    std::vector<double> values;
    std::string_view rest(text);
    while (!rest.empty()) {
        const size_t comma = rest.find(',');
        const std::string piece(rest.substr(0, comma));
        if (auto v = parseNumber(piece.c_str())) values.push_back(*v);
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    return values.empty() ? defaultValue : values;
}

}  // namespace velquin
