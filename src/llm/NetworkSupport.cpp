#include "llm/NetworkSupport.h"

#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkInformation>
#include <QNetworkInterface>
#include <QNetworkProxyFactory>
#include <algorithm>

namespace velnora::NetworkSupport {

namespace {

// Neither sends nor keeps cookies.
class NoCookieJar : public QNetworkCookieJar
{
public:
    using QNetworkCookieJar::QNetworkCookieJar;
    QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
};

// The proxy of the user's session for every request, looked up per request.
class SystemProxyFactory : public QNetworkProxyFactory
{
public:
    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery& query) override
    {
        return QNetworkProxyFactory::systemProxyForQuery(query);
    }
};

} // namespace

void applyEphemeralPolicy(QNetworkRequest& request)
{
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::AuthenticationReuseAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
}

PreparedRequest prepare(const QByteArray& method, const QUrl& url,
                        std::chrono::milliseconds inactivityTimeout)
{
    PreparedRequest prepared;
    prepared.method = method;
    prepared.request.setUrl(url);
    prepared.request.setRawHeader("User-Agent", userAgent);
    applyEphemeralPolicy(prepared.request);
    prepared.inactivityTimeout = inactivityTimeout;
    return prepared;
}

QNetworkAccessManager* createEphemeralManager(QObject* parent)
{
    auto* manager = new QNetworkAccessManager(parent);
    manager->setCookieJar(new NoCookieJar(manager));
    manager->setProxyFactory(new SystemProxyFactory);
    manager->setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
    manager->setStrictTransportSecurityEnabled(false);
    // No cache is installed and no authentication handler is connected: a server or proxy that asks
    // for credentials gets none, and the request fails with that status.
    return manager;
}

QNetworkReply* send(QNetworkAccessManager& manager, const PreparedRequest& request)
{
    QNetworkRequest copy = request.request;
    applyEphemeralPolicy(copy);
    if (request.method == "GET") {
        return manager.get(copy);
    }
    return manager.sendCustomRequest(copy, request.method, request.body);
}

std::optional<int> httpStatus(const QNetworkReply& reply)
{
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid()) {
        return std::nullopt;
    }
    return status.toInt();
}

bool isTransportFailure(QNetworkReply::NetworkError code, std::optional<int> status)
{
    if (code == QNetworkReply::NoError) {
        return false;
    }
    if (!status) {
        return true;
    }
    switch (code) {
    // Qt's names for HTTP error statuses: the status itself is judged instead.
    case QNetworkReply::ContentAccessDenied:
    case QNetworkReply::ContentOperationNotPermittedError:
    case QNetworkReply::ContentNotFoundError:
    case QNetworkReply::AuthenticationRequiredError:
    case QNetworkReply::ContentReSendError:
    case QNetworkReply::ContentConflictError:
    case QNetworkReply::ContentGoneError:
    case QNetworkReply::UnknownContentError:
    case QNetworkReply::ProtocolInvalidOperationError:
    case QNetworkReply::InternalServerError:
    case QNetworkReply::OperationNotImplementedError:
    case QNetworkReply::ServiceUnavailableError:
    case QNetworkReply::UnknownServerError:
        return false;
    default:
        return true;
    }
}

NetworkError transportFailure(const QNetworkReply& reply, const QList<QSslError>& sslErrors)
{
    NetworkError error{reply.error(), reply.errorString()};
    if (error.code == QNetworkReply::SslHandshakeFailedError && !sslErrors.isEmpty()) {
        QStringList problems;
        for (const QSslError& problem : sslErrors) {
            if (!problems.contains(problem.errorString())) {
                problems.append(problem.errorString());
            }
        }
        error.systemMessage = problems.join(QStringLiteral("；"));
        error.certificateRejected = true;
    }
    switch (error.code) {
    // What a request meets without a network; a refusal or a TLS failure proves there is one.
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::UnknownNetworkError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::TimeoutError: {
        QHostAddress address;
        const QString host = reply.url().host();
        const bool loopback = host.compare(QStringLiteral("localhost"), Qt::CaseInsensitive) == 0 ||
                              (address.setAddress(host) && address.isLoopback());
        error.offline = !loopback && !networkReachable();
        break;
    }
    default:
        break;
    }
    return error;
}

