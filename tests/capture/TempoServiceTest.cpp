#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "LiveAnalysis.h"
#include "TempoService.h"
#include "TestSupport.h"

using velquin::AudioSource;
using velquin::AudioSourceError;
using velquin::AudioSourceKind;
using velquin::KeyEstimate;
using velquin::TempoEstimate;
using velquin::TempoRange;
using velquin::TempoService;

namespace {

// A capture source whose samples, rate changes and failures the test scripts.
class ScriptedSource : public AudioSource {
  public:
    struct Registry {
        std::atomic<int> created{0};
        std::atomic<int> running{0};
        std::atomic<int> stops{0};
    };

    ScriptedSource(Registry& registry, double rate, bool fail)
        : registry_(registry), rate_(rate), fail_(fail) {
        ++registry_.created;
    }
    ~ScriptedSource() override { stop(); }

    double sampleRate() const override { return rate_; }
    void start() override {
        if (fail_) throw AudioSourceError::serverUnreachable(-1);
        running_ = true;
        ++registry_.running;
    }
    void stop() override {
        ++registry_.stops;
        if (running_) --registry_.running;
        running_ = false;
    }

  private:
    Registry& registry_;
    double rate_;
    bool fail_;
    bool running_ = false;
};

struct Harness {
    ScriptedSource::Registry registry;
    double rate = 48000;
    bool fail = false;
    ScriptedSource* last = nullptr;  // the newest source; the service owns it
    TempoService service{[this](AudioSourceKind) {
        auto source = std::make_unique<ScriptedSource>(registry, rate, fail);
        last = source.get();
        return source;
    }};
    std::vector<std::pair<TempoEstimate, KeyEstimate>> updates;
    std::vector<std::string> errors;

    Harness() {
        service.onUpdate = [this](const TempoEstimate& t, const KeyEstimate& k) {
            updates.emplace_back(t, k);
        };
        service.onError = [this](const std::string& message) {
            errors.push_back(message);
            EXPECT_TRUE(updates.empty() || updates.size() == updatesBeforeError);
        };
    }
    size_t updatesBeforeError = 0;
};

// Runs the main thread's event loop for `seconds`.
void pump(double seconds) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < seconds * 1000)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
}

}  // namespace

TEST(TempoService, FailedStartPublishesTheErrorThenNothingYet) {
    Harness h;
    h.fail = true;
    h.service.start(AudioSourceKind::systemAudio);
    ASSERT_EQ(h.errors.size(), 1u);
    EXPECT_EQ(h.errors[0], AudioSourceError::serverUnreachable(-1).what());
    EXPECT_EQ(h.service.lastError(), h.errors[0]);
    ASSERT_EQ(h.updates.size(), 1u);  // onError came first: it saw no update
    EXPECT_EQ(h.updates[0].first.bpm, 0);
    EXPECT_FALSE(h.updates[0].second.key);
    EXPECT_FALSE(h.service.isRunning());
    EXPECT_EQ(h.registry.running, 0);
    pump(0.4);
    EXPECT_EQ(h.updates.size(), 1u);  // no timer runs

    // A later successful start clears the error.
    h.fail = false;
    h.service.start(AudioSourceKind::microphone);
    EXPECT_FALSE(h.service.lastError());
    EXPECT_TRUE(h.service.isRunning());
    EXPECT_EQ(h.service.kind(), AudioSourceKind::microphone);
}

TEST(TempoService, TicksWithoutAudioAndTwoStartsLeaveOneSource) {
    Harness h;
    h.service.start(AudioSourceKind::systemAudio);
    h.service.start(AudioSourceKind::systemAudio);
    EXPECT_EQ(h.registry.created, 2);
    EXPECT_EQ(h.registry.running, 1);
    pump(1.0);
    // One timer ticking every 0.12 s: about 8 readings in a second, not 16.
    EXPECT_GE(h.updates.size(), 5u);
    EXPECT_LE(h.updates.size(), 10u);
    for (const auto& [tempo, key] : h.updates) {
        EXPECT_EQ(tempo.bpm, 0);
        EXPECT_FALSE(key.key);
    }

    h.service.stop();
    h.service.stop();  // idempotent
    EXPECT_EQ(h.registry.running, 0);
    EXPECT_FALSE(h.service.isRunning());
    pump(0.1);  // a reading already queued may still arrive
    const size_t stopped = h.updates.size();
    pump(0.4);
    EXPECT_EQ(h.updates.size(), stopped);
}

