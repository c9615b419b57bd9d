#include "llm/StreamEventReader.h"

#include "LlmTestSupport.h"
#include "llm/StreamPayload.h"

#include <QJsonArray>

using namespace velnora;
using namespace velnora::test;

namespace {

struct ReadResult
{
    QStringList pieces;
    QStringList errors;
    bool receivedText = false;
    qint64 scanned = 0;

    QString text() const { return pieces.join(QString()); }
};

// Feeds body in pieces cut at the given offsets (sorted), then ends the input.
ReadResult readSplit(ProviderWireProtocol protocol, const QByteArray& body, const QList<qsizetype>& cuts)
{
    ReadResult result;
    StreamEventReader reader(
        protocol, [&](const QString& text) { result.pieces.append(text); },
        [&](const QString& message) { result.errors.append(message); });
    qsizetype from = 0;
    for (qsizetype cut : cuts) {
        reader.feed(QByteArrayView(body).sliced(from, cut - from));
        from = cut;
    }
    reader.feed(QByteArrayView(body).sliced(from));
    reader.finishInput();
    result.receivedText = reader.receivedText();
    result.scanned = reader.scannedBytes();
    return result;
}

ReadResult readChunked(ProviderWireProtocol protocol, const QByteArray& body, qsizetype chunk)
{
    QList<qsizetype> cuts;
    for (qsizetype at = chunk; at < body.size(); at += chunk) {
        cuts.append(at);
    }
    return readSplit(protocol, body, cuts);
}

ReadResult readWhole(ProviderWireProtocol protocol, const QByteArray& body)
{
    return readSplit(protocol, body, {});
}

constexpr auto chat = ProviderWireProtocol::openAIChat;
constexpr auto responses = ProviderWireProtocol::openAIResponses;
constexpr auto anthropic = ProviderWireProtocol::anthropicMessages;
constexpr auto gemini = ProviderWireProtocol::geminiGenerateContent;

QByteArray chatEvent(const QString& content)
{
    const QJsonObject event{
        {"choices", QJsonArray{QJsonObject{{"index", 0}, {"delta", QJsonObject{{"content", content}}}}}}};
    return "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
}

} // namespace

TEST(StreamEventReader, RecordedCapturesGiveTheRuleTextsWhateverTheChunking)
{
    const QList<CaptureExpectation> expectations = captureExpectations();
    ASSERT_EQ(expectations.size(), 13);
    for (const CaptureExpectation& expected : expectations) {
        SCOPED_TRACE(expected.name.toStdString());
        const QByteArray body = captureBytes(expected.name);
        ASSERT_FALSE(body.isEmpty());
        for (qsizetype chunk :
             {qsizetype(0), qsizetype(1), qsizetype(2), qsizetype(7), qsizetype(16 * 1024)}) {
            SCOPED_TRACE(chunk);
            const ReadResult result =
                chunk == 0 ? readWhole(expected.protocol, body) : readChunked(expected.protocol, body, chunk);
            EXPECT_EQ(result.text(), expected.text);
            if (expected.error) {
                EXPECT_EQ(result.errors, QStringList{*expected.error});
            } else {
                EXPECT_TRUE(result.errors.isEmpty());
                EXPECT_EQ(result.scanned, body.size()) << "every byte examined exactly once";
            }
        }
    }
}

