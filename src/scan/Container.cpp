#include "scan/Container.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace velquin::scan {

namespace {

constexpr size_t headSize = 64 * 1024;  // how far a leading run of junk before MPEG frames is searched

size_t readAt(int fd, int64_t offset, unsigned char* buffer, size_t size) {
    return static_cast<size_t>(std::max<int64_t>(readBytesAt(fd, offset, buffer, size), 0));
}

bool startsWith(const unsigned char* data, size_t size, std::string_view text) {
    return size >= text.size() && std::memcmp(data, text.data(), text.size()) == 0;
}

// The length of the MPEG audio frame whose header starts `data` (4 bytes), or 0 when it is none.
int mpegFrameLength(const unsigned char* data) {
    if (data[0] != 0xFF || (data[1] & 0xE0) != 0xE0) return 0;
    const int version = (data[1] >> 3) & 3;  // 0: 2.5, 1: reserved, 2: 2, 3: 1
    const int layer = (data[1] >> 1) & 3;    // 1: III, 2: II, 3: I
    const int bitrateIndex = data[2] >> 4, rateIndex = (data[2] >> 2) & 3, padding = (data[2] >> 1) & 1;
    if (version == 1 || layer == 0 || bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3) return 0;
    static constexpr std::array<std::array<int, 15>, 5> kbps = {{
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},  // 1, I
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},     // 1, II
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},      // 1, III
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},     // 2 and 2.5, I
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},          // 2 and 2.5, II and III
    }};
    const bool mpeg1 = version == 3;
    const int table = mpeg1 ? 3 - layer : (layer == 3 ? 3 : 4);
    const int bitrate = kbps[static_cast<size_t>(table)][static_cast<size_t>(bitrateIndex)] * 1000;
    const int rate = std::array{44100, 48000, 32000}[static_cast<size_t>(rateIndex)] >> (mpeg1          ? 0
                                                                                         : version == 2 ? 1
                                                                                                        : 2);
    if (layer == 3) return (12 * bitrate / rate + padding) * 4;
    return (layer == 1 && !mpeg1 ? 72 : 144) * bitrate / rate + padding;
}

bool adtsHeader(const unsigned char* data) {
    return data[0] == 0xFF && (data[1] & 0xF6) == 0xF0 && ((data[2] >> 2) & 0xF) < 13;
}

// MPEG frames from `offset` on, within the head: two in a row where nothing else says what the file is
// (one after an ID3v2 tag, which already says it). Junk before the first frame is passed over.
Container framesAt(int fd, int64_t offset, bool tagged) {
    std::array<unsigned char, headSize + 4> head{};
    const size_t size = readAt(fd, offset, head.data(), headSize);
    for (size_t at = 0; at + 4 <= size; ++at) {
        if (head[at] != 0xFF) continue;
        if (adtsHeader(&head[at])) return Container::adts;
        const int length = mpegFrameLength(&head[at]);
        if (length == 0) continue;
        if (tagged) return Container::mpeg;
        unsigned char next[4] = {};
        if (readAt(fd, offset + static_cast<int64_t>(at) + length, next, 4) == 4 &&
            mpegFrameLength(next) != 0)
            return Container::mpeg;
    }
    return Container::unknown;
}

Container oggCodec(int fd) {
    unsigned char page[27 + 255 + 8] = {};
    const size_t size = readAt(fd, 0, page, sizeof page);
    if (size < 28) return Container::oggOther;
    const size_t packet = 27 + page[26];
    const unsigned char* start = page + std::min(packet, size);
    const size_t left = size - std::min(packet, size);
    if (startsWith(start, left, "\x01vorbis")) return Container::oggVorbis;
    if (startsWith(start, left, "OpusHead")) return Container::oggOpus;
    if (startsWith(start, left,
                   "\x7f"
                   "FLAC"))
        return Container::oggFlac;
    if (startsWith(start, left, "Speex   ")) return Container::oggSpeex;
    return Container::oggOther;
}

// Each chunk-offset table below `[begin, end)` holds no more entries than it has room for.
bool offsetTablesFit(int fd, int64_t begin, int64_t end, int depth) {
    for (int64_t at = begin; at + 8 <= end;) {
        unsigned char header[16] = {};
        if (readAt(fd, at, header, 16) < 8) return false;
        int64_t size = (int64_t{header[0]} << 24) | (header[1] << 16) | (header[2] << 8) | header[3];
        int64_t body = 8;
        if (size == 1) {
            size = 0;
            for (int i = 8; i < 16; ++i) size = (size << 8) | header[i];
            body = 16;
        } else if (size == 0) {
            size = end - at;
        }
        if (size < body || size > end - at) return false;
        const std::string_view type(reinterpret_cast<const char*>(header) + 4, 4);
        if (type == "stco" || type == "co64") {
            unsigned char count[8] = {};
            if (size < body + 8 || readAt(fd, at + body, count, 8) < 8) return false;
            const int64_t entries = (int64_t{count[4]} << 24) | (count[5] << 16) | (count[6] << 8) | count[7];
            if (entries * (type == "stco" ? 4 : 8) > size - body - 8) return false;
        } else if ((type == "moov" || type == "trak" || type == "mdia" || type == "minf" || type == "stbl") &&
                   (depth > 8 || !offsetTablesFit(fd, at + body, at + size, depth + 1))) {
            return false;
        }
        at += size;
    }
    return true;
}

}  // namespace

