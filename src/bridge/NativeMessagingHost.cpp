#include "bridge/NativeMessagingHost.h"

#include "bridge/AtomicFile.h"
#include "bridge/FileSystemError.h"
#include "bridge/NativeHostInstaller.h"
#include "bridge/PageSelfCheck.h"
#include "config/ProviderCatalog.h"

#include <QEventLoop>
#include <QFileSystemWatcher>
#include <QJsonDocument>
#include <QTimer>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <unistd.h>

namespace velnora {

namespace {

double steadySeconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

NativeMessagingHost::NativeMessagingHost(RequestStore& store, int inputDescriptor, int outputDescriptor,
                                         QObject* parent)
    : QObject(parent), m_store(store), m_input(inputDescriptor), m_output(outputDescriptor),
      m_claims(store.baseDirectory()), m_clock(steadySeconds),
      m_lastHeartbeatAt(-std::numeric_limits<double>::infinity()), m_lastPortHeartbeatAt(steadySeconds()),
      m_portHeartbeatInterval(portHeartbeatIntervalFromEnvironment())
{}

NativeMessagingHost::~NativeMessagingHost() = default;

double NativeMessagingHost::portHeartbeatIntervalFromEnvironment()
{
    QByteArray value;
    if (qEnvironmentVariableIsSet("VELNORA_PORT_HEARTBEAT_SECONDS")) {
        value = qgetenv("VELNORA_PORT_HEARTBEAT_SECONDS");
    } else if (qEnvironmentVariableIsSet("BRINKWELL_PORT_HEARTBEAT_SECONDS")) {
        value = qgetenv("BRINKWELL_PORT_HEARTBEAT_SECONDS");
    } else {
        return defaultPortHeartbeatInterval;
    }
    // toDouble would forgive surrounding blanks; a strict number is wanted.
    if (value.isEmpty() || std::isspace(uchar(value.front())) || std::isspace(uchar(value.back()))) {
        return defaultPortHeartbeatInterval;
    }
    bool ok = false;
    const double interval = value.toDouble(&ok);
    return ok && interval > 0 ? interval : defaultPortHeartbeatInterval;
}

double NativeMessagingHost::retryDelaySeconds(int refusals)
{
    const int exponent = std::clamp(refusals, 1, 6);
    return std::min(std::ldexp(1.0, exponent), 60.0);
}

QJsonObject NativeMessagingHost::hostReadyMessage()
{
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("HOST_READY")},
        {QStringLiteral("host"), QString::fromLatin1(NativeHostInstaller::hostName)},
        {QStringLiteral("version"), QStringLiteral(VELNORA_VERSION)},
        {QStringLiteral("edition"), QStringLiteral("domestic")},
        {QStringLiteral("minimumExtensionVersion"),
         QString::fromLatin1(NativeHostInstaller::minimumExtensionVersion)},
    };
}

QJsonObject NativeMessagingHost::requestMessage(const BridgeRequest& request)
{
    QJsonObject message{
        {QStringLiteral("type"), rawValue(request.type)},
        {QStringLiteral("requestId"), request.id},
        {QStringLiteral("createdAt"), request.createdAt},
    };
    if (request.text) {
        message.insert(QStringLiteral("text"), *request.text);
    }
    if (request.provider) {
        message.insert(QStringLiteral("provider"), *request.provider);
    }
    if (request.depthInstruction) {
        message.insert(QStringLiteral("depthInstruction"), *request.depthInstruction);
    }
    return message;
}

std::optional<double> NativeMessagingHost::retryNotBefore(const QString& requestID) const
{
    const auto it = m_retryNotBefore.constFind(requestID);
    if (it == m_retryNotBefore.constEnd()) {
        return std::nullopt;
    }
    return *it;
}

void NativeMessagingHost::run()
{
    try {
        m_store.markBridgeActive();
        m_lastHeartbeatAt = now();
    } catch (const FileSystemError&) {
    }
    send(hostReadyMessage());
    startScanning();

    QEventLoop loop;
    std::thread reader([this, &loop] {
        while (const std::optional<QJsonObject> message = readMessage()) {
            handleIncoming(*message);
        }
        // Queued behind any answers still on their way, so they are applied before the loop ends.
        QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
    });
    loop.exec();
    reader.join();

    m_scanTimer->stop();
    delete m_watcher;
    m_watcher = nullptr;
}

