#include "TrackAnalysisWorker.h"

#include <exception>
#include <utility>

#include "FileAnalysis.h"
#include "TrackInfo.h"

namespace velquin {

std::optional<TrackResult> analyzeTrackFile(const std::string& path, TempoRange range, std::stop_token stop) {
    try {
        return FileAnalysis::analyzeFile(path, range, {.onProgress = {}, .stop = std::move(stop)});
    } catch (const FileAnalysis::AnalysisCancelled&) {
        return std::nullopt;
    }
}

TrackAnalysisWorker::TrackAnalysisWorker(std::shared_ptr<TrackCache> cache, Done onDone, Analyze analyze)
    : cache_(std::move(cache)),
      onDone_(std::move(onDone)),
      analyze_(std::move(analyze)),
      thread_([this] { run(); }) {}

TrackAnalysisWorker::~TrackAnalysisWorker() {
    {
        std::lock_guard lock(mutex_);
        quitting_ = true;
        if (running_) running_->request_stop();
        pending_.reset();
        wake_.notify_one();
    }
    thread_.join();
}

void TrackAnalysisWorker::request(Job job) {
    std::lock_guard lock(mutex_);
    if (running_) running_->request_stop();
    pending_ = std::move(job);
    wake_.notify_one();
}

void TrackAnalysisWorker::cancel() {
    std::lock_guard lock(mutex_);
    if (running_) running_->request_stop();
    pending_.reset();
}

std::optional<TrackAnalysisWorker::Outcome> TrackAnalysisWorker::takeOutcome() {
    std::lock_guard lock(mutex_);
    return std::exchange(ready_, std::nullopt);
}

std::optional<TrackAnalysisWorker::Job> TrackAnalysisWorker::takeJob(std::stop_source* stop) {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return quitting_ || pending_.has_value(); });
    if (quitting_) return std::nullopt;
    running_ = stop;
    return std::exchange(pending_, std::nullopt);
}

bool TrackAnalysisWorker::finishJob(Outcome&& outcome) {
    std::lock_guard lock(mutex_);
    running_ = nullptr;
    if (outcome.id == 0) return false;
    ready_ = std::move(outcome);
    return true;
}

void TrackAnalysisWorker::run() {
    for (;;) {
        // Made and destroyed on this thread; others only ask it to stop, under the lock.
        std::stop_source jobStop;
        const std::optional<Job> job = takeJob(&jobStop);
        if (!job) return;
        if (finishJob(process(*job, jobStop.get_token())) && onDone_) onDone_();
    }
}

// An outcome with id 0 is not reported: the analysis stopped early on request.
TrackAnalysisWorker::Outcome TrackAnalysisWorker::process(const Job& job, std::stop_token stop) {
    Outcome outcome;
    outcome.id = job.id;
    TrackCacheKey key{job.path, 0, 0, job.range};
    outcome.error = checkPlayableFile(job.path, &key.size, &key.modifiedNanos);
    if (!outcome.error.empty()) return outcome;
    if (cache_) {
        if ((outcome.result = cache_->find(key))) {
            outcome.fromCache = true;
            return outcome;
        }
    }
    try {
        outcome.result = analyze_(job.path, job.range, stop);
        if (!outcome.result) return Outcome{};
    } catch (const std::exception& e) {
        outcome.error = e.what();
        return outcome;
    }
    if (cache_) cache_->store(key, *outcome.result);
    return outcome;
}

}  // namespace velquin