TEST(TempoService, RateChangeRebuildsTheAnalyzersAndRangeAppliesToThem) {
    Harness h;
    h.service.start(AudioSourceKind::systemAudio);
    EXPECT_EQ(h.service.captureSampleRate(), 48000);
    h.last->onSampleRateChange(44100);
    EXPECT_EQ(h.service.captureSampleRate(), 44100);  // at once, on the calling thread
    EXPECT_EQ(h.service.analysisCounters().analyzerSampleRate, 44100);

    h.updates.clear();
    h.service.setRange(TempoRange::slow);
    ASSERT_EQ(h.updates.size(), 1u);  // published at once
    EXPECT_EQ(h.updates[0].first.bpm, 0);
    EXPECT_EQ(h.service.analysisCounters().bpmRange, velquin::bounds(TempoRange::slow));
    // A rebuild after the range change keeps the range.
    h.last->onSampleRateChange(32000);
    EXPECT_EQ(h.service.analysisCounters().bpmRange, velquin::bounds(TempoRange::slow));
}

TEST(TempoService, CapturedSamplesReachTheAnalyzersAndARestartRequestRestarts) {
    Harness h;
    std::mutex mutex;
    size_t captured = 0;
    h.service.onCapturedSamples = [&](const std::vector<float>& samples) {
        std::lock_guard guard(mutex);
        captured += samples.size();
    };
    h.service.start(AudioSourceKind::systemAudio);
    const auto tone = velquin::test::sine(440, 48000, 0.5);
    std::thread capture([&] { h.last->onSamples(tone.data(), static_cast<int64_t>(tone.size())); });
    capture.join();
    pump(0.5);
    {
        std::lock_guard guard(mutex);
        EXPECT_EQ(captured, tone.size());
    }
    EXPECT_GT(h.updates.back().first.level, 0);

    ScriptedSource* first = h.last;
    std::thread route([first] { first->onNeedsRestart(); });
    route.join();
    pump(0.3);
    EXPECT_EQ(h.registry.created, 2);
    EXPECT_EQ(h.registry.running, 1);
}

TEST(TempoService, RegimeChangeRestartsTheKeyAnalyzerOnce) {
    // Clicks over a steady tone (never silent, one key), switching tempo halfway: the tempo analyzer
    // counts a new regime and every one of them restarts the key analyzer, which unlocks the tempo.
    Harness h;
    h.rate = 16000;
    h.service.start(AudioSourceKind::systemAudio);
    auto audio = velquin::test::clickTrain(100, h.rate, 16.0);
    const auto faster = velquin::test::clickTrain(123, h.rate, 16.0);
    audio.insert(audio.end(), faster.begin(), faster.end());
    velquin::test::mixInto(audio, velquin::test::sine(220, h.rate, 32.0, 0.05));

    // Fed four times faster than real time: half a second of audio per tick.
    std::atomic<bool> done = false;
    std::thread capture([&] {
        for (size_t i = 0; i < audio.size(); i += 8000) {
            h.last->onSamples(audio.data() + i,
                              static_cast<int64_t>(std::min<size_t>(8000, audio.size() - i)));
            std::this_thread::sleep_for(std::chrono::milliseconds(120));
        }
        done = true;
    });
    while (!done) pump(0.2);
    capture.join();
    pump(0.3);
    const auto counters = h.service.analysisCounters();
    EXPECT_GE(counters.regimeChanges, 1);
    EXPECT_EQ(counters.seenRegimeChanges, counters.regimeChanges);
    EXPECT_EQ(counters.keyRestarts, counters.regimeChanges);
    EXPECT_EQ(counters.seenKeyRestarts, counters.keyRestarts);
}

TEST(TempoService, DestroyingARunningServiceStopsIt) {
    ScriptedSource::Registry registry;
    {
        TempoService service(
            [&](AudioSourceKind) { return std::make_unique<ScriptedSource>(registry, 48000, false); });
        service.onUpdate = [](const TempoEstimate&, const KeyEstimate&) {};
        service.start(AudioSourceKind::systemAudio);
        pump(0.3);
        EXPECT_EQ(registry.running, 1);
    }
    EXPECT_EQ(registry.running, 0);
    pump(0.3);  // readings queued before the end find no service and are dropped
}

TEST(LiveAnalysis, AKeyRestartReleasesTheTempoLock) {
    velquin::LiveAnalysis live(16000, velquin::bounds(TempoRange::Auto));
    const auto clicks = velquin::test::clickTrain(120, 16000, 12.0);
    for (size_t i = 0; i + 1920 <= clicks.size(); i += 1920) {
        live.append({clicks.data() + i, 1920});
        (void)live.read();
    }
    ASSERT_GT(live.tempo().lockedBPM(), 0);
    live.key().restart(velquin::LiveAnalysis::keepAfterSongChangeSeconds);  // a song change the key heard
    (void)live.read();
    EXPECT_EQ(live.tempo().lockedBPM(), 0);
}
