// The live side of TempoService. All analyzer work runs on one named QThread; the main thread only
// posts tasks to it, so the analyzers need no lock. The ring is the one object the capture thread
// shares, and it brings its own lock.

#include "TempoService.h"

#include <QMetaObject>
#include <QThread>
#include <QTimer>
#include <atomic>

#include "KeyAnalyzer.h"
#include "MicrophoneSource.h"
#include "SampleRing.h"
#include "SystemAudioSource.h"
#include "TempoAnalyzer.h"

namespace velquin {

namespace {
constexpr int tickMilliseconds = 120;
constexpr int64_t idleRingCapacity = 192000;
constexpr double idleSampleRate = 48000;
}  // namespace

struct TempoService::Live {
    // State owned by the analysis thread; only tasks running there touch it.
    struct Engine {
        std::unique_ptr<TempoAnalyzer> analyzer;
        std::unique_ptr<KeyAnalyzer> keyAnalyzer;
        std::unique_ptr<QTimer> timer;
        int64_t seenRegimeChanges = 0;
        int64_t seenKeyRestarts = 0;
        BPMBounds bounds = velquin::bounds(TempoRange::Auto);

        void rebuild(double rate) {
            analyzer = std::make_unique<TempoAnalyzer>(rate, false);
            analyzer->setBpmRange(bounds);
            keyAnalyzer = std::make_unique<KeyAnalyzer>(rate, false);
        }
    };

    explicit Live(TempoService* owner) : owner(owner) {
        thread.setObjectName(QStringLiteral("com.orvane.velquin.analysis"));
        worker.moveToThread(&thread);
        thread.start();
        post([this] { engine.rebuild(idleSampleRate); });
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
    std::unique_ptr<AudioSource> source;            // main thread
};

void TempoService::Live::tick() {
    Engine& e = engine;
    if (!e.analyzer || !e.keyAnalyzer) return;
    const std::vector<float> samples = ring.drain();
    if (!samples.empty()) {
        e.analyzer->append(samples);
        e.keyAnalyzer->append(samples);
        if (owner->onCapturedSamples) owner->onCapturedSamples(samples);
    }
    const TempoEstimate tempo = e.analyzer->estimate();
    if (e.analyzer->regimeChanges() != e.seenRegimeChanges) {
        e.seenRegimeChanges = e.analyzer->regimeChanges();
        // A new tempo regime means a new song: keep only the last 8 seconds of key evidence.
        e.keyAnalyzer->restart(8.0);
    }
    const KeyEstimate key = e.keyAnalyzer->estimate();
    if (e.keyAnalyzer->restarts() != e.seenKeyRestarts) {
        e.seenKeyRestarts = e.keyAnalyzer->restarts();
        e.analyzer->unlock();
    }
    TempoService* service = owner;
    QMetaObject::invokeMethod(
        service, [service, tempo, key] { service->publish(tempo, key); }, Qt::QueuedConnection);
}

TempoService::TempoService(SourceFactory sourceFactory)
    : sourceFactory_(std::move(sourceFactory)), live_(std::make_shared<Live>(this)) {}

TempoService::~TempoService() {
    stop();
    live_.reset();
}

double TempoService::captureSampleRate() const { return live_->captureSampleRate.load(); }

TempoService::AnalysisCounters TempoService::analysisCounters() const {
    AnalysisCounters counters;
    Live* l = live_.get();
    l->post(
        [l, &counters] {
            const Live::Engine& e = l->engine;
            if (e.analyzer) {
                counters.regimeChanges = e.analyzer->regimeChanges();
                counters.analyzerSampleRate = e.analyzer->sampleRate();
                counters.bpmRange = e.analyzer->bpmRange();
            }
            if (e.keyAnalyzer) counters.keyRestarts = e.keyAnalyzer->restarts();
            counters.seenRegimeChanges = e.seenRegimeChanges;
            counters.seenKeyRestarts = e.seenKeyRestarts;
        },
        true);
    return counters;
}

void TempoService::publish(const TempoEstimate& tempo, const KeyEstimate& key) {
    estimate_ = tempo;
    keyEstimate_ = key;
    if (onUpdate) onUpdate(estimate_, keyEstimate_);
}

void TempoService::start(AudioSourceKind kind) {
    stop();
    kind_ = kind;
    lastError_.reset();

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
            l->engine.rebuild(rate);
            // Those samples were captured at the old rate.
            l->ring.drain();
        });
    };
    // What was heard before the server went away must not pass for a live reading: back to nothing.
    source->onServerLost = [weak] {
        auto live = weak.lock();
        if (!live) return;
        TempoService* service = live->owner;
        QMetaObject::invokeMethod(
            service, [service] { service->reset(); }, Qt::QueuedConnection);
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
        l->engine.rebuild(rate);
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
}

void TempoService::setRange(TempoRange range) {
    range_ = range;
    const BPMBounds bounds = velquin::bounds(range);
    Live* l = live_.get();  // tasks never outlive Live: its destructor drains the queue
    l->post([l, bounds] {
        l->engine.bounds = bounds;
        if (l->engine.analyzer) {
            l->engine.analyzer->setBpmRange(bounds);
            l->engine.analyzer->reset();
        }
        if (l->engine.keyAnalyzer) l->engine.keyAnalyzer->reset();
    });
    reset();
}

void TempoService::reset() {
    Live* l = live_.get();
    l->post([l] {
        if (l->engine.analyzer) l->engine.analyzer->reset();
        if (l->engine.keyAnalyzer) l->engine.keyAnalyzer->reset();
        l->ring.drain();
    });
    estimate_ = {};
    keyEstimate_ = KeyEstimate::unknown;
    if (onUpdate) onUpdate(estimate_, keyEstimate_);
}

}  // namespace velquin