TEST(StreamEventReader, CapturesMatchTheTextsTheirSourcesPublish)
{
    // Independent of rule-texts.json: the expected texts of SOURCES.md.
    EXPECT_EQ(readWhole(anthropic, captureBytes("anthropic-sdkpython-1.sse")).text(), "Hello there!");
    EXPECT_EQ(readWhole(chat, captureBytes("openai-chat-pydanticai-deepseek-1.sse")).text(),
              QString::fromUtf8("Hello there! 😊 How can I help you today?"));
    EXPECT_EQ(readWhole(chat, captureBytes("openai-chat-pydanticai-glm-1.sse")).text(), "4");
    EXPECT_EQ(readWhole(responses, captureBytes("responses-pydanticai-openai-1.sse")).text(),
              "The capital of France is Paris.");
    EXPECT_EQ(readWhole(responses, captureBytes("responses-pydanticai-deepseek-1.sse")).text(),
              "The capital of France is Paris.");
    EXPECT_EQ(readWhole(gemini, captureBytes("gemini-pydanticai-2.sse")).text(),
              "1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11\n12\n13\n14\n15\n16\n17\n18\n19\n20\n21\n22\n23\n24\n25\n26"
              "\n27\n28\n29\n30");
    const ReadResult groq = readWhole(chat, captureBytes("openai-chat-pydanticai-groq-error-1.sse"));
    EXPECT_EQ(groq.text(), "maybe");
    EXPECT_EQ(groq.errors, QStringList{"Tool choice is required, but model did not call a tool"});
    const ReadResult overloaded = readWhole(anthropic, captureBytes("anthropic-sdkpython-error-1.sse"));
    EXPECT_TRUE(overloaded.pieces.isEmpty());
    EXPECT_EQ(overloaded.errors, QStringList{"Overloaded"});
    // Gemini thought parts count as text under the rules; the answer follows them.
    const QString thinking = readWhole(gemini, captureBytes("gemini-pydanticai-1.sse")).text();
    EXPECT_TRUE(thinking.startsWith("**Clarifying User Goals**"));
    EXPECT_TRUE(thinking.endsWith("Always assume a driver might not see you."));
    EXPECT_EQ(thinking.size(), 3513);
}

TEST(StreamEventReader, EverySplitPointOfSmallCapturesGivesTheSameText)
{
    for (const auto& [name, protocol] : {std::pair{QStringLiteral("anthropic-sdkpython-1.sse"), anthropic},
                                         std::pair{QStringLiteral("gemini-pydanticai-2.sse"), gemini}}) {
        const QByteArray body = captureBytes(name);
        const QString expected = readWhole(protocol, body).text();
        for (qsizetype cut = 1; cut < body.size(); ++cut) {
            ASSERT_EQ(readSplit(protocol, body, {cut}).text(), expected)
                << name.toStdString() << " cut " << cut;
        }
    }
}

TEST(StreamEventReader, CutsInsideAUtf8CharacterOrBetweenCarriageReturnAndLineFeed)
{
    QByteArray body = chatEvent(QStringLiteral("边际效用")) + chatEvent(QStringLiteral("递减😊"));
    body.replace("\n", "\r\n");
    const QList<qsizetype> cuts{body.indexOf("边") + 1, body.indexOf("\r\n") + 1, body.indexOf("😊") + 2};
    const ReadResult result = readSplit(chat, body, cuts);
    EXPECT_EQ(result.pieces, (QStringList{QStringLiteral("边际效用"), QStringLiteral("递减😊")}));
    EXPECT_FALSE(result.text().contains(QChar::ReplacementCharacter));
}

TEST(StreamEventReader, MultiLineDataIsJoinedWithLineFeeds)
{
    const QByteArray body = "data: {\"choices\":[{\"delta\":\n"
                            "data:\t{\"content\":\"joined\"}}]}  \n"
                            "\n";
    EXPECT_EQ(readWhole(chat, body).text(), "joined");
    // The join is exactly one line feed, even inside a JSON string.
    const QByteArray split = "data: {\"delta\":{\"text\":\"one\n"
                             "data: two\"}}\n\n"
                             "data: {\"delta\":{\"text\":\"after\"}}\n\n";
    EXPECT_EQ(readWhole(anthropic, split).pieces, (QStringList{"one\ntwo", "after"}));
}

TEST(StreamEventReader, DoneMarkerProducesNothingAndDoesNotEndTheStream)
{
    const QByteArray body = chatEvent("before") + "data: [DONE]\n\n" + chatEvent("after");
    const ReadResult result = readWhole(chat, body);
    EXPECT_EQ(result.pieces, (QStringList{"before", "after"}));
    EXPECT_TRUE(result.errors.isEmpty());
}

