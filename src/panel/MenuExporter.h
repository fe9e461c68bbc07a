#pragma once
// Publishes a QMenu on D-Bus as com.canonical.dbusmenu, so a panel draws the menu itself: every
// QAction becomes an item (label, enabled, visible, check mark or radio state, shortcut), a QAction
// with a menu a submenu, a separator a separator. Changes to the actions are sent as
// ItemsPropertiesUpdated, added or removed actions as LayoutUpdated, both gathered into one message per
// turn of the event loop. A "clicked" event triggers the action on the next turn of the loop, so that
// what it opens never holds up the panel's call. A QWidgetAction showing a QLabel is exported as a
// disabled-looking line with the label's plain text (see refresh()). Main thread only; the menu must outlive
// the exporter.

#include <QDBusConnection>
#include <QDBusContext>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QTimer>
#include <functional>

#include "panel/DBusTypes.h"

class QAction;
class QMenu;

namespace velquin::panel {

class MenuExporter : public QObject, protected QDBusContext {
    Q_OBJECT

  public:
    explicit MenuExporter(QMenu* menu, QObject* parent = nullptr);
    ~MenuExporter() override;

    // Registers the menu at `path`; false when the path is taken.
    bool exportOn(QDBusConnection connection, const QString& path);

    // The protocol's calls (the adaptor forwards to these; tests may call them directly).
    uint revision() const { return revision_; }
    MenuLayout layout(int parentId, int recursionDepth, const QStringList& propertyNames);
    MenuItemList groupProperties(const QList<int>& ids, const QStringList& propertyNames);
    QVariant property(int id, const QString& name);
    // False when there is no such item.
    bool event(int id, const QString& eventId);
    // The panel is about to open the menu (or a submenu): lines are brought up to date first.
    void aboutToShow(int id);
    // Sends the texts of the information lines (QWidgetActions showing a QLabel) that changed; their
    // labels tell nobody when they do.
    void refresh();

    // Called before the panel opens the top of the menu, to bring items read from elsewhere up to date.
    std::function<void()> onAboutToShow;

    // The label text in the protocol's form: "_" marks the mnemonic, "__" is a plain underscore.
    static QString label(const QString& actionText);
    // What the panel shows for the action: its text, or a widget line's plain label text.
    static QString labelOf(const QAction* action);
    static MenuShortcut shortcut(const QKeySequence& keys);

  signals:
    void itemsPropertiesUpdated(const velquin::panel::MenuItemList& updated,
                                const velquin::panel::MenuItemKeysList& removed);
    void layoutUpdated(uint revision, int parent);

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    int track(QAction* action);
    void watch(QMenu* menu);
    void walk(QMenu* menu);
    QVariantMap properties(int id) const;
    MenuLayout node(int id, int depth, const QStringList& names);
    QVariantMap remember(int id, const QStringList& names);
    void flush();

    QPointer<QMenu> menu_;
    QHash<const QAction*, int> ids_;
    QHash<int, QPointer<QAction>> actions_;
    QSet<QMenu*> watched_;
    QHash<int, QVariantMap> sent_;  // what the panel was last told, per item
    QSet<int> dirty_;
    bool layoutDirty_ = false;
    int nextId_ = 1;
    uint revision_ = 1;
    QTimer flushTimer_;
};

}  // namespace velquin::panel
