#include "llm/StreamEventReader.h"

#include "llm/StreamPayload.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <cstring>

namespace velnora {

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

QByteArrayView trimmedBlanks(QByteArrayView text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && isBlank(text[begin])) {
        ++begin;
    }
    while (end > begin && isBlank(text[end - 1])) {
        --end;
    }
    return text.sliced(begin, end - begin);
}

// A JSON object, or none. Invalid UTF-8 is replaced, never a reason to reject the text.
std::optional<QJsonObject> parseObject(QByteArrayView text)
{
    QJsonDocument document;
    if (text.isValidUtf8()) {
        document = QJsonDocument::fromJson(QByteArray::fromRawData(text.data(), text.size()));
    } else {
        document = QJsonDocument::fromJson(QString::fromUtf8(text).toUtf8());
    }
    if (!document.isObject()) {
        return std::nullopt;
    }
    return document.object();
}

} // namespace

StreamEventReader::StreamEventReader(ProviderWireProtocol protocol, TextSink onText, ErrorSink onError)
    : m_protocol(protocol), m_onText(std::move(onText)), m_onError(std::move(onError))
{}

void StreamEventReader::feed(QByteArrayView bytes)
{
    if (m_stopped || bytes.isEmpty()) {
        return;
    }
    if (m_lineStart == m_buffer.size()) {
        // Everything before was consumed: start over without moving any bytes.
        m_buffer.clear();
        m_lineStart = 0;
        m_scanFrom = 0;
    } else if (m_lineStart > 0 && m_lineStart >= m_buffer.size() / 2) {
        // Drop the consumed front once it is at least half of the buffer (amortised linear).
        m_buffer.remove(0, m_lineStart);
        m_scanFrom -= m_lineStart;
        m_lineStart = 0;
    }
    m_buffer.append(bytes.data(), bytes.size());

    while (!m_stopped) {
        const char* begin = m_buffer.constData();
        const qsizetype size = m_buffer.size();
        const void* found = std::memchr(begin + m_scanFrom, '\n', size_t(size - m_scanFrom));
        if (!found) {
            m_scannedBytes += size - m_scanFrom;
            m_scanFrom = size;
            break;
        }
        const qsizetype lineEnd = static_cast<const char*>(found) - begin;
        m_scannedBytes += lineEnd + 1 - m_scanFrom;
        const QByteArrayView line(begin + m_lineStart, lineEnd - m_lineStart);
        m_lineStart = lineEnd + 1;
        m_scanFrom = m_lineStart;
        processLine(line);
    }
    if (m_stopped) {
        m_buffer.clear();
        m_lineStart = 0;
        m_scanFrom = 0;
    }
}

void StreamEventReader::finishInput()
{
    if (m_stopped) {
        return;
    }
    if (m_lineStart < m_buffer.size()) {
        const QByteArray last = m_buffer.sliced(m_lineStart);
        m_scannedBytes += m_buffer.size() - m_scanFrom;
        m_buffer.clear();
        m_lineStart = 0;
        m_scanFrom = 0;
        processLine(last);
    } else {
        m_buffer.clear();
        m_lineStart = 0;
        m_scanFrom = 0;
    }
    if (!m_stopped) {
        flushEvent();
    }
}

void StreamEventReader::processLine(QByteArrayView line)
{
    if (line.endsWith('\r')) {
        line.chop(1);
    }
    if (line.isEmpty()) {
        flushEvent();
        return;
    }
    if (line.startsWith("data:")) {
        if (m_hasEventData) {
            m_eventData.append('\n');
        }
        m_hasEventData = true;
        const QByteArrayView value = trimmedBlanks(line.sliced(5));
        m_eventData.append(value.data(), value.size());
    }
    // Event names, ids, retry fields and comments carry nothing the answer needs.
}

void StreamEventReader::flushEvent()
{
    if (!m_hasEventData) {
        return;
    }
    m_hasEventData = false;
    handleEvent(m_eventData);
    m_eventData.truncate(0); // keeps the allocation for the next event
}

void StreamEventReader::handleEvent(QByteArrayView payload)
{
    if (payload == "[DONE]") {
        return; // the end of the body ends the request, not this marker
    }
    const std::optional<QJsonObject> event = parseObject(payload);
    if (!event) {
        return;
    }
    if (const std::optional<QString> message = StreamPayload::errorMessage(*event)) {
        m_stopped = true;
        if (m_onError) {
            m_onError(*message);
        }
        return;
    }
    const QString delta = StreamPayload::deltaText(*event, m_protocol);
    if (!delta.isEmpty()) {
        emitText(delta);
        return;
    }
    if (!m_receivedText) {
        // Some services send the whole answer only in a final "done" or "completed" event.
        emitText(StreamPayload::completedText(*event, m_protocol));
    }
}

void StreamEventReader::offerWholeBody(QByteArrayView body)
{
    if (const std::optional<QJsonObject> object = parseObject(body)) {
        emitText(StreamPayload::completedText(*object, m_protocol));
    }
}

void StreamEventReader::emitText(const QString& text)
{
    if (text.isEmpty()) {
        return;
    }
    if (!text.trimmed().isEmpty()) {
        m_receivedText = true;
    }
    if (m_onText) {
        m_onText(text);
    }
}

} // namespace velnora
