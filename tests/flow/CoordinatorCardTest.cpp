// The coordinator driving the real card, with keys in the session's real Secret Service, against a real
// client and a loopback server: what the user sees when an answer fails, is retried, stopped or replaced.
#include "flow/ExplanationCoordinator.h"
#include "flow/FlowTestSupport.h"
#include "overlay/CardProbe.h"
#include "overlay/FollowUpField.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestEnvironment.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

using namespace velnora;
using test::chatStream;
using test::ScriptedResponse;

namespace {

ScriptedResponse silentStream()
{
    ScriptedResponse silent = ScriptedResponse::stream("");
    silent.ending = ScriptedResponse::Ending::stall;
    return silent;
}

class CoordinatorCardTest : public testing::Test
{
protected:
    test::TemporaryHome home;
    ConfigurationStore configuration{home.filePath("settings.conf")};
    KeychainStore keychain{test::uniqueKeychainService()};
    LLMClient client{[](const ResolvedProviderConfiguration&) {}};
    test::LoopbackHttpServer server;
    OverlayPanelController card{std::make_unique<test::FakeClickSource>()};
    ExplanationCoordinator coordinator{configuration, keychain, client, card};

    void SetUp() override
    {
        saveKey("sk-first");
        configuration.setApiProviderID("deepseek");
        coordinator.resolution().session = [this, resolve = coordinator.defaultResolution().session] {
            ResolvedProviderConfiguration resolved = resolve();
            resolved.baseURL = server.url().toString();
            return resolved;
        };
    }
    void TearDown() override
    {
        server.closeConnections();
        saveKey("");
    }

    // As the settings window saves a key: through the store the coordinator reads from.
    void saveKey(const QString& key) { keychain.saveAPIKey(key, "deepseek"); }
    void explain(const QString& text) { coordinator.explain(SelectionResult{text, std::nullopt}); }
    bool waitForIdle()
    {
        return test::waitUntil([&] { return !coordinator.isGenerating(); }, 10000);
    }
    QString state() const { return test::offeredState(card); }
    QString shownText() const { return card.outputTextView()->toPlainText(); }
    KnownGoodProvider known(const QString& model) const
    {
        return {"deepseek", server.url().toString(), model};
    }
    QString sentModel(int request) const
    {
        return QJsonDocument::fromJson(server.requests().at(request).body).object().value("model").toString();
    }
    QByteArray sentKey(int request) const
    {
        return server.requests().value(request).header("Authorization").value_or(QByteArray());
    }
};

} // namespace

TEST_F(CoordinatorCardTest, RetryReplacesTheErrorAndRetryAndFollowUpSendTheKeySavedSinceTheSessionBegan)
{
    server.enqueue(ScriptedResponse::json(401, R"({"error":{"message":"Authentication Fails"}})"));
    explain("文字");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(state(), "需要修改设置 重试 去设置 追问");

    saveKey("sk-fixed"); // "去设置", a new key saved
    server.enqueue(ScriptedResponse::stream(chatStream({"新 Key 的回答"})));
    card.retryButton()->click();
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(sentKey(0), "Bearer sk-first");
    EXPECT_EQ(sentKey(1), "Bearer sk-fixed");
    // The conversation stays what it was.
    EXPECT_EQ(test::sentMessages(server.requests().at(1).body),
              test::sentMessages(server.requests().at(0).body));
    EXPECT_EQ(shownText(), "新 Key 的回答");
    EXPECT_EQ(state(), "已完成 追问");
    EXPECT_EQ(card.statusTone(), CardStatusTone::success);

    saveKey("sk-second");
    server.enqueue(ScriptedResponse::stream(chatStream({"追问的回答"})));
    card.followUpField()->setText("再说说");
    card.sendButton()->click();
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(sentKey(2), "Bearer sk-second");
    EXPECT_EQ(test::sentMessages(server.requests().at(2).body).mid(2),
              (QStringList{"assistant:新 Key 的回答", "user:再说说"}));

    // A key removed in the meantime is reported in the card, and nothing is sent.
    saveKey("");
    card.followUpField()->setText("还有吗");
    card.sendButton()->click();
    EXPECT_EQ(state(), "需要修改设置 重试 去设置 追问");
    EXPECT_TRUE(shownText().contains("还没有保存所选提供商的 API Key。")) << shownText().toStdString();
    EXPECT_EQ(server.requestCount(), 3);
}

