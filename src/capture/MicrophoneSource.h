#pragma once
// Captures the default input (whatever the desktop calls the microphone) at its own rate and channel
// count, mixed to mono.
//
// Threads: start() and stop() on the owner's thread (never from a callback); samples arrive on the
// source's PulseAudio thread and must only be copied. The default input is followed wherever it goes
// (pulse::Capture): one plugged in or out, the server restarted; a new input at another rate calls
// onSampleRateChange. Only a server that does not answer at start is an error.

#include "capture/PulseCapture.h"

namespace velquin {

class MicrophoneSource final : public pulse::CaptureSource {
  public:
    MicrophoneSource();
};

}  // namespace velquin
