#include "scan/Scanner.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "analysis/Format.h"
#include "cache/AnalysisCache.h"
#include "fileanalysis/FileAnalysis.h"
#include "scan/FileWalker.h"
#include "scan/Progress.h"
#include "scan/ScanOutput.h"
#include "scan/TagWriter.h"

namespace velquin::scan {

namespace {

using Clock = std::chrono::steady_clock;

void putLine(std::FILE* stream, const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fputc('\n', stream);
}

// A message on standard error, which is always read by a person: file names in it are escaped.
void note(std::FILE* err, const std::string& message) {
    putLine(err, shownText(message));
}

// Standard output, watched for the first failed write (a full disk, a closed descriptor): results
// that cannot be delivered make the scan stop, as nothing else would tell that they were lost.
class Results {
  public:
    explicit Results(std::FILE* out) : out_(out) {}

    void put(const std::string& line) { write(line + '\n'); }
    void write(std::string_view text) {
        if (!failed()) std::fwrite(text.data(), 1, text.size(), out_);
        check();
    }
    void flush() {
        if (!failed()) std::fflush(out_);
        check();
    }
    bool failed() const { return error_ != 0; }
    std::string failure() const {
        return "Error: could not write the results: " + std::string(std::strerror(error_));
    }

  private:
    void check() {
        if (error_ == 0 && std::ferror(out_)) error_ = errno != 0 ? errno : EIO;
    }

    std::FILE* out_;
    int error_ = 0;
};

class Scan {
  public:
    Scan(const ScanOptions& options, std::vector<std::string> files, std::unique_ptr<AnalysisCache> cache)
        : options_(options),
          cache_(std::move(cache)),
          rows_(files.size()),
          tagNotes_(files.size()),
          done_(files.size(), false) {
        for (size_t i = 0; i < files.size(); ++i) {
            rows_[i].path = std::move(files[i]);
            rows_[i].analysis = options.analysis;
        }
    }

    void start() {
        const size_t workers = std::min(static_cast<size_t>(options_.jobs), rows_.size());
        for (size_t w = 0; w < workers; ++w)
            workers_.emplace_back([this](std::stop_token stop) { work(stop); });
    }

    // The finished rows that follow the ones already taken; with `all`, every finished row.
    std::vector<size_t> takeReady(bool all) {
        std::lock_guard lock(mutex_);
        for (; printed_ < rows_.size(); ++printed_) {
            if (!done_[printed_] && !all) break;
            if (done_[printed_]) pending_.push_back(printed_);
        }
        std::vector<size_t> ready;
        ready.swap(pending_);
        return ready;
    }

    void print(const std::vector<size_t>& ready, Results& out, std::FILE* err) const {
        for (size_t i : ready) {
            const ScanRow& row = rows_[i];
            out.put(rowLine(options_.format, row));
            // The table has no column for a file analysed but left untagged.
            if (options_.format == OutputFormat::table && row.result && !row.error.empty())
                note(err, "velquin-scan: " + row.path + ": " + row.error);
            for (const std::string& tagNote : tagNotes_[i])
                note(err, "velquin-scan: " + row.path + ": " + tagNote);
        }
        out.flush();
    }

    // What the workers had to say since the last call (once each).
    std::vector<std::string> takeNotes() {
        std::lock_guard lock(mutex_);
        std::vector<std::string> notes;
        notes.swap(notes_);
        return notes;
    }

