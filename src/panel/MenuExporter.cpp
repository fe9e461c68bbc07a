#include "panel/MenuExporter.h"

#include <QAction>
#include <QActionEvent>
#include <QActionGroup>
#include <QDBusAbstractAdaptor>
#include <QGuiApplication>
#include <QKeySequence>
#include <QLabel>
#include <QMenu>
#include <QTextDocumentFragment>
#include <QWidgetAction>

namespace velquin::panel {
namespace {

class MenuAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
    Q_PROPERTY(uint Version READ version)
    Q_PROPERTY(QString TextDirection READ textDirection)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(QStringList IconThemePath READ iconThemePath)

  public:
    explicit MenuAdaptor(MenuExporter* exporter) : QDBusAbstractAdaptor(exporter), exporter_(exporter) {
        connect(exporter, &MenuExporter::itemsPropertiesUpdated, this, &MenuAdaptor::ItemsPropertiesUpdated);
        connect(exporter, &MenuExporter::layoutUpdated, this, &MenuAdaptor::LayoutUpdated);
    }

    uint version() const { return 3; }
    QString textDirection() const {
        return QGuiApplication::layoutDirection() == Qt::RightToLeft ? QStringLiteral("rtl")
                                                                     : QStringLiteral("ltr");
    }
    QString status() const { return QStringLiteral("normal"); }
    QStringList iconThemePath() const { return {}; }

  public slots:
    uint GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                   velquin::panel::MenuLayout& layout) {
        layout = exporter_->layout(parentId, recursionDepth, propertyNames);
        return exporter_->revision();
    }
    velquin::panel::MenuItemList GetGroupProperties(const QList<int>& ids, const QStringList& propertyNames) {
        return exporter_->groupProperties(ids, propertyNames);
    }
    QDBusVariant GetProperty(int id, const QString& name) {
        return QDBusVariant(exporter_->property(id, name));
    }
    void Event(int id, const QString& eventId, const QDBusVariant&, uint) { exporter_->event(id, eventId); }
    QList<int> EventGroup(const velquin::panel::MenuEventList& events) {
        QList<int> errors;
        for (const MenuEvent& e : events) {
            if (!exporter_->event(e.id, e.eventId)) errors << e.id;
        }
        return errors;
    }
    // Items are kept up to date through ItemsPropertiesUpdated, so the panel never needs to refetch.
    bool AboutToShow(int id) {
        exporter_->aboutToShow(id);
        return false;
    }
    QList<int> AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors) {
        for (int id : ids) exporter_->aboutToShow(id);
        idErrors.clear();
        return {};
    }

  signals:
    void ItemsPropertiesUpdated(const velquin::panel::MenuItemList& updatedProps,
                                const velquin::panel::MenuItemKeysList& removedProps);
    void LayoutUpdated(uint revision, int parent);
    void ItemActivationRequested(int id, uint timestamp);

  private:
    MenuExporter* exporter_;
};

QMenu* submenuOf(const QAction* action) {
    return action ? action->menu() : nullptr;
}

}  // namespace

MenuExporter::MenuExporter(QMenu* menu, QObject* parent) : QObject(parent), menu_(menu) {
    registerDBusTypes();
    new MenuAdaptor(this);  // owned by this object
    flushTimer_.setSingleShot(true);
    flushTimer_.setInterval(0);
    connect(&flushTimer_, &QTimer::timeout, this, &MenuExporter::flush);
    walk(menu);
}

MenuExporter::~MenuExporter() {
    for (QMenu* m : std::as_const(watched_)) m->removeEventFilter(this);
}

bool MenuExporter::exportOn(QDBusConnection connection, const QString& path) {
    return connection.registerObject(path, this, QDBusConnection::ExportAdaptors);
}

QString MenuExporter::label(const QString& actionText) {
    QString out;
    out.reserve(actionText.size());
    for (qsizetype i = 0; i < actionText.size(); ++i) {
        const QChar c = actionText[i];
        if (c == QLatin1Char('&')) {
            if (i + 1 < actionText.size()) {
                ++i;
                out += actionText[i] == QLatin1Char('&') ? QStringLiteral("&")
                                                         : QStringLiteral("_") + actionText[i];
            }
        } else if (c == QLatin1Char('_')) {
            out += QStringLiteral("__");
        } else {
            out += c;
        }
    }
    return out;
}