TEST_F(CoordinatorCardTest, StopKeepsWhatArrivedAndALateCompletionChangesNothing)
{
    server.enqueue(silentStream());
    explain("文字");
    ASSERT_TRUE(server.waitForRequests(1));
    EXPECT_EQ(state(), "正在连接 停止") << "nothing has arrived yet";
    card.stopButton()->click();
    EXPECT_EQ(state(), "已停止 重试 追问") << "no answer is no failure";
    EXPECT_EQ(shownText(), "");
    test::waitUntil([] { return false; }, 200); // the cancellation arrives and changes nothing
    EXPECT_EQ(state(), "已停止 重试 追问");
    EXPECT_EQ(coordinator.conversation().messages.size(), 1);

    ScriptedResponse half = ScriptedResponse::stream(chatStream({"半句话", "后半句"}));
    half.ending = ScriptedResponse::Ending::stall;
    half.endAfter = chatStream({"半句话"}).indexOf("\n\n") + 2;
    server.enqueue(half);
    card.retryButton()->click();
    ASSERT_TRUE(test::waitUntil([&] { return card.sourceMarkdown() == "半句话"; }));
    EXPECT_EQ(state(), "生成中 停止");
    card.retryButton()->click(); // not while an answer streams
    card.stopButton()->click();
    test::waitUntil([] { return false; }, 200);
    EXPECT_EQ(state(), "已完成 追问");
    EXPECT_EQ(shownText(), "半句话");
    EXPECT_EQ(server.requestCount(), 2);
    ASSERT_EQ(coordinator.conversation().messages.size(), 2);
    EXPECT_EQ(coordinator.conversation().messages.at(1).content, "半句话");
}

TEST_F(CoordinatorCardTest, AFurtherSelectionJoinsTheAnswerWhichBecomesKnownGoodAndFollowUpsCarryIt)
{
    configuration.setExplanationDepth(ExplanationDepth::fast);
    server.enqueue(silentStream());
    explain("  第一处\n");
    ASSERT_TRUE(server.waitForRequests(1));
    // Before the first piece: continued without a false error.
    server.enqueue(ScriptedResponse::stream(chatStream({"**两处", "一起**的解释"}), 7));
    explain(" 第二处\n");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(shownText(), "两处一起的解释");
    EXPECT_EQ(state(), "已完成 追问");
    EXPECT_EQ(configuration.lastKnownGoodProvider(), known("deepseek-v4-flash"));

    const QString instruction = depthInstruction(ExplanationDepth::fast);
    EXPECT_EQ(test::sentMessages(server.requests().at(1).body).mid(1),
              (QStringList{
                  "user:" + instruction + "\n\n<待解释材料>\n第一处\n</待解释材料>",
                  "user:" + instruction +
                      "\n\n这是用户随后选中的材料。请结合前文上下文紧接着继续解释，重点说明它与前文的联系；"
                      "如果两者实际上无关，不要强行建立联系，直接解释新增材料。\n\n<新增待解释材料>\n"
                      "第二处\n</新增待解释材料>"}));

    server.enqueue(ScriptedResponse::stream(chatStream({"第三段"})));
    card.followUpField()->setText("再简单点？");
    card.sendButton()->click();
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(test::sentMessages(server.requests().at(2).body).mid(3),
              (QStringList{"assistant:**两处一起**的解释", "user:再简单点？"}));

    server.enqueue(ScriptedResponse::stream(chatStream({"第三处的解释"})));
    explain("第三处");
    ASSERT_TRUE(waitForIdle());
    EXPECT_TRUE(shownText().startsWith("两处一起的解释")) << "a later selection continues the same card";
    EXPECT_TRUE(shownText().endsWith("第三处的解释")) << shownText().toStdString();
}

