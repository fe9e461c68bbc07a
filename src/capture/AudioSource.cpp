#include "AudioSource.h"

#include <utility>

namespace velquin {

std::string_view textName(AudioSourceKind kind) {
    return kind == AudioSourceKind::microphone ? "microphone" : "systemAudio";
}

std::optional<AudioSourceKind> audioSourceKindFromTextName(std::string_view name) {
    if (name == "systemAudio") return AudioSourceKind::systemAudio;
    if (name == "microphone") return AudioSourceKind::microphone;
    return std::nullopt;
}

std::string_view displayName(AudioSourceKind kind) {
    return kind == AudioSourceKind::microphone ? "Microphone" : "System Audio";
}

AudioSourceError::AudioSourceError(Case c, int32_t status, std::string text, const std::string& description)
    : std::runtime_error(description), case_(c), status_(status), text_(std::move(text)) {}

namespace {

std::string withAdvice(const std::string& failure, bool needsMonitor = true) {
    return failure + " Check that PulseAudio, or PipeWire's PulseAudio service, is running (pactl info)" +
           (needsMonitor ? " and that the default output has a monitor (pactl list short sources)" : "") +
           ", then restart Velquin.";
}

std::string errorCode(int32_t status) {
    return "(error " + std::to_string(status) + ").";
}

}  // namespace

AudioSourceError AudioSourceError::serverUnreachable(int32_t status, AudioSourceKind kind) {
    const bool microphone = kind == AudioSourceKind::microphone;
    const std::string what =
        microphone ? "Could not reach the sound server for the microphone " : "Could not tap system audio ";
    return {Case::serverUnreachable, status, {}, withAdvice(what + errorCode(status), !microphone)};
}

AudioSourceError AudioSourceError::streamCreationFailed(int32_t status) {
    return {Case::streamCreationFailed,
            status,
            {},
            withAdvice("Could not create the capture device " + errorCode(status))};
}

AudioSourceError AudioSourceError::monitorFormatUnavailable(int32_t status) {
    return {Case::monitorFormatUnavailable,
            status,
            {},
            "Could not read the tap's audio format " + errorCode(status)};
}

AudioSourceError AudioSourceError::recordingFailed(int32_t status) {
    return {Case::recordingFailed,
            status,
            {},
            withAdvice("Could not start the capture callback " + errorCode(status))};
}

AudioSourceError AudioSourceError::engineFailed(std::string text) {
    const std::string description = "Microphone capture failed: " + text;
    return {Case::engineFailed, 0, std::move(text), description};
}

AudioSourceError AudioSourceError::noOutputDevice() {
    return {Case::noOutputDevice, 0, {}, "No default output device was found."};
}

}  // namespace velquin
