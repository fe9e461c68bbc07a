#pragma once
// Where results of whole-file analyses are kept between runs: under the analysis cache's key, which names
// one version of one file, the tempo range and the analysis.

#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "analysis/FileResult.h"
#include "cache/AnalysisCache.h"

namespace velquin {

// Called from the analysis worker thread only; implementations need not be thread-safe beyond that,
// but may be shared with other users, so they lock for themselves.
class TrackCache {
  public:
    virtual ~TrackCache() = default;
    virtual std::optional<FileResult> find(const AnalysisCache::Key& key) = 0;
    virtual void store(const AnalysisCache::Key& key, const FileResult& result) = 0;
};

// Kept for the life of the process: what the follower uses without a cache on disk.
class MemoryTrackCache : public TrackCache {
  public:
    std::optional<FileResult> find(const AnalysisCache::Key& key) override;
    void store(const AnalysisCache::Key& key, const FileResult& result) override;

  private:
    struct Hash {
        size_t operator()(const AnalysisCache::Key& key) const;
    };
    std::mutex mutex_;
    std::unordered_map<AnalysisCache::Key, FileResult, Hash> results_;
};

}  // namespace velquin
