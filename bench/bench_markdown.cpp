// Rendering the explanation card's answer: a full render plus layout at the card's text width, the
// total render work of an answer streamed in 10-character pieces under the card's 0.06 s throttle, and
// what the card itself does for each piece between renders.
#include "overlay/MarkdownRenderer.h"
#include "overlay/OverlayPanelController.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QTextDocument>
#include <benchmark/benchmark.h>

namespace {

using velnora::MarkdownRenderer::render;

constexpr qreal cardTextWidth = 428;

// A realistic answer: headings, paragraphs with inline markup, lists, a quote, code and rules, repeated
// to the wanted length.
QString answerOfSize(qsizetype bytes)
{
    const QString section = QStringLiteral(
        "## 第%1部分：核心概念\n\n"
        "**边际效用递减**是说：在其他条件不变时，同一样东西每多得到一份，带来的*额外*满足感会越来越少。"
        "它解释了为什么`价格`会随数量变化，也解释了很多日常选择。\n"
        "这一行会与上一行合并成同一段，因为中间没有空行。\n\n"
        "- 第一杯水解渴的价值最高\n- 第五杯水可能~~毫无~~几乎没有价值\n1. 先确定需求\n2) 再比较成本\n\n"
        "> 注意：这是一般规律，不是铁律。\n\n"
        "```python\n总量 = sum([10, 7, 4, 2])\nprint(总量)\n```\n\n"
        "更多内容见[百科](https://baike.baidu.com/item/边际效用)。\n\n---\n\n");
    QString text;
    for (int i = 1; text.toUtf8().size() < bytes; ++i) {
        text += section.arg(i);
    }
    while (text.toUtf8().size() > bytes) {
        text.chop(1);
    }
    return text;
}

void layOut(QTextDocument& document)
{
    document.setTextWidth(cardTextWidth);
    benchmark::DoNotOptimize(document.documentLayout()->documentSize());
}

void BM_RenderAndLayout(benchmark::State& state)
{
    const QString answer = answerOfSize(state.range(0) * 1024);
    QTextDocument document;
    document.setDocumentMargin(0);
    for (auto _ : state) {
        render(answer, document);
        layOut(document);
    }
    state.SetBytesProcessed(state.iterations() * answer.toUtf8().size());
    state.counters["blocks"] = document.blockCount();
}
BENCHMARK(BM_RenderAndLayout)->Arg(20)->Arg(100)->Unit(benchmark::kMillisecond);

void BM_RenderOnly(benchmark::State& state)
{
    const QString answer = answerOfSize(state.range(0) * 1024);
    QTextDocument document;
    for (auto _ : state) {
        render(answer, document);
    }
}
BENCHMARK(BM_RenderOnly)->Arg(20)->Unit(benchmark::kMillisecond);

// A 20 KB answer arriving in 10-character pieces, one piece every `range(0)` ms: the card renders the
// whole text each time its 60 ms throttle fires, and once more at the end. One iteration is the total
// render CPU of the whole answer.
void BM_StreamedAnswer(benchmark::State& state)
{
    const QString answer = answerOfSize(20 * 1024);
    const int pieceIntervalMs = int(state.range(0));
    const int piecesPerRender = std::max(1, 60 / pieceIntervalMs);
    int renders = 0;
    QTextDocument document;
    document.setDocumentMargin(0);
    for (auto _ : state) {
        renders = 0;
        QString received;
        int pieces = 0;
        for (qsizetype at = 0; at < answer.size(); at += 10) {
            received += answer.mid(at, 10);
            if (++pieces % piecesPerRender == 0) {
                render(received, document);
                layOut(document);
                ++renders;
            }
        }
        render(received, document);
        layOut(document);
        ++renders;
    }
    state.counters["renders"] = renders;
    state.counters["characters"] = answer.size();
}
BENCHMARK(BM_StreamedAnswer)->Arg(10)->Arg(30)->Unit(benchmark::kMillisecond)->Iterations(3);

// One piece as the coordinator hands it over: appended for the next throttled render, with the status
// the stream reports. The status line is styled only when it changes, not at every piece.
void BM_CardPiece(benchmark::State& state)
{
    velnora::OverlayPanelController card;
    card.present(velnora::ProviderDefinition::definition("deepseek"), velnora::ExplanationDepth::balanced,
                 QRect(100, 100, 80, 16));
    card.beginResponse(false);
    const QString status = QStringLiteral("生成中");
    for (auto _ : state) {
        card.appendText(QStringLiteral("十个字的一段回答内容"));
        card.setStatus(status, velnora::CardStatusTone::working);
    }
}
BENCHMARK(BM_CardPiece)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
