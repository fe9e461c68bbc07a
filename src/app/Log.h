#pragma once
// The diagnostic log: an append-only text file of interface events that are hard to observe otherwise,
// "$XDG_STATE_HOME/Velquin/Velquin.log" (default "~/.local/state/Velquin/Velquin.log"). Always on, no
// levels. Each line is "yyyy-MM-dd HH:mm:ss.SSS message", stamped when write() is called; the file is
// written on one background thread, in call order, opened and closed for every line, never trimmed.
// Every file-system failure is ignored: logging never reports an error.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace velquin {

// One log file and its writer thread. diagnosticLog below is the process-wide one; tests make their own.
class LogWriter {
  public:
    // An empty path disables writing. The file's folder must exist (it is not created here).
    explicit LogWriter(std::filesystem::path file);
    ~LogWriter();  // writes whatever is queued, then stops the thread
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    // Any thread; returns at once.
    void write(std::string_view message);
    // Waits until every line queued before the call is on disk (or has failed to get there).
    void flush();
    const std::filesystem::path& file() const { return file_; }

  private:
    void run();

    const std::filesystem::path file_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable written_;
    std::deque<std::string> lines_;
    uint64_t queued_ = 0;
    uint64_t done_ = 0;
    bool stopping_ = false;
    std::thread thread_;  // last: starts after everything it uses
};

namespace diagnosticLog {

// Stamps `message` with the current local time and appends it to the log. Any thread; returns at once.
void write(std::string_view message);
// Waits until the lines written so far are in the file.
void flush();
// The log file; empty when there is no folder to put it in (the log is then off).
std::filesystem::path file();

// "Velquin" in the user's XDG state folder (with the passwd entry's home when HOME is unset); empty
// when no home is known at all.
std::filesystem::path folder();
// "yyyy-MM-dd HH:mm:ss.SSS" in local time.
std::string timestamp(std::chrono::system_clock::time_point when);

}  // namespace diagnosticLog

}  // namespace velquin