bool NativeMessagingHost::send(const QJsonObject& message)
{
    const QByteArray body = QJsonDocument(message).toJson(QJsonDocument::Compact);
    if (body.isEmpty() || body.size() > qsizetype(maximumFrameSize)) {
        return false;
    }
    const quint32 length = quint32(body.size());
    QByteArray frame(sizeof length, Qt::Uninitialized);
    std::memcpy(frame.data(), &length, sizeof length); // native byte order, as Chrome expects
    frame += body;

    const std::lock_guard lock(m_outputLock);
    qsizetype written = 0;
    while (written < frame.size()) {
        const ssize_t n = ::write(m_output, frame.constData() + written, size_t(frame.size() - written));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        written += n;
    }
    return true;
}

std::optional<QByteArray> NativeMessagingHost::readExactly(qsizetype count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    qsizetype filled = 0;
    while (filled < count) {
        const ssize_t n = ::read(m_input, bytes.data() + filled, size_t(count - filled));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return std::nullopt;
        }
        filled += n;
    }
    return bytes;
}

std::optional<QJsonObject> NativeMessagingHost::readMessage()
{
    const std::optional<QByteArray> header = readExactly(sizeof(quint32));
    if (!header) {
        return std::nullopt;
    }
    quint32 length = 0;
    std::memcpy(&length, header->constData(), sizeof length);
    if (length == 0 || length > maximumFrameSize) {
        return std::nullopt;
    }
    const std::optional<QByteArray> body = readExactly(qsizetype(length));
    if (!body) {
        return std::nullopt;
    }
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(*body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        return std::nullopt;
    }
    return document.object();
}

void NativeMessagingHost::handleIncoming(const QJsonObject& message)
{
    const QJsonValue type = message.value(QStringLiteral("type"));
    if (type == QStringLiteral("EXTENSION_STATUS")) {
        writeExtensionStatus(message);
        return;
    }
    if (type == QStringLiteral("PAGE_CHECK_RESULT")) {
        PageSelfCheck::recordResult(m_store, message);
        return;
    }
    const QJsonValue requestID = message.value(QStringLiteral("requestId"));
    if (!type.isString() || !requestID.isString()) {
        return;
    }
    QMetaObject::invokeMethod(
        this, [this, type = type.toString(), id = requestID.toString()] { handleAnswer(type, id); },
        Qt::QueuedConnection);
}

void NativeMessagingHost::writeExtensionStatus(const QJsonObject& message)
{
    const QJsonValue identifier = message.value(QStringLiteral("extensionID"));
    const QJsonValue version = message.value(QStringLiteral("version"));
    // The status names the browser too: Chrome reports the Chrome ID, Firefox the gecko ID.
    const QString reported = identifier.toString();
    const bool ours = reported == ExplainerConstants::extensionIdentifier() ||
                      reported == ExplainerConstants::firefoxExtensionIdentifier();
    if (!ours || !identifier.isString() || !version.isString() || version.toString().toUcs4().size() > 31) {
        return;
    }
    const QJsonObject status{
        {QStringLiteral("extensionID"), reported},
        {QStringLiteral("version"), version.toString()},
        {QStringLiteral("updatedAt"), RequestStore::nowSeconds()},
    };
    try {
        AtomicFile::write(m_store.extensionStatusFilePath(),
                          QJsonDocument(status).toJson(QJsonDocument::Compact));
    } catch (const FileSystemError&) {
    }
}

void NativeMessagingHost::handleAnswer(const QString& type, const QString& requestID)
{
    if (type == u"ACK_REQUEST") {
        try {
            m_store.acknowledge(requestID);
        } catch (const FileSystemError&) {
        }
        m_claims.release(requestID, !m_store.contains(requestID));
        m_inFlight.remove(requestID);
        m_retryCounts.remove(requestID);
        m_retryNotBefore.remove(requestID);
    } else if (type == u"NACK_REQUEST") {
        refuse(requestID);
    }
}

