#include "llm/FetchWorker.h"

#include "llm/NetworkSupport.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QNetworkAccessManager>
#include <QSocketNotifier>
#include <QtEndian>
#include <csignal>
#include <cstdlib>
#include <sys/prctl.h>
#include <unistd.h>

namespace velnora::FetchWorker {

namespace {

constexpr quint8 formatVersion = 1;
constexpr quint8 noFailure = 0, networkFailure = 1, clientFailure = 2;
// A request is a conversation: far below this. Anything larger is not ours.
constexpr qsizetype requestLimit = 64 * 1024 * 1024;

QByteArray framed(const QByteArray& payload)
{
    QByteArray frame(4, Qt::Uninitialized);
    qToBigEndian(quint32(payload.size()), frame.data());
    return frame + payload;
}

template <typename Write> QByteArray serialise(Write&& write)
{
    QByteArray payload;
    QDataStream stream(&payload, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_6_4);
    stream << formatVersion;
    write(stream);
    return framed(payload);
}

// A stream over `payload` positioned after a known format version; none for another version.
std::optional<QDataStream*> opened(QDataStream& stream)
{
    stream.setVersion(QDataStream::Qt_6_4);
    quint8 version = 0;
    stream >> version;
    if (stream.status() != QDataStream::Ok || version != formatVersion) {
        return std::nullopt;
    }
    return &stream;
}

void writeFailure(QDataStream& stream, const std::optional<ProviderFailure>& failure)
{
    if (!failure) {
        stream << noFailure;
    } else if (const auto* network = std::get_if<NetworkError>(&*failure)) {
        stream << networkFailure << qint32(network->code) << network->systemMessage << network->offline
               << network->certificateRejected;
    } else if (const auto* client = std::get_if<LLMClientError>(&*failure)) {
        stream << clientFailure << quint8(client->kind()) << qint32(client->status()) << client->message();
    } else {
        // A fetch fails in transport or in the answer only; anything else still reaches the user.
        stream << clientFailure << quint8(LLMClientError::Kind::api) << qint32(0) << describe(*failure);
    }
}

std::optional<LLMClientError> clientError(quint8 kind, int status, const QString& message)
{
    switch (LLMClientError::Kind(kind)) {
    case LLMClientError::Kind::api:
        return LLMClientError::api(message);
    case LLMClientError::Kind::http:
        return LLMClientError::http(status, message);
    case LLMClientError::Kind::invalidRequest:
        return LLMClientError::invalidRequest();
    case LLMClientError::Kind::invalidAPIKey:
        return LLMClientError::invalidAPIKey(message);
    case LLMClientError::Kind::cancelled:
        return LLMClientError::cancelled();
    case LLMClientError::Kind::emptyResponse:
        return LLMClientError::emptyResponse();
    }
    return std::nullopt;
}

// False when the stream does not hold a failure we know.
bool readFailure(QDataStream& stream, std::optional<ProviderFailure>& failure)
{
    quint8 tag = 0;
    stream >> tag;
    if (tag == noFailure) {
        failure.reset();
        return stream.status() == QDataStream::Ok;
    }
    if (tag == networkFailure) {
        NetworkError error;
        qint32 code = 0;
        stream >> code >> error.systemMessage >> error.offline >> error.certificateRejected;
        error.code = QNetworkReply::NetworkError(code);
        failure = error;
        return stream.status() == QDataStream::Ok;
    }
    if (tag == clientFailure) {
        quint8 kind = 0;
        qint32 status = 0;
        QString message;
        stream >> kind >> status >> message;
        const std::optional<LLMClientError> error = clientError(kind, status, message);
        if (!error || stream.status() != QDataStream::Ok) {
            return false;
        }
        failure = *error;
        return true;
    }
    return false;
}

bool writeAll(int fd, const QByteArray& bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += written;
    }
    return true;
}

// Blocking: the worker has nothing else to do until its request is in.
std::optional<QByteArray> readRequest(int fd)
{
    QByteArray buffer;
    char chunk[16384];
    bool broken = false;
    for (;;) {
        if (std::optional<QByteArray> payload = takeFrame(buffer, requestLimit, &broken)) {
            return payload;
        }
        if (broken) {
            return std::nullopt;
        }
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return std::nullopt;
        }
        buffer.append(chunk, got);
    }
}

} // namespace

QByteArray encodeRequest(const PreparedRequest& request)
{
    return serialise([&](QDataStream& stream) {
        stream << request.method << request.request.url() << qint64(request.inactivityTimeout.count())
               << request.body << quint32(request.request.rawHeaderList().size());
        for (const QByteArray& name : request.request.rawHeaderList()) {
            stream << name << request.request.rawHeader(name);
        }
    });
}

