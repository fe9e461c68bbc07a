#include "panel/DBusTypes.h"

#include <QDBusMetaType>

namespace velquin::panel {

void registerDBusTypes() {
    static const bool registered = [] {
        qDBusRegisterMetaType<IconPixmap>();
        qDBusRegisterMetaType<IconPixmapList>();
        qDBusRegisterMetaType<ToolTip>();
        qDBusRegisterMetaType<MenuLayout>();
        qDBusRegisterMetaType<MenuItem>();
        qDBusRegisterMetaType<MenuItemList>();
        qDBusRegisterMetaType<MenuItemKeys>();
        qDBusRegisterMetaType<MenuItemKeysList>();
        qDBusRegisterMetaType<MenuEvent>();
        qDBusRegisterMetaType<MenuEventList>();
        qDBusRegisterMetaType<MenuShortcut>();
        // Signals and slots name these types by their aliases.
        qRegisterMetaType<IconPixmapList>("velquin::panel::IconPixmapList");
        qRegisterMetaType<MenuItemList>("velquin::panel::MenuItemList");
        qRegisterMetaType<MenuItemKeysList>("velquin::panel::MenuItemKeysList");
        qRegisterMetaType<MenuEventList>("velquin::panel::MenuEventList");
        return true;
    }();
    (void)registered;
}

QDBusArgument& operator<<(QDBusArgument& arg, const IconPixmap& value) {
    arg.beginStructure();
    arg << value.width << value.height << value.bytes;
    arg.endStructure();
    return arg;
}

const QDBusArgument& operator>>(const QDBusArgument& arg, IconPixmap& value) {
    arg.beginStructure();
    arg >> value.width >> value.height >> value.bytes;
    arg.endStructure();
    return arg;
}

QDBusArgument& operator<<(QDBusArgument& arg, const ToolTip& value) {
    arg.beginStructure();
    arg << value.iconName << value.icon << value.title << value.text;
    arg.endStructure();
    return arg;
}

const QDBusArgument& operator>>(const QDBusArgument& arg, ToolTip& value) {
    arg.beginStructure();
    arg >> value.iconName >> value.icon >> value.title >> value.text;
    arg.endStructure();
    return arg;
}

QDBusArgument& operator<<(QDBusArgument& arg, const MenuLayout& value) {
    arg.beginStructure();
    arg << value.id << value.properties;
    arg.beginArray(QMetaType::fromType<QDBusVariant>());
    for (const MenuLayout& child : value.children) arg << QDBusVariant(QVariant::fromValue(child));
    arg.endArray();
    arg.endStructure();
    return arg;
}

const QDBusArgument& operator>>(const QDBusArgument& arg, MenuLayout& value) {
    arg.beginStructure();
    arg >> value.id >> value.properties;
    value.children.clear();
    arg.beginArray();
    while (!arg.atEnd()) {
        QDBusVariant child;
        arg >> child;
        MenuLayout layout;
        child.variant().value<QDBusArgument>() >> layout;
        value.children.append(layout);
    }
    arg.endArray();
    arg.endStructure();
    return arg;
}

QDBusArgument& operator<<(QDBusArgument& arg, const MenuItem& value) {
    arg.beginStructure();
    arg << value.id << value.properties;
    arg.endStructure();
    return arg;
}

const QDBusArgument& operator>>(const QDBusArgument& arg, MenuItem& value) {
    arg.beginStructure();
    arg >> value.id >> value.properties;
    arg.endStructure();
    return arg;
}

QDBusArgument& operator<<(QDBusArgument& arg, const MenuItemKeys& value) {
    arg.beginStructure();
    arg << value.id << value.keys;
    arg.endStructure();
    return arg;
}

const QDBusArgument& operator>>(const QDBusArgument& arg, MenuItemKeys& value) {
    arg.beginStructure();
    arg >> value.id >> value.keys;
    arg.endStructure();
    return arg;
}

QDBusArgument& operator<<(QDBusArgument& arg, const MenuEvent& value) {
    arg.beginStructure();
    arg << value.id << value.eventId << value.data << value.timestamp;
    arg.endStructure();
    return arg;
}

const QDBusArgument& operator>>(const QDBusArgument& arg, MenuEvent& value) {
    arg.beginStructure();
    arg >> value.id >> value.eventId >> value.data >> value.timestamp;
    arg.endStructure();
    return arg;
}

}  // namespace velquin::panel
