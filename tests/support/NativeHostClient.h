#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <optional>

namespace velnora::test {

// Plays the browser's side of native messaging against a "velnora --native-host" child process.
// Free of GoogleTest so benchmarks can use it too.
class NativeHostClient
{
public:
    // The child inherits the current environment plus these overrides.
    explicit NativeHostClient(QStringList arguments = {QStringLiteral("--native-host")});
    ~NativeHostClient();

    void setEnvironmentValue(const QString& name, const QString& value);
    void removeEnvironmentValue(const QString& name);
    bool start(const QString& program, int timeoutMs = 10000);

    bool send(const QJsonObject& message);
    bool sendFrame(const QByteArray& body);
    bool sendRaw(const QByteArray& bytes);
    void closeInput();

    // The next frame, within the time limit.
    std::optional<QJsonObject> receive(int timeoutMs);
    // The next frame that is not a HOST_HEARTBEAT.
    std::optional<QJsonObject> receiveMessage(int timeoutMs);

    bool waitForExit(int timeoutMs);
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    qint64 processId() const { return m_process.processId(); }
    QProcess& process() { return m_process; }

    // Frames a body the way the browser does (native-order 32-bit length).
    static QByteArray frame(const QByteArray& body);

private:
    std::optional<QJsonObject> takeFrame();

    QProcess m_process;
    QProcessEnvironment m_environment;
    QByteArray m_buffer;
};

} // namespace velnora::test
