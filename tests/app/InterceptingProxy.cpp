#include "InterceptingProxy.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QProcess>
#include <QSslSocket>
#include <QStandardPaths>
#include <QTimer>

namespace velnora::test {

std::optional<InterceptionAuthority> InterceptionAuthority::create(const QString& hostName, QString* error)
{
    InterceptionAuthority authority;
    authority.m_directory = std::make_shared<QTemporaryDir>();
    const QString dir = authority.m_directory->path();
    // One self-signed certificate serves as the trust anchor and as the server's certificate; the
    // trust folder names it by its hash, as OpenSSL looks it up.
    QProcess openssl;
    openssl.setWorkingDirectory(dir);
    openssl.start("/bin/sh",
                  {"-c",
                   QStringLiteral("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                                  "-keyout key.pem -out cert.pem -days 2 -subj \"/CN=$0\" "
                                  "-addext \"subjectAltName=DNS:$0\" && mkdir trust && "
                                  "cp cert.pem trust/$(openssl x509 -hash -noout -in cert.pem).0"),
                   hostName});
    openssl.waitForFinished(20000);
    QFile certificate(dir + "/cert.pem");
    QFile key(dir + "/key.pem");
    if (openssl.exitCode() != 0 || !certificate.open(QIODevice::ReadOnly) || !key.open(QIODevice::ReadOnly)) {
        if (error) {
            *error = QString::fromLocal8Bit(openssl.readAllStandardError()) + openssl.errorString();
        }
        return std::nullopt;
    }
    authority.certificate = QSslCertificate(certificate.readAll());
    authority.key = QSslKey(key.readAll(), QSsl::Ec);
    return authority;
}

QStringList InterceptionAuthority::privateTrustCommand(const QString& program,
                                                       const QStringList& arguments) const
{
    // The child runs with a PATH of our choosing: name the tools by their full paths.
    const QString mount = QStandardPaths::findExecutable("mount");
    const QString unshare = QStandardPaths::findExecutable("unshare");
    const QString script = mount + " --bind \"$0\" /etc/ssl/certs && exec \"$@\"";
    const QString trust = m_directory->filePath("trust");
    return QStringList{unshare,   "--mount", "--propagation", "private", "--",
                       "/bin/sh", "-c",      script,          trust,     program} +
           arguments;
}

bool InterceptionAuthority::privateTrustAvailable()
{
    return QProcess::execute("unshare", {"--mount", "--propagation", "private", "--", "/bin/sh", "-c",
                                         "mount --bind /tmp /mnt"}) == 0;
}

InterceptingProxy::InterceptingProxy(const InterceptionAuthority& authority)
    : m_certificate(authority.certificate), m_key(authority.key)
{
    listen(QHostAddress::LocalHost, 0);
}

void InterceptingProxy::setAnswer(QList<QByteArray> pieces, int pieceDelayMs)
{
    m_pieces = std::move(pieces);
    m_pieceDelayMs = pieceDelayMs;
}

QList<QByteArray> InterceptingProxy::responsesStream(const QStringList& deltas)
{
    QList<QByteArray> pieces;
    for (const QString& delta : deltas) {
        const QJsonObject event{{"type", "response.output_text.delta"}, {"delta", delta}};
        pieces << "event: response.output_text.delta\ndata: " +
                      QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
    }
    pieces << QByteArray("event: response.completed\ndata: "
                         "{\"type\":\"response.completed\",\"response\":{\"status\":\"completed\"}}\n\n");
    return pieces;
}

void InterceptingProxy::incomingConnection(qintptr descriptor)
{
    auto* socket = new QSslSocket(this);
    socket->setSocketDescriptor(descriptor);
    socket->setLocalCertificate(m_certificate);
    socket->setPrivateKey(m_key);
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    auto buffer = std::make_shared<QByteArray>();
    connect(socket, &QSslSocket::readyRead, this, [this, socket, buffer] {
        *buffer += socket->readAll();
        const qsizetype end = buffer->indexOf("\r\n\r\n");
        if (end < 0) {
            return;
        }
        if (!socket->isEncrypted()) {
            // Plain text so far: the CONNECT request.
            buffer->clear();
            socket->write("HTTP/1.1 200 Connection established\r\n\r\n");
            socket->startServerEncryption();
            return;
        }
        const qsizetype lengthAt = buffer->left(end).toLower().indexOf("content-length:");
        const qsizetype length =
            lengthAt < 0 ? 0 : buffer->mid(lengthAt + 15, 20).split('\r').first().trimmed().toLongLong();
        if (buffer->size() != end + 4 + length) {
            return;
        }
        m_requests << *buffer;
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream; charset=utf-8\r\n"
                      "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n");
        QPointer<QSslSocket> guarded(socket);
        const QList<QByteArray> pieces = QList(m_pieces) << QByteArray(); // the empty chunk ends the body
        for (qsizetype i = 0; i < pieces.size(); ++i) {
            const QByteArray chunk =
                QByteArray::number(pieces.at(i).size(), 16) + "\r\n" + pieces.at(i) + "\r\n";
            QTimer::singleShot(int(i) * m_pieceDelayMs, this, [guarded, chunk] {
                if (guarded) {
                    guarded->write(chunk);
                }
            });
        }
    });
}

} // namespace velnora::test
