#include "scan/CheckedStream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace velquin::scan {

CheckedStream::CheckedStream(int fd, std::string name, bool readOnly)
    : fd_(fd), name_(std::move(name)), readOnly_(readOnly) {}

TagLib::FileName CheckedStream::name() const {
    return name_.c_str();
}

void CheckedStream::fail(const char* what) {
    if (error_.empty()) error_ = std::string(what) + ": " + std::strerror(errno != 0 ? errno : EIO);
}

bool CheckedStream::readAt(long offset, char* data, size_t size, size_t& got) {
    got = 0;
    while (got < size) {
        const ssize_t n = ::pread(fd_, data + got, size - got, offset + static_cast<long>(got));
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("could not read the copy");
            return false;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

bool CheckedStream::writeAt(long offset, const char* data, size_t size) {
    if (readOnly_) {
        errno = EBADF;
        fail("could not write the copy");
        return false;
    }
    for (size_t done = 0; done < size;) {
        const ssize_t n = ::pwrite(fd_, data + done, size - done, offset + static_cast<long>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            fail("could not write the copy");
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

TagLib::ByteVector CheckedStream::readBlock(unsigned long length) {
    const long size = this->length();
    const unsigned long available = position_ < size ? static_cast<unsigned long>(size - position_) : 0;
    TagLib::ByteVector block(static_cast<unsigned int>(std::min(length, available)), 0);
    size_t got = 0;
    readAt(position_, block.data(), block.size(), got);
    block.resize(static_cast<unsigned int>(got));
    position_ += static_cast<long>(got);
    return block;
}

void CheckedStream::writeBlock(const TagLib::ByteVector& data) {
    if (writeAt(position_, data.data(), data.size())) position_ += static_cast<long>(data.size());
}

// Everything from `start + replace` on moves to `start + data.size()`: from the end backwards when it
// moves towards the end, from the front when it moves towards the front.
void CheckedStream::insert(const TagLib::ByteVector& data, unsigned long start, unsigned long replace) {
    const long from = static_cast<long>(start + replace), to = static_cast<long>(start + data.size());
    const long size = length();
    if (from != to && from < size) {
        std::vector<char> buffer(1 << 20);
        const long tail = size - from;
        for (long moved = 0; moved < tail && error_.empty();) {
            const long step = std::min<long>(static_cast<long>(buffer.size()), tail - moved);
            const long offset = to > from ? size - moved - step : from + moved;
            size_t got = 0;
            if (!readAt(offset, buffer.data(), static_cast<size_t>(step), got)) return;
            if (got != static_cast<size_t>(step)) {
                errno = EIO;
                fail("the copy ended early");
                return;
            }
            if (!writeAt(offset - from + to, buffer.data(), got)) return;
            moved += step;
        }
    }
    if (!writeAt(static_cast<long>(start), data.data(), data.size())) return;
    // What was replaced past the end of the file is gone too.
    if (to < from && std::max(to, size - (from - to)) < size) truncate(std::max(to, size - (from - to)));
    position_ = to;
}

void CheckedStream::removeBlock(unsigned long start, unsigned long length) {
    insert(TagLib::ByteVector(), start, length);
}

void CheckedStream::seek(long offset, Position position) {
    if (position == Current) offset += position_;
    if (position == End) offset += length();
    position_ = std::max(0L, offset);
}

long CheckedStream::length() {
    struct stat info {};
    if (::fstat(fd_, &info) != 0) {
        fail("could not measure the copy");
        return 0;
    }
    return static_cast<long>(info.st_size);
}

void CheckedStream::truncate(long length) {
    if (readOnly_ || ::ftruncate(fd_, length) != 0) fail("could not shorten the copy");
}

}  // namespace velquin::scan