std::optional<PreparedRequest> decodeRequest(const QByteArray& payload)
{
    QDataStream stream(payload);
    if (!opened(stream)) {
        return std::nullopt;
    }
    QByteArray method, body;
    QUrl url;
    qint64 timeout = 0;
    quint32 headers = 0;
    stream >> method >> url >> timeout >> body >> headers;
    if (stream.status() != QDataStream::Ok || !url.isValid() || timeout < 0) {
        return std::nullopt;
    }
    PreparedRequest request = NetworkSupport::prepare(method, url, std::chrono::milliseconds(timeout));
    request.body = body;
    for (quint32 i = 0; i < headers; ++i) {
        QByteArray name, value;
        stream >> name >> value;
        if (stream.status() != QDataStream::Ok) {
            return std::nullopt;
        }
        request.request.setRawHeader(name, value);
    }
    return request;
}

QByteArray encodeFrame(const Frame& frame)
{
    return serialise([&](QDataStream& stream) {
        stream << quint8(frame.kind) << qint32(frame.status.value_or(-1));
        if (frame.kind == Frame::Kind::body) {
            stream << frame.bytes << frame.last;
        } else {
            writeFailure(stream, frame.failure);
        }
    });
}

std::optional<Frame> decodeFrame(const QByteArray& payload)
{
    QDataStream stream(payload);
    if (!opened(stream)) {
        return std::nullopt;
    }
    Frame frame;
    quint8 kind = 0;
    qint32 status = -1;
    stream >> kind >> status;
    if (status >= 0) {
        frame.status = status;
    }
    if (kind == quint8(Frame::Kind::body)) {
        stream >> frame.bytes >> frame.last;
    } else if (kind == quint8(Frame::Kind::end)) {
        frame.kind = Frame::Kind::end;
        if (!readFailure(stream, frame.failure)) {
            return std::nullopt;
        }
    } else {
        return std::nullopt;
    }
    if (stream.status() != QDataStream::Ok) {
        return std::nullopt;
    }
    return frame;
}

std::optional<QByteArray> takeFrame(QByteArray& buffer, qsizetype limit, bool* broken)
{
    if (buffer.size() < 4) {
        return std::nullopt;
    }
    const quint32 length = qFromBigEndian<quint32>(buffer.constData());
    if (qsizetype(length) > limit) {
        *broken = true;
        return std::nullopt;
    }
    if (buffer.size() - 4 < qsizetype(length)) {
        return std::nullopt;
    }
    QByteArray payload = buffer.mid(4, length);
    buffer.remove(0, 4 + length);
    return payload;
}

int run(const ProcessArguments& arguments)
{
    // The worker is of no use to anyone once its parent is gone, whatever it is waiting for.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::optional<QByteArray> payload = readRequest(STDIN_FILENO);
    const std::optional<PreparedRequest> request = payload ? decodeRequest(*payload) : std::nullopt;
    if (!request) {
        std::fputs("fetch-worker：标准输入上没有可读的请求\n", stderr);
        return 2;
    }
    QCoreApplication app(arguments.argc(), arguments.argv());
    // The parent closes our input to cancel, or dies.
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&input] {
        char byte;
        if (::read(STDIN_FILENO, &byte, 1) <= 0) {
            input.setEnabled(false);
            QCoreApplication::exit(1);
        }
    });
    QNetworkAccessManager* manager = NetworkSupport::createEphemeralManager(&app);
    QPointer<NetworkFetch> fetch;
    fetch = NetworkFetch::start(
        *manager, *request,
        [&fetch](const QByteArray& bytes, bool last) {
            Frame frame;
            frame.status = fetch ? fetch->status() : std::nullopt;
            frame.bytes = bytes;
            frame.last = last;
            return writeAll(STDOUT_FILENO, encodeFrame(frame));
        },
        [](const NetworkFetch::Outcome& outcome) {
            Frame frame;
            frame.kind = Frame::Kind::end;
            if (outcome.ok()) {
                frame.status = outcome.value().status;
            } else {
                frame.failure = outcome.failure();
            }
            QCoreApplication::exit(writeAll(STDOUT_FILENO, encodeFrame(frame)) ? 0 : 1);
        });
    const int status = app.exec();
    // Everything is written (unbuffered writes). The kernel takes back the TLS state and Qt's HTTP thread
    // at once; taking them apart object by object only races that thread on the way out.
    std::_Exit(status);
}

} // namespace velnora::FetchWorker
