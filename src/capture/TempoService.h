#pragma once
// The live engine behind the display: one capture source, the sample ring, a live tempo/key analyzer
// pair fed every 0.12 s on the analysis thread, and the latest published pair. Whole files are
// FileAnalysis's.
//
// start/stop/setRange/reset and every read of the published values belong to the main thread;
// onUpdate is delivered there through the Qt event loop.

#include <QObject>
#include <QTimer>
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "analysis/EngineSettings.h"
#include "analysis/LiveAnalysis.h"
#include "analysis/MusicalKey.h"
#include "analysis/TempoEstimate.h"
#include "analysis/TempoRange.h"
#include "capture/AudioSource.h"

namespace velquin {

class TempoService : public QObject {
    Q_OBJECT

  public:
    // Makes the capture source for a kind; tests substitute scripted sources.
    using SourceFactory = std::function<std::unique_ptr<AudioSource>(AudioSourceKind)>;

    explicit TempoService(SourceFactory sourceFactory = {},
                          AnalyzerParameters parameters = engineSettings::parameters());
    ~TempoService() override;  // stops a running service

    void start(AudioSourceKind kind);
    void stop();
    void setRange(TempoRange range);
    void reset();

    AudioSourceKind kind() const { return kind_; }
    const TempoEstimate& estimate() const { return estimate_; }
    const KeyEstimate& keyEstimate() const { return keyEstimate_; }
    const std::optional<std::string>& lastError() const { return lastError_; }
    bool isRunning() const { return isRunning_; }
    TempoRange range() const { return range_; }
    double captureSampleRate() const;
    // Why nothing is heard while the service runs ("Waiting for an output device…", "No audio from the
    // sound server", …); empty while capture runs and audio flows. The reading meanwhile is nothing-yet.
    const std::string& notice() const { return notice_; }
    // A missing device is waited out this long before it is reported through onProblem.
    void setGracePeriod(std::chrono::milliseconds period) { graceTimer_.setInterval(period); }

    // What the analysis thread has seen so far; waits for the tasks queued before it.
    struct AnalysisCounters {
        int64_t regimeChanges = 0;  // of the current tempo analyzer
        int64_t keyRestarts = 0;    // of the current key analyzer
        int64_t seenRegimeChanges = 0;
        int64_t seenKeyRestarts = 0;
        double analyzerSampleRate = 0;
        BPMBounds bpmRange{0, 0};
    };
    AnalysisCounters analysisCounters() const;

    std::function<void(const TempoEstimate&, const KeyEstimate&)> onUpdate;
    // Runs on the analysis thread with every non-empty batch fed to the analyzers. Set before start().
    std::function<void(const std::vector<float>& samples)> onCapturedSamples;
    // A start that failed (no sound server): the service does not run.
    std::function<void(const std::string& message)> onError;
    // Main thread, whenever notice() changes.
    std::function<void(const std::string& notice)> onNotice;
    // A missing device that outlasted the grace period, once (also in lastError()). The source keeps
    // waiting; onRecovered follows (and lastError() clears) when it captures again.
    std::function<void(const std::string& message)> onProblem;
    std::function<void()> onRecovered;

  private:
    struct Live;
    void publish(const TempoEstimate& tempo, const KeyEstimate& key);
    void deliver(const TempoEstimate& tempo, const KeyEstimate& key, bool stalled);
    void routeChanged(AudioSource::Route route);
    void gracePassed();
    void updateNotice();

    SourceFactory sourceFactory_;
    AnalyzerParameters parameters_;
    AudioSourceKind kind_ = AudioSourceKind::systemAudio;
    TempoEstimate estimate_;
    KeyEstimate keyEstimate_ = KeyEstimate::unknown;
    std::optional<std::string> lastError_;
    bool isRunning_ = false;
    TempoRange range_ = TempoRange::Auto;
    AudioSource::Route route_ = AudioSource::Route::capturing;
    bool stalled_ = false;     // capturing, yet no samples for a while
    bool problem_ = false;     // lastError_ holds a wait that outlasted the grace period
    uint64_t generation_ = 0;  // of the current start: news from an older source is dropped
    std::string notice_;
    QTimer graceTimer_;
    std::shared_ptr<Live> live_;
};

}  // namespace velquin
