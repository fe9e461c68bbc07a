#pragma once
// The bar's menu: the information lines at the top (status, note strengths, tuning, last file), the
// source, the settings, the file actions and Quit. It only shows state; the owner connects the items'
// triggered signals to its actions. The information lines are labels in the normal text colour, not
// greyed items; the menu answers its items' shortcuts while it is open. Main thread only.

#include <QMenu>
#include <QString>
#include <map>
#include <memory>
#include <optional>

#include "analysis/MusicalKey.h"
#include "analysis/TempoRange.h"
#include "capture/AudioSource.h"
#include "ui/DisplaySettings.h"

class QAction;
class QLabel;
class QWidgetAction;

namespace velquin {

class AppMenu {
  public:
    using RelativePreference = KeyEstimate::RelativePreference;

    struct Items {
        QWidgetAction* statusLine = nullptr;
        QWidgetAction* hintLine = nullptr;
        QWidgetAction* notesLine = nullptr;
        QWidgetAction* tuningLine = nullptr;
        QWidgetAction* fileLine = nullptr;
        QAction* systemItem = nullptr;
        QAction* micItem = nullptr;
        QAction* pauseItem = nullptr;
        QAction* followItem = nullptr;
        QAction* camelotItem = nullptr;
        QAction* notesItem = nullptr;
        QAction* decimalsItem = nullptr;
        QAction* compactItem = nullptr;
        QAction* floatItem = nullptr;
        QAction* copyItem = nullptr;
        QAction* analyzeItem = nullptr;
        QAction* preciseItem = nullptr;
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

    // The status line, shortened to 60 characters; the whole text is its tooltip.
    void setStatus(const QString& text);
    QString status() const;
    // What an information line shows; empty while it is hidden.
    static QString lineText(const QWidgetAction* line);
    // The first-launch hint under the status line.
    void showHint(bool shown);
    void setHintText(const QString& text);
    QString hintText() const;
    // Rich text of the note-strength line; absent hides it.
    void setNotes(const std::optional<QString>& html);
    QString notesHtml() const;
    void setTuning(const std::optional<QString>& text);
    void setFileLine(const std::optional<QString>& text);

    // An open menu whose lines grew wider is moved back inside its screen.
    void keepOnScreen();

    void checkSource(AudioSourceKind kind);
    void checkRange(TempoRange range);
    void checkRelative(RelativePreference preference);

  private:
    void createItems();
    QWidgetAction* createLine(bool richText);

    std::unique_ptr<QMenu> menu_;  // owns every item and submenu
    Items items_;
    QString status_;
};

}  // namespace velquin
