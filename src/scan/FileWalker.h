#pragma once
// Finds the audio files under the paths named on the command line.

#include <functional>
#include <string>
#include <vector>

namespace velquin::scan {

// True when the name ends in one of the audio extensions (any letter case).
bool isAudioFileName(const std::string& name);

// Named files are taken as they are (whatever their extension; a missing one becomes an error row
// later); folders are searched recursively for audio files, following symbolic links but entering
// no folder twice, and skipping entries whose names begin with ".". The result is sorted by path,
// without duplicates. `warn` receives what was skipped and why (symbolic-link loops, unreadable folders).
std::vector<std::string> findAudioFiles(const std::vector<std::string>& roots,
                                        const std::function<void(const std::string&)>& warn);

}  // namespace velquin::scan
