#include "capture/portal/PortalHotKeyBackend.h"

#include "capture/KeySymbol.h"
#include "capture/portal/PortalRequest.h"

#include <QDBusPendingCallWatcher>
#include <QDBusReply>

namespace velnora {

namespace {

using namespace std::chrono_literals;

const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
// Fixed, so a restart finds the shortcuts the desktop already knows for us.
const QString sessionToken = QStringLiteral("velnora");
constexpr auto availabilityTimeout = 1500ms;
constexpr auto registryTimeout = 2000ms;

QString commandHint()
{
    return QStringLiteral("可在系统设置中把命令 velnora --explain-selection 绑定到快捷键。");
}

QString failureMessage(const PortalRequest::Outcome& outcome)
{
    if (outcome.timedOut) {
        return QStringLiteral("桌面的全局快捷键服务没有及时回应，快捷键暂不可用；") + commandHint();
    }
    if (outcome.code == 1) {
        return QStringLiteral("桌面没有允许设置全局快捷键；") + commandHint();
    }
    return QStringLiteral("桌面的全局快捷键服务出错，快捷键暂不可用；") + commandHint();
}

} // namespace

PortalHotKeyBackend::PortalHotKeyBackend(QDBusConnection bus, std::chrono::milliseconds deadline,
                                         QString service)
    : m_bus(std::move(bus)), m_service(std::move(service)), m_deadline(deadline)
{
    PortalShortcut::registerTypes();
    // Any sender: Plasma 5.27's backend emits these itself rather than through the portal's name.
    m_bus.connect(QString(), portalPath, shortcutsInterface, QStringLiteral("Activated"), this,
                  SLOT(onActivated(QDBusMessage)));
    m_bus.connect(QString(), portalPath, shortcutsInterface, QStringLiteral("ShortcutsChanged"), this,
                  SLOT(onShortcutsChanged(QDBusMessage)));
}

PortalHotKeyBackend::~PortalHotKeyBackend()
{
    if (!m_session.isEmpty()) {
        QDBusMessage close = QDBusMessage::createMethodCall(
            m_service, m_session, QStringLiteral("org.freedesktop.portal.Session"), QStringLiteral("Close"));
        m_bus.call(close, QDBus::NoBlock);
    }
}

bool PortalHotKeyBackend::isAvailable(QDBusConnection bus)
{
    QDBusMessage get = QDBusMessage::createMethodCall(
        portalService, portalPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << shortcutsInterface << QStringLiteral("version");
    const QDBusReply<QVariant> reply = bus.call(get, QDBus::Block, int(availabilityTimeout.count()));
    return reply.isValid() && reply.value().toUInt() >= 1;
}

QString PortalHotKeyBackend::preferredTrigger(Qt::KeyboardModifiers modifiers, Qt::Key key)
{
    QStringList parts;
    if (modifiers & Qt::ControlModifier) {
        parts << QStringLiteral("CTRL");
    }
    if (modifiers & Qt::MetaModifier) {
        parts << QStringLiteral("LOGO");
    }
    if (modifiers & Qt::AltModifier) {
        parts << QStringLiteral("ALT");
    }
    if (modifiers & Qt::ShiftModifier) {
        parts << QStringLiteral("SHIFT");
    }
    parts << KeySymbol::nameOf(key);
    return parts.join(QLatin1Char('+'));
}

bool PortalHotKeyBackend::grab(Qt::KeyboardModifiers modifiers, Qt::Key key, std::function<void()> onPressed)
{
    m_onPressed = std::move(onPressed);
    m_preferredTrigger = preferredTrigger(modifiers, key);
    // Once bound, the desktop owns the key: another choice in our menu cannot move it.
    if (m_session.isEmpty() && !m_starting) {
        m_starting = true;
        // Newer portals refuse an unsandboxed caller without an application id; older ones lack the
        // registry, and its error is expected there.
        QDBusMessage registration = QDBusMessage::createMethodCall(
            m_service, portalPath, QStringLiteral("org.freedesktop.host.portal.Registry"),
            QStringLiteral("Register"));
        registration << applicationID << QVariantMap();
        auto* watcher =
            new QDBusPendingCallWatcher(m_bus.asyncCall(registration, int(registryTimeout.count())), this);
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* call) {
            call->deleteLater();
            createSession();
        });
    }
    return true;
}

void PortalHotKeyBackend::release()
{
    m_onPressed = nullptr;
}

