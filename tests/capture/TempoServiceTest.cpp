#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "analysis/LiveAnalysis.h"
#include "capture/TempoService.h"
#include "support/TestSupport.h"

namespace velquin {
namespace {

// A capture source whose samples, rate changes and failures the test scripts.
class ScriptedSource : public AudioSource {
  public:
    struct Registry {
        std::atomic<int> created{0};
        std::atomic<int> running{0};
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
    // Declared before the service, so they outlive whatever it delivers while it shuts down.
    std::vector<std::pair<TempoEstimate, KeyEstimate>> updates;
    std::vector<std::string> errors;
    size_t updatesBeforeError = 0;
    TempoService service{[this](AudioSourceKind) {
        auto source = std::make_unique<ScriptedSource>(registry, rate, fail);
        last = source.get();
        return source;
    }};

    Harness() {
        service.onUpdate = [this](const TempoEstimate& t, const KeyEstimate& k) {
            updates.emplace_back(t, k);
        };
        service.onError = [this](const std::string& message) {
            errors.push_back(message);
            EXPECT_TRUE(updates.empty() || updates.size() == updatesBeforeError);
        };
    }
};

// Runs the main thread's event loop until `done` or `seconds` have passed (generous: TSan on a busy
// machine); says whether `done` came true. With no condition it just runs for `seconds`.
bool pump(
    double seconds, const std::function<bool()>& done = [] { return false; }) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() >= seconds * 1000) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
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
    // One timer ticking every 0.12 s takes about a second for 8 readings; two would take half that.
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(pump(60, [&] { return h.updates.size() >= 8; }));
    EXPECT_GT(clock.elapsed(), 700);
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

    // Destroyed while running: readings queued before the end find no service and are dropped.
    {
        Harness running;
        running.service.start(AudioSourceKind::systemAudio);
        pump(0.3);
    }
    pump(0.3);
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
    EXPECT_EQ(h.service.analysisCounters().bpmRange, bounds(TempoRange::slow));
    // A rebuild after the range change keeps the range.
    h.last->onSampleRateChange(32000);
    EXPECT_EQ(h.service.analysisCounters().bpmRange, bounds(TempoRange::slow));
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
    const auto tone = test::sine(440, 48000, 0.5);
    std::thread capture([&] { h.last->onSamples(tone.data(), static_cast<int64_t>(tone.size())); });
    capture.join();
    EXPECT_TRUE(pump(60, [&] { return !h.updates.empty() && h.updates.back().first.level > 0; }));
    {
        std::lock_guard guard(mutex);
        EXPECT_EQ(captured, tone.size());
    }

