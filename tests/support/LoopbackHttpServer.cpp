#include "LoopbackHttpServer.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QMutex>
#include <QPointer>
#include <QProcess>
#include <QQueue>
#include <QSslSocket>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <sys/socket.h>

namespace velnora::test {

namespace {

QByteArray standardReason(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 307:
        return "Temporary Redirect";
    case 308:
        return "Permanent Redirect";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 402:
        return "Payment Required";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 429:
        return "Too Many Requests";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

// The body cut into the pieces the response asks for.
QList<QByteArray> pieces(const ScriptedResponse& response, const QByteArray& body)
{
    QList<QByteArray> result;
    if (!response.splitAt.isEmpty()) {
        qsizetype from = 0;
        for (qsizetype at : response.splitAt) {
            at = std::clamp<qsizetype>(at, from, body.size());
            if (at > from) {
                result.append(body.mid(from, at - from));
            }
            from = at;
        }
        if (from < body.size()) {
            result.append(body.mid(from));
        }
    } else if (response.pieceSize > 0) {
        for (qsizetype from = 0; from < body.size(); from += response.pieceSize) {
            result.append(body.mid(from, response.pieceSize));
        }
    } else if (!body.isEmpty()) {
        result.append(body);
    }
    return result;
}

class TcpOrTlsServer : public QTcpServer
{
public:
    explicit TcpOrTlsServer(std::optional<TlsIdentity> identity) : m_identity(std::move(identity)) {}

protected:
    void incomingConnection(qintptr descriptor) override
    {
        if (!m_identity) {
            QTcpServer::incomingConnection(descriptor);
            return;
        }
        auto* socket = new QSslSocket(this);
        if (!socket->setSocketDescriptor(descriptor)) {
            delete socket;
            return;
        }
        socket->setLocalCertificate(m_identity->certificate);
        socket->setPrivateKey(m_identity->key);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        addPendingConnection(socket);
        socket->startServerEncryption();
    }

private:
    std::optional<TlsIdentity> m_identity;
};

} // namespace

std::optional<QByteArray> RecordedRequest::header(const QByteArray& name) const
{
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0) {
            return value;
        }
    }
    return std::nullopt;
}

QByteArray RecordedRequest::rawHeaders() const
{
    QByteArray text;
    for (const auto& [key, value] : headers) {
        text += key + ": " + value + "\n";
    }
    return text;
}

ScriptedResponse ScriptedResponse::stream(QByteArray body, qsizetype pieceSize)
{
    ScriptedResponse response;
    response.body = std::move(body);
    response.pieceSize = pieceSize;
    return response;
}

ScriptedResponse ScriptedResponse::json(int status, QByteArray body)
{
    ScriptedResponse response;
    response.status = status;
    response.contentType = "application/json";
    response.framing = Framing::contentLength;
    response.body = std::move(body);
    return response;
}

ScriptedResponse ScriptedResponse::html(int status, QByteArray body)
{
    ScriptedResponse response = json(status, std::move(body));
    response.contentType = "text/html; charset=utf-8";
    return response;
}

ScriptedResponse ScriptedResponse::redirect(int status, const QByteArray& location)
{
    ScriptedResponse response = json(status, QByteArray());
    response.contentType = "text/plain";
    response.headers.append({"Location", location});
    return response;
}

// Lives on the server thread. Shared lists are guarded by m_mutex.
class LoopbackHttpServer::Worker : public QObject
{
public:
    explicit Worker(std::optional<TlsIdentity> identity) : m_server(std::move(identity))
    {
        m_server.setParent(this);
        QObject::connect(&m_server, &QTcpServer::pendingConnectionAvailable, this, &Worker::accept);
    }

    quint16 listen() { return m_server.listen(QHostAddress::LocalHost, 0) ? m_server.serverPort() : 0; }

    void closeAll()
    {
        for (const QPointer<QTcpSocket>& socket : m_sockets) {
            if (socket) {
                socket->abort();
                socket->deleteLater();
            }
        }
        m_sockets.clear();
    }

    mutable QMutex m_mutex;
    QQueue<ScriptedResponse> m_queue;
    ScriptedResponse m_fallback = ScriptedResponse::json(404, "{}");
    QList<RecordedRequest> m_requests;
    int m_connections = 0;

private:
    struct Connection
    {
        QByteArray input;
        bool responding = false;
    };

