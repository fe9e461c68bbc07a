#pragma once
// Whole-file analysis results remembered across runs, in one SQLite database. An entry is found only
// when the file's path, size, modification time, inode and change time, the analysis version, the
// tempo range and the analysis all match what it was stored with; a changed or replaced file simply
// misses and is stored again.
//
// One instance may be shared by any number of threads (calls are serialised inside). The database is
// in WAL mode, so a process killed mid-write leaves the last committed entries readable.

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "analysis/FileResult.h"
#include "analysis/TempoRange.h"

namespace velquin {

class AnalysisCache {
  public:
    struct Key {
        std::string path;     // absolute, symlinks resolved
        int64_t size = 0;     // bytes
        int64_t mtimeNs = 0;  // modification time, nanoseconds since the epoch
        int64_t inode = 0;
        int64_t ctimeNs = 0;                  // change time, nanoseconds since the epoch
        TempoRange range = TempoRange::Auto;  // a range narrows the tempo search, so it is part of the result
        fileAnalysis::Analysis analysis = fileAnalysis::Analysis::specified;  // never stand in for each other
        int version =
            fileAnalysis::analysisVersion(analysis);  // of the analysis the result was computed with

        friend bool operator==(const Key&, const Key&) = default;
    };

    // The key of the file at `path` as it is now (one stat); empty when it cannot be examined.
    static std::optional<Key> keyForFile(const std::string& path, TempoRange range,
                                         fileAnalysis::Analysis analysis);
    // The key from what a stat of the file at `path` gave.
    static Key keyFromStat(const std::string& path, const struct stat& info, TempoRange range,
                           fileAnalysis::Analysis analysis);
    // $XDG_CACHE_HOME/Velquin/scan.sqlite (empty when no home is known).
    static std::filesystem::path defaultPath();

    // Opens or creates the database (and its folder). A damaged file is moved aside
    // ("scan.sqlite.corrupt-20261125-151530") and a new one started; notice() then says so. Throws
    // std::runtime_error with SQLite's text when no database can be had (a read-only file among them:
    // in WAL mode it cannot even be read).
    explicit AnalysisCache(const std::filesystem::path& file);
    ~AnalysisCache();
    AnalysisCache(const AnalysisCache&) = delete;
    AnalysisCache& operator=(const AnalysisCache&) = delete;

    // What the user should hear once about this cache: a damaged file moved aside. Empty when all is well.
    const std::string& notice() const { return notice_; }

    std::optional<FileResult> lookup(const Key& key) const;
    // Replaces whatever was stored for the same path and range. Returns SQLite's text when the entry
    // could not be stored (a cache that cannot be written only costs time).
    std::optional<std::string> store(const Key& key, const FileResult& entry);

  private:
    struct Database;
    struct Damaged : std::runtime_error {
        using std::runtime_error::runtime_error;
    };
    std::unique_ptr<Database> db_;
    std::string notice_;
};

}  // namespace velquin
