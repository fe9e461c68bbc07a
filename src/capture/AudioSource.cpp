#include "AudioSource.h"

#include <utility>

namespace velquin {

std::string_view rawValue(AudioSourceKind kind) {
    return kind == AudioSourceKind::microphone ? "microphone" : "systemAudio";
}

std::optional<AudioSourceKind> audioSourceKindFromRaw(std::string_view raw) {
    if (raw == "systemAudio") return AudioSourceKind::systemAudio;
    if (raw == "microphone") return AudioSourceKind::microphone;
    return std::nullopt;
}

std::string_view displayName(AudioSourceKind kind) {
    return kind == AudioSourceKind::microphone ? "Microphone" : "System Audio";
}

AudioSourceError::AudioSourceError(Case c, int32_t status, std::string text, const std::string& description)
    : std::runtime_error(description), case_(c), status_(status), text_(std::move(text)) {}

AudioSourceError AudioSourceError::createTapFailed(int32_t status) {
    return {Case::createTapFailed, status, {},
            "Could not tap system audio (error " + std::to_string(status) +
                "). Grant access in System Settings > Privacy & Security > Audio Recording, then restart Tessaro."};
}

AudioSourceError AudioSourceError::aggregateDeviceFailed(int32_t status) {
    return {Case::aggregateDeviceFailed, status, {},
            "Could not create the capture device (error " + std::to_string(status) + ")."};
}

AudioSourceError AudioSourceError::tapFormatUnavailable(int32_t status) {
    return {Case::tapFormatUnavailable, status, {},
            "Could not read the tap's audio format (error " + std::to_string(status) + ")."};
}

AudioSourceError AudioSourceError::ioProcFailed(int32_t status) {
    return {Case::ioProcFailed, status, {},
            "Could not start the capture callback (error " + std::to_string(status) + ")."};
}

AudioSourceError AudioSourceError::engineFailed(std::string text) {
    const std::string description = "Microphone capture failed: " + text;
    return {Case::engineFailed, 0, std::move(text), description};
}

AudioSourceError AudioSourceError::noOutputDevice() {
    return {Case::noOutputDevice, 0, {}, "No default output device was found."};
}

}  // namespace velquin
