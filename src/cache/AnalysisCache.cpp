#include "cache/AnalysisCache.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "system/XdgPaths.h"

namespace velquin {

namespace {

// The inode and the change time came in with version 2: a file replaced by another of the same size
// and modification time (a copy with `cp -p`, an editor's save) must not find the old file's result.
constexpr int schemaVersion = 2;

constexpr const char* schemaSql =
    "CREATE TABLE IF NOT EXISTS analyses ("
    " path TEXT NOT NULL, range TEXT NOT NULL, size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL,"
    " inode INTEGER NOT NULL, ctime_ns INTEGER NOT NULL,"
    " version INTEGER NOT NULL, bpm REAL NOT NULL, bpm_confidence REAL NOT NULL, level REAL NOT NULL,"
    " key INTEGER, alternative INTEGER, key_confidence REAL NOT NULL, tuning_cents REAL NOT NULL,"
    " chroma BLOB, duration REAL NOT NULL, PRIMARY KEY (path, range))";

constexpr const char* lookupSql =
    "SELECT bpm, bpm_confidence, level, key, alternative, key_confidence, tuning_cents, chroma, duration"
    " FROM analyses WHERE path = ?1 AND range = ?2 AND size = ?3 AND mtime_ns = ?4 AND inode = ?5"
    " AND ctime_ns = ?6 AND version = ?7";

constexpr const char* storeSql =
    "INSERT OR REPLACE INTO analyses VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, "
    "?15,"
    " ?16)";

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
        const int code = handle ? sqlite3_errcode(handle) : SQLITE_NOMEM;
        const std::string reason = handle ? sqlite3_errmsg(handle) : "out of memory";
        if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB) throw Damaged(reason);
        throw std::runtime_error(what + ": " + reason);
    }
    int64_t integer(const char* query) const {
        sqlite3_stmt* s = nullptr;
        int64_t value = 0;
        if (sqlite3_prepare_v2(handle, query, -1, &s, nullptr) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW)
            value = sqlite3_column_int64(s, 0);
        sqlite3_finalize(s);
        return value;
    }
    std::string text(const char* query) const {
        sqlite3_stmt* s = nullptr;
        std::string value;
        if (sqlite3_prepare_v2(handle, query, -1, &s, nullptr) == SQLITE_OK &&
            sqlite3_step(s) == SQLITE_ROW) {
            const auto* chars = sqlite3_column_text(s, 0);
            if (chars) value = reinterpret_cast<const char*>(chars);
        } else {
            fail("could not check");
        }
        sqlite3_finalize(s);
        return value;
    }

    // A file that is not a database, or one whose pages do not add up, is Damaged.
    void open(const std::string& name) {
        if (sqlite3_open_v2(name.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
            SQLITE_OK)
            fail("could not open " + name);
        // SQLite opens a file it may not write read-only; a cache in WAL mode then cannot even be read.
        if (readOnly()) throw std::runtime_error(name + " is read-only, so results are not being remembered");
        // Other scans (or the desktop program) may hold the database for a moment.
        sqlite3_busy_timeout(handle, 5000);
        // WAL with NORMAL sync: a killed process loses nothing committed; only a power cut may lose the
        // last few entries, which are re-analysed next time.
        const char* setup = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;";
        if (sqlite3_exec(handle, setup, nullptr, nullptr, nullptr) != SQLITE_OK)
            fail("could not set up " + name);
        // Reads every page's structure: a few milliseconds for thousands of entries, and damage found
        // here is repaired at once instead of showing as lookups that quietly miss.
        if (const std::string check = text("PRAGMA quick_check(1)"); check != "ok") throw Damaged(check);
        if (integer("PRAGMA user_version") != schemaVersion) upgrade(name);
        if (sqlite3_prepare_v2(handle, lookupSql, -1, &lookup, nullptr) != SQLITE_OK ||
            sqlite3_prepare_v2(handle, storeSql, -1, &store, nullptr) != SQLITE_OK)
            fail("could not read " + name);
    }
    bool readOnly() const { return sqlite3_db_readonly(handle, "main") == 1; }

    // Entries of an older layout are only results that can be computed again. The version is read
    // again under the write lock: another process may have upgraded it a moment ago, and begun to fill it.
    void upgrade(const std::string& name) {
        const std::string steps = std::string("DROP TABLE IF EXISTS analyses; ") + schemaSql +
                                  "; PRAGMA user_version = " + std::to_string(schemaVersion) + ";";
        const bool done = sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK &&
                          (integer("PRAGMA user_version") == schemaVersion ||
                           sqlite3_exec(handle, steps.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) &&
                          sqlite3_exec(handle, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
        if (done) return;
        const std::string why = sqlite3_errmsg(handle);
        sqlite3_exec(handle, "ROLLBACK", nullptr, nullptr, nullptr);
        throw std::runtime_error("could not set up " + name + ": " + why);
    }
};

namespace {

// "scan.sqlite.corrupt-20261125-151530": the damaged file kept for whoever wants to look at it.
std::filesystem::path asideName(const std::filesystem::path& file) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    return file.string() + ".corrupt-" + stamp;
}

}  // namespace

std::optional<AnalysisCache::Key> AnalysisCache::keyForFile(const std::string& path, TempoRange range,
                                                            fileAnalysis::Analysis analysis) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return keyFromStat(path, info, range, analysis);
}

