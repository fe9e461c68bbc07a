#pragma once
// Captures the default input (whatever the desktop calls the microphone) at its own rate and channel
// count, mixed to mono. Follows no device or format changes while running.
//
// Threads: start() and stop() on the owner's thread (never from a callback); samples arrive on the
// source's PulseAudio thread and must only be copied. Never calls onSampleRateChange. When the sound
// server goes away it calls onServerLost, retries every second, and calls onNeedsRestart once a server
// with a default input answers again.

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "AudioSource.h"
#include "PulseConnection.h"
#include "ServerWatch.h"

namespace velquin {

class MicrophoneSource final : public AudioSource {
  public:
    MicrophoneSource();
    // Stops as well: a PulseAudio thread must not outlive the object it calls into.
    ~MicrophoneSource() override;
    MicrophoneSource(const MicrophoneSource&) = delete;
    MicrophoneSource& operator=(const MicrophoneSource&) = delete;

    double sampleRate() const override { return sampleRate_.load(std::memory_order_relaxed); }
    void start() override;
    void stop() override;

  private:
    std::optional<AudioSourceError> startLocked();
    static void readCallback(pa_stream* stream, size_t bytes, void* userdata);

    std::atomic<double> sampleRate_{48000};
    // Touched only with the loop's lock held (or after the loop has stopped).
    pulse::MainloopPtr loop_;
    pulse::ContextPtr context_;
    pulse::StreamPtr stream_;
    std::unique_ptr<pulse::ServerWatch> watch_;  // dies before loop_
    unsigned channels_ = 0;
    pulse::MonoMixer mixer_;
};

}  // namespace velquin
