#pragma once
// What both PulseAudio sources share: a record stream that follows the server's default device (the
// default sink's monitor, or the default input) wherever it goes. A new default, a device replaced,
// removed and re-added, moved or switched to another rate: the stream is rebuilt on the loop's thread
// from the server's events, without the owner. With no usable device it waits for one; when the server
// goes away it reconnects every 200 ms. The owner hears of each through onRouteChange.
//
// Threads: start() and stop() on the owner's thread (never from a callback). Everything else runs on
// the loop's thread with its lock held; the owner's onSamples, onSampleRateChange and onRouteChange are
// called there.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "capture/AudioSource.h"
#include "capture/PulseConnection.h"

namespace velquin::pulse {

class Capture {
  public:
    enum class Records { defaultSink, defaultSource };
    struct Settings {
        Records records;
        const char* threadName;
        const char* streamName;
        // Frames per fragment; 0 means 20 ms at the device's rate.
        uint32_t fragmentFrames = 0;
        // Mix buffer reserved up front, so that it rarely or never grows while running.
        size_t reserveFrames = 16384;
    };

    // What the stream records once start() has returned; for the owner's diagnostics.
    struct Recording {
        pa_sample_spec stream{};
        pa_sample_spec device{};  // the recorded source
        uint32_t sinkRate = 0;    // the followed sink's, when the source is its monitor
        bool capturing = false;
    };

    Capture(AudioSource& owner, Settings settings);
    ~Capture();  // stops
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // Connects and waits (up to a few seconds) for the first route: 0 once the server answered, whether
    // a device was found or not (then it waits for one); otherwise the error code of the connection.
    int start();
    void stop();
    double sampleRate() const { return sampleRate_.load(std::memory_order_relaxed); }
    Recording recording();

  private:
    using Route = AudioSource::Route;

    void watch(pa_context* context);
    void reroute();
    void endRoute();
    void routeFailed();
    void waitForDevice();
    void record(const DeviceInfo& device);
    void report(Route route);
    void connectionLost();
    void reconnect();
    void deviceChanged();
    void checkAfterChange();
    bool usable(const char* name) const;

    static void contextStateCallback(pa_context* context, void* userdata);
    static void subscribeCallback(pa_context* context, pa_subscription_event_type_t event, uint32_t index,
                                  void* userdata);
    static void serverInfoCallback(pa_context* context, const pa_server_info* info, void* userdata);
    static void sinkInfoCallback(pa_context* context, const pa_sink_info* info, int eol, void* userdata);
    static void sourceInfoCallback(pa_context* context, const pa_source_info* info, int eol, void* userdata);
    static void streamStateCallback(pa_stream* stream, void* userdata);
    static void readCallback(pa_stream* stream, size_t bytes, void* userdata);

    AudioSource& owner_;
    const Settings settings_;
    std::atomic<double> sampleRate_{48000};

    // Everything below is touched only with the loop's lock held (or after the loop has stopped).
    MainloopPtr loop_;
    ContextPtr context_;
    StreamPtr stream_;
    std::optional<Timer> reconnectTimer_;  // die before loop_
    std::optional<Timer> rerouteTimer_;
    std::optional<Timer> changeTimer_;
    std::chrono::milliseconds rerouteDelay_{0};
    bool lost_ = false;
    bool routing_ = false;  // a query chain is under way
    bool again_ = false;    // something changed meanwhile: route once more when it ends
    bool settled_ = false;  // the first route is known
    bool renew_ = false;    // replace stream_ even though its device is unchanged
    // The watch over a stream whose device changed while it carried sound (see deviceChanged()).
    using Clock = std::chrono::steady_clock;
    Clock::time_point lastAudible_{};
    Clock::time_point watchUntil_{};
    Clock::time_point nextRenewal_{};
    std::chrono::milliseconds renewalGap_{0};
    std::optional<Route> route_;
    DeviceInfo sink_;      // the followed sink, while its monitor is being looked up
    DeviceInfo found_;     // the source being looked up
    DeviceInfo recorded_;  // what stream_ records
    unsigned channels_ = 0;
    MonoMixer mixer_;
};

// An AudioSource that records through one Capture: the start and stop both PulseAudio sources share.
// Threads: as Capture's.
class CaptureSource : public AudioSource {
  public:
    // `kind` names what could not be heard when the server does not answer.
    CaptureSource(AudioSourceKind kind, Capture::Settings settings)
        : kind_(kind), capture_(*this, settings) {}
    // Stops as well: a PulseAudio thread must not outlive the object it calls into.
    ~CaptureSource() override { capture_.stop(); }
    CaptureSource(const CaptureSource&) = delete;
    CaptureSource& operator=(const CaptureSource&) = delete;

    double sampleRate() const override { return capture_.sampleRate(); }
    // Only a server that does not answer is an error; without a device it waits for one.
    void start() override;
    void stop() override { capture_.stop(); }

  protected:
    Capture::Recording recording() { return capture_.recording(); }

  private:
    const AudioSourceKind kind_;
    Capture capture_;
};

}  // namespace velquin::pulse
