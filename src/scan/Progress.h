#pragma once
// The one-line progress display on a terminal's standard error: files done of all, the file being
// analysed (escaped as in the table), the time so far and the time left. Redrawn at most ten times a second.

#include <chrono>
#include <cstdio>
#include <string>

namespace velquin::scan {

class Progress {
  public:
    // Draws only when `stream` is a terminal.
    explicit Progress(std::FILE* stream);

    // Redraws unless the last drawing was less than 0.1 s ago (or `force`).
    void update(size_t done, size_t total, const std::string& current, bool force = false);
    // Wipes the line, so that other output starts on a clean line; the next update draws it again.
    void clear();

  private:
    std::FILE* stream_;
    bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastDraw_;
};

// "1:05", "12:00:00": whole seconds as minutes and seconds, with hours when there are any.
std::string clockText(double seconds);

}  // namespace velquin::scan
