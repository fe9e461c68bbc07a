#include "player/TrackAnalysisWorker.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "fileanalysis/FileAnalysis.h"
#include "player/TrackInfo.h"

namespace velquin {

namespace {

// Before the thread starts, so that a failure leaves nothing to join.
int makeEventFd() {
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    return fd;
}

}  // namespace

TrackAnalysisWorker::TrackAnalysisWorker(std::shared_ptr<TrackCache> cache, fileAnalysis::Analyzer analyze)
    : cache_(std::move(cache)),
      analyze_(std::move(analyze)),
      readyFd_(makeEventFd()),
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
    close(readyFd_);
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
    eventfd_t count;
    eventfd_read(readyFd_, &count);  // resets the descriptor; fails harmlessly when it was not set
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
        AnalysisCache::Key key;
        Outcome outcome = process(*job, jobStop.get_token(), key);
        // The reading goes out first; the cache write (a commit to disk) is nobody's wait.
        const auto fresh = outcome.fromCache ? std::nullopt : outcome.result;
        if (finishJob(std::move(outcome))) eventfd_write(readyFd_, 1);
        if (cache_ && fresh) cache_->store(key, *fresh);
    }
}

// An outcome with id 0 is not reported: the analysis stopped early on request.
TrackAnalysisWorker::Outcome TrackAnalysisWorker::process(const Job& job, std::stop_token stop,
                                                          AnalysisCache::Key& key) {
    Outcome outcome;
    outcome.id = job.id;
    struct stat info {};
    outcome.error = checkPlayableFile(job.path, &info);
    if (!outcome.error.empty()) return outcome;
    key = AnalysisCache::keyFromStat(job.path, info, job.range, job.analysis);
    if (cache_) {
        if ((outcome.result = cache_->find(key))) {
            outcome.fromCache = true;
            return outcome;
        }
    }
    try {
        outcome.result =
            analyze_(job.path, job.range, {.onProgress = {}, .stop = stop, .analysis = job.analysis});
    } catch (const fileAnalysis::AnalysisCancelled&) {
        return Outcome{};
    } catch (const std::exception& e) {
        outcome.error = e.what();
    }
    return outcome;
}

}  // namespace velquin
