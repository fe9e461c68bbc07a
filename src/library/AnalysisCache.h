#pragma once
// Whole-file analysis results remembered across runs, in one SQLite database. An entry is found only
// when the file's path, size and modification time, the analysis version and the tempo range all match
// what it was stored with; a changed file simply misses and is stored again.
//
// One instance may be shared by any number of threads (calls are serialised inside). The database is
// in WAL mode, so a process killed mid-write leaves the last committed entries readable.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "MusicalKey.h"
#include "TempoEstimate.h"

namespace velquin {

class AnalysisCache {
  public:
    struct Key {
        std::string path;     // absolute, symlinks resolved
        int64_t size = 0;     // bytes
        int64_t mtimeNs = 0;  // modification time, nanoseconds since the epoch
        int version = 0;      // the analysis version the result was computed with
        std::string range;    // the tempo range's raw value ("auto", …)
    };
    struct Entry {
        TempoEstimate tempo;
        KeyEstimate key = KeyEstimate::unknown;
        double durationSeconds = 0;
    };

    // The key of the file at `path` as it is now; empty when it cannot be examined.
    static std::optional<Key> keyForFile(const std::string& path, int version, std::string range);
    // The key's `range` for a tempo range's raw value: the precise analysis adds "/precise", so results of
    // the two analyses never answer for each other.
    static std::string rangeField(std::string_view range, bool precise) {
        return std::string(range) + (precise ? "/precise" : "");
    }
    // $XDG_CACHE_HOME/Velquin/scan.sqlite (empty when no home is known).
    static std::filesystem::path defaultPath();

    // Opens or creates the database (and its folder). Throws std::runtime_error with SQLite's text.
    explicit AnalysisCache(const std::filesystem::path& file);
    ~AnalysisCache();
    AnalysisCache(const AnalysisCache&) = delete;
    AnalysisCache& operator=(const AnalysisCache&) = delete;

    std::optional<Entry> lookup(const Key& key) const;
    // Replaces whatever was stored for the same path and range (field). Failures are swallowed: a cache
    // that cannot be written only costs time.
    void store(const Key& key, const Entry& entry);

  private:
    struct Database;
    std::unique_ptr<Database> db_;
};

}  // namespace velquin