bool networkReachable()
{
    if (!QNetworkInformation::instance()) {
        QNetworkInformation::load(QNetworkInformation::Feature::Reachability);
    }
    if (const QNetworkInformation* information = QNetworkInformation::instance();
        information && information->reachability() != QNetworkInformation::Reachability::Unknown) {
        return information->reachability() != QNetworkInformation::Reachability::Disconnected;
    }
    // No backend could tell: any interface that is up with an address outside loopback counts.
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    return std::any_of(interfaces.begin(), interfaces.end(), [](const QNetworkInterface& interface) {
        const auto flags = interface.flags();
        return flags.testFlag(QNetworkInterface::IsUp) && flags.testFlag(QNetworkInterface::IsRunning) &&
               !flags.testFlag(QNetworkInterface::IsLoopBack) && !interface.addressEntries().isEmpty();
    });
}

std::optional<NetworkError> truncatedBody(const QNetworkReply& reply, qint64 receivedBytes)
{
    const QVariant announced = reply.header(QNetworkRequest::ContentLengthHeader);
    if (!announced.isValid()) {
        return std::nullopt;
    }
    const QByteArray encoding = reply.rawHeader("Content-Encoding").trimmed().toLower();
    if (!encoding.isEmpty() && encoding != "identity") {
        return std::nullopt;
    }
    if (receivedBytes >= announced.toLongLong()) {
        return std::nullopt;
    }
    return NetworkError{QNetworkReply::RemoteHostClosedError,
                        QStringLiteral("连接在响应结束前被关闭（收到 %1 / %2 字节）")
                            .arg(receivedBytes)
                            .arg(announced.toLongLong())};
}

NetworkError inactivityTimeout(std::chrono::milliseconds timeout)
{
    const auto seconds = std::chrono::duration<double>(timeout).count();
    return NetworkError{QNetworkReply::TimeoutError,
                        QStringLiteral("%1 秒内没有收到任何数据").arg(seconds, 0, 'g', 3)};
}

LLMClientError bodyTooLarge(qsizetype limit)
{
    return LLMClientError::api(QStringLiteral("模型服务返回的内容超过 %1 MiB，已停止接收。")
                                   .arg(limit / (1024.0 * 1024.0), 0, 'g', 3));
}

QString reasonPhrase(int status)
{
    switch (status) {
    case 300:
        return QStringLiteral("多种选择");
    case 301:
        return QStringLiteral("永久移动");
    case 302:
        return QStringLiteral("已找到");
    case 303:
        return QStringLiteral("参见其他位置");
    case 304:
        return QStringLiteral("未修改");
    case 307:
        return QStringLiteral("临时重定向");
    case 308:
        return QStringLiteral("永久重定向");
    case 400:
        return QStringLiteral("错误的请求");
    case 401:
        return QStringLiteral("未授权");
    case 402:
        return QStringLiteral("需要付款");
    case 403:
        return QStringLiteral("禁止访问");
    case 404:
        return QStringLiteral("找不到");
    case 405:
        return QStringLiteral("方法不允许");
    case 406:
        return QStringLiteral("不可接受");
    case 407:
        return QStringLiteral("需要代理身份验证");
    case 408:
        return QStringLiteral("请求超时");
    case 409:
        return QStringLiteral("冲突");
    case 410:
        return QStringLiteral("已不存在");
    case 411:
        return QStringLiteral("需要内容长度");
    case 413:
        return QStringLiteral("请求内容太大");
    case 414:
        return QStringLiteral("请求地址太长");
    case 415:
        return QStringLiteral("不受支持的媒体类型");
    case 422:
        return QStringLiteral("无法处理的内容");
    case 429:
        return QStringLiteral("请求过多");
    case 500:
        return QStringLiteral("服务器内部错误");
    case 501:
        return QStringLiteral("尚未实现");
    case 502:
        return QStringLiteral("错误的网关");
    case 503:
        return QStringLiteral("服务不可用");
    case 504:
        return QStringLiteral("网关超时");
    case 505:
        return QStringLiteral("HTTP 版本不受支持");
    default:
        break;
    }
    if (status >= 500 && status < 600) {
        return QStringLiteral("服务器错误");
    }
    if (status >= 400 && status < 500) {
        return QStringLiteral("客户端错误");
    }
    if (status >= 300 && status < 400) {
        return QStringLiteral("重定向");
    }
    if (status >= 200 && status < 300) {
        return QStringLiteral("成功");
    }
    return QStringLiteral("未知状态");
}

} // namespace velnora::NetworkSupport
