#include "panel/StartAtLogin.h"

#include <QFile>
#include <QSaveFile>
#include <QTextStream>
#include <system_error>

#include "system/XdgPaths.h"

namespace velquin::panel::startAtLogin {
namespace {

QString qpath(const std::filesystem::path& p) {
    return QString::fromStdString(p.string());
}

// Exec's quoting: reserved characters inside double quotes are escaped with a backslash.
QString execArgument(const QString& program) {
    QString quoted;
    for (const QChar c : program) {
        if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') || c == QLatin1Char('\\'))
            quoted += QLatin1Char('\\');
        quoted += c;
    }
    // The desktop entry format itself reads backslashes as escapes, so each one is written twice.
    quoted.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
    quoted.replace(QLatin1Char('%'), QStringLiteral("%%"));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

}  // namespace

std::filesystem::path entryPath() {
    const std::filesystem::path config = xdg::configHome();
    if (config.empty()) return {};
    return config / "autostart" / "velquin.desktop";
}

bool isEnabled() {
    const std::filesystem::path path = entryPath();
    if (path.empty()) return false;
    QFile file(qpath(path));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return false;
    QTextStream in(&file);
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (line == QLatin1String("Hidden=true") || line == QLatin1String("X-GNOME-Autostart-enabled=false"))
            return false;
    }
    return true;
}

std::optional<QString> setEnabled(bool enabled, const QString& program) {
    const std::filesystem::path path = entryPath();
    if (path.empty()) return QStringLiteral("No home folder is known.");
    std::error_code error;
    if (!enabled) {
        std::filesystem::remove(path, error);
        if (error) return QString::fromStdString(error.message());
        return std::nullopt;
    }
    std::filesystem::create_directories(path.parent_path(), error);
    if (error) return QString::fromStdString(error.message());
    QSaveFile file(qpath(path));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) return file.errorString();
    QTextStream out(&file);
    out << "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Velquin\n"
           "Comment=Shows the tempo (BPM) and musical key of what your computer plays\n"
        << "Exec=" << execArgument(program) << "\n"
        << "Icon=org.orvane.Velquin\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
    out.flush();
    if (!file.commit()) return file.errorString();
    return std::nullopt;
}

}  // namespace velquin::panel::startAtLogin
