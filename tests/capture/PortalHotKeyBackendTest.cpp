#include "capture/portal/PortalHotKeyBackend.h"

#include "support/LoopbackHttpServer.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDBusVirtualObject>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace std::chrono_literals;
using test::waitUntil;

const QString desktopPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
// Not the desktop's name: a real portal may be running or started on this bus.
const QString scriptedService =
    QStringLiteral("org.velnora.test.ScriptedPortal%1").arg(QCoreApplication::applicationPid());

// A portal on its own bus connection that misbehaves on demand: the faults a real desktop portal
// cannot be made to show (silence, refusal) and the signals a desktop sends when the user acts.
class ScriptedPortal : public QDBusVirtualObject
{
public:
    enum class Behaviour { answers, neverResponds, neverReplies, refuses };

    explicit ScriptedPortal(Behaviour behaviour)
        : m_behaviour(behaviour),
          m_bus(QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("scripted-portal")))
    {
        m_bus.registerVirtualObject(desktopPath, this);
        m_bus.registerService(scriptedService);
    }
    ~ScriptedPortal() override
    {
        m_bus.unregisterService(scriptedService);
        m_bus.unregisterObject(desktopPath);
        QDBusConnection::disconnectFromBus(QStringLiteral("scripted-portal"));
    }

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        if (m_behaviour == Behaviour::neverReplies) {
            return true;
        }
        // Like portals before 1.19, which have no application registry.
        if (message.interface() != shortcutsInterface) {
            connection.send(message.createErrorReply(QDBusError::UnknownInterface, message.interface()));
            return true;
        }
        const auto options = qdbus_cast<QVariantMap>(message.arguments().last());
        QString sender = message.service().mid(1).replace(QLatin1Char('.'), QLatin1Char('_'));
        const QString request = QStringLiteral("/org/freedesktop/portal/desktop/request/") + sender +
                                QLatin1Char('/') + options.value(QStringLiteral("handle_token")).toString();
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
        calls << message.member();
        if (m_behaviour == Behaviour::neverResponds) {
            return true;
        }
        QVariantMap results;
        uint code = m_behaviour == Behaviour::refuses ? 1 : 0;
        if (message.member() == QLatin1String("CreateSession")) {
            session = desktopPath + QStringLiteral("/session/") + sender + QStringLiteral("/velnora");
            results.insert(QStringLiteral("session_handle"), session);
        } else {
            results.insert(QStringLiteral("shortcuts"),
                           QVariant::fromValue(shortcuts(QStringLiteral("Ctrl+Alt+E"))));
        }
        QDBusMessage response = QDBusMessage::createSignal(
            request, QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Response"));
        response << code << results;
        connection.send(response);
        return true;
    }

    void emitSignal(const QString& name, const QList<QVariant>& arguments)
    {
        QDBusMessage signal = QDBusMessage::createSignal(desktopPath, shortcutsInterface, name);
        signal.setArguments(arguments);
        m_bus.send(signal);
    }

    static QList<PortalShortcut> shortcuts(const QString& trigger)
    {
        return {{PortalHotKeyBackend::shortcutID, {{QStringLiteral("trigger_description"), trigger}}}};
    }

    QStringList calls;
    QString session;

private:
    Behaviour m_behaviour;
    QDBusConnection m_bus;
};

class PortalHotKeyBackendTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!QDBusConnection::sessionBus().isConnected()) {
            GTEST_FAIL() << "no session bus: run inside scripts/desktop-session.sh";
        }
        PortalShortcut::registerTypes();
    }

    // Starts a backend against `portal` and collects what it reports.
    std::unique_ptr<PortalHotKeyBackend> start(std::chrono::milliseconds deadline = 400ms)
    {
        auto backend =
            std::make_unique<PortalHotKeyBackend>(QDBusConnection::sessionBus(), deadline, scriptedService);
        backend->observe([this](const QString& trigger) { triggers << trigger; },
                         [this](const QString& message) { failures << message; });
        backend->grab(Qt::ControlModifier | Qt::AltModifier, Qt::Key_E, [this] { ++presses; });
        return backend;
    }

    QStringList triggers;
    QStringList failures;
    int presses = 0;
};

