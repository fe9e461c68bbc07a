// The PulseAudio sources against a real (private) sound server: run through run-capture-e2e.sh, which
// starts it with pulse-env.sh. Sinks: "speakers" 48 kHz stereo (default), "mic" 44.1 kHz mono whose
// monitor is the default source. The tests run in file order and leave the server as they found it.
// The same against PipeWire with VELQUIN_E2E_SERVER=pipewire. Outputs coming and going while the program
// listens, the server restarted or stalled: live-e2e.sh and route-e2e.sh, through the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture/MicrophoneSource.h"
#include "capture/SystemAudioSource.h"
#include "support/AllocationCounter.h"
#include "support/TestSupport.h"

namespace velquin {
namespace {

using namespace std::chrono_literals;

// Runs one of the harness's functions in a child shell (they share the session through files).
void harness(const std::string& command) {
    const std::string line = "bash -c '. \"$PULSE_ENV_SH\" && " + command + "'";
    ASSERT_EQ(std::system(line.c_str()), 0) << command;
}

// Collects what a source delivers; the callbacks only copy into reserved storage.
class Recorder {
  public:
    explicit Recorder(AudioSource& source) {
        samples_.reserve(48000 * 30);
        source.onSamples = [this](const float* data, int64_t count) {
            test::allocations::countOnThisThread(true);  // the source's delivery thread
            std::lock_guard lock(mutex_);
            const size_t room = samples_.capacity() - samples_.size();
            samples_.insert(samples_.end(), data, data + std::min<size_t>(room, size_t(count)));
            changed_.notify_all();
        };
        source.onNeedsRestart = [this] { ++restarts; };
        source.onSampleRateChange = [this](double rate) {
            lastRate = rate;
            ++rateChanges;
        };
        source.onRouteChange = [this](AudioSource::Route route) {
            std::lock_guard lock(mutex_);
            routes_.push_back(route);
            changed_.notify_all();
        };
    }

    std::atomic<int> restarts = 0, rateChanges = 0;
    std::atomic<double> lastRate = 0;
    size_t frames() {
        std::lock_guard lock(mutex_);
        return samples_.size();
    }
    std::vector<float> samplesFrom(size_t first) {
        std::lock_guard lock(mutex_);
        return {samples_.begin() + std::ptrdiff_t(std::min(first, samples_.size())), samples_.end()};
    }
    bool waitForFrames(size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return samples_.size() >= count; });
    }
    // Waits until the last route reported is `route`.
    bool waitForRoute(AudioSource::Route route, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return !routes_.empty() && routes_.back() == route; });
    }
    void clear() {
        std::lock_guard lock(mutex_);
        samples_.clear();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<float> samples_;
    std::vector<AudioSource::Route> routes_;
};

struct Tone {
    double rms = 0;
    double frequency = 0;
};

// The loudest `window` samples of `x` (hop of a tenth of it): their RMS, and their frequency from
// the count of rising zero crossings.
Tone loudest(const std::vector<float>& x, size_t window, double rate) {
    Tone best;
    for (size_t start = 0; start + window <= x.size(); start += window / 10) {
        double energy = 0;
        for (size_t i = start; i < start + window; ++i) energy += double(x[i]) * x[i];
        const double rms = std::sqrt(energy / double(window));
        if (rms <= best.rms) continue;
        int crossings = 0;
        for (size_t i = start + 1; i < start + window; ++i) crossings += x[i - 1] < 0 && x[i] >= 0;
        best = {rms, crossings * rate / double(window)};
    }
    return best;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

// Captures while `file` plays into `sink` ("" = default sink); returns what came during the play.
std::vector<float> captureWhilePlaying(Recorder& recorder, const std::string& file, const std::string& sink,
                                       double rate) {
    const size_t first = recorder.frames();
    harness("pulse_play " + file + (sink.empty() ? "" : " " + sink));
    // The file lasts 2 s; 2.5 s of samples covers it even with the stream's latency.
    EXPECT_TRUE(recorder.waitForFrames(first + size_t(2.5 * rate), 6s)) << "samples stopped arriving";
    return recorder.samplesFrom(first);
}

class PulseCapture : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_NE(std::getenv("PULSE_ENV_SH"), nullptr) << "run me through run-capture-e2e.sh";
        dir_ = std::make_unique<test::TempDir>();
        constexpr double amplitude = 0.5;
        // Left only, so that the mono mix must halve it: a sum or a copy of one channel would not.
        test::writeWav(file("left-1k.wav"),
                       {test::sine(1000, 48000, 2.0, amplitude), std::vector<float>(96000)}, 48000, true);
        test::writeWav(file("mono-300.wav"), {test::sine(300, 44100, 2.0, amplitude)}, 44100, true);
    }
    static void TearDownTestSuite() { dir_.reset(); }
    static std::string file(const std::string& name) { return (*dir_ / name).string(); }

    static std::unique_ptr<test::TempDir> dir_;
};
std::unique_ptr<test::TempDir> PulseCapture::dir_;