    // Waits up to `timeout` for a row to finish; true when all have.
    bool wait(Clock::duration timeout) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return finished_ == rows_.size() || changedFlag_; });
        changedFlag_ = false;
        return finished_ == rows_.size();
    }

    // Asks the workers to stop after their current file; true when they all did within `timeout`.
    bool stop(Clock::duration timeout) {
        for (auto& worker : workers_) worker.request_stop();
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return busy_ == 0; });
    }

    size_t total() const { return rows_.size(); }
    size_t finished() const {
        std::lock_guard lock(mutex_);
        return finished_;
    }
    std::string current() const {
        std::lock_guard lock(mutex_);
        return current_;
    }
    size_t failures() const {
        size_t n = 0;
        for (size_t i = 0; i < rows_.size(); ++i) n += done_[i] && !rows_[i].error.empty() ? 1 : 0;
        return n;
    }
    size_t fromCache() const { return fromCache_; }

  private:
    void work(std::stop_token stop) {
        {
            std::lock_guard lock(mutex_);
            ++busy_;
        }
        for (;;) {
            const size_t i = next_++;
            if (stop.stop_requested() || i >= rows_.size()) break;
            {
                std::lock_guard lock(mutex_);
                current_ = rows_[i].path;
            }
            const bool complete = process(i, stop);
            std::lock_guard lock(mutex_);
            if (complete) {
                done_[i] = true;
                ++finished_;
            }
            changedFlag_ = true;
            changed_.notify_all();
        }
        std::lock_guard lock(mutex_);
        --busy_;
        changed_.notify_all();
    }

    // Fills the row; false when a stop cut the analysis short.
    bool process(size_t i, std::stop_token stop) {
        ScanRow& row = rows_[i];
        const auto key = AnalysisCache::keyForFile(row.path, options_.range, options_.analysis);
        if (cache_ && key && !options_.force) row.result = cache_->lookup(*key);
        if (row.result) {
            ++fromCache_;
        } else {
            try {
                row.result = fileAnalysis::analyzeFile(row.path, options_.range,
                                                       {.onProgress = {},
                                                        .stop = stop,
                                                        // Each job is one thread: the scan's own workers
                                                        // already keep every core busy.
                                                        .execution = fileAnalysis::Execution::sequential,
                                                        .analysis = options_.analysis});
            } catch (const std::exception& error) {
                if (stop.stop_requested()) return false;
                row.error = error.what();
                return true;
            }
            if (key) remember(*key, *row.result);
        }
        if (options_.writeTags) {
            const TagRequest request{options_.camelotTags, options_.touch};
            TagOutcome outcome = writeTags(row.path, row.result->tempo, row.result->key, request);
            tagNotes_[i] = std::move(outcome.notes);
            if (!outcome.failure.empty()) {
                row.error = outcome.failure;
            } else if (cache_) {
                // The new tags change the size and the change time; the result still holds.
                const auto tagged = AnalysisCache::keyForFile(row.path, options_.range, options_.analysis);
                if (tagged) remember(*tagged, *row.result);
            }
        }
        return true;
    }

    void remember(const AnalysisCache::Key& key, const FileResult& entry) {
        if (!cache_) return;
        const auto why = cache_->store(key, entry);
        if (!why || cacheFailed_.exchange(true)) return;
        std::lock_guard lock(mutex_);
        notes_.push_back("velquin-scan: results are not being remembered: " + *why);
    }

    const ScanOptions& options_;
    std::unique_ptr<AnalysisCache> cache_;
    std::vector<ScanRow> rows_;  // each row written by one worker, read after its done flag
    std::vector<std::vector<std::string>> tagNotes_;  // fields a row's file was not given; as rows_
    std::atomic<size_t> next_{0};
    std::atomic<size_t> fromCache_{0};
    std::atomic<bool> cacheFailed_{false};  // said once

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<bool> done_;          // guarded by mutex_
    std::vector<size_t> pending_;     // finished rows waiting to be printed, guarded by mutex_
    std::vector<std::string> notes_;  // guarded by mutex_
    size_t printed_ = 0;              // rows before this were printed or passed over; main thread
    size_t finished_ = 0;
    size_t busy_ = 0;
    bool changedFlag_ = false;
    std::string current_;
    std::vector<std::jthread> workers_;  // last: joined before the rest is destroyed
};

std::unique_ptr<AnalysisCache> openCache(std::FILE* err) {
    const auto file = AnalysisCache::defaultPath();
    if (file.empty()) {
        note(err, "velquin-scan: no home folder, so nothing is cached");
        return nullptr;
    }
    try {
        auto cache = std::make_unique<AnalysisCache>(file);
        if (!cache->notice().empty()) note(err, "velquin-scan: " + cache->notice());
        return cache;
    } catch (const std::exception& error) {
        note(err, std::string("velquin-scan: working without the cache: ") + error.what());
        return nullptr;
    }
}

}  // namespace

int printText(const char* text, std::FILE* out, std::FILE* err) {
    Results results(out);
    results.write(text);
    results.flush();
    if (!results.failed()) return 0;
    putLine(err, results.failure());
    return 1;
}

int runScan(const ScanOptions& options, std::FILE* out, std::FILE* err, const std::atomic<int>& stopSignal) {
    const auto started = Clock::now();
    auto found =
        findAudioFiles(options.paths, [&](const std::string& why) { note(err, "velquin-scan: " + why); });
    Scan scan(options, std::move(found.files), openCache(err));
    Progress progress(err);
    Results results(out);

    const std::string header = headerLine(options.format);
    if (!header.empty()) results.put(header);
    results.flush();
    if (!results.failed()) scan.start();
    bool complete = scan.total() == 0;
    while (!complete && stopSignal.load() == 0 && !results.failed()) {
        complete = scan.wait(std::chrono::milliseconds(100));
        const auto ready = scan.takeReady(false);
        const auto notes = scan.takeNotes();
        if (!ready.empty() || !notes.empty()) {
            progress.clear();
            for (const auto& text : notes) note(err, text);
            scan.print(ready, results, err);
        }
        if (!complete) progress.update(scan.finished(), scan.total(), scan.current());
    }
    progress.clear();
    for (const auto& text : scan.takeNotes()) note(err, text);

    if (!complete || results.failed()) {
        const bool stopped = scan.stop(std::chrono::milliseconds(500));
        // A signal's exit status is the shell's: 128 and its number.
        int status = 128 + stopSignal.load();
        if (results.failed()) {
            putLine(err, results.failure());
            status = 1;
        } else {
            scan.print(scan.takeReady(true), results, err);
            if (results.failed()) putLine(err, results.failure());
            putLine(err, format("Interrupted: %zu of %zu files done", scan.finished(), scan.total()));
        }
        if (!stopped) {
            // A worker is deep in one file; its result would come too late to print, and nothing it
            // holds needs saving: the cache commits each entry whole.
            abandonTagCopies();
            std::fflush(err);
            std::_Exit(status);
        }
        abandonTagCopies();
        return status;
    }

    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    putLine(err, format("velquin-scan: %zu %s in %.1f s (%zu from the cache)", scan.total(),
                        scan.total() == 1 ? "file" : "files", seconds, scan.fromCache()));
    const size_t failed = scan.failures();
    if (failed > 0) putLine(err, format("%zu %s failed", failed, failed == 1 ? "file" : "files"));
    if (found.skipped > 0)
        putLine(err, format("%zu %s could not be searched", found.skipped,
                            found.skipped == 1 ? "folder or file" : "folders or files"));
    return failed > 0 || found.skipped > 0 ? 1 : 0;
}

}  // namespace velquin::scan
