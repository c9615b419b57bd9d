#include "bridge/PageSelfCheck.h"

#include "bridge/AtomicFile.h"
#include "bridge/FileSystemError.h"
#include "bridge/RequestStore.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>

namespace velnora {

namespace {

constexpr double bridgeMaximumAge = 4.0;
const QStringList answerFields{QStringLiteral("reachable"), QStringLiteral("signInPage"),
                               QStringLiteral("input"), QStringLiteral("submit"), QStringLiteral("signedIn")};

QString resultDirectory(const RequestStore& store)
{
    return QDir(store.baseDirectory()).filePath(QString::fromLatin1(PageSelfCheck::resultFolderName));
}

} // namespace

PageSelfCheck::PageSelfCheck(RequestStore& store, QObject* parent) : QObject(parent), m_store(store)
{
    m_poll.setInterval(250);
    connect(&m_poll, &QTimer::timeout, this, &PageSelfCheck::poll);
}

QString PageSelfCheck::resultFilePath(const RequestStore& store, const QString& requestID)
{
    return resultDirectory(store) + u'/' + requestID + QStringLiteral(".json");
}

bool PageSelfCheck::recordResult(const RequestStore& store, const QJsonObject& message)
{
    const QString id = message.value(QStringLiteral("requestId")).toString();
    if (!RequestStore::isValidRequestIdentifier(id)) {
        return false;
    }
    QJsonObject result;
    for (const QString& field : answerFields) {
        const QJsonValue value = message.value(field);
        if (!value.isBool()) {
            return false;
        }
        result.insert(field, value);
    }
    const QString path = resultFilePath(store, id);
    try {
        QDir().mkpath(resultDirectory(store));
        AtomicFile::write(path, QJsonDocument(result).toJson(QJsonDocument::Compact));
    } catch (const FileSystemError&) {
        return false;
    }
    return true;
}

QString PageSelfCheck::sentence(BrowserProvider provider, const QJsonObject& result)
{
    const QString site = browserProviderTitle(provider);
    const auto has = [&result](const char* field) { return result.value(QLatin1String(field)).toBool(); };
    if (!has("reachable")) {
        return site + QStringLiteral("的网页没能打开，请检查网络后再检测。");
    }
    if (has("signInPage")) {
        return site + QStringLiteral("需要登录：请在浏览器里打开的页面上登录，再点「检测网页」。");
    }
    if (!has("input")) {
        return site + QStringLiteral("的页面上没有找到输入框，网页可能改版了，可以先换一个网页服务。");
    }
    if (!has("submit")) {
        return site + QStringLiteral("的页面上找到了输入框，但没有找到发送按钮，网页可能改版了。");
    }
    if (!has("signedIn")) {
        return site + QStringLiteral("的输入框和发送按钮都找到了，但还没有登录，请先在页面上登录。");
    }
    return site + QStringLiteral("网页正常：已登录，输入框和发送按钮都找到了。");
}

bool PageSelfCheck::isReady(const QJsonObject& result)
{
    return result.value(QStringLiteral("reachable")).toBool() &&
           !result.value(QStringLiteral("signInPage")).toBool() &&
           result.value(QStringLiteral("input")).toBool() &&
           result.value(QStringLiteral("submit")).toBool() &&
           result.value(QStringLiteral("signedIn")).toBool();
}

void PageSelfCheck::start(BrowserProvider provider)
{
    if (isRunning()) {
        return;
    }
    m_provider = provider;
    // Answers that came after their check had given up.
    for (const QFileInfo& answer : QDir(resultDirectory(m_store)).entryInfoList(QDir::Files)) {
        if (answer.lastModified().secsTo(QDateTime::currentDateTime()) > 600) {
            QFile::remove(answer.filePath());
        }
    }
    if (!m_store.isBridgeActive(bridgeMaximumAge)) {
        finish(QStringLiteral("浏览器扩展还没有连接，请先点「修复连接」，再检测网页。"));
        return;
    }
    try {
        m_requestID = m_store.enqueue(BridgeRequestType::checkPage, std::nullopt, rawValue(provider)).id;
    } catch (const FileSystemError& error) {
        finish(QStringLiteral("检测请求没能写入：") + error.description());
        return;
    }
    m_deadline.setRemainingTime(timeoutMilliseconds);
    m_poll.start();
}

void PageSelfCheck::poll()
{
    const QString path = resultFilePath(m_store, m_requestID);
    bool readable = false;
    const QByteArray bytes = AtomicFile::read(path, &readable);
    if (readable) {
        QFile::remove(path);
        const QJsonObject result = QJsonDocument::fromJson(bytes).object();
        finish(sentence(m_provider, result), isReady(result));
        return;
    }
    if (m_deadline.hasExpired()) {
        // An extension too old to know the check never answers it: the request must not linger.
        try {
            m_store.acknowledge(m_requestID);
        } catch (const FileSystemError&) {
        }
        finish(QStringLiteral("检测超时：浏览器扩展 45 秒内没有回应，请确认浏览器已打开且扩展是最新版本。"));
    }
}

void PageSelfCheck::finish(const QString& sentence, bool pageReady)
{
    m_poll.stop();
    Q_EMIT finished(sentence, pageReady);
}

} // namespace velnora
