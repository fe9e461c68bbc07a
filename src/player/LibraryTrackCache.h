#pragma once
// The follower's results kept in the scan's cache on disk, so that a track scanned or heard before shows
// at once, also after a restart. The database is opened on first use, on the worker thread; when it cannot
// be opened, results are kept in memory for the session.

#include <memory>
#include <mutex>

#include "player/TrackCache.h"

namespace velquin {

class AnalysisCache;

class LibraryTrackCache : public TrackCache {
  public:
    LibraryTrackCache();
    ~LibraryTrackCache() override;

    std::optional<FileResult> find(const AnalysisCache::Key& key) override;
    void store(const AnalysisCache::Key& key, const FileResult& result) override;

  private:
    AnalysisCache* disk();

    std::mutex mutex_;
    bool opened_ = false;
    std::unique_ptr<AnalysisCache> disk_;
    MemoryTrackCache memory_;
};

}  // namespace velquin
