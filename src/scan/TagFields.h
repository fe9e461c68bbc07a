#pragma once
// The tag fields each container gets, read and written through TagLib on a stream the caller opened.

#include <taglib/tfile.h>
#include <taglib/tiostream.h>

#include <memory>
#include <optional>
#include <string>

#include "scan/Container.h"

namespace velquin::scan {

struct TagValues {
    std::optional<std::string> key;       // the key tag: "Am" or "8A"; none leaves the key fields alone
    std::optional<std::string> otherKey;  // the other notation, in the field named below
    std::string otherField;               // "CAMELOT" or "KEY"
    std::string staleField;  // the one of those two that must go: an earlier run's other notation
    std::optional<int> bpm;  // rounded; none leaves the BPM field alone
};

// The file as TagLib reads `container` from `stream` (which must outlive it); null when TagLib cannot
// read it as that container.
std::unique_ptr<TagLib::File> openTagFile(Container container, TagLib::IOStream* stream);

// True when the file's tags hold these values already (so there is nothing to write).
bool tagsHold(TagLib::File& file, const TagValues& values);

// Sets the key and BPM fields (replacing earlier values of the same fields) and saves the file, leaving
// every other tag, frame and picture as it was. Returns why it could not, or nothing.
std::optional<std::string> applyTagValues(TagLib::File& file, const TagValues& values);

}  // namespace velquin::scan
