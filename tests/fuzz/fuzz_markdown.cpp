// libFuzzer target for the Markdown renderer. Besides "no crash" it checks the two properties streaming
// relies on: the work grows linearly with the input, and every prefix of a document renders as well as the
// whole (the card renders each prefix of the answer while it arrives).
//
// Input: two bytes that pick a middle part of the document, then the document in UTF-8. The middle part is
// repeated ("pumped") so that a construct that costs quadratic time shows as a 4x cost for a doubled
// input, whatever the input's own size. Cost is the thread's CPU time, taken once; only a suspicious
// ratio is measured again, larger and as the best of several runs, before it counts as a fault.
#include "overlay/MarkdownRenderer.h"

#include <QGuiApplication>
#include <QTextDocument>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

using namespace velnora;

namespace {

const SemanticColors& colours()
{
    static const SemanticColors light = SemanticColors::from(OverlayStyle::lightPalette());
    return light;
}

[[noreturn]] void fail(const char* what, const QString& markdown)
{
    std::fprintf(stderr, "fuzz_markdown: %s (input of %lld characters)\n", what, qlonglong(markdown.size()));
    std::abort();
}

// Renders and checks what holds for every document: the output is at most a bounded multiple of the
// input (a three-character rule becomes 24 characters, the largest growth) and has no carriage return.
void renderChecked(const QString& markdown)
{
    QTextDocument document;
    MarkdownRenderer::render(markdown, document, colours());
    const QString plain = document.toPlainText();
    if (plain.size() > 8 * markdown.size() + 1) {
        fail("output out of proportion to the input", markdown);
    }
    if (plain.contains(u'\r')) {
        fail("a carriage return reached the output", markdown);
    }
}

double threadMilliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

double cost(const QString& markdown, int runs)
{
    double best = 1e300;
    for (int run = 0; run < runs; ++run) {
        const double start = threadMilliseconds();
        renderChecked(markdown);
        best = std::min(best, threadMilliseconds() - start);
    }
    return best;
}

struct Pump
{
    QString before;
    QString middle;
    QString after;

    // The document with the middle part repeated until the middle holds at least `size` characters.
    QString withMiddleOf(qsizetype size) const
    {
        const qsizetype times = std::max<qsizetype>(1, (size + middle.size() - 1) / middle.size());
        return before + middle.repeated(times) + after;
    }
};

// Prefixes at these fractions of the document; the last cuts off only the final character. A streaming
// answer is rendered at every such cut, where markup is still open.
constexpr double prefixCuts[] = {0.25, 0.5, 0.75, 0.999};

struct Costs
{
    double single = 0;
    double doubled = 0;
    double worstPrefixRatio = 0; // a prefix of the doubled document against the same prefix of the single
};

Costs measure(const Pump& pump, qsizetype size, int runs, double allowance)
{
    const QString single = pump.withMiddleOf(size);
    const QString doubled = pump.withMiddleOf(2 * size);
    Costs costs{cost(single, runs), cost(doubled, runs)};
    for (const double cut : prefixCuts) {
        const double shorter = cost(single.first(qsizetype(double(single.size()) * cut)), runs);
        const double longer = cost(doubled.first(qsizetype(double(doubled.size()) * cut)), runs);
        costs.worstPrefixRatio = std::max(costs.worstPrefixRatio, longer / (shorter + allowance));
    }
    return costs;
}

// Linear work doubles for a doubled input (4x is quadratic), for the whole and for its prefixes. At small
// sizes the linear part hides a quadratic one, so the first look uses a lower ratio. The absolute allowance
// keeps sub-millisecond timer noise from counting.
bool suspicious(const Costs& costs, double ratio, double allowance)
{
    return costs.doubled > ratio * costs.single + allowance || costs.worstPrefixRatio > ratio;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static int argc = 1;
    static char name[] = "fuzz_markdown";
    static char* argv[] = {name, nullptr};
    new QGuiApplication(argc, argv); // lives as long as the process; fonts need it
    // Fonts and formats are created on first use; that one-time cost must not be taken for a slow input.
    renderChecked(QStringLiteral("# a\n## b\n### c\n#### d\n- e\n1. f\n> g\n---\n**h** *i* ~~j~~ `k` "
                                 "[l](https://example.com)\n```m\nn\n```"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const QString markdown = QString::fromUtf8(reinterpret_cast<const char*>(data) + 2, qsizetype(size - 2));
    renderChecked(markdown);
    // Every prefix of a short document, cut at each UTF-16 unit (so also inside a surrogate pair).
    if (markdown.size() <= 64) {
        for (qsizetype length = 0; length < markdown.size(); ++length) {
            renderChecked(markdown.first(length));
        }
    }
    if (markdown.isEmpty()) {
        return 0;
    }

    // A middle of up to 64 units: a costly construct repeats a short piece.
    const qsizetype begin = data[0] % markdown.size();
    const qsizetype length = 1 + data[1] % std::min<qsizetype>(64, markdown.size() - begin);
    const Pump pump{markdown.first(begin), markdown.sliced(begin, length), markdown.sliced(begin + length)};
    if (!suspicious(measure(pump, 1000, 2, 0.2), 2.6, 0.2)) {
        return 0;
    }
    // Only what holds at two larger sizes, each the best of several runs, counts.
    Costs confirmed{};
    for (const auto& [larger, runs] : {std::pair{8000, 2}, std::pair{16000, 3}}) {
        confirmed = measure(pump, larger, runs, 1.0);
        if (!suspicious(confirmed, 3, 1.0)) {
            return 0;
        }
    }
    {
        std::fprintf(stderr, "fuzz_markdown: %.2f ms, doubled %.2f ms, worst prefix grew %.1fx\n",
                     confirmed.single, confirmed.doubled, confirmed.worstPrefixRatio);
        fail(confirmed.doubled > 3 * confirmed.single + 1.0 ? "more than linear work"
                                                            : "more than linear work on a prefix",
             markdown);
    }
    return 0;
}
