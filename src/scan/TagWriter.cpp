#include "TagWriter.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>

#include "TagFields.h"

namespace velquin::scan {

namespace {

constexpr std::string_view kCopyMarker = ".velquin-";

std::mutex copiesMutex;
std::set<std::string> copiesInProgress;  // guarded by copiesMutex
bool copiesAbandoned = false;            // guarded by copiesMutex

std::string errnoText() {
    return std::strerror(errno);
}

// The copy is named after the original, is hidden, and keeps the extension (which tells TagLib the
// container); the process id lets a later scan recognise a copy whose writer was killed.
std::optional<std::string> makeCopyFile(const std::filesystem::path& target, int& fd) {
    const std::string extension = target.extension().string();
    std::string name = (target.parent_path() / ("." + target.filename().string())).string();
    name += std::string(kCopyMarker) + std::to_string(::getpid()) + "-XXXXXX" + extension;
    std::lock_guard lock(copiesMutex);
    if (copiesAbandoned) return std::nullopt;
    fd = ::mkostemps(name.data(), static_cast<int>(extension.size()), O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    copiesInProgress.insert(name);
    return name;
}

void forgetCopy(const std::string& name, bool remove) {
    std::lock_guard lock(copiesMutex);
    if (remove) ::unlink(name.c_str());
    copiesInProgress.erase(name);
}

bool copyContents(int from, int to) {
    for (;;) {
        const ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
        if (n == 0) return true;
        if (n > 0) continue;
        if (errno == EINTR) continue;
        if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return false;
        break;  // no kernel copy between these files: copy by hand from where it stopped
    }
    char buffer[1 << 16];
    for (;;) {
        const ssize_t n = ::read(from, buffer, sizeof buffer);
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        for (ssize_t done = 0; done < n;) {
            const ssize_t written = ::write(to, buffer + done, static_cast<size_t>(n - done));
            if (written < 0 && errno != EINTR) return false;
            if (written > 0) done += written;
        }
    }
}

// Flushes the copy and gives it the original's owner, mode and (unless touched) times.
bool finishCopy(const std::string& copy, const struct stat& original, bool touch) {
    const int fd = ::open(copy.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = ::fchmod(fd, original.st_mode & 07777) == 0;
    if (::fchown(fd, original.st_uid, original.st_gid) != 0) {
        // Only root may give a file away; an ordinary user's copy is already theirs.
    }
    if (!touch) {
        const struct timespec times[2] = {original.st_atim, original.st_mtim};
        ok = ok && ::futimens(fd, times) == 0;
    }
    ok = ::fsync(fd) == 0 && ok;
    return ::close(fd) == 0 && ok;
}

void syncFolder(const std::filesystem::path& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

std::string tagKeyName(const MusicalKey& key) {
    std::string name = key.shortName();
    for (const auto& [sign, ascii] : {std::pair<std::string_view, std::string_view>{"♭", "b"}, {"♯", "#"}}) {
        for (size_t at = name.find(sign); at != std::string::npos; at = name.find(sign, at))
            name.replace(at, sign.size(), ascii);
    }
    return name;
}

std::optional<std::string> writeTags(const std::string& path, const TempoEstimate& tempo,
                                     const KeyEstimate& key, const TagRequest& request) {
    TagValues values;
    if (tempo.bpm > 0) values.bpm = static_cast<int>(std::lround(tempo.bpm));
    if (key.key) {
        const std::string name = tagKeyName(*key.key), camelot = key.key->camelot();
        values.key = request.camelot ? camelot : name;
        values.otherKey = request.camelot ? name : camelot;
        values.otherField = request.camelot ? "KEY" : "CAMELOT";
    }
    if (!values.bpm && !values.key) return std::nullopt;  // nothing found, nothing to write

    // A symbolic link stays a link: the file it points to is the one replaced.
    std::error_code error;
    const std::filesystem::path target = std::filesystem::canonical(path, error);
    struct stat original {};
    if (error || ::stat(target.c_str(), &original) != 0) return "not tagged: " + errnoText();
    if (!tagFormatOf(target.string())) return std::string("not tagged: unsupported container");
    // A library scanned again is not copied file by file for nothing.
    if (tagsAlreadyHold(target.string(), values)) return std::nullopt;
    // Renaming over a read-only file would succeed in a writable folder; its mode is the owner's "no".
    if ((original.st_mode & S_IWUSR) == 0 || ::access(target.c_str(), W_OK) != 0)
        return std::string("not tagged: read-only file");

    int fd = -1;
    const auto copy = makeCopyFile(target, fd);
    if (!copy) return "not tagged: cannot write in its folder: " + errnoText();
    const int source = ::open(target.c_str(), O_RDONLY | O_CLOEXEC);
    const bool copied = source >= 0 && copyContents(source, fd);
    const std::string copyError = errnoText();
    if (source >= 0) ::close(source);
    if (::close(fd) != 0 || !copied) {
        forgetCopy(*copy, true);
        return "not tagged: could not copy the file: " + copyError;
    }
    if (const auto why = applyTagValues(*copy, values)) {
        forgetCopy(*copy, true);
        return "not tagged: " + *why;
    }
    if (!finishCopy(*copy, original, request.touch) || ::rename(copy->c_str(), target.c_str()) != 0) {
        const std::string why = errnoText();
        forgetCopy(*copy, true);
        return "not tagged: " + why;
    }
    forgetCopy(*copy, false);
    syncFolder(target.parent_path());
    return std::nullopt;
}

void abandonTagCopies() {
    std::lock_guard lock(copiesMutex);
    copiesAbandoned = true;
    for (const std::string& name : copiesInProgress) ::unlink(name.c_str());
    copiesInProgress.clear();
}

void removeIfStaleTagCopy(const std::string& path) {
    const size_t marker = path.rfind(kCopyMarker);
    const size_t slash = path.rfind('/');
    if (marker == std::string::npos || (slash != std::string::npos && marker < slash)) return;
    const char* digits = path.c_str() + marker + kCopyMarker.size();
    char* end = nullptr;
    const long pid = std::strtol(digits, &end, 10);
    if (end == digits || *end != '-' || pid <= 0) return;
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) ::unlink(path.c_str());
}

}  // namespace velquin::scan
