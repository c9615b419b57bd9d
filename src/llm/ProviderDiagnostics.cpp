#include "llm/ProviderDiagnostics.h"

#include <initializer_list>

namespace velnora {

namespace {

bool containsAny(const QString& text, std::initializer_list<const char*> needles)
{
    for (const char* needle : needles) {
        if (text.contains(QString::fromUtf8(needle))) {
            return true;
        }
    }
    return false;
}

ProviderDiagnosis modelOutcome(const QString& detail)
{
    return {QStringLiteral("模型名称不被这家服务识别，请检查拼写或换一个模型。"), ProviderField::model,
            detail};
}

ProviderDiagnosis balanceOutcome(const QString& detail)
{
    return {QStringLiteral("这个账号的余额或额度已用尽，请充值后重试（API Key 本身没问题）。"), std::nullopt,
            detail};
}

ProviderDiagnosis diagnoseConfiguration(const ConfigurationError& error)
{
    switch (error.kind()) {
    case ConfigurationError::Kind::editionRestricted:
        return {error.description(), ProviderField::baseURL, std::nullopt};
    case ConfigurationError::Kind::invalidBaseURL:
        return {QStringLiteral("API 地址无效，必须是完整的 https 地址。"), ProviderField::baseURL,
                std::nullopt};
    case ConfigurationError::Kind::missingModel:
        return {QStringLiteral("还没有填写模型名称。"), ProviderField::model, std::nullopt};
    case ConfigurationError::Kind::missingAPIKey:
        return {QStringLiteral("还没有保存所选提供商的 API Key。"), ProviderField::apiKey, std::nullopt};
    }
    return {error.description(), std::nullopt, std::nullopt};
}

ProviderDiagnosis diagnoseNetwork(const NetworkError& error)
{
    if (error.offline) {
        return {QStringLiteral("网络不可用或超时，稍后重试。"), std::nullopt, error.systemMessage};
    }
    if (error.certificateRejected) {
        return {QStringLiteral(
                    "服务器的安全证书没有通过验证，连接已中止。可能是网络中的代理或安全软件在拦截加密连接，"
                    "也可能是电脑的日期和时间不对。"),
                std::nullopt, error.systemMessage};
    }
    switch (error.code) {
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::TimeoutError:
    case QNetworkReply::ProxyTimeoutError:
        return {QStringLiteral("网络不可用或超时，稍后重试。"), std::nullopt, error.systemMessage};
    case QNetworkReply::HostNotFoundError:
        return {QStringLiteral("找不到这个域名，请检查 Base URL 是否拼错。"), ProviderField::baseURL,
                error.systemMessage};
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::SslHandshakeFailedError:
        return {QStringLiteral("连不上这个地址，请检查 Base URL 或网络。"), ProviderField::baseURL,
                error.systemMessage};
    default:
        return {error.description(), std::nullopt, std::nullopt};
    }
}

ProviderDiagnosis diagnoseClient(const LLMClientError& error)
{
    switch (error.kind()) {
    case LLMClientError::Kind::api:
        return ProviderDiagnostics::diagnose(std::nullopt, error.message());
    case LLMClientError::Kind::http:
        return ProviderDiagnostics::diagnose(error.status(), error.message());
    case LLMClientError::Kind::invalidAPIKey:
        return {error.message(), ProviderField::apiKey, std::nullopt};
    default:
        return {error.description(), std::nullopt, std::nullopt};
    }
}

} // namespace

QString describe(const ProviderFailure& failure)
{
    return std::visit([](const auto& error) { return error.description(); }, failure);
}

QString displayName(ProviderField field)
{
    switch (field) {
    case ProviderField::apiKey:
        return QStringLiteral("API Key");
    case ProviderField::model:
        return QStringLiteral("模型");
    case ProviderField::baseURL:
        return QStringLiteral("Base URL");
    }
    return {};
}

QString ProviderDiagnosis::message() const
{
    QString text = summary;
    if (field) {
        text += QStringLiteral("（设置 → ") + displayName(*field) + QStringLiteral("）");
    }
    if (serverDetail && !serverDetail->isEmpty() && *serverDetail != summary) {
        text += QStringLiteral("\n\n服务端原文：") + *serverDetail;
    }
    return text;
}

ProviderDiagnosis ProviderDiagnostics::diagnose(const ProviderFailure& failure)
{
    if (const auto* keychain = std::get_if<KeychainError>(&failure)) {
        return {QStringLiteral(
                    "API Key 钥匙串访问失败，请解锁钥匙串并允许澜镜访问，或在设置中修复钥匙串授权。\n") +
                    keychain->description(),
                ProviderField::apiKey, std::nullopt};
    }
    if (const auto* configuration = std::get_if<ConfigurationError>(&failure)) {
        return diagnoseConfiguration(*configuration);
    }
    if (const auto* client = std::get_if<LLMClientError>(&failure)) {
        return diagnoseClient(*client);
    }
    return diagnoseNetwork(std::get<NetworkError>(failure));
}

ProviderDiagnosis ProviderDiagnostics::diagnose(std::optional<int> status, const QString& message)
{
    const QString text = message.toLower();
    const bool modelSubject = containsAny(text, {"model", "endpoint", "模型"});
    const bool modelComplaint =
        modelSubject && containsAny(text, {"not exist", "not found", "does not exist", "no access",
                                           "not have access", "supported", "unsupported", "invalid",
                                           "unknown", "you passed", "不存在", "不支持", "无效", "未找到"});
    const bool keyWording = containsAny(text, {"invalid api key", "incorrect api key", "authentication",
                                               "unauthorized", "invalid_api_key", "api key"});
    const bool balanceWording =
        containsAny(text, {"insufficient balance", "insufficient_quota", "insufficient quota",
                           "exceeded your current quota", "quota exceeded", "arrears", "余额不足", "额度不足",
                           "余额已用尽", "欠费"});

    if (balanceWording) {
        return modelComplaint ? modelOutcome(message) : balanceOutcome(message);
    }
    if (modelComplaint) {
        return modelOutcome(message);
    }
    if (!status) {
        return {message, std::nullopt, std::nullopt};
    }
    const int code = *status;
    switch (code) {
    case 402:
        return balanceOutcome(message);
    case 401:
        return {QStringLiteral("API Key 无效或已失效，请重新填写。"), ProviderField::apiKey, message};
    case 403:
        return {QStringLiteral("这个 Key 没有权限调用该模型，可能是地域或套餐限制。"),
                keyWording ? ProviderField::apiKey : ProviderField::model, message};
    case 404:
        return {QStringLiteral("接口地址不存在，请检查 Base URL 是否少写或多写了版本路径。"),
                ProviderField::baseURL, message};
    case 429:
        return {QStringLiteral("请求过于频繁或余额/额度已用尽，稍后再试。"), std::nullopt, message};
    default:
        break;
    }
    if (code < 500) {
        return {QStringLiteral("请求被拒绝（HTTP %1）。").arg(code), std::nullopt, message};
    }
    return {QStringLiteral("服务端暂时故障（HTTP %1），稍后重试。").arg(code), std::nullopt, message};
}

} // namespace velnora
