#include "capture/AudioSource.h"

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
    return AudioSourceError(withAdvice(what + errorCode(status), !microphone));
}

AudioSourceError AudioSourceError::streamCreationFailed(int32_t status) {
    return AudioSourceError(withAdvice("Could not create the capture device " + errorCode(status)));
}

AudioSourceError AudioSourceError::monitorFormatUnavailable(int32_t status) {
    return AudioSourceError("Could not read the tap's audio format " + errorCode(status));
}

AudioSourceError AudioSourceError::recordingFailed(int32_t status) {
    return AudioSourceError(withAdvice("Could not start the capture callback " + errorCode(status)));
}

AudioSourceError AudioSourceError::engineFailed(const std::string& text) {
    return AudioSourceError("Microphone capture failed: " + text);
}

AudioSourceError AudioSourceError::noOutputDevice() {
    return AudioSourceError("No default output device was found.");
}

}  // namespace velquin
