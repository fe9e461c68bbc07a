#pragma once
// Where results of whole-file analyses are kept between runs. A result belongs to one version of one
// file: the key names the file's path, size and modification time and the analysis version.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "FileAnalysis.h"
#include "TempoRange.h"

namespace velquin {

using TrackResult = FileAnalysis::FileResult;

struct TrackCacheKey {
    std::string path;
    int64_t size = 0;
    int64_t modifiedNanos = 0;
    TempoRange range = TempoRange::Auto;  // a range narrows the tempo search, so it is part of the result
    int version = FileAnalysis::analysisVersion;
    FileAnalysis::Analysis analysis =
        FileAnalysis::Analysis::specified;  // the two never stand in for each other

    friend bool operator==(const TrackCacheKey&, const TrackCacheKey&) = default;
};

// Called from the analysis worker thread only; implementations need not be thread-safe beyond that,
// but may be shared with other users, so they lock for themselves.
class TrackCache {
  public:
    virtual ~TrackCache() = default;
    virtual std::optional<TrackResult> find(const TrackCacheKey& key) = 0;
    virtual void store(const TrackCacheKey& key, const TrackResult& result) = 0;
};

// Kept for the life of the process: what the follower uses without a cache on disk.
class MemoryTrackCache : public TrackCache {
  public:
    std::optional<TrackResult> find(const TrackCacheKey& key) override;
    void store(const TrackCacheKey& key, const TrackResult& result) override;

  private:
    struct Hash {
        size_t operator()(const TrackCacheKey& key) const;
    };
    std::mutex mutex_;
    std::unordered_map<TrackCacheKey, TrackResult, Hash> results_;
};

}  // namespace velquin
