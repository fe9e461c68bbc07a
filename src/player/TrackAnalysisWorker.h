#pragma once
// One thread that reads the playing file: at most one analysis at a time, the newest request wins and
// cancels the one running. Results are looked up in and stored to the cache on this thread, so the
// interface thread never waits for the disk.

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "fileanalysis/FileAnalysis.h"
#include "player/TrackCache.h"

namespace velquin {

class TrackAnalysisWorker {
  public:
    struct Job {
        uint64_t id = 0;
        std::string path;
        TempoRange range = TempoRange::Auto;
        fileAnalysis::Analysis analysis = fileAnalysis::Analysis::specified;
    };
    struct Outcome {
        uint64_t id = 0;
        std::optional<FileResult> result;  // none: the file could not be read (see error)
        std::string error;
        bool fromCache = false;
    };
    // `cache` may be null (every request is analysed). `analyze` throws the decoder's errors
    // (std::exception; what() is the text for the log).
    explicit TrackAnalysisWorker(std::shared_ptr<TrackCache> cache,
                                 fileAnalysis::Analyzer analyze = fileAnalysis::analyzeFile);
    ~TrackAnalysisWorker();  // cancels what runs and waits for the thread
    TrackAnalysisWorker(const TrackAnalysisWorker&) = delete;
    TrackAnalysisWorker& operator=(const TrackAnalysisWorker&) = delete;

    // Any thread. Replaces a request not yet started and asks the running one to stop.
    void request(Job job);
    void cancel();
    // Readable (poll, a socket notifier) when takeOutcome() has something; never for a job whose
    // analysis stopped early on request. The worker thread only writes this descriptor: it calls
    // nothing of its owner's, and the outcome crosses threads under the worker's own lock.
    int readyFd() const { return readyFd_; }
    // Any thread: the latest finished job's outcome, once.
    std::optional<Outcome> takeOutcome();

  private:
    void run();
    // The hand-over with the other threads, under the lock: the next job (none: quit), then its outcome.
    std::optional<Job> takeJob(std::stop_source* stop);
    bool finishJob(Outcome&& outcome);
    // Fills in the key from the file as it was opened.
    Outcome process(const Job& job, std::stop_token stop, AnalysisCache::Key& key);

    std::shared_ptr<TrackCache> cache_;
    fileAnalysis::Analyzer analyze_;
    int readyFd_ = -1;  // an eventfd
    std::mutex mutex_;
    std::condition_variable wake_;
    bool quitting_ = false;
    std::optional<Job> pending_;
    std::optional<Outcome> ready_;
    std::stop_source* running_ = nullptr;  // of the job being processed
    std::thread thread_;                   // last: starts after everything above exists
};

}  // namespace velquin