TEST(StreamEventReader, LastLineWithoutLineEndIsProcessedAtTheEnd)
{
    QByteArray body = chatEvent("first") + chatEvent("last");
    body.chop(2); // no blank line, no line feed
    QStringList pieces;
    StreamEventReader collecting(chat, [&](const QString& text) { pieces.append(text); }, {});
    collecting.feed(body);
    EXPECT_EQ(pieces, QStringList{"first"});
    EXPECT_GT(collecting.pendingBytes(), 0);
    collecting.finishInput();
    EXPECT_EQ(pieces, (QStringList{"first", "last"}));
}

TEST(StreamEventReader, OtherFieldsCommentsAndBadPayloadsAreIgnored)
{
    const QByteArray body = ": keep-alive comment\n"
                            "event: message\n"
                            "id: 7\n"
                            "retry: 1000\n"
                            "data: not json\n\n"
                            "data: [1,2,3]\n\n"
                            "data: \"a string\"\n\n"
                            "data:\n\n"
                            "\n\n\n" +
                            chatEvent("kept") + "datum: {\"choices\":[]}\n\n";
    const ReadResult result = readWhole(chat, body);
    EXPECT_EQ(result.pieces, QStringList{"kept"});
    EXPECT_TRUE(result.errors.isEmpty());
}

TEST(StreamEventReader, InvalidUtf8IsReplacedNotRejected)
{
    const QByteArray body = "data: {\"delta\":{\"text\":\"a\xff"
                            "b\"}}\n\n";
    EXPECT_EQ(readWhole(anthropic, body).text(), QString("a") + QChar::ReplacementCharacter + "b");
}

TEST(StreamEventReader, AnErrorEventStopsTheReaderAtOnce)
{
    const QByteArray body =
        chatEvent("partial") +
        "event: error\ndata: {\"error\":{\"message\":\"Rate limit reached\",\"type\":\"rate\"}}\n\n" +
        chatEvent("never") + "data: {\"error\":{\"message\":\"second\"}}\n\n";
    for (qsizetype chunk : {1, 5, 4096}) {
        const ReadResult result = readChunked(chat, body, chunk);
        EXPECT_EQ(result.pieces, QStringList{"partial"});
        EXPECT_EQ(result.errors, QStringList{"Rate limit reached"});
    }
}

TEST(StreamEventReader, ErrorMessageShapes)
{
    const QList<std::pair<QByteArray, std::optional<QString>>> cases{
        {R"({"error":{"message":"m","type":"t"}})", "m"},
        {R"({"error":{"type":"overloaded_error"}})", "overloaded_error"},
        {R"({"error":{"code":1}})", std::nullopt},
        {R"({"type":"error","message":"top"})", "top"},
        {R"({"error":"plain string","type":"error","message":"top"})", "top"},
        {R"({"type":"message","message":"not an error"})", std::nullopt},
        {R"({"response":{"error":null}})", std::nullopt},
    };
    for (const auto& [body, expected] : cases) {
        EXPECT_EQ(StreamPayload::errorMessage(QJsonDocument::fromJson(body).object()), expected) << body.toStdString();
    }
}

TEST(StreamEventReader, WhitespaceOnlyPiecesAreDeliveredButDoNotCountAsAnAnswer)
{
    const ReadResult blank = readWhole(chat, chatEvent(" ") + chatEvent("\n\n") + chatEvent("\t"));
    EXPECT_EQ(blank.pieces, (QStringList{" ", "\n\n", "\t"}));
    EXPECT_FALSE(blank.receivedText);
    const ReadResult visible = readWhole(chat, chatEvent(" ") + chatEvent("x"));
    EXPECT_TRUE(visible.receivedText);
}

