// The live side of TempoService. All analyzer work runs on one named QThread; the main thread only
// posts tasks to it, so the analyzers need no lock. The ring is the one object the capture thread
// shares, and it brings its own lock.

#include "capture/TempoService.h"

#include <QMetaObject>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <optional>
#include <vector>

#include "capture/MicrophoneSource.h"
#include "capture/SampleRing.h"
#include "capture/SystemAudioSource.h"

namespace velquin {

namespace {
constexpr int tickMilliseconds = 120;
constexpr int64_t idleRingCapacity = 192000;
constexpr double idleSampleRate = 48000;
// A running stream delivers every 20–50 ms, silence included; this long without a sample is a stalled
// server, a corked or suspended stream.
constexpr std::chrono::milliseconds stallAfter{1500};
// A plug, a profile switch or a reconnecting Bluetooth device takes a second or two; longer is a problem.
constexpr std::chrono::milliseconds gracePeriod{5000};
}  // namespace

struct TempoService::Live {
    // State owned by the analysis thread; only tasks running there touch it.
    struct Engine {
        std::optional<LiveAnalysis> analysis;
        std::unique_ptr<QTimer> timer;
        std::vector<float> samples;  // the tick's drain buffer, reused
        std::chrono::steady_clock::time_point lastSamples{};
        uint64_t seenRouteEpoch = 0;
        bool stalled = false;
    };

    explicit Live(TempoService* service) : owner(service) {
        thread.setObjectName(QStringLiteral("com.orvane.velquin.analysis"));
        worker.moveToThread(&thread);
        thread.start();
        post([this, parameters = owner->parameters_] {
            engine.analysis.emplace(idleSampleRate, velquin::bounds(TempoRange::Auto), parameters);
            engine.samples.reserve(static_cast<size_t>(idleRingCapacity));
        });
    }

    ~Live() {
        post([this] { engine = Engine{}; }, true);
        thread.quit();
        thread.wait();
    }

    // Runs `task` on the analysis thread, in order with every other task; `wait` blocks until it ran.
    void post(std::function<void()> task, bool wait = false) {
        QMetaObject::invokeMethod(&worker, std::move(task),
                                  wait ? Qt::BlockingQueuedConnection : Qt::QueuedConnection);
    }

    void tick();

