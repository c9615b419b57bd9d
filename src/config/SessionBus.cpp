#include "config/SessionBus.h"

#include <QFileInfo>
#include <QString>

namespace velnora::SessionBus {

bool isConfigured()
{
    if (!qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
        return true;
    }
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    return !runtime.isEmpty() && QFileInfo::exists(runtime + QStringLiteral("/bus"));
}

} // namespace velnora::SessionBus
