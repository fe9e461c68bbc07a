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
      thread_([this](std::stop_token stop) { run(stop); }) {}

TrackAnalysisWorker::~TrackAnalysisWorker() {
    cancel();
    thread_.request_stop();
    // The jthread joins here, before the members it uses go away.
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

void TrackAnalysisWorker::run(std::stop_token threadStop) {
    while (!threadStop.stop_requested()) {
        Job job;
        // Made and destroyed on this thread; others only ask it to stop, under the lock.
        std::stop_source jobStop;
        {
            std::unique_lock lock(mutex_);
            if (!wake_.wait(lock, threadStop, [this] { return pending_.has_value(); })) return;
            job = std::move(*pending_);
            pending_.reset();
            running_ = &jobStop;
        }
        Outcome outcome = process(job, jobStop.get_token());
        {
            std::lock_guard lock(mutex_);
            running_ = nullptr;
            if (outcome.id == 0) continue;
            ready_ = std::move(outcome);
        }
        if (onDone_) onDone_();
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
