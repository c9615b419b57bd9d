#include "capture/portal/PortalShortcut.h"

#include <QDBusMetaType>

namespace velnora {

void PortalShortcut::registerTypes()
{
    qDBusRegisterMetaType<PortalShortcut>();
    qDBusRegisterMetaType<QList<PortalShortcut>>();
}

QList<PortalShortcut> PortalShortcut::listFrom(const QVariant& value)
{
    QList<PortalShortcut> list;
    if (value.canConvert<QDBusArgument>()) {
        const auto argument = value.value<QDBusArgument>();
        if (argument.currentSignature() == QLatin1String("a(sa{sv})")) {
            argument >> list;
        }
    } else if (value.canConvert<QList<PortalShortcut>>()) {
        list = value.value<QList<PortalShortcut>>();
    }
    return list;
}

std::optional<QString> PortalShortcut::triggerOf(const QList<PortalShortcut>& list, const QString& id)
{
    for (const PortalShortcut& shortcut : list) {
        if (shortcut.id == id) {
            return shortcut.properties.value(QStringLiteral("trigger_description")).toString().trimmed();
        }
    }
    return std::nullopt;
}

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut)
{
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut)
{
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

} // namespace velnora
