#include "scan/ScanOutput.h"

#include <cstdio>
#include <vector>

#include "analysis/Format.h"
#include "fileanalysis/ResultLine.h"

namespace velquin::scan {

namespace {

// One field of a row: text, number or absent.
struct Field {
    std::optional<std::string> value;
    bool number = false;
};

Field text(std::optional<std::string> value) {
    return {std::move(value), false};
}
Field number(std::optional<std::string> value) {
    return {std::move(value), true};
}

std::vector<Field> fieldsOf(const ScanRow& row) {
    const auto& r = row.result;
    const bool tempo = r && r->tempo.bpm > 0;
    const auto& key = r ? r->key.key : std::nullopt;
    const auto& alternative = r ? r->key.alternative : std::nullopt;
    const auto ifKey = [&](const char* fmt, double value) {
        return key ? std::optional(format(fmt, value)) : std::nullopt;
    };
    return {
        text(row.path),
        number(tempo ? std::optional(format("%.2f", r->tempo.bpm)) : std::nullopt),
        number(tempo ? std::optional(format("%.3f", r->tempo.confidence)) : std::nullopt),
        text(key ? std::optional(key->shortName()) : std::nullopt),
        text(key ? std::optional(key->camelot()) : std::nullopt),
        number(ifKey("%.3f", r ? r->key.confidence : 0)),
        text(alternative ? std::optional(alternative->shortName()) : std::nullopt),
        number(ifKey("%.1f", r ? r->key.tuningCents : 0)),
        number(r ? std::optional(format("%.3f", r->durationSeconds)) : std::nullopt),
        text(row.error.empty() ? std::nullopt : std::optional(row.error)),
        text(std::string(fileAnalysis::textName(row.analysis))),
    };
}

constexpr const char* fieldNames[] = {
    "path",        "bpm",          "bpm_confidence", "key",   "camelot", "key_confidence",
    "alternative", "tuning_cents", "duration_s",     "error", "analysis"};

std::string csvField(const Field& field) {
    if (!field.value) return "";
    const std::string& value = *field.value;
    if (value.find_first_of(",\"\r\n") == std::string::npos) return value;
    std::string quoted = "\"";
    for (char c : value) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

// Length of the valid UTF-8 sequence at `at`, or 0 when the byte there starts none.
size_t utf8Length(std::string_view s, size_t at) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char lead = byte(at);
    const size_t length = lead < 0x80                   ? 1
                          : lead >= 0xC2 && lead < 0xE0 ? 2
                          : lead >= 0xE0 && lead < 0xF0 ? 3
                          : lead >= 0xF0 && lead < 0xF5 ? 4
                                                        : 0;
    if (length == 0 || at + length > s.size()) return 0;
    for (size_t i = at + 1; i < at + length; ++i)
        if ((byte(i) & 0xC0) != 0x80) return 0;
    return length;
}

// File names are bytes; JSON is UTF-8 text, so a byte that is not UTF-8 becomes U+FFFD.
std::string jsonString(const std::string& value) {
    std::string out = "\"";
    for (size_t i = 0; i < value.size();) {
        const unsigned char c = static_cast<unsigned char>(value[i]);
        const size_t length = utf8Length(value, i);
        if (length == 0) {
            out += "\\ufffd";
            ++i;
            continue;
        }
        if (c == '"' || c == '\\')
            out += std::string("\\") + static_cast<char>(c);
        else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else
            out.append(value, i, length);
        i += length;
    }
    return out + "\"";
}

}  // namespace

std::string shownText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const size_t length = utf8Length(text, i);
        // U+0080…U+009F are control characters too; escaping their first byte leaves the second
        // standing alone, so it is escaped in turn.
        const bool c1 = length == 2 && c == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        if (length != 0 && !c1 && c >= 0x20 && c != 0x7F && c != '\\') {
            out.append(text, i, length);
            i += length;
            continue;
        }
        switch (c) {
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                out += format("\\x%02x", c);
        }
        ++i;
    }
    return out;
}

std::string headerLine(OutputFormat format) {
    if (format != OutputFormat::csv) return "";
    std::string line;
    for (const char* name : fieldNames) line += (line.empty() ? "" : ",") + std::string(name);
    return line;
}

std::string rowLine(OutputFormat outputFormat, const ScanRow& row) {
    if (outputFormat == OutputFormat::table) {
        if (!row.result) return shownText("Error: " + row.error + "  " + row.path);
        return resultLine(row.result->tempo, row.result->key) + "  " + shownText(row.path);
    }
    const auto fields = fieldsOf(row);
    std::string line = outputFormat == OutputFormat::json ? "{" : "";
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) line += ',';
        if (outputFormat == OutputFormat::csv) {
            line += csvField(fields[i]);
            continue;
        }
        line += "\"" + std::string(fieldNames[i]) + "\":";
        if (!fields[i].value)
            line += "null";
        else
            line += fields[i].number ? *fields[i].value : jsonString(*fields[i].value);
    }
    return outputFormat == OutputFormat::json ? line + "}" : line;
}

}  // namespace velquin::scan
