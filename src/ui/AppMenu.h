#pragma once
// The bar's menu: the information lines at the top (status, note strengths, tuning, last file), the
// source, the settings, the file actions and Quit. It only shows state; the owner connects the items'
// triggered signals to its actions. Main thread only.

#include <QMenu>
#include <QString>
#include <map>
#include <memory>
#include <optional>

#include "AudioSource.h"
#include "DisplaySettings.h"
#include "MusicalKey.h"
#include "TempoRange.h"

class QAction;
class QLabel;
class QWidgetAction;

namespace velquin {

class AppMenu {
  public:
    using RelativePreference = KeyEstimate::RelativePreference;

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

    AppMenu();
    ~AppMenu();

    // Puts the items in order and sets the settings' check marks.
    void build(const DisplaySettings& settings);

    QMenu& menu() { return *menu_; }
    const Items& items() const { return items_; }

    void setStatus(const QString& text);
    QString status() const;
    // Rich text of the note-strength line; absent hides it.
    void setNotes(const std::optional<QString>& html);
    QString notesHtml() const;
    void setTuning(const std::optional<QString>& text);
    void setFileLine(const std::optional<QString>& text);

    void checkSource(AudioSourceKind kind);
    void checkRange(TempoRange range);
    void checkRelative(RelativePreference preference);

  private:
    void createItems();

    std::unique_ptr<QMenu> menu_;  // owns every item and submenu
    Items items_;
    std::unique_ptr<QWidgetAction> notesLine_;  // after the menu, so it leaves the menu before the menu goes
    QLabel* notesLabel_ = nullptr;              // owned by notesLine_
};

}  // namespace velquin
