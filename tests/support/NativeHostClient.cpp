#include "NativeHostClient.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <cstring>

namespace velnora::test {

NativeHostClient::NativeHostClient(QStringList arguments)
    : m_environment(QProcessEnvironment::systemEnvironment())
{
    m_process.setArguments(arguments);
    m_process.setReadChannel(QProcess::StandardOutput);
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    m_process.setStandardErrorFile(QProcess::nullDevice());
}

NativeHostClient::~NativeHostClient()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(3000)) {
            m_process.kill();
            m_process.waitForFinished(3000);
        }
    }
}

void NativeHostClient::setEnvironmentValue(const QString& name, const QString& value)
{
    m_environment.insert(name, value);
}

void NativeHostClient::removeEnvironmentValue(const QString& name)
{
    m_environment.remove(name);
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
    QByteArray bytes(sizeof length, Qt::Uninitialized);
    std::memcpy(bytes.data(), &length, sizeof length);
    return bytes + body;
}

bool NativeHostClient::sendRaw(const QByteArray& bytes)
{
    if (m_process.write(bytes) != bytes.size()) {
        return false;
    }
    const QDeadlineTimer deadline(10000);
    while (m_process.bytesToWrite() > 0 && !deadline.hasExpired()) {
        if (!m_process.waitForBytesWritten(int(deadline.remainingTime()))) {
            break;
        }
    }
    return m_process.bytesToWrite() == 0;
}

bool NativeHostClient::sendFrame(const QByteArray& body)
{
    return sendRaw(frame(body));
}

bool NativeHostClient::send(const QJsonObject& message)
{
    return sendFrame(QJsonDocument(message).toJson(QJsonDocument::Compact));
}

void NativeHostClient::closeInput()
{
    m_process.closeWriteChannel();
}

std::optional<QJsonObject> NativeHostClient::takeFrame()
{
    if (m_buffer.size() < 4) {
        return std::nullopt;
    }
    quint32 length = 0;
    std::memcpy(&length, m_buffer.constData(), sizeof length);
    if (m_buffer.size() < qsizetype(4 + length)) {
        return std::nullopt;
    }
    const QByteArray body = m_buffer.mid(4, length);
    m_buffer.remove(0, 4 + length);
    // A frame that is not an object is reported as an empty object with a marker type.
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject()) {
        return QJsonObject{{QStringLiteral("type"), QStringLiteral("<not an object>")}};
    }
    return document.object();
}

std::optional<QJsonObject> NativeHostClient::receive(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        if (std::optional<QJsonObject> message = takeFrame()) {
            return message;
        }
        m_buffer += m_process.readAllStandardOutput();
        if (std::optional<QJsonObject> message = takeFrame()) {
            return message;
        }
        if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning) {
            m_buffer += m_process.readAllStandardOutput();
            return takeFrame();
        }
        m_process.waitForReadyRead(int(std::max<qint64>(deadline.remainingTime(), 1)));
    }
}

std::optional<QJsonObject> NativeHostClient::receiveMessage(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        std::optional<QJsonObject> message = receive(int(std::max<qint64>(deadline.remainingTime(), 0)));
        if (!message || message->value(QStringLiteral("type")) != QStringLiteral("HOST_HEARTBEAT")) {
            return message;
        }
    }
}

bool NativeHostClient::waitForExit(int timeoutMs)
{
    if (m_process.state() == QProcess::NotRunning) {
        return true;
    }
    return m_process.waitForFinished(timeoutMs);
}

} // namespace velnora::test
