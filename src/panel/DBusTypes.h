#pragma once
// The D-Bus structures of the status-notifier and menu protocols, with their marshalling. Call
// registerDBusTypes() once before exporting or reading any of them.

#include <QByteArray>
#include <QDBusArgument>
#include <QDBusVariant>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariantMap>

namespace velquin::panel {

// One icon size: ARGB32 pixels in network byte order, row by row (a(iiay)).
struct IconPixmap {
    int width = 0;
    int height = 0;
    QByteArray bytes;
};
using IconPixmapList = QList<IconPixmap>;

// (sa(iiay)ss)
struct ToolTip {
    QString iconName;
    IconPixmapList icon;
    QString title;
    QString text;
};

// One menu node with its properties and children: (ia{sv}av), each child a variant holding the same.
struct MenuLayout {
    int id = 0;
    QVariantMap properties;
    QList<MenuLayout> children;
};

// (ia{sv})
struct MenuItem {
    int id = 0;
    QVariantMap properties;
};
using MenuItemList = QList<MenuItem>;

// (ias): properties that went back to their defaults.
struct MenuItemKeys {
    int id = 0;
    QStringList keys;
};
using MenuItemKeysList = QList<MenuItemKeys>;

// (isvu)
struct MenuEvent {
    int id = 0;
    QString eventId;
    QDBusVariant data;
    uint timestamp = 0;
};
using MenuEventList = QList<MenuEvent>;

// aas: one list per key press, modifiers first ("Control", "Alt", "Shift", "Super"), then the key.
using MenuShortcut = QList<QStringList>;

void registerDBusTypes();

QDBusArgument& operator<<(QDBusArgument& arg, const IconPixmap& value);
const QDBusArgument& operator>>(const QDBusArgument& arg, IconPixmap& value);
QDBusArgument& operator<<(QDBusArgument& arg, const ToolTip& value);
const QDBusArgument& operator>>(const QDBusArgument& arg, ToolTip& value);
QDBusArgument& operator<<(QDBusArgument& arg, const MenuLayout& value);
const QDBusArgument& operator>>(const QDBusArgument& arg, MenuLayout& value);
QDBusArgument& operator<<(QDBusArgument& arg, const MenuItem& value);
const QDBusArgument& operator>>(const QDBusArgument& arg, MenuItem& value);
QDBusArgument& operator<<(QDBusArgument& arg, const MenuItemKeys& value);
const QDBusArgument& operator>>(const QDBusArgument& arg, MenuItemKeys& value);
QDBusArgument& operator<<(QDBusArgument& arg, const MenuEvent& value);
const QDBusArgument& operator>>(const QDBusArgument& arg, MenuEvent& value);

}  // namespace velquin::panel

Q_DECLARE_METATYPE(velquin::panel::IconPixmap)
Q_DECLARE_METATYPE(velquin::panel::ToolTip)
Q_DECLARE_METATYPE(velquin::panel::MenuLayout)
Q_DECLARE_METATYPE(velquin::panel::MenuItem)
Q_DECLARE_METATYPE(velquin::panel::MenuItemKeys)
Q_DECLARE_METATYPE(velquin::panel::MenuEvent)