    void accept()
    {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            {
                QMutexLocker lock(&m_mutex);
                ++m_connections;
            }
            m_sockets.append(socket);
            auto connection = std::make_shared<Connection>();
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, connection] {
                connection->input += socket->readAll();
                serveNext(socket, connection);
            });
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            if (socket->bytesAvailable() > 0) {
                connection->input += socket->readAll();
                serveNext(socket, connection);
            }
        }
    }

    // Parses one complete request from the connection's input, if there is one, and answers it.
    void serveNext(QTcpSocket* socket, const std::shared_ptr<Connection>& connection)
    {
        if (connection->responding) {
            return;
        }
        const qsizetype headerEnd = connection->input.indexOf("\r\n\r\n");
        if (headerEnd < 0) {
            return;
        }
        const QList<QByteArray> lines = connection->input.left(headerEnd).split('\n');
        RecordedRequest request;
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        qsizetype contentLength = 0;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines.at(i).trimmed();
            const qsizetype colon = line.indexOf(':');
            if (colon <= 0) {
                continue;
            }
            const QByteArray name = line.left(colon).trimmed();
            const QByteArray value = line.mid(colon + 1).trimmed();
            request.headers.append({name, value});
            if (name.compare("Content-Length", Qt::CaseInsensitive) == 0) {
                contentLength = value.toLongLong();
            }
        }
        if (connection->input.size() < headerEnd + 4 + contentLength) {
            return; // the body is still on its way
        }
        request.body = connection->input.mid(headerEnd + 4, contentLength);
        connection->input.remove(0, headerEnd + 4 + contentLength);

        ScriptedResponse response;
        {
            QMutexLocker lock(&m_mutex);
            m_requests.append(request);
            response = m_queue.isEmpty() ? m_fallback : m_queue.dequeue();
        }
        connection->responding = true;
        respond(socket, connection, response);
    }

    void respond(QTcpSocket* socket, const std::shared_ptr<Connection>& connection,
                 const ScriptedResponse& response)
    {
        const bool partial = response.ending != ScriptedResponse::Ending::complete;
        const QByteArray sent = partial ? response.body.left(response.endAfter) : response.body;
        QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' +
                          (response.reason.isEmpty() ? standardReason(response.status) : response.reason) +
                          "\r\n";
        if (!response.contentType.isEmpty()) {
            head += "Content-Type: " + response.contentType + "\r\n";
        }
        switch (response.framing) {
        case ScriptedResponse::Framing::chunked:
            head += "Transfer-Encoding: chunked\r\n";
            break;
        case ScriptedResponse::Framing::contentLength:
            head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
            break;
        case ScriptedResponse::Framing::untilClose:
            head += "Connection: close\r\n";
            break;
        }
        for (const auto& [name, value] : response.headers) {
            head += name + ": " + value + "\r\n";
        }
        head += "\r\n";
        socket->write(head);

        QList<QByteArray> frames;
        for (const QByteArray& piece : pieces(response, sent)) {
            if (response.framing == ScriptedResponse::Framing::chunked) {
                frames.append(QByteArray::number(piece.size(), 16) + "\r\n" + piece + "\r\n");
            } else {
                frames.append(piece);
            }
        }
        QPointer<QTcpSocket> guard(socket);
        auto finishResponse = [this, guard, connection, response] {
            if (!guard) {
                return;
            }
            switch (response.ending) {
            case ScriptedResponse::Ending::stall:
                return; // keep the connection open and silent
            case ScriptedResponse::Ending::drop:
                guard->disconnectFromHost();
                return;
            case ScriptedResponse::Ending::reset: {
                guard->flush();
                const linger immediately{1, 0}; // close with RST instead of FIN
                ::setsockopt(int(guard->socketDescriptor()), SOL_SOCKET, SO_LINGER, &immediately,
                             sizeof immediately);
                guard->abort();
                return;
            }
            case ScriptedResponse::Ending::complete:
                break;
            }
            if (response.framing == ScriptedResponse::Framing::chunked) {
                guard->write("0\r\n\r\n");
            }
            if (response.framing == ScriptedResponse::Framing::untilClose) {
                guard->disconnectFromHost();
                return;
            }
            connection->responding = false;
            serveNext(guard, connection);
        };
        if (response.pieceDelayMs <= 0) {
            for (const QByteArray& frame : frames) {
                socket->write(frame);
            }
            finishResponse();
            return;
        }
        // One frame per tick, each flushed before the pause.
        auto remaining = std::make_shared<QList<QByteArray>>(frames);
        auto* timer = new QTimer(socket);
        timer->setInterval(response.pieceDelayMs);
        QObject::connect(timer, &QTimer::timeout, socket, [timer, guard, remaining, finishResponse] {
            if (!guard) {
                return;
            }
            if (remaining->isEmpty()) {
                timer->stop();
                timer->deleteLater();
                finishResponse();
                return;
            }
            guard->write(remaining->takeFirst());
            guard->flush();
        });
        if (!remaining->isEmpty()) {
            socket->write(remaining->takeFirst());
            socket->flush();
        }
        timer->start();
    }

    TcpOrTlsServer m_server;
    QList<QPointer<QTcpSocket>> m_sockets;
};

