#include "player/TrackInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QUrl>
#include <QVariantMap>
#include <cerrno>
#include <cstring>

namespace velquin {

// Demarshal only when the signature is the one asked for: extracting a mismatched type leaves garbage.
QVariantMap asMap(const QVariant& value) {
    if (value.typeId() == QMetaType::QVariantMap) return value.toMap();
    if (value.typeId() == qMetaTypeId<QDBusArgument>()) {
        const auto arg = value.value<QDBusArgument>();
        if (arg.currentSignature() == QLatin1String("a{sv}")) return qdbus_cast<QVariantMap>(arg);
    }
    return {};
}

namespace {

QString asString(const QVariant& value) {
    if (value.typeId() == QMetaType::QString) return value.toString();
    if (value.typeId() == qMetaTypeId<QDBusObjectPath>()) return value.value<QDBusObjectPath>().path();
    return {};
}

QStringList asStringList(const QVariant& value) {
    if (value.typeId() == QMetaType::QStringList) return value.toStringList();
    if (value.typeId() == QMetaType::QString) return {value.toString()};  // a common slip of players
    if (value.typeId() == qMetaTypeId<QDBusArgument>()) {
        const auto arg = value.value<QDBusArgument>();
        if (arg.currentSignature() == QLatin1String("as")) return qdbus_cast<QStringList>(arg);
    }
    return {};
}

int64_t asInteger(const QVariant& value) {
    switch (value.typeId()) {
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
            return value.toLongLong();
        default:
            return 0;
    }
}

}  // namespace

TrackInfo trackFromMetadata(const QVariant& metadata) {
    const QVariantMap map = asMap(metadata);
    TrackInfo track;
    track.trackId = asString(map.value(QStringLiteral("mpris:trackid")));
    track.url = asString(map.value(QStringLiteral("xesam:url")));
    track.title = asString(map.value(QStringLiteral("xesam:title"))).trimmed();
    QStringList artists = asStringList(map.value(QStringLiteral("xesam:artist")));
    for (auto& a : artists) a = a.trimmed();
    artists.removeAll(QString());
    track.artist = artists.join(QStringLiteral(", "));
    track.lengthMicros = asInteger(map.value(QStringLiteral("mpris:length")));
    return track;
}

QString playingLine(const TrackInfo& track) {
    QString what;
    if (!track.title.isEmpty() && !track.artist.isEmpty()) {
        what = track.artist + QStringLiteral(" \u2014 ") + track.title;
    } else if (!track.title.isEmpty()) {
        what = track.title;
    } else {
        const auto path = localPathOfUrl(track.url);
        what = path ? QFileInfo(QString::fromStdString(*path)).fileName() : track.url;
    }
    return QStringLiteral("Playing: ") + what;
}

std::optional<std::string> localPathOfUrl(const QString& url) {
    const QUrl parsed(url, QUrl::StrictMode);
    if (!parsed.isValid() || parsed.scheme() != QLatin1String("file")) return std::nullopt;
    // A file URL naming another host is not on this machine.
    if (!parsed.host().isEmpty() && parsed.host() != QLatin1String("localhost")) return std::nullopt;
    const QString path = parsed.path(QUrl::FullyDecoded);
    if (!path.startsWith(QLatin1Char('/'))) return std::nullopt;
    const QByteArray bytes = QFile::encodeName(path);
    if (bytes.contains('\0')) return std::nullopt;
    return bytes.toStdString();
}

std::string checkPlayableFile(const std::string& path, struct stat* out) {
    // O_NONBLOCK so that opening a FIFO by mistake does not wait for a writer.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return std::strerror(errno);
    struct stat info {};
    const bool statted = ::fstat(fd, &info) == 0;
    const int statErrno = errno;
    ::close(fd);
    if (!statted) return std::strerror(statErrno);
    if (!S_ISREG(info.st_mode)) return "not a regular file";
    if (info.st_size == 0) return "empty file";
    if (out) *out = info;
    return {};
}

}  // namespace velquin
