#include "fileanalysis/FFmpegSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

namespace velquin::ffmpeg {

std::string errorText(int code) {
    if (code == AVERROR(ENOENT)) return "no such file";
    if (code == AVERROR(EACCES) || code == AVERROR(EPERM)) return "permission denied";
    if (code == AVERROR(EISDIR)) return "is a folder, not a file";
    if (code == AVERROR_INVALIDDATA) return "not an audio file FFmpeg can read";
    if (code == AVERROR_STREAM_NOT_FOUND) return "the file has no audio track";
    if (code == AVERROR(ENOMEM)) return "out of memory";
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(code, text, sizeof text) < 0) return "decoder error " + std::to_string(code);
    return text;
}

std::string clockText(double seconds) {
    const auto whole = static_cast<long long>(std::max(0.0, seconds));
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
    return text;
}

bool isHardFailure(int code) {
    return code == AVERROR(ENOMEM) || code == AVERROR_BUG || code == AVERROR_BUG2;
}

int MemorySource::read(void* opaque, uint8_t* buffer, int size) {
    auto* self = static_cast<MemorySource*>(opaque);
    const auto remaining = static_cast<int64_t>(self->bytes.size()) - self->position;
    const auto n = static_cast<int>(std::min<int64_t>(remaining, size));
    if (n <= 0) return AVERROR_EOF;
    std::memcpy(buffer, self->bytes.data() + self->position, static_cast<size_t>(n));
    self->position += n;
    return n;
}

int64_t MemorySource::seek(void* opaque, int64_t offset, int whence) {
    auto* self = static_cast<MemorySource*>(opaque);
    const auto size = static_cast<int64_t>(self->bytes.size());
    int64_t target = 0;
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return size;
        case SEEK_SET:
            target = offset;
            break;
        case SEEK_CUR:
            target = self->position + offset;
            break;
        case SEEK_END:
            target = size + offset;
            break;
        default:
            return AVERROR(EINVAL);
    }
    if (target < 0 || target > size) return AVERROR(EINVAL);
    self->position = target;
    return target;
}

int refuseNestedOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) {
    return AVERROR(EPERM);
}

void quietLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

}  // namespace velquin::ffmpeg
