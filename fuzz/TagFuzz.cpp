// Hostile files through the container check and the whole tag path (read, copy, write through TagLib,
// proof of the copy, write back) in a folder of its own. The first byte picks the name the file gets,
// so each container's reader also meets files that are not what their names say, and the notation.
// TagLib and FFmpeg are not instrumented: what this exercises is our parsers and the writer around them.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "scan/TagWriter.h"

namespace {

namespace fs = std::filesystem;

const fs::path& folder() {
    static const fs::path path = [] {
        std::string name =
            (fs::exists("/dev/shm") ? "/dev/shm" : "/tmp") + std::string("/velquin-tag-fuzz-XXXXXX");
        if (::mkdtemp(name.data()) == nullptr) ::abort();
        return fs::path(name);
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace velquin;
    if (size < 1) return 0;
    static constexpr std::array<const char*, 8> names = {"x.mp3", "x.flac", "x.ogg",  "x.opus",
                                                         "x.m4a", "x.wav",  "x.aiff", "x.mka"};
    const fs::path file = folder() / names[data[0] % names.size()];
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::write(fd, data + 1, size - 1) != static_cast<ssize_t>(size - 1)) ::abort();
    ::close(fd);

    KeyEstimate key = KeyEstimate::unknown;
    key.key = MusicalKey{9, true};
    key.confidence = 0.8;
    const scan::TagRequest request{(data[0] & 0x80) != 0, false};
    const auto first = scan::writeTags(file.string(), {124.0, 0.9, 0.5}, key, request);
    if (first.failure.empty()) {
        // A file tagged once holds the values: the second time there is nothing to write.
        const auto second = scan::writeTags(file.string(), {124.0, 0.9, 0.5}, key, request);
        (void)second;
    }
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folder(), ignored)) fs::remove(entry.path(), ignored);
    return 0;
}
