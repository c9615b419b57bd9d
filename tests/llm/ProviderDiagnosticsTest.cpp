#include "llm/ProviderDiagnostics.h"

#include <gtest/gtest.h>

using namespace velnora;
using ProviderDiagnostics::diagnose;

namespace {

const QString modelSentence = "模型名称不被这家服务识别，请检查拼写或换一个模型。";
const QString balanceSentence = "这个账号的余额或额度已用尽，请充值后重试（API Key 本身没问题）。";
const QString keySentence = "API Key 无效或已失效，请重新填写。";
const QString permissionSentence = "这个 Key 没有权限调用该模型，可能是地域或套餐限制。";

} // namespace

// Messages these services really send (the text decides before the status), and what the user is told.
TEST(ProviderDiagnostics, ServerMessages)
{
    const QList<std::tuple<int, const char*, QString, std::optional<ProviderField>>> cases{
        {402, "Insufficient Balance", balanceSentence, std::nullopt},
        {429,
         "Your account org-xxx<ak-xxx> is suspended due to insufficient balance, please recharge your "
         "account "
         "or check your plan and billing details",
         balanceSentence, std::nullopt},
        {429, "余额不足或无可用资源包,请充值。", balanceSentence, std::nullopt},
        {400, "Arrearage", "请求被拒绝（HTTP 400）。", std::nullopt},
        {404, "The model or endpoint doubao-typo-xyz does not exist or you do not have access to it.",
         modelSentence, ProviderField::model},
        {401, "invalid_iam_token", keySentence, ProviderField::apiKey},
        {400,
         "The supported API model names are deepseek-v4-pro, deepseek-v4-flash, and "
         "deepseek-v4-flash-vision-exp, "
         "but you passed deepseek-v4-typo.",
         modelSentence, ProviderField::model},
        {429, "rate limit reached", "请求过于频繁或余额/额度已用尽，稍后再试。", std::nullopt},
        {400, "模型不存在，余额不足", modelSentence, ProviderField::model},
        {403, "Unauthorized: API key lacks permission", permissionSentence, ProviderField::apiKey},
        {403, "region not allowed", permissionSentence, ProviderField::model},
        {404, "", "接口地址不存在，请检查 Base URL 是否少写或多写了版本路径。", ProviderField::baseURL},
    };
    for (const auto& [status, message, summary, field] : cases) {
        SCOPED_TRACE(std::to_string(status) + " " + message);
        const ProviderDiagnosis diagnosis =
            diagnose(LLMClientError::http(status, QString::fromUtf8(message)));
        EXPECT_EQ(diagnosis.summary, summary);
        EXPECT_EQ(diagnosis.field, field);
        EXPECT_EQ(diagnosis.serverDetail, QString::fromUtf8(message))
            << "the server's words are kept verbatim";
    }
    // An error event inside a stream speaks for itself.
    EXPECT_EQ(diagnose(LLMClientError::api("Content filtered")),
              (ProviderDiagnosis{"Content filtered", std::nullopt, std::nullopt}));
}

TEST(ProviderDiagnostics, NetworkConfigurationAndKeychainFailures)
{
    const QList<std::pair<ProviderFailure, ProviderDiagnosis>> cases{
        {NetworkError{QNetworkReply::TimeoutError, "words"},
         {"网络不可用或超时，稍后重试。", std::nullopt, "words"}},
        {NetworkError{QNetworkReply::HostNotFoundError, "words"},
         {"找不到这个域名，请检查 Base URL 是否拼错。", ProviderField::baseURL, "words"}},
        {NetworkError{QNetworkReply::ConnectionRefusedError, "words"},
         {"连不上这个地址，请检查 Base URL 或网络。", ProviderField::baseURL, "words"}},
        {NetworkError{QNetworkReply::ProtocolFailure, "words"},
         {"网络请求失败（words）。", std::nullopt, std::nullopt}},
        {ConfigurationError(ConfigurationError::Kind::missingAPIKey),
         {"还没有保存所选提供商的 API Key。", ProviderField::apiKey, std::nullopt}},
        {KeychainError(KeychainError::collectionLocked),
         {"API Key "
          "钥匙串访问失败，请解锁钥匙串并允许澜镜访问，或在设置中修复钥匙串授权。\n无法访问系统钥匙串：" +
              KeychainError::messageForStatus(KeychainError::collectionLocked),
          ProviderField::apiKey, std::nullopt}},
    };
    for (const auto& [failure, expected] : cases) {
        EXPECT_EQ(diagnose(failure), expected) << expected.summary.toStdString();
    }
}

TEST(ProviderDiagnostics, MessageShowsFieldAndDistinctDetailOnce)
{
    EXPECT_EQ((ProviderDiagnosis{"概要", ProviderField::model, "原文"}).message(),
              "概要（设置 → 模型）\n\n服务端原文：原文");
    EXPECT_EQ((ProviderDiagnosis{"同一句", std::nullopt, "同一句"}).message(), "同一句");
}
