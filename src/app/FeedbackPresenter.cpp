#include "app/FeedbackPresenter.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QVariantMap>

namespace velnora {

namespace {

const QString notificationsService = QStringLiteral("org.freedesktop.Notifications");
const QString notificationsPath = QStringLiteral("/org/freedesktop/Notifications");

} // namespace

FeedbackPresenter::FeedbackPresenter(QSystemTrayIcon* trayIcon, QObject* parent)
    : QObject(parent), m_trayIcon(trayIcon)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &FeedbackPresenter::expire);
}

FeedbackPresenter::~FeedbackPresenter()
{
    withdraw();
}

void FeedbackPresenter::show(const QString& text, double durationSeconds)
{
    ++m_generation;
    m_text = text;
    m_history.append(text);
    if (m_history.size() > 50) {
        m_history.removeFirst();
    }
    const int milliseconds = int(qBound(0.1, durationSeconds, 60.0) * 1000);
    if (m_trayIcon) {
        m_trayIcon->setToolTip(text);
    }
    notify(text, milliseconds);
    m_timer.start(milliseconds);
    Q_EMIT shown(text);
}

void FeedbackPresenter::expire()
{
    m_text.clear();
    if (m_trayIcon) {
        m_trayIcon->setToolTip(restingToolTip());
    }
    withdraw();
}

void FeedbackPresenter::notify(const QString& text, int timeoutMs)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(notificationsService, notificationsPath,
                                                       notificationsService, QStringLiteral("Notify"));
    QVariantMap hints;
    hints.insert(QStringLiteral("transient"), true);
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue<uchar>(0));
    call << QStringLiteral("澜镜") << m_notificationID << QStringLiteral("velnora") << QStringLiteral("澜镜")
         << text << QStringList() << hints << timeoutMs;
    // Without a notification server the call fails quickly; the tooltip still carries the text.
    QDBusPendingCallWatcher* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 2000), this);
    const quint64 generation = m_generation;
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, generation] {
        watcher->deleteLater();
        const QDBusPendingReply<uint> reply = *watcher;
        if (!reply.isValid()) {
            return;
        }
        m_notificationID = reply.value();
        if (generation == m_generation && m_text.isEmpty()) {
            withdraw(); // expired before the server answered
        }
    });
}

void FeedbackPresenter::withdraw()
{
    if (m_notificationID == 0) {
        return;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        QDBusMessage call =
            QDBusMessage::createMethodCall(notificationsService, notificationsPath, notificationsService,
                                           QStringLiteral("CloseNotification"));
        call << m_notificationID;
        bus.send(call);
    }
    m_notificationID = 0;
}

} // namespace velnora
