#include "capture/portal/PortalRequest.h"

#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QRandomGenerator>

namespace velnora {

namespace {

QString freshToken()
{
    return QStringLiteral("velnora%1").arg(QRandomGenerator::global()->generate());
}

// The Request path follows from our unique name and the token.
QString requestPath(const QDBusConnection& bus, const QString& token)
{
    QString sender = bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    return QStringLiteral("/org/freedesktop/portal/desktop/request/") + sender + QLatin1Char('/') + token;
}

} // namespace

PortalRequest::PortalRequest(QDBusConnection bus, QObject* context, Completion done)
    : QObject(context), m_bus(std::move(bus)), m_done(std::move(done))
{}

void PortalRequest::send(QDBusConnection bus, QDBusMessage message, std::chrono::milliseconds deadline,
                         QObject* context, Completion done)
{
    auto* request = new PortalRequest(bus, context, std::move(done));
    const QString token = freshToken();
    request->m_path = requestPath(bus, token);
    request->m_service = message.service();
    bus.connect(request->m_service, request->m_path, QStringLiteral("org.freedesktop.portal.Request"),
                QStringLiteral("Response"), request, SLOT(onResponse(uint, QVariantMap)));

    QList<QVariant> arguments = message.arguments();
    QVariantMap options = arguments.isEmpty() ? QVariantMap() : arguments.takeLast().toMap();
    options.insert(QStringLiteral("handle_token"), token);
    arguments.append(options);
    message.setArguments(arguments);

    request->m_deadline.setSingleShot(true);
    connect(&request->m_deadline, &QTimer::timeout, request, [request] {
        Outcome outcome;
        outcome.timedOut = true;
        request->finish(outcome);
    });
    request->m_deadline.start(deadline);

    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(message, int(deadline.count())), request);
    connect(watcher, &QDBusPendingCallWatcher::finished, request, [request](QDBusPendingCallWatcher* call) {
        call->deleteLater();
        if (call->isError()) {
            Outcome outcome;
            outcome.error = call->error().message();
            outcome.timedOut =
                call->error().type() == QDBusError::NoReply || call->error().type() == QDBusError::Timeout;
            request->finish(outcome);
        }
    });
}

void PortalRequest::onResponse(uint code, const QVariantMap& results)
{
    finish({false, code, results, {}});
}

void PortalRequest::finish(const Outcome& outcome)
{
    if (std::exchange(m_finished, true)) {
        return;
    }
    m_deadline.stop();
    m_bus.disconnect(m_service, m_path, QStringLiteral("org.freedesktop.portal.Request"),
                     QStringLiteral("Response"), this, SLOT(onResponse(uint, QVariantMap)));
    if (m_done) {
        m_done(outcome);
    }
    deleteLater();
}

} // namespace velnora
