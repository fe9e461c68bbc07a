#pragma once
// The capture back-end interface, its kinds and its errors.

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace velquin {

enum class AudioSourceKind { systemAudio, microphone };

std::string_view textName(AudioSourceKind kind);  // "systemAudio", "microphone"
std::optional<AudioSourceKind> audioSourceKindFromTextName(std::string_view name);  // case-sensitive
std::string_view displayName(AudioSourceKind kind);  // "System Audio", "Microphone"

// A capture failure; `what()` is the exact text the user sees.
class AudioSourceError : public std::runtime_error {
  public:
    // `status`: a PulseAudio error code (pa_strerror).
    // No sound server answered. Both sources say so the same way; `kind` names what could not be heard.
    static AudioSourceError serverUnreachable(int32_t status,
                                              AudioSourceKind kind = AudioSourceKind::systemAudio);
    // The record stream could not be made.
    static AudioSourceError streamCreationFailed(int32_t status);
    // The server, the default output or its monitor could not be described.
    static AudioSourceError monitorFormatUnavailable(int32_t status);
    // The record stream could not be connected and started.
    static AudioSourceError recordingFailed(int32_t status);
    static AudioSourceError engineFailed(const std::string& text);
    static AudioSourceError noOutputDevice();

  private:
    explicit AudioSourceError(const std::string& description) : std::runtime_error(description) {}
};

// A capture back end. The owner sets the callbacks, then calls start(); callbacks run on the
// source's own delivery thread and must only copy (no blocking, no allocation).
class AudioSource {
  public:
    virtual ~AudioSource() = default;

    // Rate of the samples `onSamples` delivers, Hz; the back end's default (48000) before start().
    virtual double sampleRate() const = 0;

    // Mono samples; the pointer is valid only during the call.
    std::function<void(const float* samples, int64_t count)> onSamples;
    std::function<void(double sampleRate)> onSampleRateChange;
    std::function<void()> onNeedsRestart;

    // Where capture stands while running. Only `capturing` delivers samples; from the others the source
    // finds its way back by itself (a device appears, the server returns) and says so.
    enum class Route { capturing, waitingForDevice, waitingForServer };
    std::function<void(Route route)> onRouteChange;

    // Throws AudioSourceError, after releasing whatever it had set up. A source that can wait for what
    // it lacks starts anyway and reports the wait through onRouteChange.
    virtual void start() = 0;
    // Safe when not running and more than once.
    virtual void stop() = 0;
};

}  // namespace velquin
