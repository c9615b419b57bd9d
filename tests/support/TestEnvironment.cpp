#include "TestEnvironment.h"

#include <QDir>
#include <QProcess>
#include <QUuid>

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

void EnvironmentGuard::change(const char* name, const std::optional<QByteArray>& value)
{
    m_saved.push_back({name, qEnvironmentVariableIsSet(name) ? std::optional(qgetenv(name)) : std::nullopt});
    if (value) {
        qputenv(name, *value);
    } else {
        qunsetenv(name);
    }
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

ProgramRun runProgram(const QString& program, const QStringList& arguments,
                      const QProcessEnvironment& environment, int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    const bool finished = process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit;
    if (!finished) {
        process.kill();
        process.waitForFinished(3000);
    }
    return {finished ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

QString uniqueKeychainService()
{
    return "velnora.test." + QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QString velnoraBinary()
{
    return QStringLiteral(VELNORA_TEST_BINARY);
}

QString sourceDir()
{
    return QStringLiteral(VELNORA_TEST_SOURCE_DIR);
}

} // namespace velnora::test
