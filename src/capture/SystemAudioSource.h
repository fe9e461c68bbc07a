#pragma once
// Captures whatever the computer plays: a record stream on the monitor of the default sink, at the
// monitor's own rate and channel count, mixed to mono. Playback is neither muted nor changed.
//
// Threads: start() and stop() on the owner's thread (never from a callback). Samples, rate changes and
// route changes arrive on the source's PulseAudio thread, one at a time, and must only copy.
// The default sink is followed wherever it goes (pulse::Capture): a new default, a sink replaced or
// gone and back, the server restarted. Only a server that does not answer at start is an error.

#include "capture/PulseCapture.h"

namespace velquin {

class SystemAudioSource final : public pulse::CaptureSource {
  public:
    SystemAudioSource();
    void start() override;
};

}  // namespace velquin
