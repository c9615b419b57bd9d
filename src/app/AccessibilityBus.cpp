#include "app/AccessibilityBus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>

namespace velnora::AccessibilityBus {

namespace {

constexpr int callTimeoutMs = 500;
const QString service = QStringLiteral("org.a11y.Bus");
const QString path = QStringLiteral("/org/a11y/bus");
const QString statusInterface = QStringLiteral("org.a11y.Status");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

} // namespace

std::optional<bool> isEnabled()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return std::nullopt;
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, path, propertiesInterface, QStringLiteral("Get"));
    call << statusInterface << QStringLiteral("IsEnabled");
    const QDBusMessage reply = bus.call(call, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return std::nullopt;
    }
    return reply.arguments().first().value<QDBusVariant>().variant().toBool();
}

bool enable()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return false;
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, path, propertiesInterface, QStringLiteral("Set"));
    call << statusInterface << QStringLiteral("IsEnabled") << QVariant::fromValue(QDBusVariant(true));
    return bus.call(call, QDBus::Block, callTimeoutMs).type() == QDBusMessage::ReplyMessage;
}

} // namespace velnora::AccessibilityBus