QString MenuExporter::labelOf(const QAction* action) {
    const auto* line = qobject_cast<const QWidgetAction*>(action);
    const auto* text = line ? qobject_cast<const QLabel*>(line->defaultWidget()) : nullptr;
    if (!text) return label(action->text());
    QString plain = Qt::mightBeRichText(text->text())
                        ? QTextDocumentFragment::fromHtml(text->text()).toPlainText()
                        : text->text();
    return plain.replace(QLatin1Char('_'), QStringLiteral("__"));
}

MenuShortcut MenuExporter::shortcut(const QKeySequence& keys) {
    MenuShortcut result;
    for (int i = 0; i < keys.count(); ++i) {
        const QKeyCombination combination = keys[i];
        const Qt::KeyboardModifiers mods = combination.keyboardModifiers();
        QStringList press;
        if (mods & Qt::ControlModifier) press << QStringLiteral("Control");
        if (mods & Qt::AltModifier) press << QStringLiteral("Alt");
        if (mods & Qt::ShiftModifier) press << QStringLiteral("Shift");
        if (mods & Qt::MetaModifier) press << QStringLiteral("Super");
        press << QKeySequence(combination.key()).toString(QKeySequence::PortableText);
        result << press;
    }
    return result;
}

int MenuExporter::track(QAction* action) {
    if (const auto it = ids_.constFind(action); it != ids_.constEnd()) return *it;
    const int id = nextId_++;
    ids_.insert(action, id);
    actions_.insert(id, action);
    connect(action, &QAction::changed, this, [this, id] {
        dirty_.insert(id);
        flushTimer_.start();
    });
    connect(action, &QObject::destroyed, this, [this, action, id] {
        ids_.remove(action);
        actions_.remove(id);
        sent_.remove(id);
        dirty_.remove(id);
    });
    return id;
}

void MenuExporter::watch(QMenu* menu) {
    if (!menu || watched_.contains(menu)) return;
    watched_.insert(menu);
    menu->installEventFilter(this);
    connect(menu, &QObject::destroyed, this, [this, menu] { watched_.remove(menu); });
}

void MenuExporter::walk(QMenu* menu) {
    if (!menu) return;
    watch(menu);
    for (QAction* action : menu->actions()) {
        track(action);
        walk(submenuOf(action));
    }
}

bool MenuExporter::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::ActionAdded || event->type() == QEvent::ActionRemoved) {
        layoutDirty_ = true;
        flushTimer_.start();
    }
    return QObject::eventFilter(watched, event);
}

QVariantMap MenuExporter::properties(int id) const {
    QVariantMap p;
    if (id == 0) {
        p.insert(QStringLiteral("children-display"), QStringLiteral("submenu"));
        return p;
    }
    const QAction* a = actions_.value(id);
    if (!a) return p;
    p.insert(QStringLiteral("visible"), a->isVisible());
    if (a->isSeparator()) {
        p.insert(QStringLiteral("type"), QStringLiteral("separator"));
        return p;
    }
    const QString text = labelOf(a);
    p.insert(QStringLiteral("label"), text);
    p.insert(QStringLiteral("enabled"), a->isEnabled());
    // A widget line without a text has nothing a panel could draw.
    if (text.isEmpty() && qobject_cast<const QWidgetAction*>(a)) p.insert(QStringLiteral("visible"), false);
    if (a->isCheckable()) {
        const bool radio = a->actionGroup() && a->actionGroup()->isExclusive();
        p.insert(QStringLiteral("toggle-type"),
                 radio ? QStringLiteral("radio") : QStringLiteral("checkmark"));
        p.insert(QStringLiteral("toggle-state"), a->isChecked() ? 1 : 0);
    }
    if (submenuOf(a)) p.insert(QStringLiteral("children-display"), QStringLiteral("submenu"));
    if (!a->shortcut().isEmpty())
        p.insert(QStringLiteral("shortcut"), QVariant::fromValue(shortcut(a->shortcut())));
    return p;
}

