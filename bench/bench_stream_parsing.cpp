// Throughput of the stream reader: recorded server-sent-event bodies repeated to a given size, fed in
// 1-byte and 16 KB pieces, and at several sizes to show that the cost grows linearly with the body.
#include "llm/StreamEventReader.h"

#include <QFile>
#include <benchmark/benchmark.h>

using namespace velnora;

namespace {

QByteArray capture(const char* name)
{
    QFile file(QStringLiteral(VELNORA_SOURCE_DIR "/tests/data/wire-captures/") + QString::fromLatin1(name));
    if (!file.open(QIODevice::ReadOnly)) {
        qFatal("missing capture %s", name);
    }
    QByteArray body = file.readAll();
    // Without the end marker, so that repetitions read as one long stream.
    body.replace("data: [DONE]\n\n", "");
    return body;
}

QByteArray streamOfSize(const char* name, qsizetype size)
{
    const QByteArray unit = capture(name);
    QByteArray body;
    body.reserve(size + unit.size());
    while (body.size() < size) {
        body += unit;
    }
    return body;
}

void parse(benchmark::State& state, const char* name, ProviderWireProtocol protocol, qsizetype size,
           qsizetype chunk)
{
    const QByteArray body = streamOfSize(name, size);
    qint64 characters = 0;
    for (auto _ : state) {
        StreamEventReader reader(protocol, [&](const QString& text) { characters += text.size(); }, {});
        for (qsizetype from = 0; from < body.size(); from += chunk) {
            reader.feed(QByteArrayView(body).sliced(from, std::min(chunk, body.size() - from)));
        }
        reader.finishInput();
        benchmark::DoNotOptimize(characters);
    }
    state.SetBytesProcessed(state.iterations() * body.size());
    state.counters["events/s"] =
        benchmark::Counter(double(state.iterations()) * body.count("data:"), benchmark::Counter::kIsRate);
    state.SetComplexityN(body.size());
}

constexpr qsizetype fourMB = 4 * 1024 * 1024;

// Chat Completions (DeepSeek, with reasoning chunks): the most common dialect of the built-in services.
void BM_Chat4MB(benchmark::State& state)
{
    parse(state, "openai-chat-pydanticai-deepseek-1.sse", ProviderWireProtocol::openAIChat, fourMB,
          state.range(0));
}
BENCHMARK(BM_Chat4MB)->Arg(1)->Arg(16 * 1024)->Unit(benchmark::kMillisecond);

// Responses (Doubao's dialect), reasoning summaries then text.
void BM_Responses4MB(benchmark::State& state)
{
    parse(state, "responses-pydanticai-openai-2.sse", ProviderWireProtocol::openAIResponses, fourMB,
          state.range(0));
}
BENCHMARK(BM_Responses4MB)->Arg(1)->Arg(16 * 1024)->Unit(benchmark::kMillisecond);

// Gemini with CRLF framing and large events.
void BM_GeminiCrlf4MB(benchmark::State& state)
{
    parse(state, "gemini-pydanticai-1.sse", ProviderWireProtocol::geminiGenerateContent, fourMB,
          state.range(0));
}
BENCHMARK(BM_GeminiCrlf4MB)->Arg(1)->Arg(16 * 1024)->Unit(benchmark::kMillisecond);

// Cost against size, 16 KB pieces and 1-byte pieces: linear (O(N)) in both.
void BM_ChatBySize16K(benchmark::State& state)
{
    parse(state, "openai-chat-pydanticai-deepseek-1.sse", ProviderWireProtocol::openAIChat, state.range(0),
          16 * 1024);
}
BENCHMARK(BM_ChatBySize16K)
    ->RangeMultiplier(2)
    ->Range(512 * 1024, 8 * 1024 * 1024)
    ->Complexity(benchmark::oN)
    ->Unit(benchmark::kMillisecond);

void BM_ChatBySize1B(benchmark::State& state)
{
    parse(state, "openai-chat-pydanticai-deepseek-1.sse", ProviderWireProtocol::openAIChat, state.range(0),
          1);
}
BENCHMARK(BM_ChatBySize1B)
    ->RangeMultiplier(2)
    ->Range(512 * 1024, 8 * 1024 * 1024)
    ->Complexity(benchmark::oN)
    ->Unit(benchmark::kMillisecond);

// One line of 4 MB without a line feed, arriving in 1-byte pieces: the worst case for rescanning.
void BM_LongLine1B(benchmark::State& state)
{
    const QByteArray body = "data: " + QByteArray(fourMB, 'x');
    for (auto _ : state) {
        StreamEventReader reader(ProviderWireProtocol::openAIChat, {}, {});
        for (qsizetype from = 0; from < body.size(); ++from) {
            reader.feed(QByteArrayView(body).sliced(from, 1));
        }
        reader.finishInput();
    }
    state.SetBytesProcessed(state.iterations() * body.size());
}
BENCHMARK(BM_LongLine1B)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
