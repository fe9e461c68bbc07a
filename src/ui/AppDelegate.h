#pragma once
// The desktop application: owns the live service, the bar and its menu, the drop shelf and the drag
// watcher, keeps the display settings, and turns every published estimate into the bar's texts and
// the information lines at the top of the menu. Also measures files picked from the menu or dropped on
// the bar or the shelf. Everything here runs on the main thread; file analyses run on the global thread
// pool and come back to the main thread before touching anything.

#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QRect>
#include <QSettings>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "DragMonitor.h"
#include "DropShelf.h"
#include "LogSink.h"
#include "MusicalKey.h"
#include "StatusItem.h"
#include "StatusItemDropTarget.h"
#include "TempoEstimate.h"
#include "TempoRange.h"
#include "TempoService.h"

class QAction;
class QLabel;
class QSystemTrayIcon;
class QWidgetAction;

namespace velquin {

class AppDelegate : public QObject {
    Q_OBJECT

  public:
    using RelativePreference = KeyEstimate::RelativePreference;

    // `defaults` holds the user's settings (the application's QSettings when null); `sourceFactory`
    // makes the capture sources (the real back ends when empty).
    explicit AppDelegate(LogSink log = {}, std::unique_ptr<QSettings> defaults = nullptr,
                         TempoService::SourceFactory sourceFactory = {});
    ~AppDelegate() override;

    void applicationDidFinishLaunching();
    void applicationWillTerminate();

    // Menu actions.
    void chooseSystem();
    void chooseMic();
    void togglePause();
    void chooseRange(QAction* item);
    void chooseRelative(QAction* item);
    void toggleCamelot();
    void toggleNotes();
    void toggleDecimals();
    void toggleCompact();
    void copyBoth();
    void analyzeFile();
    void resetAll();
    void openHelp();

    void render(const TempoEstimate& tempo, const KeyEstimate& key);
    void applyFixedWidth();
    void applyRange(TempoRange range);
    void start(AudioSourceKind kind);
    void show(const QString& error);
    void buildMenu();
    void installEditMenu();
    // Longer texts keep their first to/2 + 2 and last to/2 − 3 characters around an ellipsis.
    static QString shortened(const QString& text, int to);
    // What "Copy Key and BPM" puts on the clipboard for these values; absent when there is nothing.
    std::optional<QString> copiedText(const TempoEstimate& tempo, const KeyEstimate& key) const;

    // Drops and the shelf.
    void analyzeDropped(const QUrl& url);
    void showShelf(std::optional<QRect> under);
    std::optional<QRect> knownItemFrame() const;
    // Where the bar was really found on screen (global, logical pixels).
    void locate(const QRect& r);
    // Watches other applications' drags; false where that is impossible.
    bool watchDrags();
    void leftMouseUp();
    void leftMouseDragged(const QPoint& m);

    // Seams to the desktop; the defaults use modal dialogs, the browser and the pool. Tests replace them.
    // The capture error alert: true when the user chose "Use Microphone Instead".
    std::function<bool(const QString& message)> askUseMicrophone;
    // The result alert of a file picked from the menu.
    std::function<void(const QString& message, const QString& informativeText)> showFileAlert;
    // The open panel; absent when cancelled.
    std::function<std::optional<QString>()> chooseAudioFile;
    std::function<void(const QUrl& url)> openUrl;
    std::function<void()> beep;
    // Runs on a pool thread; throws with the text to show.
    std::function<TempoService::FileResult(const std::string& path, TempoRange range)> fileAnalyzer;
    // How long the bar shows a dropped file's result.
    double fileInBarSeconds = 8.0;

    struct FileResult {
        QString name;
        TempoEstimate tempo;
        KeyEstimate key;
    };

    // The menu items, for the menu and for tests.
    struct Items {
        QAction* statusLine = nullptr;
        QWidgetAction* notesLine = nullptr;
        QAction* tuningLine = nullptr;
        QAction* fileLine = nullptr;
        QAction* systemItem = nullptr;
        QAction* micItem = nullptr;
        QAction* pauseItem = nullptr;
        QAction* camelotItem = nullptr;
        QAction* notesItem = nullptr;
        QAction* decimalsItem = nullptr;
        QAction* compactItem = nullptr;
        QAction* copyItem = nullptr;
        QAction* analyzeItem = nullptr;
        QAction* resetItem = nullptr;
        QAction* helpItem = nullptr;
        QAction* quitItem = nullptr;
        std::map<TempoRange, QAction*> rangeItems;
        std::map<RelativePreference, QAction*> relativeItems;
    };
    const Items& items() const { return items_; }
    QMenu& menu() { return *menu_; }
    QString notesLineText() const;
    StatusItem& statusItem() { return *statusItem_; }
    StatusBarView& barView() { return statusItem_->view(); }
    DropShelf& shelf() { return shelf_; }
    StatusItemDropTarget& dropTarget() { return dropTarget_; }
    TempoService& service() { return service_; }
    const std::optional<FileResult>& fileResult() const { return fileResult_; }
    bool fileInBar() const { return fileInBar_; }
    bool isFileTimerPending() const { return fileTimer_.isActive(); }
    bool paused() const { return paused_; }
    bool hasDragMonitor() const { return dragMonitor_ != nullptr; }
    QSystemTrayIcon* trayIcon() { return tray_.get(); }

    // The help page shipped beside the program, or installed with it.
    static QString helpPagePath();

  private:
    struct Analysis {
        std::optional<TempoService::FileResult> result;
        QString error;
    };

    void readDefaults();
    void createItems();
    void toggle(bool& setting, QAction* item, const char* key, bool fixedWidth);
    void openMenuUnderBar();
    void placeBar();
    void createTray();
    void updateTray(double confidence, const QString& status);
    void runAnalysis(const QString& path, std::function<void(AppDelegate&, Analysis)> done);
    void droppedResult(const QString& name, const Analysis& analysis);
    void shelfTest();
    QString bpmText(double bpm) const;

    LogSink log_;
    std::unique_ptr<QSettings> defaults_;
    TempoService service_;

    static constexpr const char* sourceDefaultsKey = "audioSource";
    static constexpr const char* rangeDefaultsKey = "tempoRange";
    static constexpr const char* camelotDefaultsKey = "useCamelot";
    static constexpr const char* notesDefaultsKey = "showNotes";
    static constexpr const char* relativeDefaultsKey = "relativePreference";
    static constexpr const char* decimalsDefaultsKey = "showDecimals";
    static constexpr const char* compactDefaultsKey = "compactBar";

    bool useCamelot_ = false;
    bool showNotes_ = true;
    RelativePreference relativePreference_ = RelativePreference::both;
    bool showDecimals_ = false;
    bool compact_ = false;
    bool paused_ = false;

    std::unique_ptr<StatusItem> statusItem_;
    std::unique_ptr<QMenu> menu_;  // owns every item and submenu
    Items items_;
    std::unique_ptr<QWidgetAction> notesLine_;  // after the menu, so it leaves the menu before the menu goes
    QLabel* notesLabel_ = nullptr;              // owned by notesLine_
    std::unique_ptr<QAction> barQuitAction_;
    std::unique_ptr<QAction> shelfQuitAction_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    int trayConfidence_ = -1;

    DropShelf shelf_;
    StatusItemDropTarget dropTarget_;
    std::unique_ptr<DragMonitor> dragMonitor_;
    std::optional<double> reportedToRealOffset_;
    std::optional<FileResult> fileResult_;
    bool fileInBar_ = false;
    QTimer fileTimer_;
    QTimer shelfTestTimer_;
};

}  // namespace velquin