QVariantMap MenuExporter::remember(int id, const QStringList& names) {
    QVariantMap all = properties(id);
    // Whatever the panel has now seen is the base for later updates.
    QVariantMap& sent = sent_[id];
    for (auto it = all.cbegin(); it != all.cend(); ++it) sent.insert(it.key(), it.value());
    if (names.isEmpty()) return all;
    QVariantMap picked;
    for (const QString& name : names) {
        if (all.contains(name)) picked.insert(name, all.value(name));
    }
    return picked;
}

MenuLayout MenuExporter::node(int id, int depth, const QStringList& names) {
    MenuLayout result;
    result.id = id;
    result.properties = remember(id, names);
    QMenu* menu = id == 0 ? menu_.data() : submenuOf(actions_.value(id));
    if (!menu || depth == 0) return result;
    watch(menu);
    for (QAction* action : menu->actions()) result.children << node(track(action), depth - 1, names);
    return result;
}

MenuLayout MenuExporter::layout(int parentId, int recursionDepth, const QStringList& propertyNames) {
    if (parentId != 0 && !actions_.value(parentId)) return MenuLayout{parentId, {}, {}};
    return node(parentId, recursionDepth, propertyNames);
}

MenuItemList MenuExporter::groupProperties(const QList<int>& ids, const QStringList& propertyNames) {
    MenuItemList result;
    for (int id : ids) {
        if (id == 0 || actions_.value(id)) result << MenuItem{id, remember(id, propertyNames)};
    }
    return result;
}

QVariant MenuExporter::property(int id, const QString& name) {
    return properties(id).value(name);
}

void MenuExporter::aboutToShow(int id) {
    if (id == 0 && onAboutToShow) onAboutToShow();
    // Sent before the reply, so the panel opens the menu with the current lines.
    refresh();
    flush();
}

void MenuExporter::refresh() {
    for (auto it = actions_.cbegin(); it != actions_.cend(); ++it) {
        if (qobject_cast<const QWidgetAction*>(it.value().data())) dirty_.insert(it.key());
    }
    if (!dirty_.isEmpty()) flushTimer_.start();
}

bool MenuExporter::event(int id, const QString& eventId) {
    if (eventId == QLatin1String("opened")) aboutToShow(id);
    if (id == 0) return true;
    const QPointer<QAction> action = actions_.value(id);
    if (!action) return false;
    if (eventId == QLatin1String("clicked") && action->isEnabled() && !submenuOf(action)) {
        QTimer::singleShot(0, action, [action] {
            if (action && action->isEnabled()) action->trigger();
        });
    }
    return true;
}

void MenuExporter::flush() {
    if (layoutDirty_) {
        layoutDirty_ = false;
        walk(menu_);
        ++revision_;
        emit layoutUpdated(revision_, 0);
    }
    MenuItemList updated;
    MenuItemKeysList removed;
    for (int id : std::as_const(dirty_)) {
        if (!sent_.contains(id)) continue;  // never shown: the panel reads it fresh
        const QVariantMap now = properties(id);
        QVariantMap& before = sent_[id];
        MenuItem changed{id, {}};
        for (auto it = now.cbegin(); it != now.cend(); ++it) {
            if (before.value(it.key()) != it.value()) changed.properties.insert(it.key(), it.value());
        }
        MenuItemKeys gone{id, {}};
        for (auto it = before.cbegin(); it != before.cend(); ++it) {
            if (!now.contains(it.key())) gone.keys << it.key();
        }
        before = now;
        if (!changed.properties.isEmpty()) updated << changed;
        if (!gone.keys.isEmpty()) removed << gone;
    }
    dirty_.clear();
    if (!updated.isEmpty() || !removed.isEmpty()) emit itemsPropertiesUpdated(updated, removed);
}

}  // namespace velquin::panel

#include "MenuExporter.moc"
