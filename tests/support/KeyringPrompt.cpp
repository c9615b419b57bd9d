#include "support/KeyringPrompt.h"

#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>

namespace velnora::test::KeyringPrompt {

namespace {

QString xdotool(const QStringList& arguments)
{
    return runProgram("xdotool", arguments, QProcessEnvironment::systemEnvironment(), 10000).out.trimmed();
}

QString promptWindow()
{
    return xdotool({"search", "--onlyvisible", "--class", "gcr-prompter"}).section('\n', 0, 0);
}

} // namespace

bool lockLoginCollection()
{
    QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.secrets", "/org/freedesktop/secrets",
                                                       "org.freedesktop.Secret.Service", "Lock");
    call << QVariant::fromValue(
        QList<QDBusObjectPath>{QDBusObjectPath("/org/freedesktop/secrets/collection/login")});
    return QDBusConnection::sessionBus().call(call, QDBus::Block, 5000).type() == QDBusMessage::ReplyMessage;
}

bool isShown()
{
    return !promptWindow().isEmpty();
}

bool answer(const QStringList& keys, const QString& typed)
{
    if (!waitUntil([] { return isShown(); }, 20000)) {
        return false;
    }
    // The prompter grabs the keyboard: keys go to it wherever the pointer is.
    if (!typed.isEmpty()) {
        xdotool({"type", "--delay", "15", typed});
    }
    for (const QString& key : keys) {
        xdotool({"key", key});
    }
    return true;
}

} // namespace velnora::test::KeyringPrompt
