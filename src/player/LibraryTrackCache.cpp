#include "LibraryTrackCache.h"

#include <exception>
#include <string>

#include "AnalysisCache.h"

namespace velquin {

namespace {

std::string rangeField(const TrackCacheKey& key) {
    return AnalysisCache::rangeField(textName(key.range), key.analysis == FileAnalysis::Analysis::precise);
}

}  // namespace

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

std::optional<TrackResult> LibraryTrackCache::find(const TrackCacheKey& key) {
    AnalysisCache* cache = disk();
    if (!cache) return memory_.find(key);
    const auto diskKey = AnalysisCache::keyForFile(key.path, key.version, rangeField(key));
    if (!diskKey) return std::nullopt;
    const auto entry = cache->lookup(*diskKey);
    if (!entry) return std::nullopt;
    return TrackResult{entry->tempo, entry->key, entry->durationSeconds};
}

void LibraryTrackCache::store(const TrackCacheKey& key, const TrackResult& result) {
    AnalysisCache* cache = disk();
    if (!cache) return memory_.store(key, result);
    const auto diskKey = AnalysisCache::keyForFile(key.path, key.version, rangeField(key));
    if (diskKey) cache->store(*diskKey, {result.tempo, result.key, result.durationSeconds});
}

}  // namespace velquin
