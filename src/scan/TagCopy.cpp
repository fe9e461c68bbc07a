#include "scan/TagCopy.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <vector>

#include "scan/Container.h"

namespace velquin::scan {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view makingPrefix = ".velquin-tag-";
constexpr std::string_view readyPrefix = ".velquin-ready-";
constexpr std::string_view oldMarker = ".velquin-";  // earlier versions: ".NAME.velquin-PID-XXXXXX.ext"

std::mutex copiesMutex;
std::set<std::string> copiesBeingMade;  // guarded by copiesMutex
bool copiesAbandoned = false;           // guarded by copiesMutex

bool syncFolder(const fs::path& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
}

bool readFully(int fd, int64_t offset, char* data, size_t size, size_t& got) {
    const int64_t n = readBytesAt(fd, offset, data, size);
    got = static_cast<size_t>(std::max<int64_t>(n, 0));
    return n >= 0;
}

// Makes `to` byte for byte `from`, writing only the blocks that differ (an unchanged stretch, such as a
// FLAC file's audio behind its padding, is only read); finishFile() flushes it.
std::optional<std::string> writeBlocks(int from, int to) {
    const auto failed = [](const char* what) { return std::string(what) + ": " + std::strerror(errno); };
    struct stat info {};
    if (::fstat(from, &info) != 0) return failed("could not read the tagged copy");
    std::vector<char> wanted(1 << 20), present(1 << 20);
    for (int64_t offset = 0; offset < info.st_size;) {
        size_t got = 0, have = 0;
        if (!readFully(from, offset, wanted.data(), wanted.size(), got))
            return failed("could not read the tagged copy");
        if (got == 0) {
            errno = EIO;
            return failed("the tagged copy ended early");
        }
        if (!readFully(to, offset, present.data(), got, have)) return failed("could not read the file");
        if (have != got || std::memcmp(wanted.data(), present.data(), got) != 0) {
            for (size_t done = 0; done < got;) {
                const ssize_t n =
                    ::pwrite(to, wanted.data() + done, got - done, offset + static_cast<int64_t>(done));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) return failed("could not write the file");
                done += static_cast<size_t>(n);
            }
        }
        offset += static_cast<int64_t>(got);
    }
    if (::ftruncate(to, info.st_size) != 0) return failed("could not set the file's length");
    return std::nullopt;
}

// Gives the written file its times (or keeps the present one when `times` is null) and flushes it, all in
// one flush. Returns why the content could not be flushed; `timesError` says why the times were not kept,
// which needs no copy kept.
std::optional<std::string> finishFile(int fd, const struct timespec* times, std::string& timesError) {
    if (times != nullptr && ::futimens(fd, times) != 0) timesError = std::strerror(errno);
    if (::fsync(fd) != 0) return std::string("could not flush the file: ") + std::strerror(errno);
    return std::nullopt;
}

std::optional<ino_t> readyInode(std::string_view name) {
    if (!name.starts_with(readyPrefix)) return std::nullopt;
    const std::string digits(name.substr(readyPrefix.size()));
    char* end = nullptr;
    const unsigned long long inode = std::strtoull(digits.c_str(), &end, 10);
    if (digits.empty() || *end != '\0') return std::nullopt;
    return static_cast<ino_t>(inode);
}

// The regular file in `folder` whose inode is `inode`, if one is there.
std::optional<fs::path> fileOfInode(const fs::path& folder, ino_t inode) {
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) return std::nullopt;
    std::optional<fs::path> found;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_ino != inode || readyInode(entry->d_name)) continue;
        struct stat info {};
        const fs::path path = folder / entry->d_name;
        if (::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_ino == inode) {
            found = path;
            break;
        }
    }
    ::closedir(dir);
    return found;
}

// Writes a ready copy whose writer is gone into its file, then removes it.
void finishReadyCopy(const fs::path& copy, ino_t inode, std::optional<fs::path> target) {
    const int fd = ::open(copy.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return;
    struct stat info {};
    // Only a copy of our own: one planted by someone else would have us write their bytes into a file.
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_uid != ::geteuid()) {
        ::close(fd);  // its writer is still at work, or it is no copy of ours
        return;
    }
    if (!target) target = fileOfInode(copy.parent_path(), inode);
    const int file = target ? ::open(target->c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW) : -1;
    struct stat fileInfo {};
    if (file >= 0 && ::fstat(file, &fileInfo) == 0 && fileInfo.st_ino == inode &&
        fileInfo.st_dev == info.st_dev) {
        // The copy carries the times the file is to keep.
        const struct timespec times[2] = {info.st_atim, info.st_mtim};
        std::string timesError;
        if (!writeBlocks(fd, file) && !finishFile(file, times, timesError)) {
            ::unlink(copy.c_str());
        }
    }
    if (file >= 0) ::close(file);
    ::close(fd);
}

}  // namespace

