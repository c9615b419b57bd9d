#include "llm/ModelCatalog.h"

#include "LlmTestSupport.h"
#include "llm/ProviderDiagnostics.h"

#include <QNetworkAccessManager>

using namespace velnora;
using namespace velnora::test;

namespace {

struct ListRecorder
{
    std::optional<ModelCatalog::ModelListResult> result;
    int completions = 0;
    bool offMainThread = false;

    ModelCatalog::Completion handler()
    {
        return [this](const ModelCatalog::ModelListResult& outcome) {
            offMainThread =
                offMainThread || QThread::currentThread() != QCoreApplication::instance()->thread();
            ++completions;
            result = outcome;
        };
    }
    bool wait(int timeoutMs = 10000)
    {
        const bool done = waitUntil([this] { return completions > 0; }, timeoutMs);
        QCoreApplication::processEvents();
        return done && completions == 1 && !offMainThread;
    }
};

ResolvedProviderConfiguration official(const QString& id)
{
    const ProviderDefinition& definition = ProviderDefinition::definition(id);
    return {definition, definition.defaultBaseURL, definition.defaultModel, QStringLiteral("sk-KEY-0042")};
}

class ModelCatalogTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"}) {
            m_environment.unset(name);
        }
    }

    ListRecorder fetch(const QString& id, const QUrl& base)
    {
        ListRecorder recorder;
        ModelCatalog::fetch(loopbackProvider(id, ProviderWireProtocol::openAIChat, base, "x", "k"),
                            recorder.handler(), acceptAnyAddress);
        EXPECT_TRUE(recorder.wait());
        return recorder;
    }

    EnvironmentGuard m_environment;
    LoopbackHttpServer m_server;
};

} // namespace

TEST(ModelCatalogParse, DoubaoListDropsShutDownAndNonChatModelsButKeepsRetiringChatModels)
{
    const QByteArray body = R"({"object":"list","data":[
        {"id":"doubao-lite-128k-240428","status":"Shutdown"},
        {"id":"doubao-embedding-text-250515","status":"Retiring"},
        {"id":"doubao-seedream-5-0-260128"},
        {"id":"doubao-seedance-2-0-260128"},
        {"id":"doubao-seed-2-0-lite-260215"},
        {"id":"doubao-seed-2-0-pro-260215","status":"Retiring"}]})";
    EXPECT_EQ(ModelCatalog::parse(body),
              (QStringList{"doubao-seed-2-0-lite-260215", "doubao-seed-2-0-pro-260215"}));
}

TEST(ModelCatalogParse, ShapesAndFallbacks)
{
    using ModelCatalog::parse;
    EXPECT_EQ(parse(R"({"data":[{"id":"text-embedding-3-small"}]})"), QStringList{"text-embedding-3-small"});
    EXPECT_EQ(parse(R"({"object":"list","data":[{"id":"b"},{"id":"a"},{"id":"a"}]})"),
              (QStringList{"a", "b"}));
    EXPECT_EQ(parse(R"({"models":[{"name":"models/gemini-3.6-flash"}]})"), QStringList{"gemini-3.6-flash"});
    EXPECT_EQ(parse(R"({"models":[{"name":"tunedModels/x"},{"name":"models/"},{"displayName":"no name"}]})"),
              QStringList{"tunedModels/x"});
    EXPECT_EQ(
        parse(
            R"({"data":[{"id":""},{"object":"model"},{"id":7},"x",{"id":"c","status":"SHUTDOWN"},{"id":"d","status":"active"}]})"),
        QStringList{"d"});
    EXPECT_TRUE(parse(R"({"object":"list"})").isEmpty());
    EXPECT_TRUE(parse(R"([{"id":"a"}])").isEmpty());
    EXPECT_TRUE(parse("<html>nope</html>").isEmpty());
    EXPECT_TRUE(parse("").isEmpty());
}

TEST(ModelCatalogParse, DedupeSortsPlainlyAndFiltersEveryMarker)
{
    QStringList ids{"zeta", "Alpha", "zeta", "", "beta"};
    for (const QString& marker : ModelCatalog::nonChatMarkers()) {
        ids.append("m" + marker.toUpper() + "x");
    }
    EXPECT_EQ(ModelCatalog::dedupe(ids), (QStringList{"Alpha", "beta", "zeta"}));
    EXPECT_EQ(ModelCatalog::dedupe({"qwen-image", "qwen-image", "glm-asr-x"}),
              (QStringList{"glm-asr-x", "qwen-image"}));
}

TEST(ModelCatalogRequest, EveryProviderAuthenticatesInAHeaderAndNeverInTheUrl)
{
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        const std::optional<PreparedRequest> request = ModelCatalog::request(official(definition.id));
        ASSERT_TRUE(request) << definition.id.toStdString();
        EXPECT_EQ(request->method, "GET");
        EXPECT_EQ(request->url().toString(), definition.defaultBaseURL + "/models");
        EXPECT_FALSE(request->url().toString(QUrl::FullyEncoded).contains("KEY"));
        EXPECT_EQ(request->header("Authorization"), "Bearer sk-KEY-0042");
        EXPECT_EQ(request->header("User-Agent"), "Lumaquill-macOS/2.0");
        EXPECT_EQ(request->inactivityTimeout, std::chrono::seconds(15));
    }
    EXPECT_EQ(ModelCatalog::request(official("doubao"))->url().path(), "/api/v3/models");
    const QUrl base("https://gw.example.test/v1");
    const auto anthropic = ModelCatalog::request(
        loopbackProvider("kimi", ProviderWireProtocol::anthropicMessages, base, "kimi-k3", "ak"),
        acceptAnyAddress);
    EXPECT_EQ(anthropic->header("x-api-key"), "ak");
    EXPECT_EQ(anthropic->header("anthropic-version"), "2023-06-01");
    EXPECT_FALSE(anthropic->request.hasRawHeader("Authorization"));
    const auto gemini = ModelCatalog::request(
        loopbackProvider("qwen", ProviderWireProtocol::geminiGenerateContent, base, "qwen-max", "gk"),
        acceptAnyAddress);
    EXPECT_EQ(gemini->header("x-goog-api-key"), "gk");
    EXPECT_EQ(gemini->url().toString(), "https://gw.example.test/v1/models");
}

