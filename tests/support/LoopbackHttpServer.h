#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

class QTemporaryDir;

namespace velnora::test {

// One request as the server received it.
struct RecordedRequest
{
    QByteArray method;
    QByteArray target; // as sent: a path with query, or an absolute URL when the client took us for a proxy
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;

    // The value of a header (names compared without case), or none.
    std::optional<QByteArray> header(const QByteArray& name) const;
    // Every header line as "name: value", in the order received.
    QByteArray rawHeaders() const;
};

// What the server answers to one request, and how it delivers the bytes.
struct ScriptedResponse
{
    enum class Framing {
        chunked,       // Transfer-Encoding: chunked, one HTTP chunk per piece
        contentLength, // Content-Length of the whole body
        untilClose,    // no length: the body ends when the server closes the connection
    };
    enum class Ending {
        complete, // the whole body, properly terminated
        stall,    // the first endAfter bytes, then nothing more while the connection stays open
        drop,     // the first endAfter bytes, then the connection is closed (FIN) mid-body
        reset,    // the first endAfter bytes, then the connection is reset (RST) mid-body
    };

    int status = 200;
    QByteArray reason; // empty: a standard phrase
    QByteArray contentType = "text/event-stream; charset=utf-8";
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    Framing framing = Framing::chunked;
    qsizetype pieceSize = 0;  // split the body into pieces of this size; 0 for one piece
    QList<qsizetype> splitAt; // or split it at these offsets
    int pieceDelayMs = 0;     // pause between two pieces
    Ending ending = Ending::complete;
    qsizetype endAfter = 0;

    static ScriptedResponse stream(QByteArray body, qsizetype pieceSize = 0);
    static ScriptedResponse json(int status, QByteArray body);
    static ScriptedResponse html(int status, QByteArray body);
    static ScriptedResponse redirect(int status, const QByteArray& location);
};

// A certificate and key made for one test run, trusted by nobody unless a test says so.
struct TlsIdentity
{
    QSslCertificate certificate;
    QSslKey key;

    // A self-signed certificate for 127.0.0.1 and localhost, made with the openssl tool in dir.
    // Empty when the tool is missing or fails.
    static std::optional<TlsIdentity> createThrowaway(const QTemporaryDir& dir, QString* error = nullptr);
};

// An HTTP/1.1 server on 127.0.0.1 (port chosen by the system) that answers with scripted responses,
// byte for byte as scripted. It runs on a thread of its own, so a test may wait on a child process.
class LoopbackHttpServer
{
public:
    LoopbackHttpServer();
    explicit LoopbackHttpServer(const TlsIdentity& identity); // HTTPS
    ~LoopbackHttpServer();
    LoopbackHttpServer(const LoopbackHttpServer&) = delete;
    LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

    quint16 port() const { return m_port; }
    bool isListening() const { return m_port != 0; }
    // "http://127.0.0.1:<port>" + path (or https).
    QUrl url(const QString& path = QString()) const;

    // Answers the next requests in this order; when the queue is empty, the fallback answers.
    void enqueue(ScriptedResponse response);
    void setFallback(ScriptedResponse response);

    QList<RecordedRequest> requests() const;
    int requestCount() const;
    int connectionCount() const;
    // Waits (running the calling thread's events) until count requests arrived; false on time-out.
    bool waitForRequests(int count, int timeoutMs = 5000) const;
    // Closes every open connection (ends stalls).
    void closeConnections();

private:
    class Worker;
    void startWorker(std::optional<TlsIdentity> identity);

    std::unique_ptr<class QThread> m_thread;
    Worker* m_worker = nullptr;
    quint16 m_port = 0;
    bool m_tls = false;
};

// Runs the calling thread's events until condition holds or timeoutMs passed; returns condition().
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 5000);

} // namespace velnora::test
