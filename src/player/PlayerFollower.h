#pragma once
// The reading follows the player: while the followed media player plays a local file, that file's key
// and tempo (read once on a worker thread, or taken from the cache) stand in for the live reading. The
// live analysis is not touched; the desktop app chooses which reading to draw.
//
// Interface thread only; callbacks run there.

#include <QDBusConnection>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "player/MprisWatcher.h"
#include "player/TrackAnalysisWorker.h"
#include "player/TrackCache.h"

namespace velquin {

struct PlayerReading {
    QString line;         // "Playing: ARTIST — TITLE"
    std::string path;     // the file that was read
    TempoEstimate tempo;  // the file's, its BPM times the player's rate
    KeyEstimate key;
    double rate = 1;
};

class PlayerFollower : public QObject {
    Q_OBJECT

  public:
    // `cache` may be null. `analyze` is the whole-file analysis (tests count calls through it).
    PlayerFollower(QDBusConnection bus, std::shared_ptr<TrackCache> cache,
                   fileAnalysis::Analyzer analyze = fileAnalysis::analyzeFile, QObject* parent = nullptr);
    ~PlayerFollower() override;  // stops the worker thread

    void start();  // starts watching the bus
    void setEnabled(bool enabled);
    bool isEnabled() const { return enabled_; }
    // The range the next file is read with; a playing file is read again with the new range.
    void setRange(TempoRange range);
    // The analysis the next file gets; a playing file is read again with the new one.
    void setAnalysis(fileAnalysis::Analysis analysis);

    // None: nothing to follow, so the live reading shows.
    const std::optional<PlayerReading>& reading() const { return reading_; }
    const MprisWatcher& watcher() const { return watcher_; }

    // Called whenever reading() changes.
    std::function<void(const std::optional<PlayerReading>&)> onReading;
    // One line per file that cannot be read.
    std::function<void(const QString&)> onLog;

  private:
    struct Wanted {
        std::string path;
        TempoRange range;
        fileAnalysis::Analysis analysis;
    };
    struct Known {
        Wanted file;
        FileResult result;
    };

    void update();
    void cancelRead();
    void finished(TrackAnalysisWorker::Outcome outcome);
    void show(std::optional<PlayerReading> reading);

    MprisWatcher watcher_;
    bool enabled_ = true;
    TempoRange range_ = TempoRange::Auto;
    fileAnalysis::Analysis analysis_ = fileAnalysis::Analysis::specified;
    std::optional<Wanted> wanted_;  // the file the followed player plays
    std::optional<Known> known_;    // the last file read, kept for a resume or a rate change
    uint64_t jobId_ = 0;
    std::optional<PlayerReading> reading_;
    std::unique_ptr<TrackAnalysisWorker> worker_;
    QSocketNotifier* workerReady_ = nullptr;
};

}  // namespace velquin
