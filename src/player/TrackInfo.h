#pragma once
// What a media player says about its current track, read defensively: players send whatever types
// they like, and a value of the wrong type is treated as absent.

#include <sys/stat.h>

#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <cstdint>
#include <optional>
#include <string>

namespace velquin {

struct TrackInfo {
    QString trackId;  // mpris:trackid
    QString url;      // xesam:url, as sent
    QString title;
    QString artist;  // the xesam:artist list joined with ", "
    int64_t lengthMicros = 0;

    friend bool operator==(const TrackInfo&, const TrackInfo&) = default;
};

// An a{sv} value as a map, whether plain or still marshalled (nested D-Bus containers arrive as
// QDBusArgument); anything else gives an empty map.
QVariantMap asMap(const QVariant& value);

// From the Metadata property (a{sv}, possibly still marshalled); anything else gives an empty track.
TrackInfo trackFromMetadata(const QVariant& metadata);

// "Playing: ARTIST — TITLE", the title alone without an artist, the file name when neither.
QString playingLine(const TrackInfo& track);

// The local path of a file:// URL, percent-decoded; none for other schemes or a malformed URL. Says
// nothing about the file itself: see checkPlayableFile.
std::optional<std::string> localPathOfUrl(const QString& url);

// Empty when `path` is a readable, non-empty regular file (and then `info` is filled in from the open
// file); otherwise why not, for the log. Touches the file system, so it runs off the interface thread.
std::string checkPlayableFile(const std::string& path, struct stat* info = nullptr);

}  // namespace velquin