void NativeMessagingHost::refuse(const QString& requestID)
{
    m_claims.release(requestID);
    m_inFlight.remove(requestID);
    const int refusals = std::min(m_retryCounts.value(requestID) + 1, 6);
    m_retryCounts.insert(requestID, refusals);
    m_retryNotBefore.insert(requestID, now() + retryDelaySeconds(refusals));
}

void NativeMessagingHost::startScanning()
{
    if (!m_scanTimer) {
        m_scanTimer = new QTimer(this);
        m_scanTimer->setInterval(250);
        m_scanTimer->setTimerType(Qt::CoarseTimer);
        connect(m_scanTimer, &QTimer::timeout, this, &NativeMessagingHost::scanPendingRequests);
    }
    m_scanTimer->start();
    // New requests go out as soon as they are renamed into place; the tick stays for retries,
    // heartbeats and file systems without change notification.
    if (!m_watcher) {
        m_watcher = new QFileSystemWatcher(this);
        connect(m_watcher, &QFileSystemWatcher::directoryChanged, this, &NativeMessagingHost::scheduleScan);
    }
    m_claims.sweep([this](const QString& id) { return m_store.contains(id); });
    scanPendingRequests();
}

void NativeMessagingHost::scheduleScan()
{
    if (m_scanScheduled) {
        return;
    }
    m_scanScheduled = true;
    QTimer::singleShot(0, this, [this] {
        m_scanScheduled = false;
        scanPendingRequests();
    });
}

void NativeMessagingHost::scanPendingRequests()
{
    refreshHeartbeatIfNeeded();
    sendPortHeartbeatIfNeeded();
    std::vector<RequestStore::Pending> pending;
    try {
        pending = m_store.pendingRequests();
    } catch (const FileSystemError&) {
        return;
    }
    // The folder may have been created (or re-created) by this very listing.
    if (m_watcher && m_watcher->directories().isEmpty()) {
        m_watcher->addPath(m_store.queueDirectory());
    }

    const double current = now();
    QSet<QString> listed;
    listed.reserve(qsizetype(pending.size()));
    for (const RequestStore::Pending& entry : pending) {
        const QString& id = entry.request.id;
        listed.insert(id);
        if (const auto sent = m_inFlight.constFind(id); sent != m_inFlight.constEnd()) {
            if (current - *sent >= deliveryDeadline) {
                refuse(id);
            }
            continue;
        }
        if (m_retryNotBefore.value(id, -std::numeric_limits<double>::infinity()) > current) {
            continue;
        }
        // Another host delivers it; and the listing may predate its acknowledgement.
        if (!m_claims.tryClaim(id)) {
            continue;
        }
        if (!m_store.contains(id)) {
            m_claims.release(id, true);
            continue;
        }
        m_inFlight.insert(id, current);
        send(requestMessage(entry.request));
    }
    // Records deleted behind our back (the application replaced or withdrew them, another host
    // delivered them) can never be answered.
    for (auto it = m_inFlight.begin(); it != m_inFlight.end();) {
        if (listed.contains(it.key())) {
            ++it;
        } else {
            m_claims.release(it.key(), true);
            it = m_inFlight.erase(it);
        }
    }
    m_retryCounts.removeIf([&listed](const auto& entry) { return !listed.contains(entry.key()); });
    m_retryNotBefore.removeIf([&listed](const auto& entry) { return !listed.contains(entry.key()); });
}

void NativeMessagingHost::refreshHeartbeatIfNeeded()
{
    const double current = now();
    if (current - m_lastHeartbeatAt < 1.0) {
        return;
    }
    try {
        m_store.markBridgeActive();
    } catch (const FileSystemError&) {
    }
    m_lastHeartbeatAt = current;
}

void NativeMessagingHost::sendPortHeartbeatIfNeeded()
{
    const double current = now();
    if (m_portHeartbeatInterval <= current - m_lastPortHeartbeatAt) {
        send(QJsonObject{{QStringLiteral("type"), QStringLiteral("HOST_HEARTBEAT")}});
        m_lastPortHeartbeatAt = current;
    }
}

} // namespace velnora