    ScriptedSource* first = h.last;
    std::thread route([first] { first->onNeedsRestart(); });
    route.join();
    EXPECT_TRUE(pump(60, [&] { return h.registry.created == 2; }));
    EXPECT_EQ(h.registry.running, 1);
}

TEST(TempoService, RegimeChangeRestartsTheKeyAnalyzerOnce) {
    // Clicks over a steady tone (never silent, one key), switching tempo halfway: the tempo analyzer
    // counts a new regime and every one of them restarts the key analyzer, which unlocks the tempo.
    Harness h;
    h.rate = 16000;
    h.service.start(AudioSourceKind::systemAudio);
    auto audio = test::clickTrain(100, h.rate, 16.0);
    const auto faster = test::clickTrain(123, h.rate, 16.0);
    audio.insert(audio.end(), faster.begin(), faster.end());
    test::mixInto(audio, test::sine(220, h.rate, 32.0, 0.05));

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
    pump(600, [&] { return done.load(); });
    capture.join();
    // The last readings are still on their way: wait until the counters agree, or time out.
    const auto agree = [&] {
        const auto c = h.service.analysisCounters();
        return c.regimeChanges >= 1 && c.seenRegimeChanges == c.regimeChanges &&
               c.keyRestarts == c.regimeChanges && c.seenKeyRestarts == c.keyRestarts;
    };
    EXPECT_TRUE(pump(20, agree));
}

// Sources report from their own thread.
void report(AudioSource& source, AudioSource::Route route) {
    std::thread([&source, route] { source.onRouteChange(route); }).join();
}

TEST(TempoService, AMissingDeviceIsWaitedOutThenReportedUntilCaptureReturns) {
    Harness h;
    std::vector<std::string> notices, problems;
    int recovered = 0;
    h.service.onNotice = [&](const std::string& n) { notices.push_back(n); };
    h.service.onProblem = [&](const std::string& m) { problems.push_back(m); };
    h.service.onRecovered = [&] { ++recovered; };
    h.service.setGracePeriod(std::chrono::milliseconds(400));
    h.service.start(AudioSourceKind::systemAudio);
    const auto tone = test::sine(440, 48000, 1.0);
    std::thread([&] { h.last->onSamples(tone.data(), static_cast<int64_t>(tone.size())); }).join();
    ASSERT_TRUE(pump(60, [&] { return !h.updates.empty() && h.updates.back().first.level > 0; }));

    // The output goes: nothing-yet at once, the reason in the notice, no error yet.
    report(*h.last, AudioSource::Route::waitingForDevice);
    ASSERT_TRUE(pump(60, [&] { return h.service.notice() == "Waiting for an output device…"; }));
    EXPECT_EQ(h.updates.back().first.level, 0);
    EXPECT_FALSE(h.updates.back().second.key);
    EXPECT_TRUE(h.service.isRunning());
    EXPECT_TRUE(problems.empty());
    EXPECT_FALSE(h.service.lastError());
    // Past the grace period it is a problem, once, and the service keeps running.
    ASSERT_TRUE(pump(60, [&] { return !problems.empty(); }));
    pump(0.6);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0], AudioSourceError::noOutputDevice().what());
    EXPECT_EQ(h.service.lastError(), problems[0]);
    EXPECT_TRUE(h.service.isRunning());
    EXPECT_TRUE(h.errors.empty());

    // Capture comes back by itself: the problem clears, and so does the notice.
    report(*h.last, AudioSource::Route::capturing);
    ASSERT_TRUE(pump(60, [&] { return recovered == 1; }));
    EXPECT_FALSE(h.service.lastError());
    EXPECT_EQ(h.service.notice(), "");
    EXPECT_EQ(notices, (std::vector<std::string>{"Waiting for an output device…", ""}));

    // A device back within the grace period is never a problem; the server away is a wait of its own.
    report(*h.last, AudioSource::Route::waitingForDevice);
    report(*h.last, AudioSource::Route::capturing);
    report(*h.last, AudioSource::Route::waitingForServer);
    ASSERT_TRUE(pump(60, [&] { return h.service.notice() == "Waiting for the sound server…"; }));
    pump(0.8);
    EXPECT_EQ(problems.size(), 1u);

    // The microphone says so in its own words; news from a source that was replaced is dropped.
    const auto oldNews = h.last->onRouteChange;  // the source itself goes with the next start
    h.service.start(AudioSourceKind::microphone);
    EXPECT_EQ(h.service.notice(), "");
    std::thread([&] { oldNews(AudioSource::Route::waitingForDevice); }).join();
    pump(0.3);
    EXPECT_EQ(h.service.notice(), "");
    report(*h.last, AudioSource::Route::waitingForDevice);
    ASSERT_TRUE(pump(60, [&] { return h.service.notice() == "Waiting for an input device…"; }));
    ASSERT_TRUE(pump(60, [&] { return problems.size() == 2; }));
    EXPECT_EQ(problems[1], "Microphone capture failed: input device reported an empty format");
    h.service.stop();
    EXPECT_EQ(h.service.notice(), "");
}

TEST(TempoService, AStalledStreamReadsNothingUntilSamplesFlowAgainButSilenceIsNoStall) {
    Harness h;
    std::atomic<bool> feeding = true;
    std::atomic<bool> silent = true;
    h.service.start(AudioSourceKind::systemAudio);
    ScriptedSource* source = h.last;
    // 0.1 s blocks in real time, digital silence or a tone, until told to stop.
    const auto tone = test::sine(440, 48000, 0.1);
    const std::vector<float> zeros(tone.size(), 0.0f);
    std::thread capture([&] {
        while (feeding) {
            const auto& block = silent ? zeros : tone;
            source->onSamples(block.data(), static_cast<int64_t>(block.size()));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    pump(2.2);
    EXPECT_EQ(h.service.notice(), "") << "silence still brings samples";
    silent = false;
    ASSERT_TRUE(pump(60, [&] { return !h.updates.empty() && h.updates.back().first.level > 0; }));

    feeding = false;  // the server stops delivering
    capture.join();
    QElapsedTimer stalled;
    stalled.start();
    ASSERT_TRUE(pump(60, [&] { return h.service.notice() == "No audio from the sound server"; }));
    EXPECT_GE(stalled.elapsed(), 1300);
    pump(0.3);
    EXPECT_EQ(h.updates.back().first.level, 0) << "the last reading must not pass for a live one";
    EXPECT_TRUE(h.service.isRunning());

    std::thread([&] { source->onSamples(tone.data(), static_cast<int64_t>(tone.size())); }).join();
    ASSERT_TRUE(pump(60, [&] { return h.service.notice().empty(); }));
    EXPECT_TRUE(pump(60, [&] { return h.updates.back().first.level > 0; }));
}

}  // namespace velquin
