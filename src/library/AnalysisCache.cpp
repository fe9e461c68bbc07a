#include "AnalysisCache.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstring>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "XdgPaths.h"

namespace velquin {

namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS analyses ("
    " path TEXT NOT NULL, range TEXT NOT NULL, size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL,"
    " version INTEGER NOT NULL, bpm REAL NOT NULL, bpm_confidence REAL NOT NULL, level REAL NOT NULL,"
    " key INTEGER, alternative INTEGER, key_confidence REAL NOT NULL, tuning_cents REAL NOT NULL,"
    " chroma BLOB, duration REAL NOT NULL, PRIMARY KEY (path, range))";

constexpr const char* kLookup =
    "SELECT bpm, bpm_confidence, level, key, alternative, key_confidence, tuning_cents, chroma, duration"
    " FROM analyses WHERE path = ?1 AND range = ?2 AND size = ?3 AND mtime_ns = ?4 AND version = ?5";

constexpr const char* kStore =
    "INSERT OR REPLACE INTO analyses VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14)";

// A key as one integer: tonic × 2 + minor, so the column stays readable and sortable.
std::optional<MusicalKey> keyFromColumn(sqlite3_stmt* statement, int column) {
    if (sqlite3_column_type(statement, column) == SQLITE_NULL) return std::nullopt;
    const int64_t code = sqlite3_column_int64(statement, column);
    if (code < 0 || code >= 24) return std::nullopt;
    return MusicalKey{code / 2, code % 2 == 1};
}

void bindKey(sqlite3_stmt* statement, int index, const std::optional<MusicalKey>& key) {
    if (key)
        sqlite3_bind_int64(statement, index, key->tonic * 2 + (key->isMinor ? 1 : 0));
    else
        sqlite3_bind_null(statement, index);
}

}  // namespace

struct AnalysisCache::Database {
    mutable std::mutex mutex;
    sqlite3* handle = nullptr;
    sqlite3_stmt* lookup = nullptr;
    sqlite3_stmt* store = nullptr;

    ~Database() {
        sqlite3_finalize(lookup);
        sqlite3_finalize(store);
        sqlite3_close(handle);
    }
    [[noreturn]] void fail(const std::string& what) const {
        throw std::runtime_error(what + ": " + (handle ? sqlite3_errmsg(handle) : "out of memory"));
    }
};

std::optional<AnalysisCache::Key> AnalysisCache::keyForFile(const std::string& path, int version,
                                                            std::string range) {
    std::error_code error;
    const auto canonical = std::filesystem::canonical(path, error);
    struct stat info {};
    if (error || ::stat(canonical.c_str(), &info) != 0) return std::nullopt;
    const int64_t mtimeNs = int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec;
    return Key{canonical.string(), static_cast<int64_t>(info.st_size), mtimeNs, version, std::move(range)};
}

std::filesystem::path AnalysisCache::defaultPath() {
    const auto cache = xdg::cacheHome();
    return cache.empty() ? cache : cache / "Velquin" / "scan.sqlite";
}

AnalysisCache::AnalysisCache(const std::filesystem::path& file) : db_(std::make_unique<Database>()) {
    std::error_code ignored;
    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path(), ignored);
    const std::string name = file.string();
    if (sqlite3_open_v2(name.c_str(), &db_->handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK)
        db_->fail("could not open " + name);
    // Other scans (or the desktop program) may hold the database for a moment.
    sqlite3_busy_timeout(db_->handle, 5000);
    // WAL with NORMAL sync: a killed process loses nothing committed; only a power cut may lose the
    // last few entries, which are re-analysed next time.
    const char* setup = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;";
    if (sqlite3_exec(db_->handle, setup, nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_exec(db_->handle, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK)
        db_->fail("could not set up " + name);
    if (sqlite3_prepare_v2(db_->handle, kLookup, -1, &db_->lookup, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(db_->handle, kStore, -1, &db_->store, nullptr) != SQLITE_OK)
        db_->fail("could not read " + name);
}

AnalysisCache::~AnalysisCache() = default;

namespace {

// Both statements take the key as their first five parameters.
void bindKey(sqlite3_stmt* s, const AnalysisCache::Key& key) {
    sqlite3_reset(s);
    sqlite3_bind_text(s, 1, key.path.data(), static_cast<int>(key.path.size()), SQLITE_TRANSIENT);
    sqlite3_bind_text(s, 2, key.range.data(), static_cast<int>(key.range.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(s, 3, key.size);
    sqlite3_bind_int64(s, 4, key.mtimeNs);
    sqlite3_bind_int(s, 5, key.version);
}

}  // namespace

std::optional<AnalysisCache::Entry> AnalysisCache::lookup(const Key& key) const {
    std::lock_guard lock(db_->mutex);
    sqlite3_stmt* s = db_->lookup;
    bindKey(s, key);
    if (sqlite3_step(s) != SQLITE_ROW) return std::nullopt;
    Entry entry;
    entry.tempo = {sqlite3_column_double(s, 0), sqlite3_column_double(s, 1), sqlite3_column_double(s, 2)};
    entry.key.key = keyFromColumn(s, 3);
    entry.key.alternative = keyFromColumn(s, 4);
    entry.key.confidence = sqlite3_column_double(s, 5);
    entry.key.tuningCents = sqlite3_column_double(s, 6);
    if (sqlite3_column_bytes(s, 7) == static_cast<int>(sizeof entry.key.chroma))
        std::memcpy(entry.key.chroma.data(), sqlite3_column_blob(s, 7), sizeof entry.key.chroma);
    entry.durationSeconds = sqlite3_column_double(s, 8);
    sqlite3_reset(s);
    return entry;
}

void AnalysisCache::store(const Key& key, const Entry& entry) {
    std::lock_guard lock(db_->mutex);
    sqlite3_stmt* s = db_->store;
    bindKey(s, key);
    sqlite3_bind_double(s, 6, entry.tempo.bpm);
    sqlite3_bind_double(s, 7, entry.tempo.confidence);
    sqlite3_bind_double(s, 8, entry.tempo.level);
    bindKey(s, 9, entry.key.key);
    bindKey(s, 10, entry.key.alternative);
    sqlite3_bind_double(s, 11, entry.key.confidence);
    sqlite3_bind_double(s, 12, entry.key.tuningCents);
    sqlite3_bind_blob(s, 13, entry.key.chroma.data(), sizeof entry.key.chroma, SQLITE_TRANSIENT);
    sqlite3_bind_double(s, 14, entry.durationSeconds);
    sqlite3_step(s);
    sqlite3_reset(s);
}

}  // namespace velquin
