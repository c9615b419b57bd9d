#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>
#include <optional>
#include <vector>

namespace velnora::test {

// Sets an environment variable for the life of the guard and puts the old value back afterwards.
class EnvironmentGuard
{
public:
    EnvironmentGuard() = default;
    EnvironmentGuard(const EnvironmentGuard&) = delete;
    EnvironmentGuard& operator=(const EnvironmentGuard&) = delete;
    ~EnvironmentGuard();

    void set(const char* name, const QByteArray& value) { change(name, value); }
    void unset(const char* name) { change(name, std::nullopt); }

private:
    struct Saved
    {
        QByteArray name;
        std::optional<QByteArray> value;
    };
    void change(const char* name, const std::optional<QByteArray>& value);
    std::vector<Saved> m_saved;
};

// A throwaway home: HOME, the XDG folders and the data folder all point inside it.
class TemporaryHome
{
public:
    TemporaryHome();

    QString path() const { return m_directory.path(); }
    QString filePath(const QString& relative) const { return m_directory.filePath(relative); }
    QString configHome() const { return filePath(QStringLiteral(".config")); }

private:
    QTemporaryDir m_directory;
    EnvironmentGuard m_environment;
};

// How a program that had to finish did: exit code -1 when it did not finish in time or crashed.
struct ProgramRun
{
    int exitCode = -1;
    QString out;
    QString err;
};
ProgramRun runProgram(const QString& program, const QStringList& arguments,
                      const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
                      int timeoutMs = 60000);

// A keychain service name of its own, so test programs running side by side never share keys.
QString uniqueKeychainService();
// The velnora executable built with the tests.
QString velnoraBinary();
// The source tree (for test data).
QString sourceDir();

} // namespace velnora::test