TEST(StreamEventReader, FinalEventTextIsUsedOnlyWhileNoTextArrived)
{
    // Only a completed event: its whole answer is shown once.
    const QByteArray finalOnly =
        "event: response.completed\n"
        "data: {\"type\":\"response.completed\",\"response\":{\"output\":[{\"type\":\"message\",\"content\":"
        "[{\"type\":\"output_text\",\"text\":\"整段答案\"}]}]}}\n\n";
    EXPECT_EQ(readWhole(responses, finalOnly).pieces, QStringList{"整段答案"});
    // Deltas first: the done and completed events repeat the text and are not shown again.
    const QByteArray withDeltas = "data: {\"type\":\"response.output_text.delta\",\"delta\":\"整段\"}\n\n"
                                  "data: {\"type\":\"response.output_text.delta\",\"delta\":\"答案\"}\n\n"
                                  "data: {\"type\":\"response.output_text.done\",\"text\":\"整段答案\"}\n\n" +
                                  finalOnly;
    EXPECT_EQ(readWhole(responses, withDeltas).text(), "整段答案");
    // A Chat service that sends one message object at the end.
    EXPECT_EQ(readWhole(chat, "data: {\"choices\":[{\"message\":{\"content\":\"whole\"}}]}\n\n").text(),
              "whole");
    // Anthropic message_start carries no text yet; content blocks at the top level do.
    EXPECT_EQ(
        readWhole(
            anthropic,
            "data: {\"type\":\"message_start\",\"message\":{\"content\":[]}}\n\n"
            "data: {\"content\":[{\"type\":\"text\",\"text\":\"A\"},{\"type\":\"text\",\"text\":\"B\"}]}\n\n")
            .text(),
        "AB");
}

TEST(StreamEventReader, WholeNonStreamedBodiesOfEachProtocol)
{
    const auto whole = [](ProviderWireProtocol protocol, const QByteArray& body) {
        QStringList pieces;
        StreamEventReader reader(protocol, [&](const QString& text) { pieces.append(text); }, {});
        reader.feed(body);
        reader.finishInput();
        EXPECT_TRUE(pieces.isEmpty()) << "a JSON document is not a stream";
        reader.offerWholeBody(body);
        return pieces;
    };
    EXPECT_EQ(whole(responses, R"({"id":"r","output_text":"答案"})"), QStringList{"答案"});
    EXPECT_EQ(
        whole(
            responses,
            R"({"output":[{"type":"reasoning","content":[]},{"type":"message","content":[{"type":"output_text","text":"A"}]}]})"),
        QStringList{"A"});
    EXPECT_EQ(whole(chat, R"({"choices":[{"index":0,"message":{"role":"assistant","content":"答案"}}]})"),
              QStringList{"答案"});
    EXPECT_EQ(
        whole(
            chat,
            R"({"choices":[{"message":{"content":[{"type":"text","text":"a"},{"type":"text","text":"b"}]}}]})"),
        QStringList{"ab"});
    EXPECT_EQ(whole(anthropic, R"({"type":"message","content":[{"type":"text","text":"答案"}]})"),
              QStringList{"答案"});
    EXPECT_EQ(whole(gemini,
                    R"({"candidates":[{"content":{"parts":[{"text":"答"},{"text":"案"}],"role":"model"}}]})"),
              QStringList{"答案"});
    EXPECT_TRUE(whole(gemini, R"({"candidates":[]})").isEmpty());
}

TEST(StreamEventReader, ContentTextShapes)
{
    using StreamPayload::contentText;
    EXPECT_EQ(contentText(QJsonValue("s")), "s");
    EXPECT_EQ(
        contentText(QJsonDocument::fromJson(R"({"text":"","content":{"parts":[{"text":"p"}]}})").object()),
        "p");
    EXPECT_EQ(contentText(QJsonDocument::fromJson(R"({"content":"","parts":[{"text":"x"}]})").object()), "x");
    EXPECT_EQ(contentText(
                  QJsonDocument::fromJson(R"([{"text":"a"},"b",3,null,{"content":[{"text":"c"}]}])").array()),
              "abc");
    EXPECT_EQ(contentText(QJsonValue(42)), "");
}

TEST(StreamEventReader, OneByteFeedingNeverRescansAndKeepsOnlyTheUnfinishedLine)
{
    QByteArray body;
    while (body.size() < 200 * 1024) {
        body += chatEvent(QStringLiteral("一段"));
    }
    StreamEventReader reader(chat, [](const QString&) {}, {});
    qsizetype largestPending = 0;
    for (qsizetype i = 0; i < body.size(); ++i) {
        reader.feed(QByteArrayView(body).sliced(i, 1));
        largestPending = std::max(largestPending, reader.pendingBytes());
    }
    reader.finishInput();
    EXPECT_EQ(reader.scannedBytes(), body.size());
    EXPECT_LT(largestPending, 200);
}
