#include "player/PlayerFollower.h"

#include <QSocketNotifier>

namespace velquin {

namespace {

bool sameFile(const auto& a, const auto& b) {
    return a.path == b.path && a.range == b.range && a.analysis == b.analysis;
}

bool sameReading(const std::optional<PlayerReading>& a, const std::optional<PlayerReading>& b) {
    if (!a || !b) return !a && !b;
    return a->line == b->line && a->path == b->path && a->rate == b->rate && a->tempo.bpm == b->tempo.bpm &&
           a->key.key == b->key.key;
}

}  // namespace

PlayerFollower::PlayerFollower(QDBusConnection bus, std::shared_ptr<TrackCache> cache,
                               fileAnalysis::Analyzer analyze, QObject* parent)
    : QObject(parent), watcher_(std::move(bus)) {
    watcher_.onChange = [this] { update(); };
    worker_ = std::make_unique<TrackAnalysisWorker>(std::move(cache), std::move(analyze));
    // The worker only marks its descriptor; the outcome is fetched on this thread.
    workerReady_ = new QSocketNotifier(worker_->readyFd(), QSocketNotifier::Read, this);
    connect(workerReady_, &QSocketNotifier::activated, this, [this] {
        if (auto outcome = worker_->takeOutcome()) finished(std::move(*outcome));
    });
}

PlayerFollower::~PlayerFollower() {
    delete workerReady_;  // before the descriptor it watches closes
    worker_.reset();
}

void PlayerFollower::start() {
    watcher_.start();
}

void PlayerFollower::setEnabled(bool enabled) {
    if (enabled == enabled_) return;
    enabled_ = enabled;
    update();
}

void PlayerFollower::setRange(TempoRange range) {
    if (range == range_) return;
    range_ = range;
    update();
}

void PlayerFollower::setAnalysis(fileAnalysis::Analysis analysis) {
    if (analysis == analysis_) return;
    analysis_ = analysis;
    update();
}

void PlayerFollower::update() {
    const MprisWatcher::Player* player = enabled_ ? watcher_.followed() : nullptr;
    const auto path = player ? localPathOfUrl(player->track.url) : std::nullopt;
    if (!path) {
        if (wanted_) cancelRead();
        wanted_.reset();
        show(std::nullopt);
        return;
    }
    const Wanted file{*path, range_, analysis_};
    if (!wanted_ || !sameFile(*wanted_, file)) {
        wanted_ = file;
        if (!known_ || !sameFile(known_->file, file)) {
            // The last track's reading would be wrong for this one: live until this one is read.
            show(std::nullopt);
            worker_->request({++jobId_, file.path, file.range, file.analysis});
            return;
        }
        cancelRead();
    }
    if (!known_ || !sameFile(known_->file, file)) return;  // still being read, or unreadable
    PlayerReading reading;
    reading.line = playingLine(player->track);
    reading.path = file.path;
    reading.tempo = known_->result.tempo;
    reading.tempo.bpm *= player->rate;
    reading.key = known_->result.key;
    reading.rate = player->rate;
    show(std::move(reading));
}

void PlayerFollower::cancelRead() {
    worker_->cancel();
    ++jobId_;  // whatever the cancelled read still reports belongs to no track
}

void PlayerFollower::finished(TrackAnalysisWorker::Outcome outcome) {
    if (outcome.id != jobId_ || !wanted_) return;  // a track that is no longer playing
    if (!outcome.result) {
        if (onLog) {
            onLog(QStringLiteral("player: could not read %1: %2")
                      .arg(QString::fromStdString(wanted_->path), QString::fromStdString(outcome.error)));
        }
        return;
    }
    known_ = Known{*wanted_, *outcome.result};
    update();
}

void PlayerFollower::show(std::optional<PlayerReading> reading) {
    if (sameReading(reading, reading_)) return;
    reading_ = std::move(reading);
    if (onReading) onReading(reading_);
}

}  // namespace velquin
