#pragma once

#include "capture/HotKeyBackend.h"
#include "capture/portal/PortalShortcut.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QObject>
#include <chrono>

namespace velnora {

// The hot key of a Wayland session, through the desktop's GlobalShortcuts portal. The desktop owns the
// key: grab() asks for the preferred trigger once, then reports the trigger the desktop chose. Every
// portal exchange has a deadline and ends in a failure report rather than a wait.
class PortalHotKeyBackend : public QObject, public HotKeyBackend
{
    Q_OBJECT
public:
    static inline const QString shortcutID = QStringLiteral("explain-selection");
    static inline const QString applicationID = QStringLiteral("com.tarnwick.velnora.domestic");

    static inline const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");

    // `service` is the portal's bus name; tests give one of their own.
    explicit PortalHotKeyBackend(QDBusConnection bus = QDBusConnection::sessionBus(),
                                 std::chrono::milliseconds deadline = std::chrono::seconds(10),
                                 QString service = portalService);
    ~PortalHotKeyBackend() override;

    // Whether a portal on the bus offers GlobalShortcuts (one bounded property read).
    static bool isAvailable(QDBusConnection bus = QDBusConnection::sessionBus());
    // "CTRL+ALT+e" from Qt's modifiers and key.
    static QString preferredTrigger(Qt::KeyboardModifiers modifiers, Qt::Key key);

    bool grab(Qt::KeyboardModifiers modifiers, Qt::Key key, std::function<void()> onPressed) override;
    void release() override;
    bool desktopOwnsKey() const override { return true; }
    void observe(std::function<void(const QString&)> triggerChanged,
                 std::function<void(const QString&)> failed) override;

private Q_SLOTS:
    void onActivated(const QDBusMessage& message);
    void onShortcutsChanged(const QDBusMessage& message);

private:
    QDBusMessage portalCall(const QString& method, const QList<QVariant>& arguments) const;
    QList<PortalShortcut> wantedShortcuts() const;
    void createSession();
    void listShortcuts();
    void bindShortcuts();
    void reportTrigger(const QList<PortalShortcut>& list);
    void fail(const QString& message);

    QDBusConnection m_bus;
    QString m_service;
    std::chrono::milliseconds m_deadline;
    QString m_preferredTrigger;
    QString m_session;
    bool m_starting = false;
    std::function<void()> m_onPressed;
    std::function<void(const QString&)> m_triggerChanged;
    std::function<void(const QString&)> m_failed;
};

} // namespace velnora
