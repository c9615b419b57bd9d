// The coordinator against a real client and a loopback server; only the card is a recording fake.
#include "flow/ExplanationCoordinator.h"

#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>

#include <gtest/gtest.h>

using namespace velnora;
using test::ScriptedResponse;

namespace {

class RecordingCard : public ExplanationCard
{
public:
    Callbacks callbacks;
    QStringList events;
    QString text;
    std::optional<ProviderDiagnosis> error;
    QString fallbackNotice;

    void setCallbacks(Callbacks value) override { callbacks = std::move(value); }
    void present(const ProviderDefinition& provider, ExplanationDepth, const std::optional<QRect>&) override
    {
        events << "present:" + provider.id;
        text.clear();
    }
    void continueSession(const ProviderDefinition& provider, ExplanationDepth, const std::optional<QRect>&) override
    {
        events << "continue:" + provider.id;
    }
    void beginResponse(bool isFollowUp) override { events << (isFollowUp ? "begin:followUp" : "begin"); }
    void appendText(const QString& piece) override { text += piece; }
    void finish() override { events << "finish"; }
    void showError(const ProviderDiagnosis& diagnosis) override
    {
        events << "error";
        error = diagnosis;
    }
    void setStatus(const QString&, CardStatusTone) override {}
    void showFallback(const ProviderDefinition& provider, ExplanationDepth, ProviderField, const QString& notice) override
    {
        events << "fallback:" + provider.id;
        fallbackNotice = notice;
        text = notice;
    }
};

QByteArray chatStream(const QStringList& pieces)
{
    QByteArray body;
    for (const QString& piece : pieces) {
        const QJsonObject delta{{"content", piece}};
        const QJsonObject event{{"choices", QJsonArray{QJsonObject{{"index", 0}, {"delta", delta}}}}};
        body += "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
    }
    return body + "data: [DONE]\n\n";
}

QJsonArray sentMessages(const test::RecordedRequest& request)
{
    return QJsonDocument::fromJson(request.body).object().value("messages").toArray();
}

class ExplanationCoordinatorTest : public testing::Test
{
protected:
    test::TemporaryHome home;
    ConfigurationStore configuration{home.filePath("settings.conf")};
    KeychainStore keychain{"coordinator.test"};
    QMap<QString, QByteArray> keys;
    LLMClient client{[](const ResolvedProviderConfiguration&) {}};
    test::LoopbackHttpServer server;
    RecordingCard card;
    ExplanationCoordinator coordinator{configuration, keychain, client, card};

    void SetUp() override
    {
        keychain.copyItem = [this](const KeychainQuery& query, QByteArray* secret) -> int32_t {
            if (!keys.contains(query.account)) {
                return KeychainError::itemNotFound;
            }
            if (secret) {
                *secret = keys.value(query.account);
            }
            return 0;
        };
        configuration.setApiProviderID("deepseek");
        keys.insert("deepseek", "sk-deepseek");
        // The service is reached on loopback; everything else about the configuration stays as resolved.
        auto defaults = coordinator.defaultResolution();
        coordinator.resolution().session = [this, resolve = defaults.session] {
            ResolvedProviderConfiguration resolved = resolve();
            resolved.baseURL = server.url().toString();
            return resolved;
        };
    }

    void explain(const QString& text) { coordinator.explain(SelectionResult{text, std::nullopt}); }
    bool waitForIdle() { return test::waitUntil([&] { return !coordinator.isGenerating(); }, 10000); }
    QString loopback() const { return server.url().toString(); }
};

} // namespace

TEST_F(ExplanationCoordinatorTest, AnswerStreamsIntoTheCardAndBecomesKnownGood)
{
    configuration.setExplanationDepth(ExplanationDepth::fast);
    server.enqueue(ScriptedResponse::stream(chatStream({"**边际", "成本**", "是……"}), 7));
    explain("  marginal cost \n");
    ASSERT_TRUE(waitForIdle());

    EXPECT_EQ(card.events, (QStringList{"present:deepseek", "begin", "finish"}));
    EXPECT_EQ(card.text, "**边际成本**是……");
    const QJsonArray messages = sentMessages(server.requests().at(0));
    EXPECT_EQ(messages.last().toObject().value("content").toString(),
              depthInstruction(ExplanationDepth::fast) + "\n\n<待解释材料>\nmarginal cost\n</待解释材料>");
    ASSERT_EQ(coordinator.conversation().messages.size(), 2);
    EXPECT_EQ(coordinator.conversation().messages.at(1), ConversationMessage::assistant("**边际成本**是……"));
    EXPECT_EQ(configuration.lastKnownGoodProvider(), (KnownGoodProvider{"deepseek", loopback(), "deepseek-v4-flash"}));
}