TagCopy::TagCopy(const fs::path& folder) : folder_(folder) {
    std::string name = (folder / (std::string(makingPrefix) + "XXXXXX")).string();
    std::lock_guard lock(copiesMutex);
    if (copiesAbandoned) {
        errno = ECANCELED;
        return;
    }
    fd_ = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd_ < 0) return;
    ::flock(fd_, LOCK_EX);  // lasts as long as this process holds the copy open
    name_ = std::move(name);
    copiesBeingMade.insert(name_);
}

TagCopy::~TagCopy() {
    if (fd_ < 0) return;
    std::lock_guard lock(copiesMutex);
    if (!done_ && copiesBeingMade.erase(name_) + (ready_ ? 1 : 0) > 0) ::unlink(name_.c_str());
    ::close(fd_);
}

bool TagCopy::markReady(ino_t inode) {
    const std::string ready = (folder_ / (std::string(readyPrefix) + std::to_string(inode))).string();
    {
        std::lock_guard lock(copiesMutex);
        if (copiesBeingMade.count(name_) == 0) {
            errno = ECANCELED;  // abandoned meanwhile
            return false;
        }
        if (::renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, ready.c_str(), RENAME_NOREPLACE) != 0)
            return false;
        copiesBeingMade.erase(name_);
        name_ = ready;
        ready_ = true;
    }
    return syncFolder(folder_);  // the ready name must be on disk before the file is touched
}

std::optional<std::string> TagCopy::writeInto(int targetFd, const struct timespec* times) {
    std::string timesError;
    auto why = writeBlocks(fd_, targetFd);
    if (!why) why = finishFile(targetFd, times, timesError);
    done_ = true;
    if (why)  // the copy is kept: the file may be half written, and this copy is what finishes it
        return *why + " (the tagged copy is kept beside it; the next scan of its folder finishes the job)";
    // Unflushed: should the removal be lost, the next scan writes the same bytes again, which it only reads.
    ::unlink(name_.c_str());
    if (!timesError.empty()) return "tagged, but its times could not be kept: " + timesError;
    return std::nullopt;
}

bool copyWhole(int from, int to) {
    off_t in = 0, out = 0;
    for (;;) {
        const ssize_t n = ::copy_file_range(from, &in, to, &out, 1 << 30, 0);
        if (n == 0) return true;
        if (n > 0) continue;
        if (errno == EINTR) continue;
        if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return false;
        break;  // no kernel copy between these files: on by hand from where it stopped
    }
    std::vector<char> buffer(1 << 16);
    for (int64_t offset = in;;) {
        size_t got = 0;
        if (!readFully(from, offset, buffer.data(), buffer.size(), got)) return false;
        if (got == 0) return true;
        for (size_t done = 0; done < got;) {
            const ssize_t n =
                ::pwrite(to, buffer.data() + done, got - done, offset + static_cast<int64_t>(done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                if (n == 0) errno = ENOSPC;
                return false;
            }
            done += static_cast<size_t>(n);
        }
        offset += static_cast<int64_t>(got);
    }
}

void abandonTagCopies() {
    std::lock_guard lock(copiesMutex);
    copiesAbandoned = true;
    for (const std::string& name : copiesBeingMade) ::unlink(name.c_str());
    copiesBeingMade.clear();
}

void removeIfStaleTagCopy(const std::string& path) {
    const fs::path copy(path);
    const std::string name = copy.filename().string();
    if (const auto inode = readyInode(name)) {
        finishReadyCopy(copy, *inode, std::nullopt);
        return;
    }
    if (name.starts_with(makingPrefix)) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) return;
        struct stat info {};
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &info) == 0 && info.st_uid == ::geteuid())
            ::unlink(path.c_str());
        ::close(fd);
        return;
    }
    const size_t marker = name.rfind(oldMarker);
    if (marker == std::string::npos || marker == 0) return;
    const char* digits = name.c_str() + marker + oldMarker.size();
    char* end = nullptr;
    const long pid = std::strtol(digits, &end, 10);
    if (end == digits || *end != '-' || pid <= 0) return;
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) ::unlink(path.c_str());
}

void finishLeftCopy(const fs::path& target, ino_t inode) {
    const fs::path copy = target.parent_path() / (std::string(readyPrefix) + std::to_string(inode));
    struct stat info {};
    if (::lstat(copy.c_str(), &info) == 0) finishReadyCopy(copy, inode, target);
}

}  // namespace velquin::scan
