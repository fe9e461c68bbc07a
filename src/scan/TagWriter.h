#pragma once
// Key and BPM into a file's own tags, without ever damaging it: the tags go into a hidden copy beside
// the file, which must prove whole (every write flushed, the same container, the fields read back, the
// audio unchanged) before it is written back into the file itself. Writing back rather than renaming
// keeps the file's inode: hard links, owner, extended attributes and ACLs stay as they were. A writer
// killed during the write back leaves its proven copy, which the next scan writes back (TagCopy.h).

#include <string>
#include <vector>

#include "MusicalKey.h"
#include "TagCopy.h"  // what a scan does with copies left by others
#include "TempoEstimate.h"

namespace velquin::scan {

// A key weaker than this is not written: the bar shows none below it either.
constexpr double minimumTagKeyConfidence = 0.35;

struct TagRequest {
    bool camelot = false;  // the key tag holds the Camelot code, the second field the key name
    bool touch = false;    // give the file a new modification time
};

struct TagOutcome {
    std::string failure;             // "not tagged: …"; empty when tagged or when nothing needed writing
    std::vector<std::string> notes;  // fields left as they were, and why: "key not written: confidence 5 %"
};

// Any thread; files reached through more than one name are tagged one at a time.
TagOutcome writeTags(const std::string& path, const TempoEstimate& tempo, const KeyEstimate& key,
                     const TagRequest& request);

// The key name as tags carry it: ASCII, at most three characters ("Am", "F#m", "Bb").
std::string tagKeyName(const MusicalKey& key);

}  // namespace velquin::scan