TEST_F(PulseCapture, SystemAudioHearsWhatPlaysAtTheSinkRateMixedToMono) {
    SystemAudioSource source;
    Recorder recorder(source);
    source.start();
    ASSERT_EQ(source.sampleRate(), 48000);

    // Samples flow steadily even in silence (20 ms fragments, not 2 s bursts), at the sink's rate.
    ASSERT_TRUE(recorder.waitForFrames(4800, 3s));
    const auto begin = std::chrono::steady_clock::now();
    const size_t before = recorder.frames();
    std::this_thread::sleep_for(1500ms);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const double perSecond = double(recorder.frames() - before) / seconds;
    EXPECT_NEAR(perSecond, 48000, 48000 * 0.15) << "delivery is bursty or at the wrong rate";

    // A 0.5 sine on the left only averages to RMS 0.5 / sqrt(2) / 2. The delivery path allocates
    // nothing meanwhile (the recorder copies into reserved storage).
    test::allocations::reset();
    Tone tone = loudest(captureWhilePlaying(recorder, file("left-1k.wav"), "", 48000), 24000, 48000);
    EXPECT_EQ(test::allocations::count(), 0);
    EXPECT_NEAR(tone.rms, 0.5 / std::sqrt(2.0) / 2, 0.01);
    EXPECT_NEAR(tone.frequency, 1000, 5);

    // Something playing on another sink is not heard.
    tone = loudest(captureWhilePlaying(recorder, file("mono-300.wav"), "mic", 48000), 24000, 48000);
    EXPECT_LT(tone.rms, 0.001);

    EXPECT_EQ(recorder.restarts, 0);
    EXPECT_EQ(recorder.rateChanges, 0);
    source.stop();
    source.stop();
}

TEST_F(PulseCapture, MicrophoneCapturesTheDefaultSource) {
    MicrophoneSource mic;
    Recorder recorder(mic);
    mic.start();
    ASSERT_EQ(mic.sampleRate(), 44100);
    const Tone tone =
        loudest(captureWhilePlaying(recorder, file("mono-300.wav"), "mic", 44100), 22050, 44100);
    EXPECT_NEAR(tone.rms, 0.5 / std::sqrt(2.0), 0.01);
    EXPECT_NEAR(tone.frequency, 300, 3);
    mic.stop();
    EXPECT_EQ(recorder.restarts, 0);
    EXPECT_EQ(recorder.rateChanges, 0);
}

// A new default sink at another rate, and then no sink at all, and one again: the source follows by
// itself (no restart asked of its owner), reports each new rate before its samples, and waits meanwhile.
TEST_F(PulseCapture, SystemAudioFollowsTheDefaultSinkByItself) {
    SystemAudioSource source;
    Recorder recorder(source);
    source.start();
    ASSERT_EQ(source.sampleRate(), 48000);
    harness("pulse_add_sink phones 44100 2 && pulse_set_default_sink phones");
    ASSERT_TRUE(waitUntil([&] { return recorder.rateChanges == 1; }, 5s));
    EXPECT_EQ(recorder.lastRate, 44100);
    EXPECT_EQ(source.sampleRate(), 44100);
    Tone tone = loudest(captureWhilePlaying(recorder, file("mono-300.wav"), "phones", 44100), 22050, 44100);
    EXPECT_NEAR(tone.rms, 0.5 / std::sqrt(2.0), 0.01) << "not the new default's monitor";

    // Every sink gone (both harnesses' stand-in for unplugging the last output): a wait, not an error.
    harness("pulse_remove_sink phones && pulse_remove_sink speakers && pulse_remove_sink mic");
    EXPECT_TRUE(recorder.waitForRoute(AudioSource::Route::waitingForDevice, 5s));
    harness(
        "pulse_add_sink speakers 48000 2 && pulse_add_sink mic 44100 1 && pulse_set_default_sink speakers"
        " && pulse_set_default_source mic.monitor");
    EXPECT_TRUE(recorder.waitForRoute(AudioSource::Route::capturing, 5s));
    EXPECT_EQ(source.sampleRate(), 48000);
    EXPECT_EQ(recorder.lastRate, 48000);
    EXPECT_TRUE(recorder.waitForFrames(recorder.frames() + 24000, 4s)) << "no samples from the new sink";
    EXPECT_EQ(recorder.restarts, 0);
    source.stop();
}

// Last: it restarts the server.
TEST_F(PulseCapture, StopWhileTheServerIsAwayDoesNotHang) {
    SystemAudioSource source;
    Recorder recorder(source);
    source.start();
    harness("pulse_kill_server KILL");
    source.stop();  // a hang here fails the test through its time limit
    harness("pulse_restart_server");
}

}  // namespace
}  // namespace velquin
