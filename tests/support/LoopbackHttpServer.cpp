#include "LoopbackHttpServer.h"

#include <QMutex>
#include <QQueue>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QThread>
#include <QTimer>

namespace velnora::test {

std::optional<QByteArray> RecordedRequest::header(const QByteArray& name) const
{
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0) {
            return value;
        }
    }
    return std::nullopt;
}

// Lives on the server thread. The shared members are guarded by mutex.
class LoopbackHttpServer::Worker : public QObject
{
public:
    quint16 listen()
    {
        QObject::connect(m_server, &QTcpServer::newConnection, this, &Worker::accept);
        return m_server->listen(QHostAddress::LocalHost, 0) ? m_server->serverPort() : 0;
    }

    // Accepted sockets are the server's children.
    void closeAll()
    {
        for (QTcpSocket* socket : m_server->findChildren<QTcpSocket*>()) {
            socket->abort();
        }
    }

    mutable QMutex mutex;
    QQueue<ScriptedResponse> queue;
    ScriptedResponse fallback = ScriptedResponse::json(404, "{}");
    QList<RecordedRequest> requests;

private:
    void accept()
    {
        while (QTcpSocket* socket = m_server->nextPendingConnection()) {
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { serve(socket); });
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    }

    // Takes one complete request off the socket, if one is there, and answers it. Clients here send the
    // next request on a connection only after the previous answer, so one at a time is enough.
    void serve(QTcpSocket* socket)
    {
        const QByteArray input = socket->peek(socket->bytesAvailable());
        const qsizetype headerEnd = input.indexOf("\r\n\r\n");
        if (headerEnd < 0) {
            return;
        }
        RecordedRequest request;
        const QList<QByteArray> lines = input.left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        for (const QByteArray& line : lines.mid(1)) {
            const qsizetype colon = line.indexOf(':');
            request.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
        }
        const qsizetype length = headerEnd + 4 + request.header("Content-Length").value_or("0").toLongLong();
        if (input.size() < length) {
            return; // the body is still on its way
        }
        request.body = socket->read(length).mid(headerEnd + 4);
        ScriptedResponse response;
        {
            QMutexLocker lock(&mutex);
            requests.append(request);
            response = queue.isEmpty() ? fallback : queue.dequeue();
        }
        respond(socket, response);
    }

    static void respond(QTcpSocket* socket, const ScriptedResponse& response)
    {
        const bool complete = response.ending == ScriptedResponse::Ending::complete;
        const QByteArray sent = complete ? response.body : response.body.left(response.endAfter);
        QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) +
                          " Scripted\r\nContent-Type: " + response.contentType + "\r\n" + response.headers;
        head += response.chunked ? QByteArray("Transfer-Encoding: chunked\r\n")
                                 : "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
        socket->write(head + "\r\n");

        QList<QByteArray> frames;
        const qsizetype size =
            response.pieceSize > 0 ? response.pieceSize : std::max<qsizetype>(sent.size(), 1);
        for (qsizetype from = 0; from < sent.size(); from += size) {
            const QByteArray piece = sent.mid(from, size);
            frames.append(response.chunked ? QByteArray::number(piece.size(), 16) + "\r\n" + piece + "\r\n"
                                           : piece);
        }
        if (complete && response.chunked) {
            frames.append("0\r\n\r\n");
        }
        // After the last frame a dropped answer closes the connection; a stalled one stays silent.
        const bool drop = response.ending == ScriptedResponse::Ending::drop;
        for (qsizetype i = 0; i <= frames.size(); ++i) {
            QTimer::singleShot(int(i) * response.pieceDelayMs, socket, [socket, frames, drop, i] {
                if (i < frames.size()) {
                    socket->write(frames.at(i));
                } else if (drop) {
                    socket->disconnectFromHost();
                }
            });
        }
    }

    QTcpServer* m_server = new QTcpServer(this);
};

LoopbackHttpServer::LoopbackHttpServer() : m_thread(std::make_unique<QThread>()), m_worker(new Worker)
{
    m_worker->moveToThread(m_thread.get());
    m_thread->start();
    QMetaObject::invokeMethod(
        m_worker, [this] { m_port = m_worker->listen(); }, Qt::BlockingQueuedConnection);
}

// The worker (with its server and sockets) is deleted when its thread finishes.
LoopbackHttpServer::~LoopbackHttpServer()
{
    m_worker->deleteLater();
    m_thread->quit();
    m_thread->wait();
}

QUrl LoopbackHttpServer::url(const QString& path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path));
}

void LoopbackHttpServer::enqueue(ScriptedResponse response)
{
    QMutexLocker lock(&m_worker->mutex);
    m_worker->queue.enqueue(std::move(response));
}

void LoopbackHttpServer::setFallback(ScriptedResponse response)
{
    QMutexLocker lock(&m_worker->mutex);
    m_worker->fallback = std::move(response);
}

QList<RecordedRequest> LoopbackHttpServer::requests() const
{
    QMutexLocker lock(&m_worker->mutex);
    return m_worker->requests;
}

bool LoopbackHttpServer::waitForRequests(int count, int timeoutMs) const
{
    return waitUntil([this, count] { return requestCount() >= count; }, timeoutMs);
}

void LoopbackHttpServer::closeConnections()
{
    QMetaObject::invokeMethod(
        m_worker, [worker = m_worker] { worker->closeAll(); }, Qt::BlockingQueuedConnection);
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    return QTest::qWaitFor(condition, timeoutMs);
}

} // namespace velnora::test
