#include "InterceptingProxy.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QProcess>
#include <QSslSocket>
#include <QStandardPaths>
#include <QTimer>

namespace velnora::test {

namespace {

bool runOpenssl(const QString& directory, const QStringList& arguments, QString* error)
{
    QProcess process;
    process.setWorkingDirectory(directory);
    process.start(QStringLiteral("openssl"), arguments);
    if (!process.waitForFinished(20000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        if (error) {
            *error = QStringLiteral("openssl ") + arguments.join(u' ') + QStringLiteral(": ") +
                     QString::fromLocal8Bit(process.readAllStandardError()) + process.errorString();
        }
        return false;
    }
    return true;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

std::optional<InterceptionAuthority> InterceptionAuthority::create(const QString& hostName, QString* error)
{
    InterceptionAuthority authority;
    authority.m_directory = std::make_shared<QTemporaryDir>();
    const QString dir = authority.m_directory->path();
    QFile extensions(dir + QStringLiteral("/server.ext"));
    if (!extensions.open(QIODevice::WriteOnly)) {
        return std::nullopt;
    }
    extensions.write("basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\nsubjectAltName=DNS:" +
                     hostName.toUtf8() + "\n");
    extensions.close();
    const QStringList ec{QStringLiteral("-newkey"), QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                         QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes")};
    if (!runOpenssl(dir,
                    QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + ec +
                        QStringList{QStringLiteral("-keyout"), QStringLiteral("ca.key"),
                                    QStringLiteral("-out"), QStringLiteral("ca.pem"), QStringLiteral("-days"),
                                    QStringLiteral("2"), QStringLiteral("-subj"),
                                    QStringLiteral("/CN=velnora test authority"), QStringLiteral("-addext"),
                                    QStringLiteral("basicConstraints=critical,CA:TRUE"),
                                    QStringLiteral("-addext"),
                                    QStringLiteral("keyUsage=critical,keyCertSign,cRLSign")},
                    error) ||
        !runOpenssl(dir,
                    QStringList{QStringLiteral("req")} + ec +
                        QStringList{QStringLiteral("-keyout"), QStringLiteral("server.key"),
                                    QStringLiteral("-out"), QStringLiteral("server.csr"),
                                    QStringLiteral("-subj"), QStringLiteral("/CN=") + hostName},
                    error) ||
        !runOpenssl(dir,
                    {QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"),
                     QStringLiteral("server.csr"), QStringLiteral("-CA"), QStringLiteral("ca.pem"),
                     QStringLiteral("-CAkey"), QStringLiteral("ca.key"), QStringLiteral("-CAcreateserial"),
                     QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-extfile"),
                     QStringLiteral("server.ext"), QStringLiteral("-out"), QStringLiteral("server.pem")},
                    error)) {
        return std::nullopt;
    }
    QProcess hash;
    hash.start(QStringLiteral("openssl"),
               {QStringLiteral("x509"), QStringLiteral("-hash"), QStringLiteral("-noout"),
                QStringLiteral("-in"), dir + QStringLiteral("/ca.pem")});
    if (!hash.waitForFinished(10000) || hash.exitCode() != 0) {
        return std::nullopt;
    }
    authority.m_caDirectory = dir + QStringLiteral("/trust");
    QDir().mkpath(authority.m_caDirectory);
    const QString hashName =
        QString::fromLatin1(hash.readAllStandardOutput().trimmed()) + QStringLiteral(".0");
    if (!QFile::copy(dir + QStringLiteral("/ca.pem"), authority.m_caDirectory + u'/' + hashName)) {
        return std::nullopt;
    }
    authority.m_certificate = QSslCertificate(readFile(dir + QStringLiteral("/server.pem")));
    authority.m_key = QSslKey(readFile(dir + QStringLiteral("/server.key")), QSsl::Ec);
    if (authority.m_certificate.isNull() || authority.m_key.isNull()) {
        if (error) {
            *error = QStringLiteral("the certificate or key made by openssl does not load");
        }
        return std::nullopt;
    }
    return authority;
}

QStringList InterceptionAuthority::privateTrustCommand(const QString& program,
                                                       const QStringList& arguments) const
{
    // The child runs with a PATH of our choosing: name the tools by their full paths.
    return QStringList{QStandardPaths::findExecutable(QStringLiteral("unshare")),
                       QStringLiteral("--mount"),
                       QStringLiteral("--propagation"),
                       QStringLiteral("private"),
                       QStringLiteral("--"),
                       QStringLiteral("/bin/sh"),
                       QStringLiteral("-c"),
                       QStandardPaths::findExecutable(QStringLiteral("mount")) +
                           QStringLiteral(" --bind \"$0\" /etc/ssl/certs && exec \"$@\""),
                       m_caDirectory,
                       program} +
           arguments;
}

bool InterceptionAuthority::privateTrustAvailable()
{
    QProcess probe;
    probe.start(QStringLiteral("unshare"),
                {QStringLiteral("--mount"), QStringLiteral("--propagation"), QStringLiteral("private"),
                 QStringLiteral("--"), QStringLiteral("/bin/sh"), QStringLiteral("-c"),
                 QStringLiteral("mount --bind /tmp /mnt")});
    return probe.waitForFinished(10000) && probe.exitStatus() == QProcess::NormalExit &&
           probe.exitCode() == 0;
}

InterceptingProxy::InterceptingProxy(const InterceptionAuthority& authority, QObject* parent)
    : QTcpServer(parent), m_certificate(authority.serverCertificate()), m_key(authority.serverKey())
{
    listen(QHostAddress::LocalHost, 0);
}

QString InterceptingProxy::proxyURL() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(serverPort());
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
        const QJsonObject event{{QStringLiteral("type"), QStringLiteral("response.output_text.delta")},
                                {QStringLiteral("delta"), delta}};
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
    if (!socket->setSocketDescriptor(descriptor)) {
        socket->deleteLater();
        return;
    }
    socket->setLocalCertificate(m_certificate);
    socket->setPrivateKey(m_key);
    const qsizetype exchange = m_exchanges.size();
    m_exchanges.append(Exchange{});
    auto buffer = std::make_shared<QByteArray>();
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QSslSocket::readyRead, this, [this, socket, exchange, buffer] {
        *buffer += socket->readAll();
        Exchange& record = m_exchanges[exchange];
        if (!socket->isEncrypted()) {
            // Plain text so far: the proxy request.
            const qsizetype end = buffer->indexOf("\r\n\r\n");
            if (end < 0 || !record.connectTarget.isEmpty()) {
                return;
            }
            const QList<QByteArray> words = buffer->left(buffer->indexOf("\r\n")).split(' ');
            if (words.size() < 2 || words.first() != "CONNECT") {
                socket->write(
                    "HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
                socket->disconnectFromHost();
                return;
            }
            record.connectTarget = words.at(1);
            buffer->clear();
            socket->write("HTTP/1.1 200 Connection established\r\n\r\n");
            socket->startServerEncryption();
            return;
        }
        const qsizetype end = buffer->indexOf("\r\n\r\n");
        if (end < 0 || !record.requestHead.isEmpty()) {
            return;
        }
        const QByteArray head = buffer->left(end);
        qsizetype length = 0;
        for (const QByteArray& line : head.split('\n')) {
            if (line.toLower().startsWith("content-length:")) {
                length = line.mid(15).trimmed().toLongLong();
            }
        }
        if (buffer->size() < end + 4 + length) {
            return;
        }
        record.requestHead = head;
        record.requestBody = buffer->mid(end + 4, length);
        answer(socket, exchange);
    });
}

void InterceptingProxy::answer(QSslSocket* socket, qsizetype)
{
    socket->write("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream; charset=utf-8\r\n"
                  "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n");
    QPointer<QSslSocket> guarded(socket);
    const QList<QByteArray> pieces = m_pieces;
    for (qsizetype i = 0; i <= pieces.size(); ++i) {
        QTimer::singleShot(int(i) * m_pieceDelayMs, this, [guarded, pieces, i] {
            if (!guarded) {
                return;
            }
            if (i < pieces.size()) {
                guarded->write(QByteArray::number(pieces.at(i).size(), 16) + "\r\n" + pieces.at(i) + "\r\n");
            } else {
                guarded->write("0\r\n\r\n");
                guarded->disconnectFromHost();
            }
        });
    }
}

} // namespace velnora::test
