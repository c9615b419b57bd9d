#pragma once

#include "config/ProviderCatalog.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <functional>

namespace velnora {

// Cuts a server-sent-event body into lines and events and pulls the answer text out of each event.
// Bytes may arrive in pieces of any size: a line is decoded only once its line feed has arrived, and
// no byte is examined twice, so the cost is linear in the size of the body whatever the chunking.
class StreamEventReader
{
public:
    using TextSink = std::function<void(const QString& text)>;
    using ErrorSink = std::function<void(const QString& message)>;

    StreamEventReader(ProviderWireProtocol protocol, TextSink onText, ErrorSink onError);

    // Takes the next bytes of the body. Does nothing once an error event has stopped the reader.
    void feed(QByteArrayView bytes);
    // The body has ended: a last line without its line feed is processed, then the pending event.
    void finishInput();
    // A body that was one JSON document instead of a stream: emits its whole answer, if it has one.
    void offerWholeBody(QByteArrayView body);

    // An error event was seen; nothing more is read.
    bool stopped() const { return m_stopped; }
    // A piece with visible (not only white-space) text has been emitted.
    bool receivedText() const { return m_receivedText; }
    // Bytes examined for line ends so far: equals the bytes fed, whatever the chunking.
    qint64 scannedBytes() const { return m_scannedBytes; }

private:
    void processLine(QByteArrayView line);
    void flushEvent();
    void handleEvent(QByteArrayView payload);
    void emitText(const QString& text);

    ProviderWireProtocol m_protocol;
    TextSink m_onText;
    ErrorSink m_onError;

    QByteArray m_buffer;       // received bytes not yet cut into lines start at m_lineStart
    qsizetype m_lineStart = 0; // first byte of the current (unfinished) line
    qsizetype m_scanFrom = 0;  // first byte not yet examined for a line feed
    QByteArray m_eventData;    // the "data:" lines of the event being assembled, joined with "\n"
    bool m_hasEventData = false;
    bool m_receivedText = false;
    bool m_stopped = false;
    qint64 m_scannedBytes = 0;
};

} // namespace velnora
