#include "llm/StreamEventReader.h"

#include "LlmTestSupport.h"

using namespace velnora;
using namespace velnora::test;

namespace {

constexpr auto chat = ProviderWireProtocol::openAIChat;
constexpr auto responses = ProviderWireProtocol::openAIResponses;
constexpr auto anthropic = ProviderWireProtocol::anthropicMessages;

struct ReadResult
{
    QStringList pieces;
    QStringList errors;
    qint64 scanned = 0;

    QString text() const { return pieces.join(QString()); }
};

// Feeds body in pieces cut at the given offsets (sorted), or every chunk bytes, then ends the input.
ReadResult read(ProviderWireProtocol protocol, const QByteArray& body, QList<qsizetype> cuts = {},
                qsizetype chunk = 0)
{
    for (qsizetype at = chunk; chunk > 0 && at < body.size(); at += chunk) {
        cuts.append(at);
    }
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
    result.scanned = reader.scannedBytes();
    return result;
}

QByteArray chatEvent(const QByteArray& content)
{
    return "data: {\"choices\":[{\"index\":0,\"delta\":{\"content\":\"" + content + "\"}}]}\n\n";
}

} // namespace

TEST(StreamEventReader, RecordedCapturesGiveTheRuleTextsWhateverTheChunking)
{
    const QList<CaptureExpectation> expectations = captureExpectations();
    ASSERT_EQ(expectations.size(), 13);
    for (const CaptureExpectation& expected : expectations) {
        const QByteArray body = captureBytes(expected.name);
        for (qsizetype chunk : {0, 1, 7}) {
            SCOPED_TRACE(expected.name.toStdString() + " in pieces of " + std::to_string(chunk));
            const ReadResult result = read(expected.protocol, body, {}, chunk);
            EXPECT_EQ(result.text(), expected.text);
            EXPECT_EQ(result.errors, expected.errors);
            if (expected.errors.isEmpty()) {
                EXPECT_EQ(result.scanned, body.size()) << "every byte examined exactly once";
            }
        }
    }
}

TEST(StreamEventReader, TextAndErrorsOfHandWrittenStreams)
{
    QByteArray crlf = chatEvent("边际效用") + chatEvent("递减😊");
    crlf.replace("\n", "\r\n");
    const QByteArray completed =
        "event: response.completed\n"
        "data: {\"type\":\"response.completed\",\"response\":{\"output\":[{\"type\":\"message\",\"content\":"
        "[{\"type\":\"output_text\",\"text\":\"整段答案\"}]}]}}\n\n";
    struct Case
    {
        ProviderWireProtocol protocol;
        QByteArray body;
        QList<qsizetype> cuts;
        QStringList pieces;
        QStringList errors = {};
    };
    const QList<Case> cases{
        // Cut inside a UTF-8 character and between CR and LF.
        {chat,
         crlf,
         {crlf.indexOf("边") + 1, crlf.indexOf("\r\n") + 1, crlf.indexOf("😊") + 2},
         {QStringLiteral("边际效用"), QStringLiteral("递减😊")}},
        // Comments, other fields, bad payloads and [DONE] are skipped; bad UTF-8 is replaced; data lines
        // are joined with one line feed.
        {chat,
         ": keep-alive comment\nevent: message\nid: 7\nretry: 1000\ndata: not json\n\ndata: "
         "[1,2,3]\n\ndata:\n\n\n\n" +
             chatEvent("before") + "data: [DONE]\n\ndatum: {\"choices\":[]}\n\n" +
             chatEvent("a\xff"
                       "b") +
             "data: {\"choices\":[{\"delta\":\ndata:\t{\"content\":\"joined\"}}]}  \n\n",
         {},
         {"before", QString("a") + QChar::ReplacementCharacter + "b", "joined"}},
        {anthropic, "data: {\"delta\":{\"text\":\"one\ndata: two\"}}\n\n", {}, {"one\ntwo"}},
        // The last line needs no line end.
        {chat, chatEvent("first") + chatEvent("last").chopped(2), {}, {"first", "last"}},
        // An error event stops the reader at once.
        {chat,
         chatEvent("partial") + "event: error\ndata: {\"error\":{\"message\":\"Rate limit reached\"}}\n\n" +
             chatEvent("never") + "data: {\"error\":{\"message\":\"second\"}}\n\n",
         {},
         {"partial"},
         {"Rate limit reached"}},
        // A final event's text counts only while no deltas came; after them it repeats the text.
        {responses, completed, {}, {"整段答案"}},
        {responses,
         "data: {\"type\":\"response.output_text.delta\",\"delta\":\"整段\"}\n\n"
         "data: {\"type\":\"response.output_text.delta\",\"delta\":\"答案\"}\n\n"
         "data: {\"type\":\"response.output_text.done\",\"text\":\"整段答案\"}\n\n" +
             completed,
         {},
         {"整段", "答案"}},
    };
    for (const Case& c : cases) {
        const ReadResult result = read(c.protocol, c.body, c.cuts);
        EXPECT_EQ(result.pieces, c.pieces) << c.body.toStdString();
        EXPECT_EQ(result.errors, c.errors) << c.body.toStdString();
    }
}