TEST(ModelCatalogRequest, EditionRefusalMeansNoRequestAndAnInvalidRequestFailure)
{
    ResolvedProviderConfiguration foreign = official("qwen");
    foreign.baseURL = QStringLiteral("https://api.openai.com/v1");
    EXPECT_FALSE(ModelCatalog::request(foreign));
    ListRecorder recorder;
    ModelCatalog::fetch(foreign, recorder.handler());
    EXPECT_EQ(recorder.completions, 0) << "delivered on the main thread later";
    ASSERT_TRUE(recorder.wait());
    ASSERT_NE(recorder.result->clientError(), nullptr);
    EXPECT_EQ(*recorder.result->clientError(), LLMClientError::invalidRequest());
}

TEST(ModelCatalogText, SettingsWindowSentences)
{
    EXPECT_EQ(ModelCatalog::listSummary({}, "x"), QStringLiteral("这家服务没有提供模型列表，请手动填写"));
    EXPECT_EQ(ModelCatalog::listSummary({"a", "b", "c"}, "b"), QStringLiteral("3 个可用模型"));
    EXPECT_EQ(ModelCatalog::listSummary({"a", "b"}, "z"), QStringLiteral("2 个可用模型；当前填的不在其中"));
}

TEST_F(ModelCatalogTest, FetchKeepsOnlyTheProvidersFamiliesInOrder)
{
    m_server.enqueue(ScriptedResponse::json(
        200,
        R"({"data":[{"id":"deepseek-v4-pro"},{"id":"gpt-4o"},{"id":"deepseek-v4-flash"},{"id":"deepseek-embedding-x"}]})"));
    const ListRecorder recorder = fetch("deepseek", m_server.url("/v1"));
    ASSERT_TRUE(recorder.result && recorder.result->ok());
    EXPECT_EQ(recorder.result->value(), (QStringList{"deepseek-v4-flash", "deepseek-v4-pro"}));
    EXPECT_EQ(m_server.requests().first().target, "/v1/models");

    // An unknown shape is an empty list, not a failure.
    m_server.enqueue(ScriptedResponse::html(200, "<html>models</html>"));
    const ListRecorder unknown = fetch("glm", m_server.url("/v4"));
    ASSERT_TRUE(unknown.result && unknown.result->ok());
    EXPECT_TRUE(unknown.result->value().isEmpty());
}

TEST_F(ModelCatalogTest, ErrorStatusRedirectAndRefusedConnectionAreFailures)
{
    m_server.enqueue(ScriptedResponse::json(401, R"({"error":{"message":"invalid_iam_token"}})"));
    const ListRecorder denied = fetch("ernie", m_server.url("/v2"));
    ASSERT_TRUE(denied.result && denied.result->clientError());
    EXPECT_EQ(*denied.result->clientError(),
              LLMClientError::http(401, R"({"error":{"message":"invalid_iam_token"}})"));
    EXPECT_EQ(ProviderDiagnostics::diagnose(denied.result->failure()).field, ProviderField::apiKey);

    LoopbackHttpServer elsewhere;
    elsewhere.setFallback(ScriptedResponse::json(200, R"({"data":[{"id":"glm-5.2"}]})"));
    m_server.enqueue(ScriptedResponse::redirect(302, elsewhere.url("/v4/models").toEncoded()));
    const ListRecorder redirected = fetch("glm", m_server.url("/v4"));
    ASSERT_TRUE(redirected.result && redirected.result->clientError());
    EXPECT_EQ(redirected.result->clientError()->status(), 302);
    EXPECT_EQ(elsewhere.requestCount(), 0);

    QUrl closed;
    {
        LoopbackHttpServer gone;
        closed = gone.url("/v1");
    }
    const ListRecorder refused = fetch("kimi", closed);
    ASSERT_TRUE(refused.result && refused.result->networkError());
    EXPECT_EQ(refused.result->networkError()->code, QNetworkReply::ConnectionRefusedError);
}

TEST_F(ModelCatalogTest, ASilentServerTimesOut)
{
    ScriptedResponse silent = ScriptedResponse::json(200, R"({"data":[]})");
    silent.ending = ScriptedResponse::Ending::stall;
    silent.endAfter = 3;
    m_server.enqueue(silent);
    std::optional<PreparedRequest> request = ModelCatalog::request(
        loopbackProvider("glm", ProviderWireProtocol::openAIChat, m_server.url("/v4"), "x", "k"),
        acceptAnyAddress);
    ASSERT_TRUE(request);
    request->inactivityTimeout = std::chrono::milliseconds(300);
    QNetworkAccessManager* own = nullptr; // the shared session
    ListRecorder recorder;
    ModelCatalog::fetch(*request, "glm", recorder.handler(), own);
    ASSERT_TRUE(recorder.wait());
    ASSERT_NE(recorder.result->networkError(), nullptr);
    EXPECT_EQ(recorder.result->networkError()->code, QNetworkReply::TimeoutError);
    m_server.closeConnections();
}
