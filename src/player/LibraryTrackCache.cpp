#include "player/LibraryTrackCache.h"

#include <exception>

#include "cache/AnalysisCache.h"

namespace velquin {

LibraryTrackCache::LibraryTrackCache() = default;
LibraryTrackCache::~LibraryTrackCache() = default;

AnalysisCache* LibraryTrackCache::disk() {
    std::lock_guard lock(mutex_);
    if (!opened_) {
        opened_ = true;
        const auto path = AnalysisCache::defaultPath();
        try {
            if (!path.empty()) disk_ = std::make_unique<AnalysisCache>(path);
        } catch (const std::exception&) {
            // A cache that cannot be opened only costs time.
        }
    }
    return disk_.get();
}

std::optional<FileResult> LibraryTrackCache::find(const AnalysisCache::Key& key) {
    AnalysisCache* cache = disk();
    return cache ? cache->lookup(key) : memory_.find(key);
}

void LibraryTrackCache::store(const AnalysisCache::Key& key, const FileResult& result) {
    AnalysisCache* cache = disk();
    if (cache) {
        cache->store(key, result);
    } else {
        memory_.store(key, result);
    }
}

}  // namespace velquin
