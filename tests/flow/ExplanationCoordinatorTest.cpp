// The coordinator against a real client and a loopback server; only the card is a recording fake.
#include "flow/ExplanationCoordinator.h"

#include "flow/FlowTestSupport.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

using namespace velnora;
using test::chatStream;
using test::ScriptedResponse;

namespace {

class RecordingCard : public ExplanationCard
{
public:
    Callbacks callbacks;
    QStringList events;
    QString text;
    std::optional<ProviderDiagnosis> error;

    void setCallbacks(Callbacks value) override { callbacks = std::move(value); }
    void present(const ProviderDefinition&, ExplanationDepth, const std::optional<QRect>&) override
    {
        events << "present";
    }
    void continueSession(const ProviderDefinition&, ExplanationDepth, const std::optional<QRect>&) override
    {
        events << "continue";
    }
    void beginResponse(bool isFollowUp) override { events << (isFollowUp ? "begin:followUp" : "begin"); }
    void appendText(const QString& piece) override { text += piece; }
    void finish() override { events << "finish"; }
    void showError(const ProviderDiagnosis& diagnosis) override
    {
        events << "error";
        error = diagnosis;
    }
    void showStopped() override { events << "stopped"; }
    void setStatus(const QString&, CardStatusTone) override {}
    void showFallback(const ProviderDefinition&, ExplanationDepth, ProviderField,
                      const QString& notice) override
    {
        events << "fallback";
        text = notice;
    }
};

class ExplanationCoordinatorTest : public testing::Test
{
protected:
    test::TemporaryHome home;
    ConfigurationStore configuration{home.filePath("settings.conf")};
    KeychainStore keychain{"coordinator.test"};
    LLMClient client{[](const ResolvedProviderConfiguration&) {}};
    test::LoopbackHttpServer server;
    RecordingCard card;
    ExplanationCoordinator coordinator{configuration, keychain, client, card};

    void SetUp() override
    {
        keychain.copyItem = [](const KeychainQuery&, QByteArray* secret) -> int32_t {
            if (secret) {
                *secret = "sk-deepseek";
            }
            return 0;
        };
        configuration.setApiProviderID("deepseek");
        // The service is reached on loopback; everything else about the configuration stays as resolved.
        coordinator.resolution().session = [this, resolve = coordinator.defaultResolution().session] {
            ResolvedProviderConfiguration resolved = resolve();
            resolved.baseURL = server.url().toString();
            return resolved;
        };
    }

    void explain(const QString& text) { coordinator.explain(SelectionResult{text, std::nullopt}); }
    bool waitForIdle()
    {
        return test::waitUntil([&] { return !coordinator.isGenerating(); }, 10000);
    }
    KnownGoodProvider known(const QString& model) const
    {
        return {"deepseek", server.url().toString(), model};
    }
};

} // namespace

TEST_F(ExplanationCoordinatorTest, AnswerBecomesKnownGoodAndFollowUpsCarryTheHistory)
{
    configuration.setExplanationDepth(ExplanationDepth::fast);
    server.enqueue(ScriptedResponse::stream(chatStream({"**边际", "成本**", "是……"}), 7));
    server.enqueue(ScriptedResponse::stream(chatStream({"第二段"})));
    server.enqueue(ScriptedResponse::stream(chatStream({"第三段"})));
    explain("  marginal cost \n");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(card.text, "**边际成本**是……");
    EXPECT_EQ(configuration.lastKnownGoodProvider(), known("deepseek-v4-flash"));

    explain("第二处材料");
    ASSERT_TRUE(waitForIdle());
    card.callbacks.onFollowUp("再简单点？");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(card.events, (QStringList{"present", "begin", "finish", "continue", "begin:followUp", "finish",
                                        "begin:followUp", "finish"}));
    const QStringList sent = test::sentMessages(server.requests().at(2).body);
    EXPECT_EQ(sent.mid(1, 2), (QStringList{"user:" + depthInstruction(ExplanationDepth::fast) +
                                               "\n\n<待解释材料>\nmarginal cost\n</待解释材料>",
                                           "assistant:**边际成本**是……"}));
    EXPECT_EQ(sent.mid(4), (QStringList{"assistant:第二段", "user:再简单点？"}));
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
    const KnownGoodProvider record = known("deepseek-v4-pro");
    configuration.setLastKnownGoodProvider(record);
    server.enqueue(ScriptedResponse::json(400, R"({"error":{"message":"Model Not Exist"}})"));
    server.enqueue(ScriptedResponse::stream(chatStream({"备用模型的回答"})));
    explain("文字");
    ASSERT_TRUE(waitForIdle());

    EXPECT_EQ(card.events, (QStringList{"present", "begin", "fallback", "begin", "finish"}));
    EXPECT_TRUE(card.text.endsWith("已临时改用上次可用的模型 `deepseek-v4-pro` "
                                   "继续解释。设置本身没有被改动。\n\n---\n\n备用模型的回答"));
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().at(1).body).object().value("model").toString(),
              "deepseek-v4-pro");
    // The fallback's success is not the user's configuration: the record stays, settings stay.
    EXPECT_EQ(configuration.lastKnownGoodProvider(), record);
    EXPECT_EQ(configuration.providerOverride("deepseek"), std::nullopt);

    // A second failure in the same session shows the error instead of falling back again, even to another
    // record.
    configuration.setLastKnownGoodProvider(known("deepseek-v4-lite"));
    server.enqueue(ScriptedResponse::json(401, R"({"error":{"message":"Authentication Fails"}})"));
    card.callbacks.onFollowUp("继续");
    ASSERT_TRUE(waitForIdle());
    ASSERT_TRUE(card.error.has_value());
    EXPECT_EQ(card.error->field, ProviderField::apiKey);
    EXPECT_EQ(server.requestCount(), 3);
}

TEST_F(ExplanationCoordinatorTest, NoFallbackForARateLimitOrToTheModelThatFailed)
{
    // A rate limit is not the user's configuration; a record equal to what failed is never retried.
    const std::tuple<int, const char*, const char*> cases[]{
        {429, R"({"error":{"message":"rate limit reached"}})", "deepseek-v4-pro"},
        {404, R"({"error":{"message":"model not found"}})", "deepseek-v4-flash"}};
    for (int i = 0; i < 2; ++i) {
        const auto& [status, body, model] = cases[i];
        coordinator.reset();
        configuration.setLastKnownGoodProvider(known(model));
        server.enqueue(ScriptedResponse::json(status, body));
        explain("文字");
        ASSERT_TRUE(waitForIdle());
        EXPECT_EQ(card.events.last(), "error") << status;
        EXPECT_EQ(server.requestCount(), i + 1) << status;
    }
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
    EXPECT_EQ(card.events, (QStringList{"present", "begin", "finish"}));
    EXPECT_EQ(server.requestCount(), 1);

    // Stopping before any text adds no message.
    server.closeConnections();
    ScriptedResponse silent = ScriptedResponse::stream("");
    silent.ending = ScriptedResponse::Ending::stall;
    server.enqueue(silent);
    card.callbacks.onFollowUp("还有呢？");
    ASSERT_TRUE(server.waitForRequests(2));
    coordinator.stop();
    EXPECT_EQ(card.events.last(), "stopped") << "no answer is no failure";
    EXPECT_EQ(coordinator.conversation().messages.size(), 3);
    EXPECT_EQ(coordinator.conversation().messages.last().role, ConversationMessage::Role::user);
}
