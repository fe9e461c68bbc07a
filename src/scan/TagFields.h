#pragma once
// The tag fields each container gets, written through TagLib into a file in place.

#include <optional>
#include <string>

namespace velquin::scan {

enum class TagFormat { id3v2, xiph, mp4 };

struct TagValues {
    std::optional<std::string> key;       // the key tag: "Am" or "8A"
    std::optional<std::string> otherKey;  // the other notation, in the field named below
    std::string otherField;               // "CAMELOT" or "KEY"
    std::optional<int> bpm;               // rounded
};

// The tag family for a file name's extension; empty for containers left alone.
std::optional<TagFormat> tagFormatOf(const std::string& path);

// True when the file's tags hold these values already (so there is nothing to write).
bool tagsAlreadyHold(const std::string& path, const TagValues& values);

// Sets the key and BPM fields (replacing earlier values of the same fields) and saves the file,
// leaving every other tag, frame and picture as it was. Returns why it could not, or nothing.
std::optional<std::string> applyTagValues(const std::string& path, const TagValues& values);

}  // namespace velquin::scan