AnalysisCache::Key AnalysisCache::keyFromStat(const std::string& path, const struct stat& info,
                                              TempoRange range, fileAnalysis::Analysis analysis) {
    // A path that no longer resolves keeps its own spelling: its entry is then simply never found again.
    std::error_code error;
    const auto canonical = std::filesystem::canonical(path, error);
    const auto ns = [](const timespec& t) { return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec; };
    Key key;
    key.path = error ? path : canonical.string();
    key.size = static_cast<int64_t>(info.st_size);
    key.mtimeNs = ns(info.st_mtim);
    key.inode = static_cast<int64_t>(info.st_ino);
    key.ctimeNs = ns(info.st_ctim);
    key.range = range;
    key.analysis = analysis;
    key.version = fileAnalysis::analysisVersion(analysis);
    return key;
}

std::filesystem::path AnalysisCache::defaultPath() {
    const auto cache = xdg::cacheHome();
    return cache.empty() ? cache : cache / "Velquin" / "scan.sqlite";
}

AnalysisCache::AnalysisCache(const std::filesystem::path& file) : db_(std::make_unique<Database>()) {
    std::error_code ignored;
    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path(), ignored);
    const std::string name = file.string();
    try {
        db_->open(name);
    } catch (const Damaged& damage) {
        db_ = std::make_unique<Database>();  // closes the damaged file first
        const auto aside = asideName(file);
        std::error_code error;
        std::filesystem::rename(file, aside, error);
        if (error)
            throw std::runtime_error(name + " is damaged (" + damage.what() +
                                     ") and could not be moved aside");
        // The write-ahead log belongs to the damaged file; a new database must not replay it.
        std::filesystem::rename(name + "-wal", aside.string() + "-wal", ignored);
        std::filesystem::remove(name + "-shm", ignored);
        db_->open(name);
        notice_ = name + " was damaged (" + damage.what() + "): moved to " + aside.string() +
                  ", and a new cache started";
    }
}

AnalysisCache::~AnalysisCache() = default;

namespace {

// The stored range column: the precise analysis adds "/precise", so results of the two analyses never
// answer for each other, and entries stored before it existed still match.
std::string rangeColumn(const AnalysisCache::Key& key) {
    return std::string(textName(key.range)) +
           (key.analysis == fileAnalysis::Analysis::precise ? "/precise" : "");
}

// Both statements take the key as their first seven parameters.
void bindKey(sqlite3_stmt* s, const AnalysisCache::Key& key) {
    sqlite3_reset(s);
    const std::string range = rangeColumn(key);
    sqlite3_bind_text(s, 1, key.path.data(), static_cast<int>(key.path.size()), SQLITE_TRANSIENT);
    sqlite3_bind_text(s, 2, range.data(), static_cast<int>(range.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(s, 3, key.size);
    sqlite3_bind_int64(s, 4, key.mtimeNs);
    sqlite3_bind_int64(s, 5, key.inode);
    sqlite3_bind_int64(s, 6, key.ctimeNs);
    sqlite3_bind_int(s, 7, key.version);
}

}  // namespace

std::optional<FileResult> AnalysisCache::lookup(const Key& key) const {
    std::lock_guard lock(db_->mutex);
    sqlite3_stmt* s = db_->lookup;
    bindKey(s, key);
    if (sqlite3_step(s) != SQLITE_ROW) return std::nullopt;
    FileResult entry;
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

std::optional<std::string> AnalysisCache::store(const Key& key, const FileResult& entry) {
    std::lock_guard lock(db_->mutex);
    sqlite3_stmt* s = db_->store;
    bindKey(s, key);
    sqlite3_bind_double(s, 8, entry.tempo.bpm);
    sqlite3_bind_double(s, 9, entry.tempo.confidence);
    sqlite3_bind_double(s, 10, entry.tempo.level);
    bindKey(s, 11, entry.key.key);
    bindKey(s, 12, entry.key.alternative);
    sqlite3_bind_double(s, 13, entry.key.confidence);
    sqlite3_bind_double(s, 14, entry.key.tuningCents);
    sqlite3_bind_blob(s, 15, entry.key.chroma.data(), sizeof entry.key.chroma, SQLITE_TRANSIENT);
    sqlite3_bind_double(s, 16, entry.durationSeconds);
    std::optional<std::string> failure;
    if (sqlite3_step(s) != SQLITE_DONE) failure = sqlite3_errmsg(db_->handle);
    sqlite3_reset(s);
    return failure;
}

}  // namespace velquin