void PortalHotKeyBackend::observe(std::function<void(const QString&)> triggerChanged,
                                  std::function<void(const QString&)> failed)
{
    m_triggerChanged = std::move(triggerChanged);
    m_failed = std::move(failed);
}

QDBusMessage PortalHotKeyBackend::portalCall(const QString& method, const QList<QVariant>& arguments) const
{
    QDBusMessage message = QDBusMessage::createMethodCall(m_service, portalPath, shortcutsInterface, method);
    message.setArguments(arguments);
    return message;
}

QList<PortalShortcut> PortalHotKeyBackend::wantedShortcuts() const
{
    return {{shortcutID,
             {{QStringLiteral("description"), QStringLiteral("解释选中内容")},
              {QStringLiteral("preferred_trigger"), m_preferredTrigger}}}};
}

void PortalHotKeyBackend::createSession()
{
    // Plasma 5.27 binds only what CreateSession names; newer portals ignore the extra option.
    QVariantMap options{{QStringLiteral("session_handle_token"), sessionToken},
                        {QStringLiteral("shortcuts"), QVariant::fromValue(wantedShortcuts())}};
    PortalRequest::send(m_bus, portalCall(QStringLiteral("CreateSession"), {options}), m_deadline, this,
                        [this](const PortalRequest::Outcome& outcome) {
                            const QString session =
                                outcome.results.value(QStringLiteral("session_handle")).toString();
                            if (outcome.timedOut || outcome.code != 0 || session.isEmpty()) {
                                fail(failureMessage(outcome));
                                return;
                            }
                            m_session = session;
                            listShortcuts();
                        });
}

void PortalHotKeyBackend::listShortcuts()
{
    PortalRequest::send(m_bus,
                        portalCall(QStringLiteral("ListShortcuts"),
                                   {QVariant::fromValue(QDBusObjectPath(m_session)), QVariantMap()}),
                        m_deadline, this, [this](const PortalRequest::Outcome& outcome) {
                            if (outcome.timedOut || outcome.code != 0) {
                                fail(failureMessage(outcome));
                                return;
                            }
                            const auto list =
                                PortalShortcut::listFrom(outcome.results.value(QStringLiteral("shortcuts")));
                            if (PortalShortcut::triggerOf(list, shortcutID)) {
                                m_starting = false;
                                reportTrigger(list);
                            } else {
                                bindShortcuts();
                            }
                        });
}

void PortalHotKeyBackend::bindShortcuts()
{
    PortalRequest::send(m_bus,
                        portalCall(QStringLiteral("BindShortcuts"),
                                   {QVariant::fromValue(QDBusObjectPath(m_session)),
                                    QVariant::fromValue(wantedShortcuts()), QString(), QVariantMap()}),
                        m_deadline, this, [this](const PortalRequest::Outcome& outcome) {
                            m_starting = false;
                            if (outcome.timedOut || outcome.code != 0) {
                                fail(failureMessage(outcome));
                                return;
                            }
                            reportTrigger(
                                PortalShortcut::listFrom(outcome.results.value(QStringLiteral("shortcuts"))));
                        });
}

void PortalHotKeyBackend::reportTrigger(const QList<PortalShortcut>& list)
{
    // Plasma 5.27 answers the bind with an empty list although the key is bound; what it listed or
    // later reports wins, and until then the key asked for stands.
    const QString trigger = PortalShortcut::triggerOf(list, shortcutID).value_or(QString());
    if (m_triggerChanged) {
        m_triggerChanged(trigger);
    }
}

void PortalHotKeyBackend::fail(const QString& message)
{
    m_starting = false;
    if (m_failed) {
        m_failed(message);
    }
}

void PortalHotKeyBackend::onActivated(const QDBusMessage& message)
{
    const QList<QVariant> arguments = message.arguments();
    if (arguments.size() >= 2 && arguments.at(0).value<QDBusObjectPath>().path() == m_session &&
        arguments.at(1).toString() == shortcutID && m_onPressed) {
        m_onPressed();
    }
}

void PortalHotKeyBackend::onShortcutsChanged(const QDBusMessage& message)
{
    const QList<QVariant> arguments = message.arguments();
    if (arguments.size() < 2 || arguments.at(0).value<QDBusObjectPath>().path() != m_session) {
        return;
    }
    const auto list = PortalShortcut::listFrom(arguments.at(1));
    if (PortalShortcut::triggerOf(list, shortcutID)) {
        reportTrigger(list);
    }
}

} // namespace velnora
