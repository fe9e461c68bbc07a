#pragma once
// "Start at Login": an entry in the user's autostart folder ($XDG_CONFIG_HOME/autostart/velquin.desktop)
// that the desktop session starts at login. The file is the only record: whether it is on is read from
// it each time, so removing it by hand, or a session's own settings dialog hiding it, is respected.

#include <QString>
#include <filesystem>
#include <optional>

namespace velquin::panel::startAtLogin {

// Empty when no home folder is known.
std::filesystem::path entryPath();
// The entry exists and is not hidden or switched off.
bool isEnabled();
// Writes an entry that starts `program` (an absolute path), or removes it. The error text on failure.
std::optional<QString> setEnabled(bool enabled, const QString& program);

}  // namespace velquin::panel::startAtLogin
