#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QStringList>
#include <QTcpServer>
#include <QTemporaryDir>
#include <memory>
#include <optional>

namespace velnora::test {

// A throwaway self-signed certificate for one host name, made with the openssl tool.
class InterceptionAuthority
{
public:
    // None when the tool is missing or fails; the reason goes to *error.
    static std::optional<InterceptionAuthority> create(const QString& hostName, QString* error = nullptr);

    // The command that runs program with the certificate as the only one in /etc/ssl/certs, in a
    // private mount namespace: nothing outside that one process trusts it.
    QStringList privateTrustCommand(const QString& program, const QStringList& arguments) const;
    // Whether this machine lets us make such a namespace.
    static bool privateTrustAvailable();

    QSslCertificate certificate;
    QSslKey key;

private:
    std::shared_ptr<QTemporaryDir> m_directory;
};

// An HTTPS proxy on 127.0.0.1 that never connects anywhere: it accepts CONNECT, answers the TLS
// handshake itself with the authority's certificate, and replies to the request inside with a
// scripted event stream, piece by piece. Runs on the calling thread's event loop.
class InterceptingProxy : public QTcpServer
{
public:
    explicit InterceptingProxy(const InterceptionAuthority& authority);

    QString proxyURL() const { return QStringLiteral("http://127.0.0.1:%1").arg(serverPort()); }
    // The event stream to answer with, sent in these pieces with pieceDelayMs between them.
    void setAnswer(QList<QByteArray> pieces, int pieceDelayMs);
    // A Responses API stream whose text deltas are these pieces.
    static QList<QByteArray> responsesStream(const QStringList& deltas);

    // Each request inside the tunnel, head and body, once its body has fully arrived.
    QList<QByteArray> requests() const { return m_requests; }

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    QSslCertificate m_certificate;
    QSslKey m_key;
    QList<QByteArray> m_pieces;
    int m_pieceDelayMs = 0;
    QList<QByteArray> m_requests;
};

} // namespace velnora::test