TEST_F(PortalHotKeyBackendTest, APortalThatFailsEndsInChineseFeedbackWithinTheDeadline)
{
    const struct
    {
        ScriptedPortal::Behaviour behaviour;
        const char* says;
    } cases[] = {
        {ScriptedPortal::Behaviour::neverResponds, "没有及时回应"},
        {ScriptedPortal::Behaviour::neverReplies, "没有及时回应"},
        {ScriptedPortal::Behaviour::refuses, "没有允许"},
    };
    for (const auto& c : cases) {
        triggers.clear();
        failures.clear();
        ScriptedPortal portal(c.behaviour);
        auto backend = start();
        ASSERT_TRUE(waitUntil([&] { return !failures.isEmpty(); })) << int(c.behaviour);
        EXPECT_TRUE(failures.front().contains(QString::fromUtf8(c.says))) << failures.front().toStdString();
        EXPECT_TRUE(failures.front().contains(QStringLiteral("velnora --explain-selection")));
        EXPECT_TRUE(triggers.isEmpty());
    }
}

TEST_F(PortalHotKeyBackendTest, ReportsTheDesktopsTriggerAndRunsTheActionOnlyForItsOwnShortcut)
{
    ScriptedPortal portal(ScriptedPortal::Behaviour::answers);
    auto backend = start();
    ASSERT_TRUE(waitUntil([&] { return !triggers.isEmpty(); })) << failures.join(' ').toStdString();
    EXPECT_EQ(triggers, QStringList{QStringLiteral("Ctrl+Alt+E")});
    // Listed already: nothing to bind.
    EXPECT_EQ(portal.calls, (QStringList{QStringLiteral("CreateSession"), QStringLiteral("ListShortcuts")}));

    const QVariant otherSession =
        QVariant::fromValue(QDBusObjectPath(desktopPath + QStringLiteral("/session/x/other")));
    const QVariant ours = QVariant::fromValue(QDBusObjectPath(portal.session));
    const QVariant noOptions = QVariantMap();
    portal.emitSignal(QStringLiteral("Activated"),
                      {otherSession, PortalHotKeyBackend::shortcutID, qulonglong(1), noOptions});
    portal.emitSignal(QStringLiteral("Activated"),
                      {ours, QStringLiteral("another-id"), qulonglong(2), noOptions});
    portal.emitSignal(QStringLiteral("Activated"),
                      {ours, PortalHotKeyBackend::shortcutID, qulonglong(3), noOptions});
    ASSERT_TRUE(waitUntil([&] { return presses > 0; }));
    waitUntil([] { return false; }, 100);
    EXPECT_EQ(presses, 1);

    portal.emitSignal(QStringLiteral("ShortcutsChanged"),
                      {ours, QVariant::fromValue(ScriptedPortal::shortcuts(QStringLiteral("Meta+E")))});
    ASSERT_TRUE(waitUntil([&] { return triggers.size() == 2; }));
    EXPECT_EQ(triggers.last(), QStringLiteral("Meta+E"));
    EXPECT_TRUE(failures.isEmpty());
}

TEST(PortalHotKeyBackendTriggerTest, PreferredTriggersFollowTheChoice)
{
    const struct
    {
        Qt::KeyboardModifiers modifiers;
        Qt::Key key;
        const char* trigger;
    } cases[] = {
        {Qt::ControlModifier | Qt::AltModifier, Qt::Key_E, "CTRL+ALT+e"},
        {Qt::MetaModifier | Qt::AltModifier, Qt::Key_E, "LOGO+ALT+e"},
        {Qt::ControlModifier | Qt::MetaModifier, Qt::Key_E, "CTRL+LOGO+e"},
        {Qt::ControlModifier | Qt::ShiftModifier, Qt::Key_F5, "CTRL+SHIFT+F5"},
        {Qt::ControlModifier | Qt::AltModifier, Qt::Key_Semicolon, "CTRL+ALT+semicolon"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PortalHotKeyBackend::preferredTrigger(c.modifiers, c.key), QLatin1String(c.trigger));
    }
}

} // namespace
} // namespace velnora