std::optional<TlsIdentity> TlsIdentity::createThrowaway(const QTemporaryDir& dir, QString* error)
{
    const QString keyPath = dir.filePath(QStringLiteral("loopback-key.pem"));
    const QString certificatePath = dir.filePath(QStringLiteral("loopback-cert.pem"));
    QProcess openssl;
    openssl.start(
        QStringLiteral("openssl"),
        {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"), QStringLiteral("ec"),
         QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
         QStringLiteral("-keyout"), keyPath, QStringLiteral("-out"), certificatePath, QStringLiteral("-days"),
         QStringLiteral("2"), QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"),
         QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1,DNS:localhost")});
    if (!openssl.waitForFinished(30000) || openssl.exitStatus() != QProcess::NormalExit ||
        openssl.exitCode() != 0) {
        if (error) {
            *error = QStringLiteral("openssl failed: ") + openssl.errorString() + u' ' +
                     QString::fromLocal8Bit(openssl.readAllStandardError());
        }
        return std::nullopt;
    }
    QFile keyFile(keyPath);
    QFile certificateFile(certificatePath);
    if (!keyFile.open(QIODevice::ReadOnly) || !certificateFile.open(QIODevice::ReadOnly)) {
        if (error) {
            *error = QStringLiteral("cannot read the generated files");
        }
        return std::nullopt;
    }
    TlsIdentity identity{QSslCertificate(certificateFile.readAll(), QSsl::Pem),
                         QSslKey(keyFile.readAll(), QSsl::Ec, QSsl::Pem)};
    if (identity.certificate.isNull() || identity.key.isNull()) {
        if (error) {
            *error = QStringLiteral("generated certificate or key does not load");
        }
        return std::nullopt;
    }
    return identity;
}

LoopbackHttpServer::LoopbackHttpServer()
{
    startWorker(std::nullopt);
}

LoopbackHttpServer::LoopbackHttpServer(const TlsIdentity& identity) : m_tls(true)
{
    startWorker(identity);
}

void LoopbackHttpServer::startWorker(std::optional<TlsIdentity> identity)
{
    m_thread = std::make_unique<QThread>();
    m_thread->setObjectName(QStringLiteral("loopback-http-server"));
    m_worker = new Worker(std::move(identity));
    m_worker->moveToThread(m_thread.get());
    m_thread->start();
    QMetaObject::invokeMethod(
        m_worker, [this] { m_port = m_worker->listen(); }, Qt::BlockingQueuedConnection);
}

LoopbackHttpServer::~LoopbackHttpServer()
{
    QMetaObject::invokeMethod(
        m_worker,
        [worker = m_worker] {
            worker->closeAll();
            delete worker;
        },
        Qt::BlockingQueuedConnection);
    m_thread->quit();
    m_thread->wait();
}

QUrl LoopbackHttpServer::url(const QString& path) const
{
    return QUrl(QStringLiteral("%1://127.0.0.1:%2%3")
                    .arg(m_tls ? QStringLiteral("https") : QStringLiteral("http"))
                    .arg(m_port)
                    .arg(path));
}

void LoopbackHttpServer::enqueue(ScriptedResponse response)
{
    QMutexLocker lock(&m_worker->m_mutex);
    m_worker->m_queue.enqueue(std::move(response));
}

void LoopbackHttpServer::setFallback(ScriptedResponse response)
{
    QMutexLocker lock(&m_worker->m_mutex);
    m_worker->m_fallback = std::move(response);
}

QList<RecordedRequest> LoopbackHttpServer::requests() const
{
    QMutexLocker lock(&m_worker->m_mutex);
    return m_worker->m_requests;
}

int LoopbackHttpServer::requestCount() const
{
    QMutexLocker lock(&m_worker->m_mutex);
    return int(m_worker->m_requests.size());
}

int LoopbackHttpServer::connectionCount() const
{
    QMutexLocker lock(&m_worker->m_mutex);
    return m_worker->m_connections;
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
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired()) {
            return condition();
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(1);
    }
    return true;
}

} // namespace velnora::test