int64_t readBytesAt(int fd, int64_t offset, void* data, size_t size) {
    auto* bytes = static_cast<char*>(data);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, bytes + done, size - done, offset + static_cast<int64_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    return static_cast<int64_t>(done);
}

std::optional<std::string> unsafeForTagLib(Container container, int fd) {
    if (container != Container::mp4) return std::nullopt;
    if (!offsetTablesFit(fd, 0, ::lseek(fd, 0, SEEK_END), 0)) return std::string("its MP4 boxes are damaged");
    return std::nullopt;
}

int64_t id3v2Length(int fd, int64_t offset, int64_t fileSize) {
    int64_t total = 0;
    for (;;) {
        unsigned char header[10] = {};
        if (readAt(fd, offset + total, header, 10) < 10 || !startsWith(header, 10, "ID3") ||
            header[3] == 0xFF || ((header[6] | header[7] | header[8] | header[9]) & 0x80) != 0)
            return total;
        const int64_t body = (int64_t{header[6]} << 21) | (header[7] << 14) | (header[8] << 7) | header[9];
        const int64_t length = 10 + body + ((header[5] & 0x10) != 0 ? 10 : 0);
        if (offset + total + length > fileSize) return total;
        total += length;
    }
}

Container sniffContainer(int fd) {
    unsigned char head[16] = {};
    const size_t size = readAt(fd, 0, head, sizeof head);
    if (startsWith(head, size, "OggS")) return oggCodec(fd);
    if (startsWith(head, size, "RIFF") && startsWith(head + 8, size - std::min<size_t>(size, 8), "WAVE"))
        return Container::wav;
    if (startsWith(head, size, "RF64")) return Container::rf64;
    if (startsWith(head, size, "FORM") && (startsWith(head + 8, size >= 8 ? size - 8 : 0, "AIFF") ||
                                           startsWith(head + 8, size >= 8 ? size - 8 : 0, "AIFC")))
        return Container::aiff;
    if (size >= 8 && startsWith(head + 4, size - 4, "ftyp")) return Container::mp4;
    if (startsWith(head, size, "\x1A\x45\xDF\xA3")) return Container::matroska;
    if (startsWith(head, size, "\x30\x26\xB2\x75\x8E\x66\xCF\x11")) return Container::asf;
    if (startsWith(head, size, "MAC ")) return Container::ape;
    if (startsWith(head, size, "wvpk")) return Container::wavpack;
    const int64_t end = ::lseek(fd, 0, SEEK_END);
    const int64_t tags = id3v2Length(fd, 0, end);
    unsigned char afterTags[4] = {};
    if (readAt(fd, tags, afterTags, 4) == 4 && startsWith(afterTags, 4, "fLaC")) return Container::flac;
    return framesAt(fd, tags, tags > 0);
}

std::optional<Container> containerOfName(const std::string& path) {
    const size_t dot = path.rfind('.'), slash = path.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return std::nullopt;
    std::string extension = path.substr(dot + 1);
    for (char& c : extension) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    if (extension == "mp3") return Container::mpeg;
    if (extension == "aac") return Container::adts;
    if (extension == "flac") return Container::flac;
    if (extension == "ogg" || extension == "oga") return Container::oggVorbis;
    if (extension == "opus") return Container::oggOpus;
    if (extension == "wav") return Container::wav;
    if (extension == "aif" || extension == "aiff") return Container::aiff;
    if (extension == "m4a" || extension == "mp4" || extension == "m4v" || extension == "mov")
        return Container::mp4;
    if (extension == "mka" || extension == "mkv" || extension == "webm") return Container::matroska;
    if (extension == "wma") return Container::asf;
    if (extension == "ape") return Container::ape;
    if (extension == "wv") return Container::wavpack;
    return std::nullopt;
}

bool canTag(Container container) {
    switch (container) {
        case Container::mpeg:
        case Container::flac:
        case Container::oggVorbis:
        case Container::oggOpus:
        case Container::oggFlac:
        case Container::oggSpeex:
        case Container::wav:
        case Container::aiff:
        case Container::mp4:
            return true;
        default:
            return false;
    }
}

std::string describe(Container container) {
    switch (container) {
        case Container::mpeg:
            return "an MP3 file";
        case Container::adts:
            return "an AAC (ADTS) file";
        case Container::flac:
            return "a FLAC file";
        case Container::oggVorbis:
            return "an Ogg Vorbis file";
        case Container::oggOpus:
            return "an Opus file";
        case Container::oggFlac:
            return "an Ogg FLAC file";
        case Container::oggSpeex:
            return "an Ogg Speex file";
        case Container::oggOther:
            return "an Ogg file of another codec";
        case Container::wav:
            return "a WAV file";
        case Container::rf64:
            return "an RF64 file";
        case Container::aiff:
            return "an AIFF file";
        case Container::mp4:
            return "an MP4 file";
        case Container::matroska:
            return "a Matroska file";
        case Container::asf:
            return "a WMA file";
        case Container::ape:
            return "a Monkey's Audio file";
        case Container::wavpack:
            return "a WavPack file";
        case Container::unknown:
            break;
    }
    return "an unrecognised file";
}

}  // namespace velquin::scan
