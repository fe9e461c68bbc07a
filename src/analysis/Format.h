#pragma once
// printf-style formatting, except that "%s" takes any text (std::string, std::string_view, const char*)
// and its width and "-" flag count characters (UTF-8 code points), not bytes, so "E♭m" pads like three
// letters.
// Numbers are always written in the "C" locale, whatever the process locale is.

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

namespace velquin {

class FormatArg {
  public:
    template <typename T>
    requires std::is_integral_v<T> FormatArg(T v)
        : kind_(Kind::Integer), integer_(static_cast<long long>(v)), real_(static_cast<double>(v)) {}
    FormatArg(double v) : kind_(Kind::Real), real_(v) {}
    FormatArg(float v) : kind_(Kind::Real), real_(v) {}
    FormatArg(std::string_view v) : kind_(Kind::Text), text_(v) {}
    FormatArg(const std::string& v) : kind_(Kind::Text), text_(v) {}
    FormatArg(const char* v) : kind_(Kind::Text), text_(v) {}

    enum class Kind { Integer, Real, Text };
    Kind kind() const { return kind_; }
    long long integer() const { return kind_ == Kind::Real ? static_cast<long long>(real_) : integer_; }
    double real() const { return real_; }
    std::string_view text() const { return text_; }

  private:
    Kind kind_;
    long long integer_ = 0;
    double real_ = 0;
    std::string_view text_;
};

std::string formatArgs(std::string_view fmt, std::initializer_list<FormatArg> args);

template <typename... Args>
std::string format(std::string_view fmt, const Args&... args) {
    return formatArgs(fmt, {FormatArg(args)...});
}

// Number of UTF-8 code points in `text`.
size_t characterCount(std::string_view text);

}  // namespace velquin
