#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

class QThread;

namespace velnora::test {

// One request as the server received it.
struct RecordedRequest
{
    QByteArray method;
    QByteArray target; // as sent: a path with query, or an absolute URL when the client took us for a proxy
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body = {};

    // The value of a header (names compared without case), or none.
    std::optional<QByteArray> header(const QByteArray& name) const;
};

// What the server answers to one request, and how it delivers the bytes.
struct ScriptedResponse
{
    enum class Ending {
        complete, // the whole body, properly terminated
        stall,    // the first endAfter bytes, then nothing more while the connection stays open
        drop,     // the first endAfter bytes, then the connection is closed mid-body
    };

    int status = 200;
    QByteArray contentType = "text/event-stream; charset=utf-8";
    QByteArray headers = {}; // further header lines, each ending in "\r\n"
    QByteArray body = {};
    bool chunked = true;     // one HTTP chunk per piece; otherwise a Content-Length for the whole body
    qsizetype pieceSize = 0; // split the body into pieces of this size; 0 for one piece
    int pieceDelayMs = 0;    // pause between two pieces
    Ending ending = Ending::complete;
    qsizetype endAfter = 0;

    static ScriptedResponse stream(QByteArray body, qsizetype pieceSize = 0)
    {
        return {.body = std::move(body), .pieceSize = pieceSize};
    }
    static ScriptedResponse json(int status, QByteArray body)
    {
        return {
            .status = status, .contentType = "application/json", .body = std::move(body), .chunked = false};
    }
    static ScriptedResponse redirect(int status, const QByteArray& location)
    {
        return {.status = status,
                .contentType = "text/plain",
                .headers = "Location: " + location + "\r\n",
                .chunked = false};
    }
};

// An HTTP/1.1 server on 127.0.0.1 (port chosen by the system) that answers with scripted responses,
// byte for byte as scripted. It runs on a thread of its own, so a test may wait on a child process.
class LoopbackHttpServer
{
public:
    LoopbackHttpServer();
    ~LoopbackHttpServer();
    LoopbackHttpServer(const LoopbackHttpServer&) = delete;
    LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

    quint16 port() const { return m_port; }
    bool isListening() const { return m_port != 0; }
    // "http://127.0.0.1:<port>" + path.
    QUrl url(const QString& path = QString()) const;

    // Answers the next requests in this order; when the queue is empty, the fallback answers.
    void enqueue(ScriptedResponse response);
    void setFallback(ScriptedResponse response);

    QList<RecordedRequest> requests() const;
    int requestCount() const { return int(requests().size()); }
    // Waits (running the calling thread's events) until count requests arrived; false on time-out.
    bool waitForRequests(int count, int timeoutMs = 5000) const;
    // Closes every open connection (ends stalls).
    void closeConnections();

private:
    class Worker;
    std::unique_ptr<QThread> m_thread;
    Worker* m_worker = nullptr;
    quint16 m_port = 0;
};

// Runs the calling thread's events until condition holds or timeoutMs passed; returns condition().
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 5000);

} // namespace velnora::test
