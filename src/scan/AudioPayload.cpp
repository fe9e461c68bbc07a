#include "scan/AudioPayload.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fileanalysis/AudioFileReader.h"

namespace velquin::scan {

namespace {

struct Range {
    int64_t offset = 0;
    int64_t length = 0;
};

int64_t sizeOf(int fd) {
    struct stat info {};
    return ::fstat(fd, &info) == 0 ? info.st_size : -1;
}

bool readExactly(int fd, int64_t offset, void* data, size_t size) {
    return readBytesAt(fd, offset, data, size) == static_cast<int64_t>(size);
}

uint32_t number32(const unsigned char* bytes, bool bigEndian) {
    return bigEndian ? (uint32_t{bytes[0]} << 24) | (bytes[1] << 16) | (bytes[2] << 8) | bytes[3]
                     : (uint32_t{bytes[3]} << 24) | (bytes[2] << 16) | (bytes[1] << 8) | bytes[0];
}

// The audio frames of an MP3 or FLAC file: after its leading tags and (FLAC) metadata blocks, up to a
// trailing ID3v1 tag, which a FLAC writer renders anew.
std::optional<Range> framesOf(Container container, int fd) {
    const int64_t size = sizeOf(fd);
    int64_t start = id3v2Length(fd, 0, size);
    int64_t end = size;
    if (container == Container::flac) {
        unsigned char header[4];
        if (!readExactly(fd, start, header, 4) || std::memcmp(header, "fLaC", 4) != 0) return std::nullopt;
        start += 4;
        for (bool last = false; !last;) {
            if (!readExactly(fd, start, header, 4)) return std::nullopt;
            last = (header[0] & 0x80) != 0;
            start += 4 + ((int64_t{header[1]} << 16) | (header[2] << 8) | header[3]);
        }
        char tag[3];
        if (end - 128 >= start && readExactly(fd, end - 128, tag, 3) && std::memcmp(tag, "TAG", 3) == 0)
            end -= 128;
    }
    if (start > end) return std::nullopt;
    return Range{start, end - start};
}

// The bodies of the chunks that make up the sound: WAV's "fmt " and "data", AIFF's "COMM" and "SSND".
std::optional<std::vector<Range>> soundChunksOf(Container container, int fd) {
    const bool aiff = container == Container::aiff;
    const char* wanted[2] = {aiff ? "COMM" : "fmt ", aiff ? "SSND" : "data"};
    const int64_t size = sizeOf(fd);
    std::vector<Range> found(2);
    for (int64_t at = 12; at + 8 <= size;) {
        unsigned char header[8];
        if (!readExactly(fd, at, header, 8)) return std::nullopt;
        const int64_t length = std::min<int64_t>(number32(header + 4, aiff), size - at - 8);
        for (int i = 0; i < 2; ++i)
            if (std::memcmp(header, wanted[i], 4) == 0 && found[static_cast<size_t>(i)].length == 0)
                found[static_cast<size_t>(i)] = {at + 8, length};
        at += 8 + length + (length & 1);
    }
    if (found[0].length == 0 || found[1].length == 0) return std::nullopt;
    return found;
}

bool sameBytes(int a, Range ra, int b, Range rb) {
    if (ra.length != rb.length) return false;
    std::vector<char> left(1 << 16), right(1 << 16);
    for (int64_t done = 0; done < ra.length;) {
        const size_t step =
            static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(left.size()), ra.length - done));
        if (!readExactly(a, ra.offset + done, left.data(), step) ||
            !readExactly(b, rb.offset + done, right.data(), step) ||
            std::memcmp(left.data(), right.data(), step) != 0)
            return false;
        done += static_cast<int64_t>(step);
    }
    return true;
}

std::string fdPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// Both decoded in step; decoders are deterministic, so equal packets give equal samples read by read.
bool sameSamples(int originalFd, int copyFd) {
    try {
        AudioFileReader original(fdPath(originalFd)), copy(fdPath(copyFd));
        if (original.sampleRate() != copy.sampleRate() || original.channelCount() != copy.channelCount())
            return false;
        for (;;) {
            const int64_t frames = original.read();
            if (copy.read() != frames) return false;
            if (frames == 0) return true;
            for (int k = 0; k < original.channelCount(); ++k)
                if (std::memcmp(original.channel(k), copy.channel(k),
                                static_cast<size_t>(frames) * sizeof(float)) != 0)
                    return false;
        }
    } catch (const AudioFileError&) {
        return false;
    }
}

}  // namespace

std::optional<std::string> compareAudio(Container container, int originalFd, int copyFd) {
    const std::string differs = "the tagged copy's audio differs from the original's";
    switch (container) {
        case Container::mpeg:
        case Container::flac: {
            const auto original = framesOf(container, originalFd), copy = framesOf(container, copyFd);
            if (!original) return std::string("cannot find the audio frames");
            if (!copy || !sameBytes(originalFd, *original, copyFd, *copy)) return differs;
            return std::nullopt;
        }
        case Container::wav:
        case Container::aiff: {
            const auto original = soundChunksOf(container, originalFd),
                       copy = soundChunksOf(container, copyFd);
            if (!original) return std::string("cannot find the sound chunks");
            if (!copy) return differs;
            for (size_t i = 0; i < original->size(); ++i)
                if (!sameBytes(originalFd, (*original)[i], copyFd, (*copy)[i])) return differs;
            return std::nullopt;
        }
        default:
            return sameSamples(originalFd, copyFd) ? std::nullopt : std::optional<std::string>(differs);
    }
}

}  // namespace velquin::scan