TEST_F(ExplanationCoordinatorTest, FurtherSelectionAndFollowUpContinueTheConversation)
{
    server.enqueue(ScriptedResponse::stream(chatStream({"第一段"})));
    server.enqueue(ScriptedResponse::stream(chatStream({"第二段"})));
    server.enqueue(ScriptedResponse::stream(chatStream({"第三段"})));
    explain("第一处材料");
    ASSERT_TRUE(waitForIdle());
    explain("第二处材料");
    ASSERT_TRUE(waitForIdle());
    card.callbacks.onFollowUp("再简单点？");
    ASSERT_TRUE(waitForIdle());

    EXPECT_EQ(card.events, (QStringList{"present:deepseek", "begin", "finish", "continue:deepseek", "begin:followUp",
                                        "finish", "begin:followUp", "finish"}));
    const QJsonArray third = sentMessages(server.requests().at(2));
    QStringList roles;
    for (const auto& message : third) {
        roles << message.toObject().value("role").toString();
    }
    EXPECT_EQ(roles, (QStringList{"system", "user", "assistant", "user", "assistant", "user"}));
    EXPECT_TRUE(third.at(3).toObject().value("content").toString().contains("<新增待解释材料>\n第二处材料\n</新增待解释材料>"));
    EXPECT_EQ(third.at(5).toObject().value("content").toString(), "再简单点？");
}

TEST_F(ExplanationCoordinatorTest, UnresolvableSessionThrowsAndTouchesNothing)
{
    keys.clear();
    EXPECT_THROW(explain("文字"), ConfigurationError);
    EXPECT_TRUE(card.events.isEmpty());
    EXPECT_FALSE(coordinator.provider().has_value());
    EXPECT_EQ(server.requestCount(), 0);
}

TEST_F(ExplanationCoordinatorTest, BlankAnswerIsAFailureAndIsNotRecorded)
{
    server.enqueue(ScriptedResponse::stream(chatStream({" \n", "  "})));
    explain("文字");
    ASSERT_TRUE(waitForIdle());
    ASSERT_TRUE(card.error.has_value());
    EXPECT_EQ(card.error->summary, "模型没有返回可显示的文字。");
    EXPECT_EQ(configuration.lastKnownGoodProvider(), std::nullopt);
    EXPECT_EQ(coordinator.conversation().messages.size(), 1);
}

TEST_F(ExplanationCoordinatorTest, ConfigurationFaultFallsBackOnceToTheKnownGoodModel)
{
    const KnownGoodProvider record{"deepseek", loopback(), "deepseek-v4-pro"};
    configuration.setLastKnownGoodProvider(record);
    server.enqueue(ScriptedResponse::json(400, R"({"error":{"message":"Model Not Exist"}})"));
    server.enqueue(ScriptedResponse::stream(chatStream({"备用模型的回答"})));
    explain("文字");
    ASSERT_TRUE(waitForIdle());

    EXPECT_EQ(card.events, (QStringList{"present:deepseek", "begin", "fallback:deepseek", "begin", "finish"}));
    EXPECT_TRUE(card.fallbackNotice.startsWith("⚠️ 模型名称不被这家服务识别"));
    EXPECT_TRUE(card.fallbackNotice.endsWith("已临时改用上次可用的模型 `deepseek-v4-pro` 继续解释。设置本身没有被改动。\n\n---\n\n"));
    EXPECT_EQ(card.text, card.fallbackNotice + "备用模型的回答");
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().at(1).body).object().value("model").toString(), "deepseek-v4-pro");
    EXPECT_TRUE(coordinator.didFallBack());
    // The fallback's success is not the user's configuration: the record stays, settings stay.
    EXPECT_EQ(configuration.lastKnownGoodProvider(), record);
    EXPECT_EQ(configuration.providerOverride("deepseek"), std::nullopt);

    // A second failure in the same session shows the error instead of falling back again.
    server.enqueue(ScriptedResponse::json(401, R"({"error":{"message":"Authentication Fails"}})"));
    card.callbacks.onFollowUp("继续");
    ASSERT_TRUE(waitForIdle());
    ASSERT_TRUE(card.error.has_value());
    EXPECT_EQ(card.error->field, ProviderField::apiKey);
    EXPECT_EQ(server.requestCount(), 3);
}

