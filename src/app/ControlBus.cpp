#include "app/ControlBus.h"

#include "base/ModeResult.h"
#include "config/SessionBus.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace velnora::ControlBus {

namespace {

constexpr int callTimeoutMs = 5000;

// Asked before the first connection attempt, which would otherwise autolaunch a stray bus.
std::optional<QString> missingSessionBus()
{
    if (SessionBus::isConfigured()) {
        return std::nullopt;
    }
    return QStringLiteral("没有正在运行的 D-Bus 会话总线，无法联系澜镜；请在桌面会话中运行此命令。");
}

std::optional<QString> unreachableBus(const QDBusConnection& bus)
{
    if (bus.isConnected()) {
        return std::nullopt;
    }
    return QStringLiteral("无法连接到 D-Bus 会话总线（%1）").arg(bus.lastError().message());
}

constexpr int activationTimeoutMs = 15000;

// A signal starts nobody. Where the package installed the bus's service file, ask the bus to start
// the application first: it listens before it claims the name, so the signal that follows reaches it.
std::optional<QString> startIfActivatable(QDBusConnection& bus)
{
    QDBusConnectionInterface* interface = bus.interface();
    const QString service = QString::fromLatin1(serviceName);
    if (!interface || interface->isServiceRegistered(service).value() ||
        !interface->activatableServiceNames().value().contains(service)) {
        return std::nullopt;
    }
    QDBusMessage start = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("StartServiceByName"));
    start << service << 0u;
    const QDBusMessage reply = bus.call(start, QDBus::Block, activationTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        return QStringLiteral("无法启动澜镜：%1").arg(reply.errorMessage());
    }
    return std::nullopt;
}

int sendMode(const ProcessArguments& arguments, const char* mode, const char* name)
{
    QCoreApplication application(arguments.argc(), arguments.argv());
    if (const std::optional<QString> failure = missingSessionBus()) {
        return ModeResult::report(QString::fromLatin1(mode), *failure);
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    std::optional<QString> failure = unreachableBus(bus);
    if (!failure) {
        failure = startIfActivatable(bus);
    }
    if (!failure) {
        failure = broadcast(QString::fromLatin1(name));
    }
    return ModeResult::report(QString::fromLatin1(mode), failure.value_or(QString()));
}

} // namespace

std::optional<QString> broadcast(const QString& name)
{
    if (auto failure = missingSessionBus()) {
        return failure;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (auto failure = unreachableBus(bus)) {
        return failure;
    }
    QDBusMessage signal =
        QDBusMessage::createSignal(QString::fromLatin1(objectPath), QString::fromLatin1(interfaceName),
                                   QString::fromLatin1(notifySignal));
    signal << name;
    if (!bus.send(signal)) {
        return QStringLiteral("无法发送 D-Bus 信号：%1").arg(bus.lastError().message());
    }
    // The connection delivers in order: once the bus answers this call, the signal has left us.
    const QDBusMessage ping = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
    const QDBusMessage reply = bus.call(ping, QDBus::Block, callTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        return QStringLiteral("D-Bus 会话总线没有应答：%1").arg(reply.errorMessage());
    }
    return std::nullopt;
}

std::optional<QString> requestExplanation(const QString& text, bool* notRunning)
{
    if (notRunning) {
        *notRunning = false;
    }
    if (auto failure = missingSessionBus()) {
        return failure;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (auto failure = unreachableBus(bus)) {
        return failure;
    }
    const QString service = QString::fromLatin1(serviceName);
    if (!bus.interface()->isServiceRegistered(service).value()) {
        if (notRunning) {
            *notRunning = true;
        }
        return QStringLiteral("澜镜没有在运行，请先启动澜镜");
    }
    QDBusMessage call = QDBusMessage::createMethodCall(service, QString::fromLatin1(objectPath),
                                                       QString::fromLatin1(interfaceName),
                                                       QString::fromLatin1(explainMethod));
    call << text;
    const QDBusMessage reply = bus.call(call, QDBus::Block, callTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        return QStringLiteral("澜镜没有应答：%1").arg(reply.errorMessage());
    }
    return std::nullopt;
}

int runSendPreview(const ProcessArguments& arguments)
{
    return sendMode(arguments, "send-preview", previewName);
}

int runSendPillPreview(const ProcessArguments& arguments)
{
    return sendMode(arguments, "send-pill-preview", pillPreviewName);
}

int runSendSettings(const ProcessArguments& arguments)
{
    return sendMode(arguments, "send-settings", settingsName);
}

int runSendTranslationSelfTest(const ProcessArguments& arguments)
{
    return sendMode(arguments, "send-translation-self-test", translationSelfTestName);
}

int runExplainSelection(const ProcessArguments& arguments)
{
    QCoreApplication application(arguments.argc(), arguments.argv());
    // A value that is not another flag is the text itself; without one the running app reads the selection.
    QString text;
    if (const std::optional<QString> value = arguments.valueAfter(QStringLiteral("--explain-selection"));
        value && !value->startsWith(QStringLiteral("--"))) {
        text = *value;
    }
    bool notRunning = false;
    const std::optional<QString> failure = requestExplanation(text, &notRunning);
    const QString mode = QStringLiteral("explain-selection");
    if (failure && notRunning) {
        ModeResult::printLine(mode + QStringLiteral(": ") + *failure);
        return 2;
    }
    return ModeResult::report(mode, failure.value_or(QString()));
}

} // namespace velnora::ControlBus
