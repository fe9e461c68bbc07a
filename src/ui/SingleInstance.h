#pragma once
// Only one Velquin per user session. The first one listens on a local socket in $XDG_RUNTIME_DIR (or
// the temporary folder when there is none); a later one connects, asks it to show its menu and
// leaves. Main thread only.

#include <QObject>
#include <QString>
#include <functional>
#include <memory>

class QLocalServer;

namespace velquin {

class SingleInstance : public QObject {
    Q_OBJECT

  public:
    // `socketPath` empty: the per-user default.
    explicit SingleInstance(QString socketPath = {});
    ~SingleInstance() override;

    // Another Velquin asked this one to show itself.
    std::function<void()> onShowRequest;

    // True when this is the only Velquin and now serves the socket; false when another one runs (it
    // has been asked to show its menu).
    bool claim();

    static QString defaultSocketPath();

  private:
    QString path_;
    std::unique_ptr<QLocalServer> server_;
};

}  // namespace velquin
