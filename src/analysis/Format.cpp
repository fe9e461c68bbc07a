#include "analysis/Format.h"

#include <locale.h>
#include <cstdio>

namespace velquin {

namespace {

locale_t cLocale() {
    static const locale_t loc = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
    return loc;
}

// Switches the calling thread to the "C" locale for the lifetime of the object.
class CLocaleScope {
  public:
    CLocaleScope() : previous_(uselocale(cLocale())) {}
    ~CLocaleScope() { uselocale(previous_); }
    CLocaleScope(const CLocaleScope&) = delete;
    CLocaleScope& operator=(const CLocaleScope&) = delete;

  private:
    locale_t previous_;
};

bool isFlag(char c) {
    return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string_view prefixOfCharacters(std::string_view text, size_t characters) {
    size_t seen = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            if (seen == characters) return text.substr(0, i);
            ++seen;
        }
    }
    return text;
}

void appendText(std::string& out, std::string_view text, bool leftAlign, int width, int precision) {
    if (precision >= 0) text = prefixOfCharacters(text, static_cast<size_t>(precision));
    const size_t count = characterCount(text);
    const size_t pad =
        width > 0 && static_cast<size_t>(width) > count ? static_cast<size_t>(width) - count : 0;
    if (!leftAlign) out.append(pad, ' ');
    out.append(text);
    if (leftAlign) out.append(pad, ' ');
}

}  // namespace

size_t characterCount(std::string_view text) {
    size_t n = 0;
    for (char c : text)
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++n;
    return n;
}

std::string formatArgs(std::string_view fmt, std::initializer_list<FormatArg> args) {
    CLocaleScope cLocaleScope;
    std::string out;
    out.reserve(fmt.size() + 16 * args.size());
    auto arg = args.begin();
    char buffer[512];

    for (size_t i = 0; i < fmt.size(); ++i) {
        const char c = fmt[i];
        if (c != '%') {
            out.push_back(c);
            continue;
        }
        const size_t start = i++;
        if (i < fmt.size() && fmt[i] == '%') {
            out.push_back('%');
            continue;
        }
        bool leftAlign = false;
        while (i < fmt.size() && isFlag(fmt[i])) leftAlign |= fmt[i++] == '-';
        int width = 0;
        while (i < fmt.size() && isDigit(fmt[i])) width = width * 10 + (fmt[i++] - '0');
        int precision = -1;
        if (i < fmt.size() && fmt[i] == '.') {
            ++i;
            precision = 0;
            while (i < fmt.size() && isDigit(fmt[i])) precision = precision * 10 + (fmt[i++] - '0');
        }
        const size_t lengthStart = i;
        while (i < fmt.size() && (fmt[i] == 'l' || fmt[i] == 'h' || fmt[i] == 'z' || fmt[i] == 'j' ||
                                  fmt[i] == 'L' || fmt[i] == 'q' || fmt[i] == 't'))
            ++i;
        if (i >= fmt.size()) {  // dangling '%': keep it literally
            out.append(fmt.substr(start));
            break;
        }
        const char conversion = fmt[i];
        // Spec without the length modifier; the right one is added per argument type below.
        std::string spec(fmt.substr(start, lengthStart - start));
        if (arg == args.end()) {
            out.append(fmt.substr(start, i + 1 - start));
            continue;
        }
        const FormatArg& a = *arg++;
        switch (conversion) {
            case 's':
                if (a.kind() == FormatArg::Kind::Text) {
                    appendText(out, a.text(), leftAlign, width, precision);
                } else {
                    appendText(out, formatArgs("%g", {a}), leftAlign, width, precision);
                }
                continue;
            case 'd':
            case 'i':
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                spec += "ll";
                spec += conversion;
                std::snprintf(buffer, sizeof buffer, spec.c_str(), a.integer());
                break;
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                spec += conversion;
                std::snprintf(buffer, sizeof buffer, spec.c_str(), a.real());
                break;
            default:
                out.append(fmt.substr(start, i + 1 - start));
                continue;
        }
        out.append(buffer);
    }
    return out;
}

}  // namespace velquin
