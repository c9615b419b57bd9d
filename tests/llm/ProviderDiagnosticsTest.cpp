#include "llm/ProviderDiagnostics.h"

#include <gtest/gtest.h>

using namespace velnora;

namespace {

const QString modelSentence = "模型名称不被这家服务识别，请检查拼写或换一个模型。";
const QString balanceSentence = "这个账号的余额或额度已用尽，请充值后重试（API Key 本身没问题）。";

ProviderDiagnosis http(int status, const QString& message)
{
    return ProviderDiagnostics::diagnose(LLMClientError::http(status, message));
}

struct ServerCase
{
    const char* service;
    int status;
    const char* message;
    const char* summary;
    std::optional<ProviderField> field;
};

} // namespace

// Messages these services really send, and what the user should be told.
TEST(ProviderDiagnostics, RealServerMessages)
{
    const std::vector<ServerCase> cases{
        {"deepseek", 402, "Insufficient Balance", nullptr, std::nullopt},
        {"kimi", 429,
         "Your account org-xxx<ak-xxx> is suspended due to insufficient balance, please recharge your account or "
         "check your plan and billing details",
         nullptr, std::nullopt},
        {"glm", 429, "余额不足或无可用资源包,请充值。", nullptr, std::nullopt},
        {"qwen", 400, "Access denied, please make sure your account is in good standing.",
         "请求被拒绝（HTTP 400）。", std::nullopt},
        {"qwen", 400, "Arrearage", "请求被拒绝（HTTP 400）。", std::nullopt},
        {"doubao", 404, "The model or endpoint doubao-typo-xyz does not exist or you do not have access to it.",
         nullptr, ProviderField::model},
        {"ernie", 401, "invalid_iam_token", "API Key 无效或已失效，请重新填写。", ProviderField::apiKey},
        {"deepseek", 400,
         "The supported API model names are deepseek-v4-pro, deepseek-v4-flash, and deepseek-v4-flash-vision-exp, "
         "but you passed deepseek-v4-typo.",
         nullptr, ProviderField::model},
        {"deepseek", 401, "Authentication Fails, Your api key: ****test is invalid",
         "API Key 无效或已失效，请重新填写。", ProviderField::apiKey},
        {"openai-compatible", 429, "You exceeded your current quota, please check your plan and billing details.",
         nullptr, std::nullopt},
        {"any", 429, "rate limit reached", "请求过于频繁或余额/额度已用尽，稍后再试。", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.service) + ": " + c.message);
        const ProviderDiagnosis diagnosis = http(c.status, QString::fromUtf8(c.message));
        const bool isModel = c.field == ProviderField::model && !c.summary;
        const QString expected = c.summary ? QString::fromUtf8(c.summary) : (isModel ? modelSentence : balanceSentence);
        EXPECT_EQ(diagnosis.summary, expected);
        EXPECT_EQ(diagnosis.field, c.field);
        EXPECT_EQ(diagnosis.serverDetail, QString::fromUtf8(c.message)) << "the server's words are kept verbatim";
    }
}

TEST(ProviderDiagnostics, TextIsJudgedBeforeTheStatus)
{
    // A balance message under any status, and a model complaint even when it also mentions balance.
    EXPECT_EQ(http(403, "insufficient_quota").summary, balanceSentence);
    EXPECT_EQ(http(400, "模型不存在，余额不足").field, ProviderField::model);
    // 403 blames the key only when the text talks about keys.
    EXPECT_EQ(http(403, "Unauthorized: API key lacks permission").field, ProviderField::apiKey);
    EXPECT_EQ(http(403, "region not allowed").field, ProviderField::model);
    // A 404 without a recognisable text points at the address.
    const ProviderDiagnosis empty404 = http(404, "");
    EXPECT_EQ(empty404.field, ProviderField::baseURL);
    EXPECT_EQ(empty404.message(), "接口地址不存在，请检查 Base URL 是否少写或多写了版本路径。（设置 → Base URL）");
    EXPECT_EQ(http(418, "teapot").summary, "请求被拒绝（HTTP 418）。");
    EXPECT_EQ(http(503, "overloaded").summary, "服务端暂时故障（HTTP 503），稍后重试。");
    EXPECT_FALSE(http(503, "overloaded").allowsFallback());
}

