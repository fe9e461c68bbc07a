#include "app/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "system/XdgPaths.h"

namespace velquin {

namespace {

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// Appends to an existing file; when there is none yet, the line becomes the whole of a new file,
// written beside it and renamed into place so that no reader ever sees half of it.
void appendLine(const std::filesystem::path& file, const std::string& line) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd >= 0) {
        writeAll(fd, line);
        ::close(fd);
        return;
    }
    std::string temp = (file.parent_path() / ("." + file.filename().string() + ".XXXXXX")).string();
    const int tfd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (tfd < 0) return;
    const bool ok = writeAll(tfd, line);
    ::close(tfd);
    if (!ok || ::rename(temp.c_str(), file.c_str()) != 0) ::unlink(temp.c_str());
}

// Like `mkdir -p`, but folders it creates are private to the user.
void makeFolders(const std::filesystem::path& folder) {
    std::filesystem::path partial;
    for (const auto& part : folder) {
        partial /= part;
        ::mkdir(partial.c_str(), 0700);  // existing folders fail harmlessly
    }
}

LogWriter& processLog() {
    static LogWriter writer([] {
        const std::filesystem::path folder = diagnosticLog::folder();
        if (folder.empty()) return std::filesystem::path();
        makeFolders(folder);
        return folder / "Velquin.log";
    }());
    return writer;
}

}  // namespace

LogWriter::LogWriter(std::filesystem::path file) : file_(std::move(file)), thread_([this] { run(); }) {}

LogWriter::~LogWriter() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void LogWriter::write(std::string_view message) {
    if (file_.empty()) return;
    std::string line = diagnosticLog::timestamp(std::chrono::system_clock::now());
    line.reserve(line.size() + 2 + message.size());
    line += ' ';
    line += message;
    line += '\n';
    {
        std::lock_guard lock(mutex_);
        lines_.push_back(std::move(line));
        ++queued_;
    }
    wake_.notify_one();
}

void LogWriter::flush() {
    std::unique_lock lock(mutex_);
    const uint64_t target = queued_;
    written_.wait(lock, [&] { return done_ >= target; });
}

void LogWriter::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return stopping_ || !lines_.empty(); });
        if (lines_.empty()) return;  // stopping, and everything is written
        std::string line = std::move(lines_.front());
        lines_.pop_front();
        lock.unlock();
        appendLine(file_, line);
        lock.lock();
        ++done_;
        written_.notify_all();
    }
}

namespace diagnosticLog {

void write(std::string_view message) {
    processLog().write(message);
}

void flush() {
    processLog().flush();
}

std::filesystem::path file() {
    return processLog().file();
}

std::filesystem::path folder() {
    const std::filesystem::path state = xdg::stateHome();
    return state.empty() ? state : state / "Velquin";
}

std::string timestamp(std::chrono::system_clock::time_point when) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[40];
    const size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + n, sizeof text - n, ".%03d", static_cast<int>(millis < 0 ? millis + 1000 : millis));
    return text;
}

}  // namespace diagnosticLog

}  // namespace velquin
