#pragma once

#include <QDBusArgument>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantMap>
#include <optional>

namespace velnora {

// One entry of the portal's a(sa{sv}) shortcut lists.
struct PortalShortcut
{
    QString id;
    QVariantMap properties;

    static void registerTypes();
    // The list in a Response's results or a signal argument; empty when the value is not such a list.
    static QList<PortalShortcut> listFrom(const QVariant& value);
    // The trigger the desktop reports for `id` in `list`, when it has one.
    static std::optional<QString> triggerOf(const QList<PortalShortcut>& list, const QString& id);
};

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut);
const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut);

} // namespace velnora

Q_DECLARE_METATYPE(velnora::PortalShortcut)
