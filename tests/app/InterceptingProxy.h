#pragma once

#include <QByteArray>
#include <QList>
#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QTemporaryDir>

class QSslSocket;

#include <memory>
#include <optional>

namespace velnora::test {

// A throwaway certificate authority and one server certificate it signed, made with the openssl tool.
// caDirectory() holds only the authority, under its hash name, ready to stand in for /etc/ssl/certs.
class InterceptionAuthority
{
public:
    // None when the tool is missing or fails; the reason goes to *error.
    static std::optional<InterceptionAuthority> create(const QString& hostName, QString* error = nullptr);

    const QString& caDirectory() const { return m_caDirectory; }
    const QSslCertificate& serverCertificate() const { return m_certificate; }
    const QSslKey& serverKey() const { return m_key; }

    // The command that runs program with the authority as the only one in /etc/ssl/certs, in a
    // private mount namespace: nothing outside that one process sees it.
    QStringList privateTrustCommand(const QString& program, const QStringList& arguments) const;
    // Whether this machine lets us make such a namespace.
    static bool privateTrustAvailable();

private:
    std::shared_ptr<QTemporaryDir> m_directory;
    QString m_caDirectory;
    QSslCertificate m_certificate;
    QSslKey m_key;
};

// An HTTPS proxy on 127.0.0.1 that never connects anywhere: it accepts CONNECT, answers the TLS
// handshake itself with the authority's certificate, and replies to the request inside with a
// scripted event stream, piece by piece. Runs on the calling thread's event loop.
class InterceptingProxy : public QTcpServer
{
    Q_OBJECT
public:
    struct Exchange
    {
        QByteArray connectTarget; // "host:443"
        QByteArray requestHead;   // request line and headers
        QByteArray requestBody;
    };

    InterceptingProxy(const InterceptionAuthority& authority, QObject* parent = nullptr);

    QString proxyURL() const; // "http://127.0.0.1:<port>"
    // The event stream to answer with, sent in these pieces with pieceDelayMs between them.
    void setAnswer(QList<QByteArray> pieces, int pieceDelayMs);
    // A Responses API stream whose text deltas are these pieces.
    static QList<QByteArray> responsesStream(const QStringList& deltas);

    const QList<Exchange>& exchanges() const { return m_exchanges; }

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void answer(QSslSocket* socket, qsizetype exchange);

    QSslCertificate m_certificate;
    QSslKey m_key;
    QList<QByteArray> m_pieces;
    int m_pieceDelayMs = 0;
    QList<Exchange> m_exchanges;
};

} // namespace velnora::test
