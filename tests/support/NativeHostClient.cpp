#include "NativeHostClient.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <cstring>

namespace velnora::test {

NativeHostClient::NativeHostClient(QStringList arguments)
    : m_environment(QProcessEnvironment::systemEnvironment())
{
    m_process.setArguments(arguments);
    m_process.setStandardErrorFile(QProcess::nullDevice());
}

bool NativeHostClient::start(const QString& program, int timeoutMs)
{
    m_process.setProgram(program);
    m_process.setProcessEnvironment(m_environment);
    m_process.start();
    return m_process.waitForStarted(timeoutMs);
}

QByteArray NativeHostClient::frame(const QByteArray& body)
{
    const quint32 length = quint32(body.size());
    return QByteArray(reinterpret_cast<const char*>(&length), sizeof length) + body;
}

std::optional<QJsonObject> NativeHostClient::takeFrame(QByteArray& buffer)
{
    if (buffer.size() < 4) {
        return std::nullopt;
    }
    quint32 length = 0;
    std::memcpy(&length, buffer.constData(), sizeof length);
    if (buffer.size() < 4 + qsizetype(length)) {
        return std::nullopt;
    }
    const QJsonObject message = QJsonDocument::fromJson(buffer.mid(4, length)).object();
    buffer.remove(0, 4 + length);
    return message;
}

bool NativeHostClient::sendRaw(const QByteArray& bytes)
{
    if (m_process.write(bytes) != bytes.size()) {
        return false;
    }
    while (m_process.bytesToWrite() > 0 && m_process.waitForBytesWritten(10000)) {
    }
    return m_process.bytesToWrite() == 0;
}

bool NativeHostClient::send(const QJsonObject& message)
{
    return sendRaw(frame(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

std::optional<QJsonObject> NativeHostClient::receive(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        m_buffer += m_process.readAllStandardOutput();
        std::optional<QJsonObject> message = takeFrame(m_buffer);
        if (message || deadline.hasExpired() || m_process.state() == QProcess::NotRunning) {
            return message;
        }
        m_process.waitForReadyRead(int(std::max<qint64>(deadline.remainingTime(), 1)));
    }
}

std::optional<QJsonObject> NativeHostClient::receiveMessage(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    std::optional<QJsonObject> message;
    do {
        message = receive(int(std::max<qint64>(deadline.remainingTime(), 0)));
    } while (message && message->value(QStringLiteral("type")) == QStringLiteral("HOST_HEARTBEAT"));
    return message;
}

} // namespace velnora::test
