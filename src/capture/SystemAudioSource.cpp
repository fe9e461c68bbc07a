#include "capture/SystemAudioSource.h"

#include "analysis/EngineSettings.h"

#include <string>

namespace velquin {

SystemAudioSource::SystemAudioSource()
    : CaptureSource(AudioSourceKind::systemAudio,
                    {.records = pulse::Capture::Records::defaultSink,
                     .threadName = "velquin.monitor",
                     .streamName = "System Audio",
                     // 20 ms fragments: a steady delivery cadence without keeping the whole sound
                     // system busy.
                     .fragmentFrames = 0,
                     // The largest block the server hands out in one piece (one 64 KiB memory block
                     // of floats), so that the mix buffer never has to grow while running.
                     .reserveFrames = 16384}) {}

void SystemAudioSource::start() {
    CaptureSource::start();

    // The analysis diagnostics switch covers the capture rates too: one place decides where they go.
    const auto& debug = engineSettings::parameters().tempo.onDebug;
    const pulse::Capture::Recording r = recording();
    if (!debug || !r.capturing) return;
    debug("tap format rate=" + pulse::rateText(r.stream.rate) + " ch=" + std::to_string(r.stream.channels) +
          " flags=" + std::to_string(static_cast<int>(r.stream.format)) +
          " bpf=" + std::to_string(pa_frame_size(&r.stream)) +
          "\naggregate nominal rate=" + pulse::rateText(r.device.rate) +
          "\noutput device nominal rate=" + pulse::rateText(r.sinkRate > 0 ? double(r.sinkRate) : -1.0) +
          "\nusing rate=" + pulse::rateText(sampleRate()) + "\n");
}

}  // namespace velquin
