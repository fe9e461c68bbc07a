#pragma once
// What a file is, read from its first bytes rather than from its name: a library holds AAC named .mp3
// and WAV named .mp3, and a tag written for the wrong container destroys the file.

#include <cstdint>
#include <optional>
#include <string>

namespace velquin::scan {

enum class Container {
    unknown,
    mpeg,  // MPEG audio frames, perhaps behind ID3v2 tags
    adts,  // raw AAC frames
    flac,
    oggVorbis,
    oggOpus,
    oggFlac,
    oggSpeex,
    oggOther,
    wav,
    rf64,
    aiff,
    mp4,
    matroska,
    asf,
    ape,
    wavpack,
};

// Reads up to `size` bytes at `offset` by pread (the file's offset stays where it was): how many it got
// before the end of the file, or -1 on an error.
int64_t readBytesAt(int fd, int64_t offset, void* data, size_t size);

// Reads the head of the open file `fd` (from offset 0, by pread; the offset is left alone).
Container sniffContainer(int fd);

// The container a file name's extension promises; nothing for an extension that promises none.
std::optional<Container> containerOfName(const std::string& path);

// True when the tags can be written into this container.
bool canTag(Container container);

// "an MP4 file", "a FLAC file", for messages.
std::string describe(Container container);

// Why TagLib must not be let at this file, or nothing. TagLib 1.13 trusts an MP4 chunk-offset table's
// count when it moves the audio, and a count past the table's end has it write gigabytes.
std::optional<std::string> unsafeForTagLib(Container container, int fd);

// Length of the ID3v2 tags at `offset` (none: 0), each header, body and footer; `fileSize` bounds them.
int64_t id3v2Length(int fd, int64_t offset, int64_t fileSize);

}  // namespace velquin::scan