    TempoService* owner;  // outlives Live's tasks: the owner's destructor joins the thread first
    QThread thread;
    QObject worker;
    Engine engine;
    SampleRing ring{idleRingCapacity};  // shared with the capture thread; it has its own lock
    std::atomic<double> captureSampleRate{idleSampleRate};
    // Written by the source's thread as its route changes: whether samples should flow, and a count of
    // changes so that the tick restarts its stall clock.
    std::atomic<bool> expectingSamples{true};
    std::atomic<uint64_t> routeEpoch{0};
    std::unique_ptr<AudioSource> source;  // main thread
};

void TempoService::Live::tick() {
    Engine& e = engine;
    if (!e.analysis) return;
    ring.drainInto(e.samples);
    const auto now = std::chrono::steady_clock::now();
    const uint64_t epoch = routeEpoch.load();
    if (epoch != e.seenRouteEpoch || !e.samples.empty()) {
        e.seenRouteEpoch = epoch;
        e.lastSamples = now;
    }
    if (!e.samples.empty()) {
        e.analysis->append(e.samples);
        if (owner->onCapturedSamples) owner->onCapturedSamples(e.samples);
    }
    const bool stalled = expectingSamples.load() && now - e.lastSamples > stallAfter;
    // What was heard before the stall is no longer live: start afresh when samples flow again.
    if (stalled && !e.stalled) e.analysis->reset();
    e.stalled = stalled;
    const LiveAnalysis::Reading reading = e.analysis->read();
    TempoService* service = owner;
    QMetaObject::invokeMethod(
        service, [service, reading, stalled] { service->deliver(reading.tempo, reading.key, stalled); },
        Qt::QueuedConnection);
}

TempoService::TempoService(SourceFactory sourceFactory, AnalyzerParameters parameters)
    : sourceFactory_(std::move(sourceFactory)),
      parameters_(std::move(parameters)),
      live_(std::make_shared<Live>(this)) {
    graceTimer_.setSingleShot(true);
    graceTimer_.setInterval(gracePeriod);
    connect(&graceTimer_, &QTimer::timeout, this, &TempoService::gracePassed);
}

TempoService::~TempoService() {
    stop();
    live_.reset();
}

double TempoService::captureSampleRate() const {
    return live_->captureSampleRate.load();
}

TempoService::AnalysisCounters TempoService::analysisCounters() const {
    AnalysisCounters counters;
    Live* l = live_.get();
    l->post(
        [l, &counters] {
            const Live::Engine& e = l->engine;
            if (!e.analysis) return;
            counters.regimeChanges = e.analysis->tempo().regimeChanges();
            counters.analyzerSampleRate = e.analysis->tempo().sampleRate();
            counters.bpmRange = e.analysis->tempo().bpmRange();
            counters.keyRestarts = e.analysis->key().restarts();
            counters.seenRegimeChanges = e.analysis->seenRegimeChanges();
            counters.seenKeyRestarts = e.analysis->seenKeyRestarts();
        },
        true);
    return counters;
}

void TempoService::publish(const TempoEstimate& tempo, const KeyEstimate& key) {
    estimate_ = tempo;
    keyEstimate_ = key;
    if (onUpdate) onUpdate(estimate_, keyEstimate_);
}

void TempoService::deliver(const TempoEstimate& tempo, const KeyEstimate& key, bool stalled) {
    if (isRunning_ && stalled != stalled_) {
        stalled_ = stalled;
        updateNotice();
    }
    publish(tempo, key);
}

void TempoService::routeChanged(AudioSource::Route route) {
    if (!isRunning_) return;
    route_ = route;
    if (route == AudioSource::Route::capturing) {
        graceTimer_.stop();
        if (problem_) {
            problem_ = false;
            lastError_.reset();
            if (onRecovered) onRecovered();
        }
    } else {
        // What was heard before must not pass for a live reading: back to nothing while it waits.
        reset();
        if (route == AudioSource::Route::waitingForServer) {
            graceTimer_.stop();
        } else if (!problem_ && !graceTimer_.isActive()) {
            graceTimer_.start();
        }
    }
    updateNotice();
}

void TempoService::gracePassed() {
    if (!isRunning_ || route_ != AudioSource::Route::waitingForDevice) return;
    problem_ = true;
    lastError_ = kind_ == AudioSourceKind::microphone
                     ? AudioSourceError::engineFailed("input device reported an empty format").what()
                     : AudioSourceError::noOutputDevice().what();
    if (onProblem) onProblem(*lastError_);
}

void TempoService::updateNotice() {
    std::string notice;
    if (isRunning_) {
        switch (route_) {
            case AudioSource::Route::waitingForServer:
                notice = "Waiting for the sound server…";
                break;
            case AudioSource::Route::waitingForDevice:
                notice = kind_ == AudioSourceKind::microphone ? "Waiting for an input device…"
                                                              : "Waiting for an output device…";
                break;
            case AudioSource::Route::capturing:
                if (stalled_) notice = "No audio from the sound server";
                break;
        }
    }
    if (notice == notice_) return;
    notice_ = notice;
    if (onNotice) onNotice(notice_);
}

void TempoService::start(AudioSourceKind kind) {
    stop();
    kind_ = kind;
    lastError_.reset();
    const uint64_t generation = ++generation_;
    live_->expectingSamples.store(true);
    ++live_->routeEpoch;

    std::unique_ptr<AudioSource> source;
    if (sourceFactory_) {
        source = sourceFactory_(kind);
    } else if (kind == AudioSourceKind::microphone) {
        source = std::make_unique<MicrophoneSource>();
    } else {
        source = std::make_unique<SystemAudioSource>();
    }

    const std::weak_ptr<Live> weak = live_;
    source->onSamples = [weak](const float* samples, int64_t count) {
        if (auto live = weak.lock()) live->ring.write(samples, count);
    };
    source->onSampleRateChange = [weak](double rate) {
        auto live = weak.lock();
        if (!live) return;
        live->captureSampleRate.store(rate);
        Live* l = live.get();
        live->post([l, rate] {
            if (l->engine.analysis) l->engine.analysis->rebuild(rate);
            // Those samples were captured at the old rate.
            l->ring.drainInto(l->engine.samples);
        });
    };
    source->onRouteChange = [weak, generation](AudioSource::Route route) {
        auto live = weak.lock();
        if (!live) return;
        live->expectingSamples.store(route == AudioSource::Route::capturing);
        ++live->routeEpoch;
        TempoService* service = live->owner;
        QMetaObject::invokeMethod(
            service,
            [service, route, generation] {
                if (service->generation_ == generation) service->routeChanged(route);
            },
            Qt::QueuedConnection);
    };
    source->onNeedsRestart = [weak] {
        auto live = weak.lock();
        if (!live) return;
        TempoService* service = live->owner;
        QMetaObject::invokeMethod(
            service, [service] { service->start(service->kind_); }, Qt::QueuedConnection);
    };

    try {
        source->start();
        if (!(source->sampleRate() > 0)) {
            source->stop();
            throw AudioSourceError::engineFailed("input device reported an empty format");
        }
    } catch (const std::exception& error) {
        lastError_ = error.what();
        estimate_ = {};
        keyEstimate_ = KeyEstimate::unknown;
        if (onError) onError(*lastError_);
        if (onUpdate) onUpdate(estimate_, keyEstimate_);
        return;
    }

    const double rate = source->sampleRate();
    live_->source = std::move(source);
    live_->captureSampleRate.store(rate);
    Live* l = live_.get();
    l->ring.replace(static_cast<int64_t>(rate * 4));  // four seconds of audio
    isRunning_ = true;
    l->post([l, rate] {
        if (l->engine.analysis) l->engine.analysis->rebuild(rate);
        l->engine.lastSamples = std::chrono::steady_clock::now();
        l->engine.stalled = false;
        auto timer = std::make_unique<QTimer>();
        timer->setTimerType(Qt::PreciseTimer);
        timer->setInterval(tickMilliseconds);
        QObject::connect(timer.get(), &QTimer::timeout, timer.get(), [l] { l->tick(); });
        timer->start();
        l->engine.timer = std::move(timer);
    });
}

void TempoService::stop() {
    Live* l = live_.get();
    if (isRunning_) {
        // Waits, so that no tick (and no onCapturedSamples) runs once stop() has returned.
        l->post([l] { l->engine.timer.reset(); }, true);
    }
    if (l->source) {
        l->source->stop();
        l->source.reset();
    }
    isRunning_ = false;
    graceTimer_.stop();
    route_ = AudioSource::Route::capturing;
    stalled_ = false;
    problem_ = false;
    notice_.clear();  // quietly: whoever stops knows
}

void TempoService::setRange(TempoRange range) {
    range_ = range;
    const BPMBounds bounds = velquin::bounds(range);
    Live* l = live_.get();  // tasks never outlive Live: its destructor drains the queue
    l->post([l, bounds] {
        if (!l->engine.analysis) return;
        l->engine.analysis->setBpmRange(bounds);
        l->engine.analysis->reset();
    });
    reset();
}

void TempoService::reset() {
    Live* l = live_.get();
    l->post([l] {
        if (l->engine.analysis) l->engine.analysis->reset();
        l->ring.drainInto(l->engine.samples);
    });
    estimate_ = {};
    keyEstimate_ = KeyEstimate::unknown;
    if (onUpdate) onUpdate(estimate_, keyEstimate_);
}

}  // namespace velquin