TEST_F(ExplanationCoordinatorTest, NoFallbackWithoutAFieldOrToTheFailingConfiguration)
{
    // A rate limit is not the user's configuration: error card, no second request.
    configuration.setLastKnownGoodProvider(KnownGoodProvider{"deepseek", loopback(), "deepseek-v4-pro"});
    server.enqueue(ScriptedResponse::json(429, R"({"error":{"message":"rate limit reached"}})"));
    explain("文字");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(card.events.last(), "error");
    EXPECT_EQ(server.requestCount(), 1);

    // A record equal to what just failed is never retried.
    coordinator.reset();
    configuration.setLastKnownGoodProvider(KnownGoodProvider{"deepseek", loopback(), "deepseek-v4-flash"});
    server.enqueue(ScriptedResponse::json(404, R"({"error":{"message":"model not found"}})"));
    explain("文字");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(card.events.last(), "error");
    EXPECT_EQ(card.error->field, ProviderField::model);
    EXPECT_EQ(server.requestCount(), 2);

    // A record whose provider has no key cannot be used either.
    coordinator.reset();
    configuration.setLastKnownGoodProvider(KnownGoodProvider{"kimi", loopback(), "kimi-k3"});
    server.enqueue(ScriptedResponse::json(401, R"({"error":{"message":"invalid api key"}})"));
    explain("文字");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(card.events.last(), "error");
    EXPECT_EQ(server.requestCount(), 3);
}

TEST_F(ExplanationCoordinatorTest, StopKeepsPartialTextAndIgnoresTheLateCompletion)
{
    ScriptedResponse stalled = ScriptedResponse::stream(chatStream({"半句话"}));
    stalled.ending = ScriptedResponse::Ending::stall;
    stalled.endAfter = chatStream({"半句话"}).indexOf("\n\n") + 2;
    server.enqueue(stalled);
    explain("文字");
    ASSERT_TRUE(test::waitUntil([&] { return card.text == "半句话"; }));
    card.callbacks.onRetry(); // ignored while generating
    card.callbacks.onStop();
    EXPECT_FALSE(coordinator.isGenerating());
    ASSERT_EQ(coordinator.conversation().messages.size(), 2);
    EXPECT_EQ(coordinator.conversation().messages.at(1).content, "半句话");
    test::waitUntil([] { return false; }, 200); // let the cancellation arrive
    EXPECT_EQ(card.events, (QStringList{"present:deepseek", "begin", "finish"}));
    EXPECT_EQ(server.requestCount(), 1);

    // Stopping before any text adds no message.
    server.closeConnections();
    ScriptedResponse silent = ScriptedResponse::stream("");
    silent.ending = ScriptedResponse::Ending::stall;
    server.enqueue(silent);
    card.callbacks.onFollowUp("还有呢？");
    ASSERT_TRUE(server.waitForRequests(2));
    coordinator.stop();
    EXPECT_EQ(coordinator.conversation().messages.size(), 3);
    EXPECT_EQ(coordinator.conversation().messages.last().role, ConversationMessage::Role::user);
}

TEST_F(ExplanationCoordinatorTest, ClosingTheCardEndsTheSession)
{
    server.enqueue(ScriptedResponse::stream(chatStream({"答"})));
    explain("文字");
    ASSERT_TRUE(waitForIdle());
    card.callbacks.onClose();
    EXPECT_FALSE(coordinator.provider().has_value());
    EXPECT_TRUE(coordinator.conversation().isEmpty());
    card.callbacks.onRetry();
    card.callbacks.onFollowUp("还在吗");
    EXPECT_FALSE(coordinator.isGenerating());
    EXPECT_EQ(server.requestCount(), 1);
}