TEST_F(CoordinatorCardTest, OnlyAConfigurationFaultFallsBackOnceAndTheAnswerSaysSo)
{
    const KnownGoodProvider record = known("deepseek-v4-pro");
    configuration.setLastKnownGoodProvider(record);
    server.enqueue(ScriptedResponse::json(400, R"({"error":{"message":"Model Not Exist"}})"));
    server.enqueue(ScriptedResponse::stream(chatStream({"备用模型的回答"})));
    explain("文字");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(state(), "已切换备用配置 追问");
    EXPECT_EQ(card.statusTone(), CardStatusTone::warning);
    EXPECT_TRUE(card.sourceMarkdown().endsWith("已临时改用上次可用的模型 `deepseek-v4-pro` "
                                               "继续解释。设置本身没有被改动。\n\n---\n\n备用模型的回答"));
    // The fallback's success is not the user's configuration: the record stays, settings stay.
    EXPECT_EQ(configuration.lastKnownGoodProvider(), record);
    EXPECT_EQ(configuration.providerOverride("deepseek"), std::nullopt);

    server.enqueue(ScriptedResponse::stream(chatStream({"追问的回答"})));
    card.followUpField()->setText("然后呢");
    card.sendButton()->click();
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(state(), "已完成 追问");
    EXPECT_EQ(sentModel(2), "deepseek-v4-pro") << "unchanged settings keep the session on the fallback";

    // A second failure in the same session is shown, even with another record to fall back to.
    configuration.setLastKnownGoodProvider(known("deepseek-v4-lite"));
    server.enqueue(ScriptedResponse::json(401, R"({"error":{"message":"Authentication Fails"}})"));
    card.followUpField()->setText("继续");
    card.sendButton()->click();
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(state(), "需要修改设置 重试 去设置 追问");
    EXPECT_EQ(server.requestCount(), 4);

    // A rate limit or an empty answer is not the configuration's fault, and the model that failed is
    // never its own fallback.
    const struct
    {
        ScriptedResponse response;
        const char* recorded;
        const char* state;
    } failures[]{
        {ScriptedResponse::json(429, R"({"error":{"message":"rate limit reached"}})"), "deepseek-v4-pro",
         "请求失败 重试 追问"},
        {ScriptedResponse::stream(chatStream({" \n", "  "})), "deepseek-v4-pro", "请求失败 重试 追问"},
        {ScriptedResponse::json(404, R"({"error":{"message":"model not found"}})"), "deepseek-v4-flash",
         "需要修改设置 重试 去设置 追问"},
    };
    for (const auto& failure : failures) {
        const int sent = server.requestCount();
        coordinator.reset();
        configuration.setLastKnownGoodProvider(known(failure.recorded));
        server.enqueue(failure.response);
        explain("文字");
        ASSERT_TRUE(waitForIdle());
        EXPECT_EQ(state(), failure.state) << failure.state;
        EXPECT_EQ(server.requestCount(), sent + 1);
        EXPECT_EQ(configuration.lastKnownGoodProvider(), known(failure.recorded));
        EXPECT_EQ(coordinator.conversation().messages.size(), 1);
    }
}

TEST_F(CoordinatorCardTest, AKeyWithAZeroWidthSpaceNamesTheFieldAndTheCharacterAndSendsNothing)
{
    saveKey(QString::fromUtf8("sk-abc\u200Bdef"));
    explain("文字");
    ASSERT_TRUE(waitForIdle());
    EXPECT_EQ(state(), "需要修改设置 重试 去设置 追问");
    EXPECT_EQ(shownText(), "⚠️ API Key 的第 7 个字符是看不见的零宽空格（U+200B），Key "
                           "里只能有英文字母、数字和常见符号。"
                           "请删掉它，或重新复制 Key。（设置 → API Key）");
    EXPECT_EQ(card.pendingFixField(), ProviderField::apiKey);
    EXPECT_EQ(server.requestCount(), 0);
}
