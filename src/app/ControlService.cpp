#include "app/ControlService.h"

#include "app/ControlBus.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QMetaObject>

namespace velnora {

ControlService::ControlService(QObject* parent) : QObject(parent) {}

ControlService::~ControlService()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (m_ownsName) {
        bus.unregisterObject(QString::fromLatin1(ControlBus::objectPath));
        bus.unregisterService(QString::fromLatin1(ControlBus::serviceName));
    }
    if (m_listening) {
        bus.disconnect(QString(), QString::fromLatin1(ControlBus::objectPath),
                       QString::fromLatin1(ControlBus::interfaceName),
                       QString::fromLatin1(ControlBus::notifySignal), this, SLOT(onNotify(QString)));
    }
}

bool ControlService::start()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return false;
    }
    if (!m_listening) {
        // From any sender: the one-shot processes are anonymous connections.
        m_listening =
            bus.connect(QString(), QString::fromLatin1(ControlBus::objectPath),
                        QString::fromLatin1(ControlBus::interfaceName),
                        QString::fromLatin1(ControlBus::notifySignal), this, SLOT(onNotify(QString)));
    }
    if (!m_ownsName) {
        const auto reply = bus.interface()->registerService(QString::fromLatin1(ControlBus::serviceName),
                                                            QDBusConnectionInterface::DontQueueService,
                                                            QDBusConnectionInterface::DontAllowReplacement);
        m_ownsName = reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered;
        if (m_ownsName) {
            bus.registerObject(QString::fromLatin1(ControlBus::objectPath), this,
                               QDBusConnection::ExportScriptableSlots);
        }
    }
    return m_ownsName;
}

void ControlService::ExplainSelection(const QString& text)
{
    // Reading the selection may synthesise key strokes: not inside the bus's delivery.
    QMetaObject::invokeMethod(
        this, [this, text] { Q_EMIT explainRequested(text); }, Qt::QueuedConnection);
}

void ControlService::onNotify(const QString& name)
{
    Q_EMIT notificationReceived(name);
}

} // namespace velnora
