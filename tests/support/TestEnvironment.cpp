#include "TestEnvironment.h"

#include <QDir>
#include <QStandardPaths>

#include <cstdlib>

namespace velnora::test {

EnvironmentGuard::~EnvironmentGuard()
{
    for (auto it = m_saved.rbegin(); it != m_saved.rend(); ++it) {
        if (it->value) {
            qputenv(it->name.constData(), *it->value);
        } else {
            qunsetenv(it->name.constData());
        }
    }
}

void EnvironmentGuard::remember(const char* name)
{
    Saved saved{QByteArray(name), std::nullopt};
    if (qEnvironmentVariableIsSet(name)) {
        saved.value = qgetenv(name);
    }
    m_saved.push_back(std::move(saved));
}

void EnvironmentGuard::set(const char* name, const QByteArray& value)
{
    remember(name);
    qputenv(name, value);
}

void EnvironmentGuard::unset(const char* name)
{
    remember(name);
    qunsetenv(name);
}

TemporaryHome::TemporaryHome()
{
    const QByteArray root = m_directory.path().toUtf8();
    for (const char* sub : {"/.config", "/.local/share", "/.cache", "/.local/state"}) {
        QDir().mkpath(m_directory.path() + QString::fromLatin1(sub));
    }
    m_environment.set("HOME", root);
    m_environment.set("XDG_CONFIG_HOME", root + "/.config");
    m_environment.set("XDG_DATA_HOME", root + "/.local/share");
    m_environment.set("XDG_CACHE_HOME", root + "/.cache");
    m_environment.set("XDG_STATE_HOME", root + "/.local/state");
    m_environment.set("VELNORA_DATA_DIR", root + "/.local/share/VelNoraDomestic");
    m_environment.unset("BRINKWELL_DATA_DIR");
}

QString velnoraBinary()
{
    const QString fromEnvironment = qEnvironmentVariable("VELNORA_BINARY");
    return fromEnvironment.isEmpty() ? QStringLiteral(VELNORA_TEST_BINARY) : fromEnvironment;
}

QString sourceDir()
{
    const QString fromEnvironment = qEnvironmentVariable("VELNORA_SOURCE_DIR");
    return fromEnvironment.isEmpty() ? QStringLiteral(VELNORA_TEST_SOURCE_DIR) : fromEnvironment;
}

} // namespace velnora::test
