#pragma once
// Whether a tagged copy still carries the original's audio. Where tags and audio sit apart (MP3,
// FLAC, WAV, AIFF) the audio bytes are compared; Ogg and MP4, whose pages and sample offsets a tag
// writer renumbers, are decoded and the samples compared.

#include <optional>
#include <string>

#include "scan/Container.h"

namespace velquin::scan {

// Nothing when the audio of `copyFd` equals that of `originalFd` (both open files of `container`); else
// why it does not. Reads both from their start, by pread, so their offsets are left alone.
std::optional<std::string> compareAudio(Container container, int originalFd, int copyFd);

}  // namespace velquin::scan
