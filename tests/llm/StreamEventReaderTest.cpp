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

// Feeds body in pieces of chunk bytes (all at once for 0), then ends the input.
ReadResult read(ProviderWireProtocol protocol, const QByteArray& body, qsizetype chunk = 0)
{
    ReadResult result;
    StreamEventReader reader(
        protocol, [&](const QString& text) { result.pieces.append(text); },
        [&](const QString& message) { result.errors.append(message); });
    const qsizetype step = chunk > 0 ? chunk : std::max<qsizetype>(body.size(), 1);
    for (qsizetype from = 0; from < body.size(); from += step) {
        reader.feed(QByteArrayView(body).sliced(from, std::min(step, body.size() - from)));
    }
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
            const ReadResult result = read(expected.protocol, body, chunk);
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
    struct Case
    {
        ProviderWireProtocol protocol;
        QByteArray body;
        QStringList pieces;
        QStringList errors = {};
    };
    const QList<Case> cases{
        // Comments, other fields, bad payloads and [DONE] are skipped; bad UTF-8 is replaced; data lines
        // are joined with one line feed.
        {chat,
         ": keep-alive comment\nevent: message\nid: 7\nretry: 1000\ndata: not json\n\ndata: "
         "[1,2,3]\n\ndata:\n\n\n\n" +
             chatEvent("before") + "data: [DONE]\n\ndatum: {\"choices\":[]}\n\n" +
             chatEvent("a\xff"
                       "b") +
             "data: {\"choices\":[{\"delta\":\ndata:\t{\"content\":\"joined\"}}]}  \n\n",
         {"before", QString("a") + QChar::ReplacementCharacter + "b", "joined"}},
        {anthropic, "data: {\"delta\":{\"text\":\"one\ndata: two\"}}\n\n", {"one\ntwo"}},
        // The last line needs no line end.
        {chat, chatEvent("first") + chatEvent("last").chopped(2), {"first", "last"}},
        // An error event stops the reader at once.
        {chat,
         chatEvent("partial") + "event: error\ndata: {\"error\":{\"message\":\"Rate limit reached\"}}\n\n" +
             chatEvent("never") + "data: {\"error\":{\"message\":\"second\"}}\n\n",
         {"partial"},
         {"Rate limit reached"}},
        // Without deltas, the final event carries the answer (the captures send both).
        {responses,
         "event: response.completed\ndata: {\"type\":\"response.completed\",\"response\":{\"output\":"
         "[{\"type\":\"message\",\"content\":[{\"type\":\"output_text\",\"text\":\"整段答案\"}]}]}}\n\n",
         {"整段答案"}},
    };
    for (const Case& c : cases) {
        const ReadResult result = read(c.protocol, c.body);
        EXPECT_EQ(result.pieces, c.pieces) << c.body.toStdString();
        EXPECT_EQ(result.errors, c.errors) << c.body.toStdString();
    }
}
