#include "system/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <system_error>

namespace velquin {

namespace {

namespace fs = std::filesystem;

// The file a path finally names: symbolic links are followed (also dangling ones, whose target is
// then created), as the kernel does with at most 40 of them.
std::string resolveLinks(std::string path) {
    for (int hops = 0; hops < 40; ++hops) {
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return path;
        std::string link(static_cast<size_t>(info.st_size > 0 ? info.st_size : 4096) + 1, '\0');
        const ssize_t n = ::readlink(path.c_str(), link.data(), link.size());
        if (n < 0) return path;
        link.resize(static_cast<size_t>(n));
        const fs::path next(link);
        path = next.is_absolute() ? next.string() : (fs::path(path).parent_path() / next).string();
    }
    throw std::system_error(ELOOP, std::generic_category());
}

}  // namespace

OutputFileError::OutputFileError(const std::string& path, std::string reason)
    : std::runtime_error("could not write " + path + ": " + reason), reason_(std::move(reason)) {}

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
    try {
        target_ = resolveLinks(path_);
    } catch (const std::system_error& error) {
        fail(error.code().value());
    }
    struct stat info {};
    if (::stat(target_.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) fail(EISDIR);
        if (!S_ISREG(info.st_mode)) throw OutputFileError(path_, "not a regular file");
        // Root may write anything; a file without write permission is still not to be replaced.
        if (::access(target_.c_str(), W_OK) != 0 || (info.st_mode & 0222) == 0) fail(EACCES);
    }
    const fs::path target(target_);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::random_device random;
    for (int attempt = 0; attempt < 100 && fd_ < 0; ++attempt) {
        char suffix[16];
        std::snprintf(suffix, sizeof suffix, ".%08x", random());
        temp_ = (folder / ("." + target.filename().string() + suffix)).string();
        fd_ = ::open(temp_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd_ < 0 && errno != EEXIST) fail(errno);
    }
    if (fd_ < 0) fail(EEXIST);
}

OutputFile::~OutputFile() {
    if (fd_ >= 0) {
        ::close(fd_);
        ::unlink(temp_.c_str());
    }
}

void OutputFile::fail(int error) {
    if (fd_ >= 0) {
        ::close(fd_);
        ::unlink(temp_.c_str());
        fd_ = -1;
    }
    throw OutputFileError(path_, std::strerror(error));
}

void OutputFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd_, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail(n < 0 ? errno : EIO);
        bytes.remove_prefix(static_cast<size_t>(n));
    }
}

void OutputFile::commit() {
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0 || ::rename(temp_.c_str(), target_.c_str()) != 0) {
        const int error = errno;
        ::unlink(temp_.c_str());
        throw OutputFileError(path_, std::strerror(error));
    }
}

bool OutputFile::sameFile(const std::string& a, const std::string& b) {
    struct stat first {
    }, second{};
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

}  // namespace velquin