TEST(ProviderDiagnostics, ErrorEventsInsideAStreamSpeakForThemselves)
{
    const ProviderDiagnosis plain = ProviderDiagnostics::diagnose(LLMClientError::api("Content filtered"));
    EXPECT_EQ(plain.summary, "Content filtered");
    EXPECT_EQ(plain.field, std::nullopt);
    EXPECT_EQ(plain.serverDetail, std::nullopt);
    EXPECT_EQ(plain.message(), "Content filtered");
    EXPECT_EQ(ProviderDiagnostics::diagnose(LLMClientError::api("Model not found: glm-x")).field, ProviderField::model);
}

TEST(ProviderDiagnostics, ClientConfigurationAndKeychainFailures)
{
    EXPECT_EQ(ProviderDiagnostics::diagnose(LLMClientError::cancelled()),
              (ProviderDiagnosis{"已停止生成。", std::nullopt, std::nullopt}));
    EXPECT_EQ(ProviderDiagnostics::diagnose(LLMClientError::emptyResponse()).summary, "模型没有返回可显示的文字。");
    EXPECT_EQ(ProviderDiagnostics::diagnose(LLMClientError::invalidRequest()).field, std::nullopt);

    using Kind = ConfigurationError::Kind;
    EXPECT_EQ(ProviderDiagnostics::diagnose(ConfigurationError(Kind::missingAPIKey)),
              (ProviderDiagnosis{"还没有保存所选提供商的 API Key。", ProviderField::apiKey, std::nullopt}));
    EXPECT_EQ(ProviderDiagnostics::diagnose(ConfigurationError(Kind::missingModel)).field, ProviderField::model);
    EXPECT_EQ(ProviderDiagnostics::diagnose(ConfigurationError(Kind::invalidBaseURL)).summary,
              "API 地址无效，必须是完整的 https 地址。");
    const ProviderDiagnosis edition = ProviderDiagnostics::diagnose(ConfigurationError(Kind::editionRestricted));
    EXPECT_EQ(edition.summary, ConfigurationError(Kind::editionRestricted).description());
    EXPECT_EQ(edition.field, ProviderField::baseURL);

    const ProviderDiagnosis keychain = ProviderDiagnostics::diagnose(KeychainError(KeychainError::collectionLocked));
    EXPECT_EQ(keychain.field, ProviderField::apiKey);
    EXPECT_EQ(keychain.summary,
              "API Key 钥匙串访问失败，请解锁钥匙串并允许澜镜访问，或在设置中修复钥匙串授权。\n无法访问系统钥匙串：" +
                  KeychainError::messageForStatus(KeychainError::collectionLocked));
    EXPECT_TRUE(keychain.allowsFallback());
}

TEST(ProviderDiagnostics, NetworkFailuresByQtErrorCode)
{
    const auto network = [](QNetworkReply::NetworkError code) {
        return ProviderDiagnostics::diagnose(NetworkError{code, "system words"});
    };
    for (auto code : {QNetworkReply::TimeoutError, QNetworkReply::RemoteHostClosedError,
                      QNetworkReply::TemporaryNetworkFailureError, QNetworkReply::NetworkSessionFailedError}) {
        EXPECT_EQ(network(code), (ProviderDiagnosis{"网络不可用或超时，稍后重试。", std::nullopt, "system words"}));
    }
    EXPECT_EQ(network(QNetworkReply::HostNotFoundError).summary, "找不到这个域名，请检查 Base URL 是否拼错。");
    EXPECT_EQ(network(QNetworkReply::HostNotFoundError).field, ProviderField::baseURL);
    EXPECT_EQ(network(QNetworkReply::ConnectionRefusedError).summary, "连不上这个地址，请检查 Base URL 或网络。");
    EXPECT_EQ(network(QNetworkReply::SslHandshakeFailedError).field, ProviderField::baseURL);

    const ProviderDiagnosis other = network(QNetworkReply::ProtocolFailure);
    EXPECT_EQ(other.summary, "网络请求失败（system words）。");
    EXPECT_EQ(other.field, std::nullopt);
    EXPECT_EQ(other.serverDetail, std::nullopt);
}

TEST(ProviderDiagnostics, MessageShowsFieldAndDistinctDetailOnce)
{
    EXPECT_EQ((ProviderDiagnosis{"概要", ProviderField::model, "原文"}).message(),
              "概要（设置 → 模型）\n\n服务端原文：原文");
    EXPECT_EQ((ProviderDiagnosis{"同一句", std::nullopt, "同一句"}).message(), "同一句");
    EXPECT_EQ((ProviderDiagnosis{"概要", std::nullopt, ""}).message(), "概要");
}
