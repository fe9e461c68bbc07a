#pragma once
// The desktop application: owns the live service, the bar with its menu, the tray icon and the drop
// handling, keeps the display settings, and turns every published estimate into one Reading that the
// bar, the tray and any subscribed display show, plus the information lines at the top of the menu.
// Everything here runs on the main thread; file analyses run on the global thread pool and come back
// to the main thread before touching anything.

#include <QDBusConnection>
#include <QObject>
#include <QSettings>
#include <QString>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "capture/TempoService.h"
#include "player/LibraryTrackCache.h"
#include "player/PlayerFollower.h"
#include "ui/AppMenu.h"
#include "ui/BarPlacement.h"
#include "ui/BarWindow.h"
#include "ui/Dialogs.h"
#include "ui/DisplaySettings.h"
#include "ui/DropCoordinator.h"
#include "ui/LayerShellBar.h"
#include "ui/LogSink.h"
#include "ui/MenuPresenter.h"
#include "ui/PanelPresence.h"
#include "ui/ProgressWindow.h"
#include "ui/Reading.h"
#include "ui/TrayIcon.h"

class QAction;
class QScreen;

namespace velquin {

class DesktopApp : public QObject {
    Q_OBJECT

  public:
    struct Options {
        LogSink log = {};
        // The user's settings; the application's QSettings when null.
        std::unique_ptr<QSettings> settings = {};
        // Makes the capture sources; the real back ends when empty.
        TempoService::SourceFactory sourceFactory = {};
        // Alerts, the file picker and the browser; the real ones when left empty.
        std::optional<Dialogs> dialogs = {};
        // Opens the drop shelf a second after launch and hides it 6 s later, to check where it lands.
        bool showShelfAtLaunch = false;
        // Where media players are watched; the session bus when empty.
        std::optional<QDBusConnection> playerBus = {};
        // False where the compositor places the bar and cannot be asked to move it (native Wayland):
        // the bar then neither moves nor remembers a place, and the hint does not offer a drag.
        bool barPlaceable = true;
        // The menu as a focused window of its own rather than a grabbing popup (XWayland).
        bool focusableMenu = false;
        // On a layer-shell compositor: the bar as a layer surface, drawn by the (hidden) bar window.
        std::unique_ptr<LayerShellBar> layerBar = {};
        // The desktop's names (XDG_CURRENT_DESKTOP); read from the environment when empty.
        std::optional<QString> currentDesktop = {};
    };

    // The first-launch hint, and the one line a GNOME user without a panel item host is told once.
    static constexpr const char* movableHint = "Click the bar any time for this menu; drag it to move it";
    static constexpr const char* fixedHint = "Click the bar or the panel item any time for this menu";
    static constexpr const char* extensionHint =
        "For the reading in GNOME's top bar, install and enable the AppIndicator extension "
        "(gnome-shell-extension-appindicator), then log in again";

    explicit DesktopApp(Options options);
    ~DesktopApp() override;

    // Reads the settings, shows the bar and the tray icon and starts listening.
    void launch();
    // Stops listening; for the application's aboutToQuit.
    void shutDown();

    // Menu actions.
    void chooseSystem();
    void chooseMic();
    void togglePause();
    void chooseRange(QAction* item);
    void chooseRelative(QAction* item);
    void toggleCamelot();
    void toggleNotes();
    void toggleDecimals();
    void togglePrecise();
    fileAnalysis::Analysis fileAnalysis() const;
    void toggleCompact();
    void toggleFloatBar();
    void copyBoth();
    void analyzeFile();
    void resetAll();
    void toggleFollow();
    void openHelp();

    void render(const TempoEstimate& tempo, const KeyEstimate& key);
    void start(AudioSourceKind kind);
    void show(const QString& error);
    // The followed player's file reading, or none for the live one (the follower's onReading).
    void showPlaying(const std::optional<PlayerReading>& playing);

    // Opens the menu under the bar, or at the pointer when the bar is hidden.
    void showMenu();
    // A click on the bar: opens the menu, or closes it when it is open.
    void toggleMenu();

    // Every new reading, after the bar and the tray have it.
    void subscribe(std::function<void(const Reading&)> display);
    const Reading& reading() const { return reading_; }

    // How long the bar shows a dropped file's result.
    double fileInBarSeconds = 8.0;
    Dialogs dialogs;

    // A dropped file's result while the bar and the menu show it.
    struct ShownFile {
        QString name;
        TempoEstimate tempo;
        KeyEstimate key;
    };

    AppMenu& menu() { return menu_; }
    BarWindow& bar() { return *bar_; }
    DropCoordinator& drops() { return drops_; }
    TempoService& service() { return service_; }
    const DisplaySettings& settings() const { return settings_; }
    const std::optional<ShownFile>& shownFile() const { return shownFile_; }
    bool fileInBar() const { return fileInBar_; }
    bool paused() const { return paused_; }
    PlayerFollower& follower() { return follower_; }
    QSystemTrayIcon* trayIcon() { return tray_.icon(); }
    ProgressWindow* progressWindow() { return menuAnalysis_.window(); }
    PanelPresence& panel() { return panel_; }
    LayerShellBar* layerBar() { return layerBar_.get(); }

    // The help page shipped beside the program, or installed with it.
    static QString helpPagePath();

  private:
    void connectItems();
    void installQuitShortcuts();
    void applyFixedWidth();
    void applyRange(TempoRange range);
    void toggle(bool& setting, QAction* item, const char* key, bool fixedWidth);
    void rerender();
    void publish();
    QString statusText(const TempoEstimate& tempo, const KeyEstimate& key) const;
    void droppedResult(const QString& name, const std::optional<FileResult>& result);
    QPoint menuPoint() const;
    void noPanelHost();
    void attachLayerBar();
    void showLayerBar();

    LogSink log_;
    std::unique_ptr<QSettings> store_;
    TempoService service_;
    DisplaySettings settings_;
    bool paused_ = false;
    bool showShelfAtLaunch_ = false;
    bool barPlaceable_ = true;
    QString currentDesktop_;

    std::unique_ptr<BarWindow> bar_;
    std::unique_ptr<LayerShellBar> layerBar_;
    BarPosition barPosition_;
    AppMenu menu_;
    MenuPresenter presenter_;
    TrayIcon tray_;
    PanelPresence panel_;
    DropCoordinator drops_;
    std::unique_ptr<QAction> barQuitAction_;
    std::unique_ptr<QAction> shelfQuitAction_;
    Reading reading_;
    std::vector<std::function<void(const Reading&)>> displays_;

    MenuAnalysis menuAnalysis_;
    PlayerFollower follower_;
    std::optional<PlayerReading> playing_;

    std::optional<ShownFile> shownFile_;
    bool fileInBar_ = false;
    QTimer fileTimer_;
};

}  // namespace velquin
