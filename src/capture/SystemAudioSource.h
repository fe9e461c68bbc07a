#pragma once
// Captures whatever the computer plays: a record stream on the monitor of the default sink, at the
// monitor's own rate and channel count, mixed to mono. Playback is neither muted nor changed.
//
// Threads: start() and stop() on the owner's thread (never from a callback). Samples, rate changes and
// restart requests arrive on the source's PulseAudio thread, one at a time, and must only copy.
// The route is not followed by itself: a new default sink, or the sound server coming back after it
// went away, calls onNeedsRestart; the owner then stops and starts the source again.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AudioSource.h"
#include "PulseConnection.h"
#include "ServerWatch.h"

namespace velquin {

class SystemAudioSource final : public AudioSource {
  public:
    SystemAudioSource();
    ~SystemAudioSource() override;  // stops
    SystemAudioSource(const SystemAudioSource&) = delete;
    SystemAudioSource& operator=(const SystemAudioSource&) = delete;

    double sampleRate() const override { return sampleRate_.load(std::memory_order_relaxed); }
    void start() override;
    void stop() override;

  private:
    std::optional<AudioSourceError> startLocked();
    void startListeningForChanges();
    void askForRestart();
    void followMonitorRate(const pa_source_info& info);

    static void readCallback(pa_stream* stream, size_t bytes, void* userdata);
    static void streamStateCallback(pa_stream* stream, void* userdata);
    static void subscribeCallback(pa_context* context, pa_subscription_event_type_t event, uint32_t index,
                                  void* userdata);
    static void serverInfoCallback(pa_context* context, const pa_server_info* info, void* userdata);
    static void monitorInfoCallback(pa_context* context, const pa_source_info* info, int eol, void* userdata);

    std::atomic<double> sampleRate_{48000};

    // Everything below is touched only with the loop's lock held (or after the loop has stopped).
    pulse::MainloopPtr loop_;
    pulse::ContextPtr context_;
    pulse::StreamPtr stream_;
    std::unique_ptr<pulse::ServerWatch> watch_;  // dies before loop_
    pulse::DeviceInfo monitor_;                  // what stream_ records
    std::string sinkName_;                       // the default sink the stream follows
    unsigned channels_ = 0;
    pulse::MonoMixer mixer_;
};

}  // namespace velquin
