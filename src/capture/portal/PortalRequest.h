#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QTimer>
#include <QVariantMap>
#include <chrono>
#include <functional>

namespace velnora {

// One call to an xdg-desktop-portal method that answers through a Request object's Response signal.
// The signal is subscribed before the call goes out, so a fast portal is never missed, and the whole
// exchange has one deadline.
class PortalRequest : public QObject
{
    Q_OBJECT
public:
    // code 0 is success; 1 the user cancelled, 2 the portal failed; timedOut when nothing came in time.
    struct Outcome
    {
        bool timedOut = false;
        uint code = 2;
        QVariantMap results;
        QString error;
    };
    using Completion = std::function<void(const Outcome&)>;

    // `message` is the method call; its options map (the last argument) gets the handle token.
    static void send(QDBusConnection bus, QDBusMessage message, std::chrono::milliseconds deadline,
                     QObject* context, Completion done);

private Q_SLOTS:
    void onResponse(uint code, const QVariantMap& results);

private:
    PortalRequest(QDBusConnection bus, QObject* context, Completion done);
    void finish(const Outcome& outcome);

    QDBusConnection m_bus;
    QString m_service;
    QString m_path;
    Completion m_done;
    QTimer m_deadline;
    bool m_finished = false;
};

} // namespace velnora
