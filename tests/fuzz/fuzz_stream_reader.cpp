// libFuzzer target for the stream reader. The first byte picks the wire protocol and how the body is cut
// into pieces; the rest is the body. Reading the body in pieces must give exactly what reading it whole
// gives, every byte must be examined once, and nothing may crash.
#include "FuzzInput.h"
#include "llm/StreamEventReader.h"
#include "llm/StreamPayload.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace velnora;

namespace {

struct Outcome
{
    QStringList pieces;
    QStringList errors;
    bool receivedText = false;
    qint64 scanned = 0;
    bool stopped = false;
};

Outcome read(ProviderWireProtocol protocol, QByteArrayView body, uint32_t seed)
{
    Outcome outcome;
    StreamEventReader reader(
        protocol, [&](const QString& text) { outcome.pieces.append(text); },
        [&](const QString& message) { outcome.errors.append(message); });
    qsizetype from = 0;
    while (from < body.size()) {
        qsizetype size = body.size() - from;
        if (seed != 0) {
            seed = seed * 1103515245u + 12345u;
            size = std::min<qsizetype>(size, 1 + (seed >> 16) % 64);
        }
        reader.feed(body.sliced(from, size));
        from += size;
    }
    reader.finishInput();
    if (!reader.stopped()) {
        reader.offerWholeBody(body);
    }
    outcome.receivedText = reader.receivedText();
    outcome.scanned = reader.scannedBytes();
    outcome.stopped = reader.stopped();
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    const auto protocol = static_cast<ProviderWireProtocol>(data[0] % 4);
    const uint32_t seed = 1u + data[0] / 4u;
    const QByteArrayView body(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));

    const Outcome whole = read(protocol, body, 0);
    const Outcome pieces = read(protocol, body, seed);
    if (whole.pieces.join(QString()) != pieces.pieces.join(QString()) || whole.errors != pieces.errors ||
        whole.receivedText != pieces.receivedText) {
        fuzzFault("chunking changed the result");
    }
    if (!whole.stopped && whole.scanned != body.size()) {
        fuzzFault("a byte examined twice, or not at all");
    }
    if (whole.pieces.contains(QString())) {
        fuzzFault("an empty piece delivered");
    }
    if (whole.errors.size() > 1) {
        fuzzFault("an error event did not end the stream");
    }

    // The extraction functions on the body taken as one JSON document.
    const QJsonDocument document = QJsonDocument::fromJson(body.toByteArray());
    if (document.isObject()) {
        const QJsonObject object = document.object();
        (void)StreamPayload::deltaText(object, protocol);
        (void)StreamPayload::completedText(object, protocol);
        (void)StreamPayload::errorMessage(object);
        (void)StreamPayload::responseText(object);
        (void)StreamPayload::contentText(object);
    }
    return 0;
}
