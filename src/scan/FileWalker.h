#pragma once
// Finds the audio files under the paths named on the command line.

#include <functional>
#include <string>
#include <vector>

namespace velquin::scan {

// True when the name ends in one of the audio extensions (any letter case).
bool isAudioFileName(const std::string& name);

struct FoundFiles {
    std::vector<std::string> files;  // sorted by path, without duplicates
    size_t skipped = 0;              // folders and entries that could not be searched or examined
};

// Named files are taken as they are (whatever their extension; a missing one becomes an error row
// later); folders are searched recursively for audio files, following symbolic links but entering
// no folder twice and no system file system (proc, sysfs, devtmpfs, …), and skipping entries whose
// names begin with ".". `warn` receives what was skipped and why: a loop or a second path to a folder
// (not counted in `skipped`), a system file system, a folder that cannot be read, an entry that cannot
// be examined (a path too long, a symbolic link to nothing, no permission).
FoundFiles findAudioFiles(const std::vector<std::string>& roots,
                          const std::function<void(const std::string&)>& warn);

}  // namespace velquin::scan
