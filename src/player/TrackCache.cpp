#include "player/TrackCache.h"

#include <functional>

namespace velquin {

size_t MemoryTrackCache::Hash::operator()(const AnalysisCache::Key& key) const {
    size_t h = std::hash<std::string>{}(key.path);
    for (const int64_t part : {key.size, key.mtimeNs, key.inode, key.ctimeNs, int64_t(key.range),
                               int64_t(key.version), int64_t(key.analysis)}) {
        h = h * 1000003u ^ std::hash<int64_t>{}(part);
    }
    return h;
}

std::optional<FileResult> MemoryTrackCache::find(const AnalysisCache::Key& key) {
    std::lock_guard lock(mutex_);
    const auto it = results_.find(key);
    if (it == results_.end()) return std::nullopt;
    return it->second;
}

void MemoryTrackCache::store(const AnalysisCache::Key& key, const FileResult& result) {
    std::lock_guard lock(mutex_);
    // A long session of shuffled playlists should not grow without bound.
    if (results_.size() >= 4096) results_.clear();
    results_[key] = result;
}

}  // namespace velquin
