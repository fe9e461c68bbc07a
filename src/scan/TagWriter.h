#pragma once
// Key and BPM into a file's own tags, atomically: the tags go into a copy beside the file, which is
// flushed and renamed over it, so the file is at every moment either the old one or the new one.

#include <optional>
#include <string>

#include "MusicalKey.h"
#include "TempoEstimate.h"

namespace velquin::scan {

struct TagRequest {
    bool camelot = false;  // the key tag holds the Camelot code, the second field the key name
    bool touch = false;    // give the file a new modification time
};

// Returns why the file was left alone, or nothing when it was tagged (or had nothing to write).
// Any thread.
std::optional<std::string> writeTags(const std::string& path, const TempoEstimate& tempo,
                                     const KeyEstimate& key, const TagRequest& request);

// The key name as tags carry it: ASCII, at most three characters ("Am", "F#m", "Bb").
std::string tagKeyName(const MusicalKey& key);

// Removes every tagged copy still being written, and keeps further ones from being made. For an exit
// that cannot wait for the workers; async-signal-unsafe, call it from an ordinary thread.
void abandonTagCopies();

// Removes `path` when it is a tagged copy left by a process that no longer runs (killed mid-write).
void removeIfStaleTagCopy(const std::string& path);

}  // namespace velquin::scan
