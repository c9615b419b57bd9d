#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <optional>

namespace velnora::test {

// Plays the browser's side of native messaging against a velnora host child process.
// Free of GoogleTest so benchmarks can use it too.
class NativeHostClient
{
public:
    explicit NativeHostClient(QStringList arguments = {QStringLiteral("--native-host")});
    ~NativeHostClient()
    {
        closeInput();
        waitForExit(3000);
    }

    // The child inherits the current environment plus these overrides.
    void setEnvironmentValue(const QString& name, const QString& value) { m_environment.insert(name, value); }
    bool start(const QString& program, int timeoutMs = 10000);

    bool send(const QJsonObject& message);
    bool sendRaw(const QByteArray& bytes);
    void closeInput() { m_process.closeWriteChannel(); }

    // The next frame within the time limit; receiveMessage skips HOST_HEARTBEAT.
    std::optional<QJsonObject> receive(int timeoutMs);
    std::optional<QJsonObject> receiveMessage(int timeoutMs);

    bool waitForExit(int timeoutMs)
    {
        return m_process.state() == QProcess::NotRunning || m_process.waitForFinished(timeoutMs);
    }
    qint64 processId() const { return m_process.processId(); }
    QProcess& process() { return m_process; }

    // Native-order 32-bit length, then the body, as the browser frames it.
    static QByteArray frame(const QByteArray& body);
    // Removes and returns the first whole frame of buffer.
    static std::optional<QJsonObject> takeFrame(QByteArray& buffer);

private:
    QProcess m_process;
    QProcessEnvironment m_environment;
    QByteArray m_buffer;
};

} // namespace velnora::test
