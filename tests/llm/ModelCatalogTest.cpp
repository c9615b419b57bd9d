#include "llm/ModelCatalog.h"

#include "LlmTestSupport.h"

using namespace velnora;
using namespace velnora::test;

namespace {

class ModelCatalogTest : public LoopbackTest
{
protected:
    // The models fetched, or the failure's sentence.
    QString fetch(const QString& id, ScriptedResponse response)
    {
        m_server.enqueue(std::move(response));
        std::optional<ModelCatalog::ModelListResult> result;
        ModelCatalog::fetch(
            loopbackProvider(id, ProviderWireProtocol::openAIChat, m_server.url("/v1"), "x", "k"),
            [&](const ModelCatalog::ModelListResult& outcome) { result = outcome; }, acceptAnyAddress);
        EXPECT_TRUE(waitUntil([&] { return result.has_value(); }, 10000));
        return !result ? "none" : result->ok() ? result->value().join(u' ') : describe(result->failure());
    }
};

} // namespace

TEST(ModelCatalogParse, ListsOfBothShapesKeepOnlyChatModelsSortedOnce)
{
    const QList<std::pair<QByteArray, QStringList>> cases{
        {R"({"object":"list","data":[
            {"id":"doubao-lite-128k-240428","status":"Shutdown"},
            {"id":"doubao-embedding-text-250515","status":"Retiring"},
            {"id":"doubao-seedream-5-0-260128"},
            {"id":"doubao-seed-2-0-pro-260215","status":"Retiring"},
            {"id":"doubao-seed-2-0-lite-260215"},
            {"id":"doubao-seed-2-0-lite-260215"}]})",
         {"doubao-seed-2-0-lite-260215", "doubao-seed-2-0-pro-260215"}},
        // Non-chat models stay when nothing else is left.
        {R"({"data":[{"id":"text-embedding-3-small"}]})", {"text-embedding-3-small"}},
        {R"({"models":[{"name":"models/gemini-3.6-flash"},{"name":"models/"},{"displayName":"no name"}]})",
         {"gemini-3.6-flash"}},
        {R"({"data":[{"id":""},{"id":7},"x",{"id":"d","status":"active"}]})", {"d"}},
        {"<html>nope</html>", {}},
    };
    for (const auto& [body, expected] : cases) {
        EXPECT_EQ(ModelCatalog::parse(body), expected) << body.toStdString();
    }
}

TEST(ModelCatalogText, SettingsWindowSentences)
{
    EXPECT_EQ(ModelCatalog::listSummary({}, "x"), QStringLiteral("这家服务没有提供模型列表，请手动填写"));
    EXPECT_EQ(ModelCatalog::listSummary({"a", "b", "c"}, "b"), QStringLiteral("3 个可用模型"));
    EXPECT_EQ(ModelCatalog::listSummary({"a", "b"}, "z"), QStringLiteral("2 个可用模型；当前填的不在其中"));
}

TEST_F(ModelCatalogTest, FetchesOverHttp)
{
    ScriptedResponse list = ScriptedResponse::json(200, R"({"data":[{"id":"deepseek-v4-pro"},{"id":"gpt-4o"},
        {"id":"deepseek-v4-flash"},{"id":"deepseek-embedding-x"}]})");
    list.headers = "Set-Cookie: session=abc; Path=/\r\n";
    EXPECT_EQ(fetch("deepseek", list), "deepseek-v4-flash deepseek-v4-pro");
    EXPECT_EQ(m_server.requests().first().target, "/v1/models");
    EXPECT_EQ(m_server.requests().first().header("Authorization"), "Bearer k");
    EXPECT_EQ(fetch("glm", ScriptedResponse::json(200, "<html>models</html>")), "")
        << "unknown shape, no failure";
    EXPECT_EQ(m_server.requests().last().header("Cookie"), std::nullopt) << "the fetches share one session";
    EXPECT_EQ(fetch("ernie", ScriptedResponse::json(401, R"({"error":{"message":"invalid_iam_token"}})")),
              QStringLiteral(R"(请求失败（HTTP 401）：{"error":{"message":"invalid_iam_token"}})"));
}
