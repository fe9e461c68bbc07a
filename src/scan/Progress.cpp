#include "scan/Progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include "analysis/Format.h"
#include "scan/ScanOutput.h"

namespace velquin::scan {

namespace {

size_t terminalWidth(std::FILE* stream) {
    winsize size{};
    if (::ioctl(::fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) return size.ws_col;
    return 80;
}

// The end of `text` in at most `width` characters, with "…" where it was cut.
std::string tail(const std::string& text, size_t width) {
    if (characterCount(text) <= width) return text;
    size_t start = text.size();
    for (size_t kept = 0; start > 0 && kept + 1 < width; ++kept) {
        --start;
        while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) --start;
    }
    return "…" + text.substr(start);
}

}  // namespace

std::string clockText(double seconds) {
    const long long whole = seconds > 0 ? static_cast<long long>(seconds + 0.5) : 0;
    if (whole >= 3600) return format("%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    return format("%lld:%02lld", whole / 60, whole % 60);
}

Progress::Progress(std::FILE* stream)
    : stream_(stream), enabled_(::isatty(::fileno(stream)) == 1), start_(std::chrono::steady_clock::now()) {}

void Progress::update(size_t done, size_t total, const std::string& current, bool force) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && shown_ && now - lastDraw_ < std::chrono::milliseconds(100)) return;
    lastDraw_ = now;

    const double elapsed = std::chrono::duration<double>(now - start_).count();
    const std::string left = done > 0 ? clockText(elapsed * static_cast<double>(total - done) / done) : "?";
    constexpr int barWidth = 20;
    const int filled = total > 0 ? static_cast<int>(barWidth * done / total) : 0;
    std::string bar = "[" + std::string(static_cast<size_t>(filled), '#') +
                      std::string(static_cast<size_t>(barWidth - filled), '-') + "]";
    std::string line =
        format("%s %zu/%zu  %s elapsed, %s left  ", bar, done, total, clockText(elapsed), left);
    const size_t width = terminalWidth(stream_) - 1;  // the last column would wrap on some terminals
    if (characterCount(line) < width) line += tail(shownText(current), width - characterCount(line));
    std::fprintf(stream_, "\r\033[K%s", line.c_str());
    std::fflush(stream_);
    shown_ = true;
}

void Progress::clear() {
    if (!enabled_ || !shown_) return;
    std::fputs("\r\033[K", stream_);
    std::fflush(stream_);
    shown_ = false;
}

}  // namespace velquin::scan
